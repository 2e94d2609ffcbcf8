// The MPG description file, both layouts, applied to a small volume. The first input
// byte shapes the volume (channel count, a channel that is not signed 16-bit, a
// one-voxel axis); the rest is the file. A setting the file sets goes on to tracking
// from one seed and to the computational channels, which must refuse it through the
// data-set check or stay inside the volume.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dti/channels.h"
#include "fiber/tracking.h"
#include "fiber/trakline.h"
#include "fuzz/fuzz_support.h"
#include "io/dti_file.h"

namespace {

PcdRawVolumeData* NewVolume(uint8_t shape) {
  const int32_t channels = 7 + (shape & 7);
  const PcdIntSize4D size{3, 2, (shape & 16) != 0 ? 1 : 2, channels};
  std::vector<int32_t> types(static_cast<size_t>(channels), SINT16);
  std::vector<int32_t> formats(static_cast<size_t>(channels), PCD_MONOCHROME);
  if ((shape & 8) != 0) types[3] = UINT8;
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (volume == nullptr) return nullptr;
  for (int32_t c = 0; c < channels; ++c) {
    const int64_t voxels = PCD_GetNumberOfVoxels(volume);
    for (int64_t i = 0; i < voxels; ++i) {
      if (types[static_cast<size_t>(c)] == UINT8)
        static_cast<uint8_t*>(volume->data[c])[i] = static_cast<uint8_t>(90 + i);
      else
        static_cast<int16_t*>(volume->data[c])[i] = static_cast<int16_t>(c == 0 ? 1000 : 300 + 20 * c + i);
    }
  }
  return volume;
}

// The analyses start threads, which costs far more than reading: they run for one input
// in `every` (chosen by a hash of the whole input, so any mutation can select it).
bool Sampled(const uint8_t* data, size_t size, uint32_t every) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 16777619u;
  return h % every == 0;
}

void TrackOneSeed(const PcdDtiData* dti) {
  PcdVector3D seed{1.5f, 1.0f, 0.5f};
  PcdFibeTrakContext context;
  context.nodeLimit = 8;
  context.seedCount = 1;
  context.seedPoints = &seed;
  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(dti, &context, 1);
  if (result != nullptr) PCDdti_DeleteFibeTrakBuffer(result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  PcdRawVolumeData* volume = NewVolume(data[0]);
  if (volume == nullptr) return 0;
  // not ready until the file sets it: every analysis below runs on what the file said
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(volume, volume->matrixSize->channels);
  if (dti != nullptr) {
    const std::string path = PCDfuzz_TempFile(data + 1, size - 1, ".mpg");
    if (ReadMpgDescriptionFile(path.c_str(), dti) == 1 && Sampled(data, size, 16)) {
      TrackOneSeed(dti);
      PCDdti_AddComputationalChannels(dti, 0, 1);
    }
    std::free(dti);
  }
  PCD_DeleteRawVolumeData(volume);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  const PcdIntSize4D size{2, 2, 2, 9};
  std::vector<int32_t> types(9, SINT16), formats(9, PCD_MONOCHROME);
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (volume == nullptr) return;
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(volume, 9);
  const std::string scratch = std::string(dir) + "/scratch.mpg";
  const struct {
    const char* name;
    uint8_t shape;
    int32_t channels, so;
  } seeds[] = {{"single_so.mpg", 2, 9, 1}, {"two_so.mpg", 2, 9, 2}, {"seven.mpg", 0, 7, 1}};
  for (const auto& s : seeds) {
    PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(dti, s.channels, s.so);
    WriteMpgDescriptionFile(scratch.c_str(), dti);
    std::vector<uint8_t> bytes = PCDfuzz_ReadFile(scratch);
    bytes.insert(bytes.begin(), s.shape);
    PCDfuzz_WriteFile(dir, s.name, bytes);
  }
  std::remove(scratch.c_str());
  // the earlier layout, as older tools wrote it: n directions, one b value, n lines
  std::string earlier = "7\n1000.000000\n";
  for (int i = 0; i < 7; ++i) earlier += i % 2 ? "0.707 0.707 0.000\n" : "0.000 0.707 0.707\n";
  std::vector<uint8_t> bytes(earlier.begin(), earlier.end());
  bytes.insert(bytes.begin(), uint8_t{1});
  PCDfuzz_WriteFile(dir, "earlier.mpg", bytes);
  std::free(dti);
  PCD_DeleteRawVolumeData(volume);
}
