// The server side of the viewer link reading what a client wrote: the request board and
// the data board holding a volume, a single channel or an object group. The parsers run
// on the input's bytes; one input in 16 goes through a real shared memory board.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "ipc/ipc.h"
#include "vol/serialize.h"

namespace {

std::string DataBoard() { return PCDipc_BoardName("PCD_IPC_DB", getpid() * 8 + 3); }

void PutDataBoard(const uint8_t* bytes, size_t size) {
  shm_unlink(DataBoard().c_str());
  const int fd = shm_open(DataBoard().c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0) return;
  if (ftruncate(fd, static_cast<off_t>(size)) == 0 && size > 0) (void)!pwrite(fd, bytes, size, 0);
  close(fd);
}

}  // namespace

// Input: one selector byte, then the request board (its first 512 bytes, zero-padded) and
// the data board (all of the rest).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool cleanUp = std::atexit([] { shm_unlink(DataBoard().c_str()); }) == 0;
  (void)cleanUp;
  if (size < 1) return 0;
  uint8_t board[kPcdIpcBoardSize] = {};
  std::memcpy(board, data + 1, std::min(size - 1, sizeof board));
  PcdIpcRequest request;
  if (PCDipc_ParseRequestBoard(board, &request) && std::strlen(request.clientId) > kPcdIpcIdLength) std::abort();

  const uint8_t* db = data + 1;
  const size_t dbSize = size - 1;
  const bool throughBoard = (data[0] & 0xF0) == 0x50;
  if (throughBoard) PutDataBoard(db, dbSize);
  switch (data[0] % 3) {
    case 0:
    case 1: {
      const bool channel = data[0] % 3 == 1;
      bool empty = false;
      PcdRawVolumeData* v = throughBoard ? PCDipc_ReadVolumeFromBoard(DataBoard().c_str(), channel, &empty)
                                         : PCDipc_GetVolumeFromBoardBytes(db, dbSize, channel, &empty);
      if (v != nullptr) {
        const size_t n = channel ? PCD_GetSerializedSizeOfSingleChannel(v, 0) : PCD_GetSerializedSizeOfRawVolumeData(v);
        if (n > dbSize || empty) std::abort();
        PCD_DeleteRawVolumeData(v);
      }
      if (empty != (dbSize == 0)) std::abort();
      break;
    }
    default: {
      std::vector<uint8_t> group;
      const bool read = throughBoard ? PCDipc_ReadObjectGroupFromBoard(DataBoard().c_str(), &group)
                                     : PCDipc_GetObjectGroupFromBoardBytes(db, dbSize, &group);
      if (read && (group.size() != dbSize || std::memcmp(group.data(), db, dbSize) != 0)) std::abort();
    }
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  // a voxel size request as the client writes it; a channel; a volume; an object group
  std::vector<uint8_t> rb(1 + kPcdIpcBoardSize, 0);
  PCD_PutInt32LE(rb.data() + 1, PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE);
  std::memcpy(rb.data() + 1 + kPcdIpcIdOffset, kPcdIpcClientId, sizeof kPcdIpcClientId);
  PCD_PutInt32LE(rb.data() + 1 + kPcdIpcPidOffset, 4242);
  PCD_PutFloat32LE(rb.data() + 1 + kPcdIpcParameterOffset, 1.5f);
  PCDfuzz_WriteFile(dir, "voxel_size_request.bin", rb);

  const PcdIntSize4D size{3, 2, 1, 2};
  const int32_t types[2] = {SINT16, FLOAT32}, formats[2] = {0, 0};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  if (v == nullptr) return;
  std::vector<uint8_t> bytes(1 + PCD_GetSerializedSizeOfRawVolumeData(v), 0);
  PCD_SerializeRawVolumeData(v, bytes.data() + 1);
  PCDfuzz_WriteFile(dir, "volume.bin", bytes);
  bytes.assign(1 + PCD_GetSerializedSizeOfSingleChannel(v, 1), 1);
  PCD_SerializeSingleChannel(v, 1, bytes.data() + 1);
  PCDfuzz_WriteFile(dir, "channel.bin", bytes);
  PCD_DeleteRawVolumeData(v);

  PcdObjectGroup g;
  PcdDisplayObject o;
  o.type = 21;
  o.k = 2;
  o.payload.assign(PCD_GetPayloadSizeOfObject(o), 1);
  g.objects.push_back(std::move(o));
  bytes.assign(1 + PCD_GetSerializedSizeOfObjectGroup(&g), 2);
  PCD_SerializeObjectGroup(&g, bytes.data() + 1);
  PCDfuzz_WriteFile(dir, "group.bin", bytes);
}
