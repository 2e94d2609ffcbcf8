// `quorix-batch roi export` on a fuzzed ROI object file (whatever matrix size its head
// claims) and `roi import` of a fuzzed mask, each result exported again.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_batch.h"
#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/object_files.h"
#include "io/raw_volume_file.h"
#include "study/roi_object.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // a head may claim any matrix; masks of up to 4 MB are drawn and written, larger ones
  // refused by the same checks, so a run spends its time on many inputs, not a few huge ones
  static bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), setenv("QUORIX_MEMORY_LIMIT_MB", "4", 1) == 0);
  (void)quiet;
  const std::string magic(kPcdRoiFileMagic);
  const bool isRoi = size >= magic.size() && std::string(reinterpret_cast<const char*>(data), magic.size()) == magic;
  const std::string path = PCDfuzz_TempFile(data, size, isRoi ? ".roi" : ".raw");
  const std::string out = path + ".out";
  if (isRoi) {
    PCDfuzz_RunBatch("roi", {"export", path, "-o", out + ".nii.gz"});
    PCDfuzz_RunBatch("roi", {"export", path, "-o", out + ".raw"});
  } else if (PCDfuzz_RunBatch("roi", {"import", path, "-o", out + ".roi"}) == 0) {
    PCDfuzz_RunBatch("roi", {"export", out + ".roi", "-o", out + ".nii"});
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  const PcdIntSize3D size{6, 5, 4};
  PcdRoiList list;
  for (int32_t type : {PCD_ROI_SPHERICAL, PCD_ROI_FREEHAND, PCD_ROI_VOXELGROUP}) {
    PcdRoiObject* roi = PCD_NewRoiObject(&list, type, &size);
    if (type == PCD_ROI_FREEHAND) roi->shape->points = {{1, 1, 1}, {2, 1, 1}};
    if (type == PCD_ROI_VOXELGROUP) PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), 1, 1, 1, 1);
    PCD_SaveRoiObjectFile(roi, &size, (std::string(dir) + "/roi" + std::to_string(type) + ".roi").c_str());
  }
  const PcdIntSize4D maskSize{6, 5, 4, 1};
  const int32_t type = UINT8, format = PCD_MONOCHROME;
  PcdRawVolumeData* mask = PCD_NewRawVolumeData(&maskSize, &type, &format);
  static_cast<uint8_t*>(mask->data[0])[31] = 1;
  WriteRawVolumeFile(mask, (std::string(dir) + "/mask.raw").c_str());
  PCD_DeleteRawVolumeData(mask);
}
