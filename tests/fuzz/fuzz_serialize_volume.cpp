// The serialized whole volume, as a DTI file, a session file or the viewer's data board
// hands it over.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "vol/raw_volume.h"
#include "vol/serialize.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t announced = PCD_GetAnnouncedSizeOfSerializedRawVolumeData(data, size);
  PcdRawVolumeData* v = PCD_GetRawVolumeDataFromSerializedDataChecked(data, size);
  if (v == nullptr) return 0;
  // what was read is what the header announced, and it serializes back to the same bytes
  const size_t n = PCD_GetSerializedSizeOfRawVolumeData(v);
  if (n != announced || n > size) std::abort();
  std::vector<uint8_t> again(n);
  if (PCD_SerializeRawVolumeData(v, again.data()) != 0 || std::memcmp(again.data(), data, n) != 0) std::abort();
  PCD_DeleteRawVolumeData(v);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  const PcdIntSize4D size{3, 2, 2, 3};
  const int32_t types[3] = {SINT16, FLOAT32, UINT8}, formats[3] = {0, 0, 0};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  if (v == nullptr) return;
  for (int i = 0; i < 12; ++i) {
    static_cast<int16_t*>(v->data[0])[i] = static_cast<int16_t>(100 * i - 300);
    static_cast<float*>(v->data[1])[i] = 0.5f * static_cast<float>(i);
    static_cast<uint8_t*>(v->data[2])[i] = static_cast<uint8_t>(20 * i);
  }
  std::vector<uint8_t> bytes(PCD_GetSerializedSizeOfRawVolumeData(v));
  if (PCD_SerializeRawVolumeData(v, bytes.data()) == 0) PCDfuzz_WriteFile(dir, "three_channels.bin", bytes);
  PCD_DeleteRawVolumeData(v);
}
