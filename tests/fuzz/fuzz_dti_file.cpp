// The DTI file: a magic, then a serialized DTI record with its volume. Whatever the
// reader accepts goes on to the computational channels, which must either refuse it
// through the data-set check or compute them inside the volume.
#include <cstdlib>
#include <string>
#include <vector>

#include "dti/channels.h"
#include "fuzz/fuzz_support.h"
#include "io/dti_file.h"
#include "io/notice.h"
#include "tools/phantom/phantom.h"
#include "vol/raw_volume.h"

namespace {

// The analyses start threads, which costs far more than reading: they run for one input
// in `every` (chosen by a hash of the whole input, so any mutation can select it).
bool Sampled(const uint8_t* data, size_t size, uint32_t every) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 16777619u;
  return h % every == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string path = PCDfuzz_TempFile(data, size, ".dti");
  std::string information;
  PcdDtiData* dti = ReadDtiFile(path.c_str(), &information);
  if (dti == nullptr) return 0;
  // the volume is bounded by the file, so the maps stay small
  if (Sampled(data, size, 8)) PCDdti_AddComputationalChannels(dti, 0, 1);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdPhantomOptions options;
  options.sizeX = 3, options.sizeY = 3, options.sizeZ = 2, options.directions = 6;
  const char* names[] = {"one_so.dti", "two_so.dti"};
  for (int k = 0; k < 2; ++k) {
    options.soCount = 1 + k;
    PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
    if (dti == nullptr) continue;
    WriteDtiFile(dti, (std::string(dir) + "/" + names[k]).c_str());
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
}
