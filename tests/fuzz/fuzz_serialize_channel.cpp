// The serialized single channel, as the viewer link's data board carries it.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "vol/raw_volume.h"
#include "vol/serialize.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t announced = PCD_GetAnnouncedSizeOfSerializedSingleChannel(data, size);
  PcdRawVolumeData* v = PCD_GetSingleChannelFromSerializedDataChecked(data, size);
  if (v == nullptr) return 0;
  const size_t n = PCD_GetSerializedSizeOfSingleChannel(v, 0);
  if (n != announced || n > size) std::abort();
  std::vector<uint8_t> again(n);
  if (PCD_SerializeSingleChannel(v, 0, again.data()) != 0 || std::memcmp(again.data(), data, n) != 0) std::abort();
  PCD_DeleteRawVolumeData(v);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  const PcdIntSize4D size{4, 3, 2, 2};
  const int32_t types[2] = {SINT16, UINT32}, formats[2] = {0, 2};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  if (v == nullptr) return;
  for (int i = 0; i < 24; ++i) {
    static_cast<int16_t*>(v->data[0])[i] = static_cast<int16_t>(7 * i - 50);
    static_cast<uint32_t*>(v->data[1])[i] = 0xFF0000FFu + static_cast<uint32_t>(i);
  }
  const char* names[2] = {"sint16.bin", "rgba.bin"};
  for (int32_t c = 0; c < 2; ++c) {
    std::vector<uint8_t> bytes(PCD_GetSerializedSizeOfSingleChannel(v, c));
    if (PCD_SerializeSingleChannel(v, c, bytes.data()) == 0) PCDfuzz_WriteFile(dir, names[c], bytes);
  }
  PCD_DeleteRawVolumeData(v);
}
