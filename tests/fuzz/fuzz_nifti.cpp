// A NIfTI-1 DWI image with its .bval and .bvec files. The input is the three files
// joined by the separator "#QX#": image, b values, directions. An image starting with
// the gzip magic is read as .nii.gz. What the reader accepts goes on to the
// computational channels, which must refuse it through the data-set check or compute
// them inside the volume.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "dti/channels.h"
#include "fuzz/fuzz_support.h"
#include "io/nifti_file.h"
#include "tools/phantom/phantom.h"

namespace {

constexpr std::string_view kSeparator = "#QX#";
constexpr int64_t kMaxVoxelsForMaps = 4096;

// The analyses start threads, which costs far more than reading: they run for one input
// in `every` (chosen by a hash of the whole input, so any mutation can select it).
bool Sampled(const uint8_t* data, size_t size, uint32_t every) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 16777619u;
  return h % every == 0;
}

std::vector<std::string_view> Split(std::string_view input) {
  std::vector<std::string_view> parts;
  for (int k = 0; k < 2; ++k) {
    const size_t at = input.find(kSeparator);
    if (at == std::string_view::npos) break;
    parts.push_back(input.substr(0, at));
    input.remove_prefix(at + kSeparator.size());
  }
  parts.push_back(input);
  while (parts.size() < 3) parts.emplace_back();
  return parts;
}

std::string Temp(std::string_view part, const char* suffix) {
  return PCDfuzz_TempFile(reinterpret_cast<const uint8_t*>(part.data()), part.size(), suffix);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string_view> parts =
      Split(std::string_view(reinterpret_cast<const char*>(data), size));
  const bool gz = parts[0].size() >= 2 && static_cast<uint8_t>(parts[0][0]) == 0x1f &&
                  static_cast<uint8_t>(parts[0][1]) == 0x8b;
  const std::string image = Temp(parts[0], gz ? ".nii.gz" : ".nii");
  const std::string bval = Temp(parts[1], ".bval");
  const std::string bvec = Temp(parts[2], ".bvec");
  PcdWorldGeometry geometry{};
  std::string information;
  if (PcdRawVolumeData* volume = ReadNiftiVolumeFile(image.c_str(), &geometry, &information))
    PCD_DeleteRawVolumeData(volume);
  PcdDtiData* dti = ReadNiftiDwiFile(image.c_str(), bval.c_str(), bvec.c_str(), &geometry, &information);
  if (dti == nullptr) return 0;
  if (PCD_GetNumberOfVoxels(dti->volume) <= kMaxVoxelsForMaps && Sampled(data, size, 8))
    PCDdti_AddComputationalChannels(dti, 0, 1);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdPhantomOptions options;
  options.sizeX = 3, options.sizeY = 3, options.sizeZ = 2, options.directions = 6;
  const char* tails[] = {".nii", ".nii.gz"};
  for (int k = 0; k < 2; ++k) {
    options.soCount = 1 + k;
    PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
    if (dti == nullptr) continue;
    const std::string stem = std::string(dir) + "/scratch";
    const std::string name = stem + tails[k];
    PcdWorldGeometry geometry{};
    PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
    if (WriteNiftiDwiFile(dti, &geometry, name.c_str()) == 0) {
      std::vector<uint8_t> bytes = PCDfuzz_ReadFile(name);
      for (const char* part : {".bval", ".bvec"}) {
        bytes.insert(bytes.end(), kSeparator.begin(), kSeparator.end());
        const std::vector<uint8_t> text = PCDfuzz_ReadFile(stem + part);
        bytes.insert(bytes.end(), text.begin(), text.end());
        std::remove((stem + part).c_str());
      }
      PCDfuzz_WriteFile(dir, k == 0 ? "one_so_nii" : "two_so_nii_gz", bytes);
      std::remove(name.c_str());
    }
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
}
