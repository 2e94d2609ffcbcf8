// The raw volume file read both ways: copied into memory and mapped from the file. For any
// bytes both readers must agree: both refuse, or both give the same volume, sample for
// sample, and every block can be read to its end.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "io/raw_volume_file.h"
#include "vol/raw_volume.h"

namespace {

bool SameVolume(const PcdRawVolumeData* a, const PcdRawVolumeData* b) {
  const PcdIntSize4D& s = *a->matrixSize;
  if (std::memcmp(&s, b->matrixSize, sizeof s) != 0) return false;
  const auto voxels = static_cast<size_t>(PCD_GetNumberOfVoxels(a));
  for (int32_t c = 0; c < s.channels; ++c) {
    if (a->dataType[c] != b->dataType[c] || a->colorFormat[c] != b->colorFormat[c]) return false;
    const size_t bytes = voxels * static_cast<size_t>(PCD_SizeOfDataType(a->dataType[c]));
    if (std::memcmp(a->data[c], b->data[c], bytes) != 0) return false;
    // the handle reaches the last sample of the block
    const auto* last = static_cast<const uint8_t*>(a->array3D[c][s.z - 1][s.y - 1]);
    if (last + static_cast<size_t>(s.x) * static_cast<size_t>(PCD_SizeOfDataType(a->dataType[c])) !=
        static_cast<const uint8_t*>(a->data[c]) + bytes)
      return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = PCDfuzz_TempFile(data, size, ".raw");
  std::string copiedInfo, mappedInfo;
  PcdRawVolumeData* copied = ReadRawVolumeFile(path.c_str(), &copiedInfo);
  PcdRawVolumeData* mapped = ReadRawVolumeFileMapped(path.c_str(), &mappedInfo);
  if ((copied == nullptr) != (mapped == nullptr) || copiedInfo != mappedInfo) std::abort();
  if (copied != nullptr && (!SameVolume(copied, mapped) || !SameVolume(mapped, copied))) std::abort();
  PCD_DeleteRawVolumeData(copied);
  PCD_DeleteRawVolumeData(mapped);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  // two SINT16 channels (the DTI case), and mixed types of every element size
  const PcdIntSize4D sizes[2] = {{4, 3, 2, 2}, {3, 2, 2, 4}};
  const int32_t types[2][4] = {{SINT16, SINT16, 0, 0}, {UINT8, FLOAT64, SINT16, UINT32}};
  const int32_t formats[4] = {PCD_MONOCHROME, PCD_MONOCHROME, PCD_MONOCHROME, PCD_RGBA_PACKED};
  for (int k = 0; k < 2; ++k) {
    PcdRawVolumeData* v = PCD_NewRawVolumeData(&sizes[k], types[k], formats);
    if (v == nullptr) continue;
    for (int32_t c = 0; c < sizes[k].channels; ++c) {
      auto* bytes = static_cast<uint8_t*>(v->data[c]);
      const size_t n = static_cast<size_t>(PCD_GetNumberOfVoxels(v)) * static_cast<size_t>(PCD_SizeOfDataType(types[k][c]));
      for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 31 + static_cast<size_t>(c));
    }
    const std::string file = std::string(dir) + "/seed" + std::to_string(k) + ".raw";
    if (WriteRawVolumeFile(v, file.c_str()) == 0) {
      std::vector<uint8_t> bytes = PCDfuzz_ReadFile(file);
      // the same with one pad byte before the body: the other parity of the body's start
      std::vector<uint8_t> padded = bytes;
      size_t lines = 0, at = 0;
      while (lines < 5 && at < padded.size()) lines += padded[at++] == '\n';
      padded.insert(padded.begin() + static_cast<long>(at), '#');
      PCDfuzz_WriteFile(dir, ("padded" + std::to_string(k) + ".raw").c_str(), padded);
    }
    PCD_DeleteRawVolumeData(v);
  }
}
