// The serialized ROI object, as ROI object files and work session files carry it.
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "study/roi_object.h"

namespace {

std::vector<uint8_t> serialize(const PcdRoiObject* roi) {
  std::vector<uint8_t> bytes(pcd_roi_serialized_size(roi));
  PCD_SerializeRoiObject(roi, bytes.data());
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PcdRoiObject* roi = PCD_NewRoiObjectFromSerializedData(data, size);
  if (roi == nullptr) return 0;
  // what was read fills the input exactly and reads back into the same bytes
  const std::vector<uint8_t> once = serialize(roi);
  if (once.size() != size) std::abort();
  PcdRoiObject* again = PCD_NewRoiObjectFromSerializedData(once.data(), once.size());
  if (again == nullptr || serialize(again) != once) std::abort();
  const PcdIntSize3D small{8, 8, 8};
  (void)PCD_RasterizeRoiObject(roi, &small);
  delete_roi_object(again);
  delete_roi_object(roi);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdRoiList list;
  const PcdIntSize3D volume{6, 5, 4};
  PCD_NewRoiObject(&list, PCD_ROI_SPHERICAL, &volume);
  PCD_NewRoiObject(&list, PCD_ROI_FREEHAND, &volume)->shape->points = {{1, 2, 3}, {4, 4, 1}};
  PcdRoiObject* group = PCD_NewRoiObject(&list, PCD_ROI_VOXELGROUP, &volume);
  const PcdIntVector3D origin{1, 1, 1};
  const PcdIntSize3D size{3, 2, 2};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupBitPacked);
  PCD_SetVoxelOfVoxelGroup(group->voxelGroup.get(), 1, 1, 1, 1);
  const char* names[] = {"sphere.bin", "freehand.bin", "group.bin"};
  for (size_t i = 0; i < 3; ++i) PCDfuzz_WriteFile(dir, names[i], serialize(list.items[i].get()));
}
