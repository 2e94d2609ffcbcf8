#include "io/object_files.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "io/file_util.h"
#include "io/notice.h"
#include "vol/serialize.h"

const char kPcdRoiFileMagic[] = "#This is a ROI object file of Quorix-II";
const char kPcdStudyFileMagic[] = "#This is a study object file of Quorix-II";

namespace {

constexpr int64_t kMaxObjectFileBytes = int64_t{1} << 30;
constexpr char kRefusal[] = "This is NOT a Quorix-II ROI file.";  // the study reader's too
constexpr char kListedIdsWarning[] =
    "Listed ROI IDs can NOT be saved\nin study object file. Restore them\nmanually after "
    "loading the files of\nthe study and the ROIs refered.";

using FilePtr = std::unique_ptr<FILE, int (*)(FILE*)>;

int write_object_file(const char* magic, const PcdIntSize3D* size,
                      const std::vector<uint8_t>& object, const char* fileName) {
  FilePtr file(std::fopen(fileName, "wb"), &std::fclose);
  if (!file) return -1;
  uint8_t head[12];
  PCD_PutInt32LE(head, size->x);
  PCD_PutInt32LE(head + 4, size->y);
  PCD_PutInt32LE(head + 8, size->z);
  const size_t magicLength = std::strlen(magic);
  bool ok = std::fwrite(magic, 1, magicLength, file.get()) == magicLength &&
            std::fwrite(head, 1, 12, file.get()) == 12 &&
            std::fwrite(object.data(), 1, object.size(), file.get()) == object.size();
  ok = std::fclose(file.release()) == 0 && ok;
  return ok ? 0 : -1;
}

// Reads the file, checks the magic and the head, prints the mismatch line when the
// matrix size differs from *current (when given) and returns the object's bytes.
bool read_object_file(const char* fileName, const char* magic, const PcdIntSize3D* current,
                      PcdIntSize3D* saved, std::string* object) {
  std::string contents;
  if (!pcd_read_whole_file(fileName, kMaxObjectFileBytes, &contents)) return false;
  const size_t magicLength = std::strlen(magic);
  if (contents.size() < magicLength || contents.compare(0, magicLength, magic) != 0) {
    PCD_Notice(PCD_NOTICE_WARNING, "Warning", kRefusal, 240, 100);
    return false;
  }
  if (contents.size() < magicLength + 12) {
    std::fprintf(stderr, "Err: %s: the file ends inside its head\n", fileName);
    return false;
  }
  const auto* head = reinterpret_cast<const uint8_t*>(contents.data()) + magicLength;
  const PcdIntSize3D size{PCD_GetInt32LE(head), PCD_GetInt32LE(head + 4),
                          PCD_GetInt32LE(head + 8)};
  if (saved != nullptr) *saved = size;
  if (current != nullptr &&
      (size.x != current->x || size.y != current->y || size.z != current->z))
    std::fputs("Volume data matrix size mismatch. Open anyway.\n", stderr);
  object->assign(contents, magicLength + 12, std::string::npos);
  return true;
}

const uint8_t* bytes_of(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

PcdRoiObject* load_roi(const char* fileName, const PcdIntSize3D* current, PcdIntSize3D* saved) {
  std::string object;
  if (!read_object_file(fileName, kPcdRoiFileMagic, current, saved, &object)) return nullptr;
  return PCD_NewRoiObjectFromSerializedData(bytes_of(object), object.size());
}

PcdStudyObject* load_study(const char* fileName, const PcdIntSize3D* current,
                           PcdIntSize3D* saved) {
  std::string object;
  if (!read_object_file(fileName, kPcdStudyFileMagic, current, saved, &object)) return nullptr;
  return PCD_NewStudyObjectFromSerializedData(bytes_of(object), object.size());
}

}  // namespace

int PCD_SaveRoiObjectFile(const PcdRoiObject* roi, const PcdIntSize3D* matrixSize,
                          const char* fileName) {
  if (roi == nullptr) return -1;
  std::vector<uint8_t> bytes;
  try {
    bytes.resize(PCD_GetSerializedSizeOfRoiObject(roi));
  } catch (const std::bad_alloc&) {
    return -1;
  }
  PCD_SerializeRoiObject(roi, bytes.data());
  return write_object_file(kPcdRoiFileMagic, matrixSize, bytes, fileName);
}

int PCD_SaveStudyObjectFile(const PcdStudyObject* study, const PcdIntSize3D* matrixSize,
                            const char* fileName) {
  if (study == nullptr || study->type < 0 || study->type > 3) return -1;
  if (PCD_StudyListsRoiIds(study))
    PCD_Notice(PCD_NOTICE_WARNING, "Warning", kListedIdsWarning, 240, 160);
  std::vector<uint8_t> bytes;
  try {
    const size_t size = PCD_GetSerializedSizeOfStudyObject(study);
    if (size == 0) return -1;
    bytes.resize(size);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  if (PCD_SerializeStudyObject(study, bytes.data()) != 0) return -1;
  return write_object_file(kPcdStudyFileMagic, matrixSize, bytes, fileName);
}

int WriteRoiObjectFile(const PcdWorkSession* session, const char* fileName) {
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  return PCD_SaveRoiObjectFile(PCD_GetSelectedRoiObject(&session->rois), &size, fileName);
}

int WriteStudyObjectFile(const PcdWorkSession* session, const char* fileName) {
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  return PCD_SaveStudyObjectFile(PCD_GetSelectedStudyObject(&session->studies), &size,
                                 fileName);
}

PcdRoiObject* PCD_LoadRoiObjectFile(const char* fileName, PcdIntSize3D* matrixSize) {
  return load_roi(fileName, nullptr, matrixSize);
}

PcdStudyObject* PCD_LoadStudyObjectFile(const char* fileName, PcdIntSize3D* matrixSize) {
  return load_study(fileName, nullptr, matrixSize);
}

int ReadRoiObjectFile(PcdWorkSession* session, const char* fileName) {
  const PcdIntSize3D current = PCD_GetSessionMatrixSize(session);
  PcdRoiObject* roi = load_roi(fileName, &current, nullptr);
  if (roi == nullptr) return -1;
  roi->id = PCD_TakeFreeRoiId(&session->rois);
  if (PCD_AppendRoiObject(&session->rois, roi) != 0) return -1;
  ++session->rois.idCounter;
  return 0;
}

int ReadStudyObjectFile(PcdWorkSession* session, const char* fileName) {
  const PcdIntSize3D current = PCD_GetSessionMatrixSize(session);
  PcdStudyObject* study = load_study(fileName, &current, nullptr);
  if (study == nullptr) return -1;
  if (study->analysed == 1) study->analysed = 2;  // its result stayed in the other session
  study->id = PCD_TakeFreeStudyId(&session->studies);
  if (PCD_AppendStudyObject(&session->studies, study) != 0) return -1;
  ++session->studies.idCounter;
  return 0;
}
