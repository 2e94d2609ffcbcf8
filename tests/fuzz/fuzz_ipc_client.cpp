// The client side of the viewer link reading what a server wrote, as plain bytes: the
// broadcast board and the data board holding a volume go through the very parsers the
// client runs on a mapped board (fuzz_ipc_client_boards drives the real boards).
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "ipc/ipc.h"
#include "vol/serialize.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PcdIpcBroadcast record;
  if (PCDipc_ParseBroadcastBoard(data, size, &record) == 0 && record.clientId[kPcdIpcIdLength] != '\0') std::abort();
  bool empty = false;
  PcdRawVolumeData* v = PCDipc_GetVolumeFromBoardBytes(data, size, false, &empty);
  if (v != nullptr) {
    // nothing was taken from beyond the board
    if (PCD_GetSerializedSizeOfRawVolumeData(v) > size || empty) std::abort();
    PCD_DeleteRawVolumeData(v);
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  // a broadcast board as the server writes it (connected, a 2 x 2 x 2 x 2 volume)
  std::vector<uint8_t> bb(kPcdIpcBroadcastSize, 0);
  PCD_PutInt32LE(bb.data(), 1);
  for (size_t i = 0; i < sizeof kPcdIpcClientId; ++i) bb[kPcdIpcIdOffset + i] = static_cast<uint8_t>(kPcdIpcClientId[i]);
  for (size_t i = 0; i < 4; ++i) PCD_PutInt32LE(bb.data() + 40 + 4 * i, 2);
  PCD_PutFloat32LE(bb.data() + 144, 1.5f);
  PCDfuzz_WriteFile(dir, "broadcast.bin", bb);
  // a data board holding a volume
  const PcdIntSize4D size{2, 2, 2, 2};
  const int32_t types[2] = {SINT16, FLOAT32}, formats[2] = {0, 0};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  if (v == nullptr) return;
  std::vector<uint8_t> volume(PCD_GetSerializedSizeOfRawVolumeData(v));
  if (PCD_SerializeRawVolumeData(v, volume.data()) == 0) PCDfuzz_WriteFile(dir, "volume.bin", volume);
  PCD_DeleteRawVolumeData(v);
}
