// Work session files read into a session that already holds a data set and objects.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/session_file.h"
#include "tools/phantom/phantom.h"

namespace {

void give_data_set(PcdWorkSession* session, int32_t x) {
  PcdPhantomOptions options;
  options.sizeX = x, options.sizeY = 3, options.sizeZ = 2, options.directions = 6;
  session->dti = PCD_MakeDwiPhantom(options, nullptr);
  if (session->dti == nullptr) std::abort();
  session->volume = session->dti->volume;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string path = PCDfuzz_TempFile(data, size, ".qws");
  PcdWorkSession session;
  give_data_set(&session, 2);
  PCD_NewRoiObject(&session.rois, PCD_ROI_SPHERICAL, nullptr);
  PcdRawVolumeData* const volume = session.volume;
  PcdDtiData* const dti = session.dti;
  if (ReadWorkSessionFile(&session, path.c_str()) == 0) {
    if (session.volume != volume || session.dti->volume != volume) std::abort();
    const std::string again = path + ".again";
    if (WriteWorkSessionFile(&session, again.c_str()) != 0) std::abort();
    PcdWorkSession other;
    if (ReadWorkSessionFile(&other, again.c_str()) != 0) std::abort();
  } else if (session.dti != dti || session.rois.items.size() != 1) {
    std::abort();
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdWorkSession session;
  give_data_set(&session, 2);
  WriteWorkSessionFile(&session, (std::string(dir) + "/empty.qws").c_str());
  PCD_NewRoiObject(&session.rois, PCD_ROI_FREEHAND, nullptr)->shape->points = {{1, 1, 1}};
  PCD_NewStudyObject(&session.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  PCD_NewStudyObject(&session.studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  WriteWorkSessionFile(&session, (std::string(dir) + "/objects.qws").c_str());
}
