// The serialized DTI record (a volume followed by its MPG setting), as a work session
// file or another process hands it over.
#include <cstdlib>
#include <vector>

#include "dti/dti_data.h"
#include "fuzz/fuzz_support.h"
#include "tools/phantom/phantom.h"
#include "vol/raw_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(nullptr, 0);
  if (dti == nullptr) return 0;
  if (PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(dti, data, size) == 0) {
    // what was read must serialize again into exactly the bytes it came from
    const size_t n = PCDdti_GetSerializedSizeOfDiffusionTensorImageData(dti);
    if (n == 0 || n > size) std::abort();
    std::vector<uint8_t> again(n);
    if (PCDdti_SerializeDiffusionTensorImageData(dti, again.data()) != 0) std::abort();
    PCD_DeleteRawVolumeData(dti->volume);
  }
  std::free(dti);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdPhantomOptions options;
  options.sizeX = 4, options.sizeY = 3, options.sizeZ = 2, options.directions = 6;
  const char* names[] = {"ready.bin", "two_so.bin"};
  for (int k = 0; k < 2; ++k) {
    options.soCount = 1 + k;
    PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
    if (dti == nullptr) continue;
    std::vector<uint8_t> bytes(PCDdti_GetSerializedSizeOfDiffusionTensorImageData(dti));
    if (PCDdti_SerializeDiffusionTensorImageData(dti, bytes.data()) == 0)
      PCDfuzz_WriteFile(dir, names[k], bytes);
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
}
