// The raw volume file with header, as the viewer or another tool wrote it (or not).
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/raw_volume_file.h"
#include "vol/raw_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string path = PCDfuzz_TempFile(data, size, ".raw");
  std::string information;
  PcdRawVolumeData* volume = ReadRawVolumeFile(path.c_str(), &information);
  if (volume != nullptr) {
    // every block that was read lies inside the file
    if (PCD_GetRawVolumeBodySize(volume) > static_cast<int64_t>(size)) __builtin_trap();
    PCD_DeleteRawVolumeData(volume);
  }
  return 0;
}

namespace {

void WriteSeed(const char* dir, const char* name, const PcdIntSize4D& size,
               const std::vector<int32_t>& types, const std::vector<int32_t>& formats) {
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (volume == nullptr) return;
  for (int32_t c = 0; c < size.channels; ++c) {
    auto* bytes = static_cast<uint8_t*>(volume->data[c]);
    const int64_t n = PCD_GetNumberOfVoxels(volume) * PCD_SizeOfDataType(types[c]);
    for (int64_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(7 * i + c);
  }
  const std::string path = std::string(dir) + "/" + name;
  WriteRawVolumeFile(volume, path.c_str());
  PCD_DeleteRawVolumeData(volume);
}

}  // namespace

void PCDfuzz_WriteSeeds(const char* dir) {
  WriteSeed(dir, "sint16_2x2x1.raw", PcdIntSize4D{2, 2, 1, 1}, {SINT16}, {PCD_MONOCHROME});
  WriteSeed(dir, "mixed_3x2x2.raw", PcdIntSize4D{3, 2, 2, 4}, {UINT8, FLOAT32, UINT32, FLOAT64},
            {PCD_MONOCHROME, PCD_MONOCHROME, PCD_RGBA_PACKED, PCD_MONOCHROME});
  WriteSeed(dir, "dwi_2x2x2.raw", PcdIntSize4D{2, 2, 2, 7}, std::vector<int32_t>(7, SINT16),
            std::vector<int32_t>(7, PCD_MONOCHROME));
}
