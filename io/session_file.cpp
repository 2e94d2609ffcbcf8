#include "io/session_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "io/file_util.h"
#include "study/byte_cursor.h"
#include "io/notice.h"
#include "vol/serialize.h"

const char kPcdSessionFileMagic[] = "#Quorix-II work session file (not used in earlier Quorix)";

namespace {

constexpr size_t kMagicLength = sizeof kPcdSessionFileMagic - 1;
constexpr int64_t kMaxSessionBytes = int64_t{1} << 34;

using FilePtr = std::unique_ptr<FILE, int (*)(FILE*)>;

struct Entry {
  uint16_t id;
  int32_t size;
};

bool put_int32(FILE* file, int32_t value) {
  uint8_t b[4];
  PCD_PutInt32LE(b, value);
  return std::fwrite(b, 1, 4, file) == 4;
}

bool put_bytes(FILE* file, const std::vector<uint8_t>& bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

// A buffer of size bytes, or false after "Err: failed to malloc(%d bytes)\n".
bool allocate(std::vector<uint8_t>* buffer, size_t size) {
  try {
    buffer->assign(size, 0);
    return true;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "Err: failed to malloc(%d bytes)\n", static_cast<int>(size));
    return false;
  }
}

}  // namespace

int WriteWorkSessionFile(const PcdWorkSession* session, const char* fileName) {
  const size_t dtiSize = PCDdti_GetSerializedSizeOfDiffusionTensorImageData(session->dti);
  if (session->dti == nullptr || dtiSize == 0 || dtiSize > INT32_MAX) {
    std::fputs("Err: no data set that a work session file can hold\n", stderr);
    return -1;
  }
  FilePtr file(std::fopen(fileName, "wb"), &std::fclose);
  if (!file) {
    std::fprintf(stderr, "Err: failed to fopen(%s)\n", fileName);
    return -1;
  }
  FILE* f = file.get();
  bool ok = std::fwrite(kPcdSessionFileMagic, 1, kMagicLength, f) == kMagicLength;
  ok = put_int32(f, static_cast<int32_t>(kPcdInformationBytes)) && ok;
  std::fprintf(stderr, "info_string_size: %d\n", static_cast<int>(kPcdInformationBytes));
  ok = put_int32(f, static_cast<int32_t>(dtiSize)) && ok;
  std::fprintf(stderr, "dti_serialized_size: %d\n", static_cast<int>(dtiSize));

  const PcdStudyList& studies = session->studies;
  std::vector<size_t> studySizes;
  ok = put_int32(f, static_cast<int32_t>(studies.items.size())) && ok;
  ok = put_int32(f, studies.idCounter) && ok;
  for (const auto& study : studies.items) {
    studySizes.push_back(PCD_GetSerializedSizeOfStudyObject(study.get()));
    ok = put_int32(f, study->id) && put_int32(f, static_cast<int32_t>(studySizes.back())) && ok;
  }
  const PcdRoiList& rois = session->rois;
  std::vector<size_t> roiSizes;
  ok = put_int32(f, static_cast<int32_t>(rois.items.size())) && ok;
  ok = put_int32(f, rois.idCounter) && ok;
  for (const auto& roi : rois.items) {
    roiSizes.push_back(PCD_GetSerializedSizeOfRoiObject(roi.get()));
    ok = put_int32(f, roi->id) && put_int32(f, static_cast<int32_t>(roiSizes.back())) && ok;
  }

  std::vector<uint8_t> buffer(kPcdInformationBytes, 0);
  std::memcpy(buffer.data(), session->information.data(),
              std::min(session->information.size(), kPcdInformationBytes - 1));
  ok = put_bytes(f, buffer) && ok;

  if (!allocate(&buffer, dtiSize)) return -1;
  ok = PCDdti_SerializeDiffusionTensorImageData(session->dti, buffer.data()) == 0 && ok;
  ok = put_bytes(f, buffer) && ok;
  for (size_t i = 0; i < rois.items.size(); ++i) {
    if (!allocate(&buffer, roiSizes[i])) return -1;
    PCD_SerializeRoiObject(rois.items[i].get(), buffer.data());
    ok = put_bytes(f, buffer) && ok;
  }
  for (size_t i = 0; i < studies.items.size(); ++i) {
    if (!allocate(&buffer, studySizes[i])) return -1;
    ok = PCD_SerializeStudyObject(studies.items[i].get(), buffer.data()) == 0 && ok;
    ok = put_bytes(f, buffer) && ok;
  }
  ok = std::fclose(file.release()) == 0 && ok;
  if (!ok) {
    std::fprintf(stderr, "Err: failed to write %s\n", fileName);
    return -1;
  }
  return 0;
}

namespace {

// What a session file holds, read into new records; moved into the session only when
// the whole file was read.
struct LoadedSession {
  std::string information;
  PcdDtiData* dti = nullptr;
  std::vector<Entry> studyEntries, roiEntries;
  std::vector<std::unique_ptr<PcdRoiObject>> rois;
  std::vector<std::unique_ptr<PcdStudyObject>> studies;
  ~LoadedSession() {
    if (dti != nullptr) {
      PCD_DeleteRawVolumeData(dti->volume);
      std::free(dti);
    }
  }
};

// Reads the entry list of one kind, printing "%d/%d %ld\n" per entry.
bool read_entries(PcdByteReader& r, std::vector<Entry>* entries) {
  const int32_t count = r.Int32();
  r.Int32();  // the id counter at saving time has no effect on loading
  if (!r.ok() || count < 0 || static_cast<uint64_t>(count) * 8 > r.left()) return false;
  for (int32_t i = 0; i < count; ++i) {
    const uint16_t id = static_cast<uint16_t>(r.Int32() & 0xffff);
    const int32_t size = r.Int32();
    std::fprintf(stderr, "%d/%d %ld\n", id, count, static_cast<long>(size));
    if (size < 0) return false;
    entries->push_back({id, size});
  }
  return true;
}

bool parse_session(const std::string& contents, const char* fileName, LoadedSession* out) {
  PcdByteReader r{reinterpret_cast<const uint8_t*>(contents.data()), contents.size()};
  r.Take(kMagicLength);
  const int32_t infoSize = r.Int32();
  std::fprintf(stderr, "info_string_size: %d\n", infoSize);
  const int32_t dtiSize = r.Int32();
  std::fprintf(stderr, "dti_serialized_size: %d\n", dtiSize);
  const bool entriesOk = r.ok() && read_entries(r, &out->studyEntries) &&
                         read_entries(r, &out->roiEntries);
  int64_t body = int64_t{infoSize} + dtiSize;
  for (const Entry& e : out->studyEntries) body += e.size;
  for (const Entry& e : out->roiEntries) body += e.size;
  if (!entriesOk || infoSize != static_cast<int32_t>(kPcdInformationBytes) || dtiSize <= 0 ||
      body != static_cast<int64_t>(r.left())) {
    std::fprintf(stderr,
                 "Err: %s: the sizes in its head do not add up to its %zu bytes; not loaded\n",
                 fileName, contents.size());
    return false;
  }
  const uint8_t* info = r.Take(kPcdInformationBytes);
  out->information.assign(reinterpret_cast<const char*>(info),
                          strnlen(reinterpret_cast<const char*>(info), kPcdInformationBytes));

  std::fputs("Notice: just creating DTI data with NULL volume\n", stderr);
  out->dti = PCDdti_NewDiffusionTensorImageData(nullptr, 0);
  if (out->dti == nullptr) {
    std::fputs("Err: failed to create DTI data\n", stderr);
    return false;
  }
  if (PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(out->dti, r.Take(dtiSize),
                                                                  dtiSize) != 0) {
    std::fprintf(stderr, "Err: %s: the DTI record cannot be read; not loaded\n", fileName);
    return false;
  }
  for (const Entry& e : out->roiEntries) {
    out->rois.emplace_back(PCD_NewRoiObjectFromSerializedData(r.Take(e.size), e.size));
    if (!out->rois.back()) return false;
    out->rois.back()->id = e.id;
  }
  for (const Entry& e : out->studyEntries) {
    out->studies.emplace_back(PCD_NewStudyObjectFromSerializedData(r.Take(e.size), e.size));
    if (!out->studies.back()) return false;
    out->studies.back()->id = e.id;
  }
  return r.ok() && r.left() == 0;
}

// The application's volume record keeps its identity and takes the new contents; the
// record with the old contents goes.
void install_data_set(PcdWorkSession* session, LoadedSession* loaded) {
  PcdRawVolumeData* incoming = loaded->dti->volume;
  if (session->volume != nullptr) {
    std::swap(*session->volume, *incoming);
    PCD_DeleteRawVolumeData(incoming);
    loaded->dti->volume = session->volume;
  } else {
    session->volume = incoming;
  }
  std::free(session->dti);
  session->dti = std::exchange(loaded->dti, nullptr);
  session->information = std::move(loaded->information);
}

}  // namespace

int ReadWorkSessionFile(PcdWorkSession* session, const char* fileName) {
  FilePtr probe(std::fopen(fileName, "rb"), &std::fclose);
  std::string contents;
  if (!probe || !pcd_read_whole_file(fileName, kMaxSessionBytes, &contents)) {
    std::fprintf(stderr, "Err: failed to fopen(%s)\n", fileName);
    return -1;
  }
  probe.reset();
  if (contents.size() < kMagicLength ||
      contents.compare(0, kMagicLength, kPcdSessionFileMagic) != 0) {
    PCD_Notice(PCD_NOTICE_WARNING, "Warning", "This is NOT a Quorix-II WORK file.", 240, 100);
    return -1;
  }
  LoadedSession loaded;
  if (!parse_session(contents, fileName, &loaded)) return -1;

  try {  // room for the new objects first, so that nothing below can fail half-way
    session->rois.items.reserve(session->rois.items.size() + loaded.rois.size());
    session->studies.items.reserve(session->studies.items.size() + loaded.studies.size());
  } catch (const std::bad_alloc&) {
    std::fputs("Err: PCD_NewNodeAddedToList\n", stderr);
    return -1;
  }
  install_data_set(session, &loaded);
  PCDdti_DumpMPGvectorSetting(session->dti);
  if (session->dataSetReplaced) session->dataSetReplaced(session);
  const std::string notice = pcd_format("Objects loaded: %d studies / %d ROIs.",
                                        static_cast<int>(loaded.studies.size()),
                                        static_cast<int>(loaded.rois.size()));
  PCD_Notice(PCD_NOTICE_IMPORTANT, "Notice", notice.c_str(), 240, 100);

  for (auto& roi : loaded.rois) {
    session->rois.idCounter = roi->id;
    session->rois.items.push_back(std::move(roi));
  }
  std::fprintf(stderr, "%d ROI objects\n", static_cast<int>(loaded.rois.size()));
  for (auto& study : loaded.studies) {
    if (study->analysed == 1) study->analysed = 2;  // its result stayed in the other session
    session->studies.idCounter = study->id;
    session->studies.items.push_back(std::move(study));
  }
  std::fprintf(stderr, "%d study objects\n", static_cast<int>(loaded.studies.size()));
  return 0;
}
