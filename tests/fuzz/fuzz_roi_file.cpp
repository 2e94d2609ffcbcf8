// ROI object files read into a session.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/object_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string path = PCDfuzz_TempFile(data, size, ".roi");
  PcdWorkSession session;
  if (ReadRoiObjectFile(&session, path.c_str()) == 0) {
    if (session.rois.items.size() != 1) std::abort();
    // what was read saves into a file that reads again
    session.rois.selectedId = session.rois.items[0]->id;
    const std::string again = path + ".again";
    if (WriteRoiObjectFile(&session, again.c_str()) != 0) std::abort();
    if (ReadRoiObjectFile(&session, again.c_str()) != 0) std::abort();
  } else if (!session.rois.items.empty()) {
    std::abort();
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdWorkSession session;
  const PcdIntSize3D volume{6, 5, 4};
  PCD_NewRoiObject(&session.rois, PCD_ROI_FREEHAND, &volume)->shape->points = {{1, 2, 3}};
  const std::string path = std::string(dir) + "/freehand.roi";
  WriteRoiObjectFile(&session, path.c_str());
  PcdRoiObject* group = PCD_NewRoiObject(&session.rois, PCD_ROI_VOXELGROUP, &volume);
  const PcdIntVector3D origin{0, 0, 0};
  const PcdIntSize3D size{2, 2, 2};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupOneByte);
  WriteRoiObjectFile(&session, (std::string(dir) + "/group.roi").c_str());
}
