// `quorix-batch convert` of a fuzzed raw volume file to every output format: sizes of
// extreme shape are written correctly or refused, never overrun.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_batch.h"
#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/raw_volume_file.h"
#include "tools/phantom/phantom.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string path = PCDfuzz_TempFile(data, size, ".raw");
  for (const char* ending : {".dti", ".raw", ".mpg", ".nii"})
    PCDfuzz_RunBatch("convert", {path, "-o", path + ".out" + ending});
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdPhantomOptions options;
  options.sizeX = 4, options.sizeY = 3, options.sizeZ = 2, options.directions = 6;
  PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
  WriteRawVolumeFile(dti->volume, (std::string(dir) + "/phantom.raw").c_str());
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  // one channel of 1 x 1 x 40000 voxels: taller than a NIfTI-1 axis holds
  const PcdIntSize4D tall{1, 1, 40000, 1};
  const int32_t type = SINT16, format = PCD_MONOCHROME;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&tall, &type, &format);
  WriteRawVolumeFile(v, (std::string(dir) + "/tall.raw").c_str());
  PCD_DeleteRawVolumeData(v);
}
