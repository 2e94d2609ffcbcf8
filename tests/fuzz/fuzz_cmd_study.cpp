// `quorix-batch study run` on a fuzzed study object file or work session file: whatever
// settings the file holds, every study is checked before it runs and none may crash.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_batch.h"
#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/object_files.h"
#include "io/raw_volume_file.h"
#include "io/session_file.h"
#include "study/study_object.h"
#include "tools/phantom/phantom.h"

namespace {

PcdDtiData* small_phantom() {
  PcdPhantomOptions options;
  options.sizeX = 12, options.sizeY = 10, options.sizeZ = 4, options.directions = 6;
  PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
  if (dti == nullptr) std::abort();
  return dti;
}

// The data set a study object file is run on: a small phantom, written once.
const std::string& data_file() {
  static const std::string path = [] {
    const std::string p = PCDfuzz_TempFile(nullptr, 0, ".data.raw");
    PcdDtiData* dti = small_phantom();
    if (WriteRawVolumeFile(dti->volume, p.c_str()) != 0) std::abort();
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
    return p;
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string& dataSet = data_file();
  const std::string path = PCDfuzz_TempFile(data, size, ".study");
  const std::string session(kPcdSessionFileMagic);
  const bool isSession = size >= session.size() && std::string(reinterpret_cast<const char*>(data), session.size()) == session;
  if (isSession) PCDfuzz_RunBatch("study", {"run", path, "--all"});
  else PCDfuzz_RunBatch("study", {"run", path, "--data", dataSet, "--all"});
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  const PcdIntSize3D size{12, 10, 4};
  for (int32_t type : {PCD_STUDY_FIBER_TRACKING, PCD_STUDY_VOXEL_STATISTICS, PCD_STUDY_DIFFUSION_PROFILE}) {
    PcdStudyList list;
    PcdStudyObject* study = PCD_NewStudyObject(&list, type, nullptr);
    const std::string name = std::string(dir) + "/study" + std::to_string(type) + ".qst";
    PCD_SaveStudyObjectFile(study, &size, name.c_str());
  }
  PcdWorkSession s;
  s.dti = small_phantom();
  s.volume = s.dti->volume;
  PCD_NewRoiObject(&s.rois, PCD_ROI_SPHERICAL, nullptr);
  PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  PCD_NewStudyObject(&s.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  WriteWorkSessionFile(&s, (std::string(dir) + "/session.qws").c_str());
}
