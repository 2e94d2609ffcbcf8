// The client side of the viewer link against a server's boards of a size and content the
// input decides: the broadcast board, the message board (the acceptance, a message and its
// parameter block) and the data board, read through real shared memory by the protocol
// calls. Slow (every board access costs system calls); fuzz_ipc_client runs the same
// parsers on plain bytes at full speed.
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

// Input: 4 control bytes, 224 bytes of BB, 512 of MB (both zero-padded when the input is
// shorter), the rest is the data board.
constexpr size_t kControl = 4;

void PutBoard(const std::string& name, const uint8_t* bytes, size_t size, size_t boardSize) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
  if (fd < 0) return;
  if (ftruncate(fd, 0) == 0 && ftruncate(fd, static_cast<off_t>(boardSize)) == 0 && size > 0)
    (void)!pwrite(fd, bytes, std::min(size, boardSize), 0);
  close(fd);
}

int Number() { return getpid() * 8 + 4; }  // a number of this process alone

struct Boards {
  Boards() {
    const uint8_t zero[kPcdIpcBoardSize] = {};
    for (const char* base : {"PCD_IPC_BB", "PCD_IPC_MB", "PCD_IPC_RB"})
      PutBoard(PCDipc_BoardName(base, Number()), zero, sizeof zero, kPcdIpcBoardSize);
    if (PCDipc_InitializeClient(kPcdIpcClientId, Number()) != 0) std::abort();
    std::atexit([] {
      PCDipc_FinalizeClient();
      for (const char* base : {"PCD_IPC_BB", "PCD_IPC_MB", "PCD_IPC_RB", "PCD_IPC_DB"})
        shm_unlink(PCDipc_BoardName(base, Number()).c_str());
    });
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kControl) return 0;
  static Boards boards;
  std::vector<uint8_t> bb(kPcdIpcBroadcastSize, 0), mb(kPcdIpcBoardSize, 0);
  size_t at = kControl;
  const size_t nb = std::min(bb.size(), size - at);
  std::memcpy(bb.data(), data + at, nb);
  at += nb;
  const size_t nm = std::min(mb.size(), size - at);
  std::memcpy(mb.data(), data + at, nm);
  at += nm;
  // boards cut short as the control bytes say
  const size_t bbSize = data[0] & 1 ? data[1] % kPcdIpcBroadcastSize : kPcdIpcBroadcastSize;
  const size_t mbSize = data[0] & 2 ? 2 * static_cast<size_t>(data[2]) : kPcdIpcBoardSize;
  PutBoard(PCDipc_BoardName("PCD_IPC_BB", Number()), bb.data(), bb.size(), bbSize);
  PutBoard(PCDipc_BoardName("PCD_IPC_MB", Number()), mb.data(), mb.size(), mbSize);
  if (data[0] & 4) PutBoard(PCDipc_BoardName("PCD_IPC_DB", Number()), data + at, size - at, size - at);
  else shm_unlink(PCDipc_BoardName("PCD_IPC_DB", Number()).c_str());

  PCDipc_SetRetryLimit(2);
  PcdIpcBroadcast record;
  if (PCDipc_GetBroadcastedInfo(&record) == 0 && (record.clientId[kPcdIpcIdLength] != '\0')) std::abort();
  const int32_t type = PCD_GetInt32LE(data) >> 8;
  PCDipc_WaitForMessage(data[3] & 1 ? PCD_GetInt32LE(mb.data()) : type);
  PCDipc_SendRequest(type, (data[3] & 2) != 0);
  PCDipc_SendConnectionRequest();
  PCDipc_SendDisconnectionRequest();
  PcdRawVolumeData* v = PCDipc_DownloadRawVolumeData();
  if (v != nullptr) {
    const size_t n = PCD_GetSerializedSizeOfRawVolumeData(v);
    if (n > size - at) std::abort();  // nothing comes from beyond the board
    PCD_DeleteRawVolumeData(v);
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  // a server connected to us, an acceptance of request 464 on MB, and a volume on DB
  std::vector<uint8_t> seed(kControl + kPcdIpcBroadcastSize + kPcdIpcBoardSize, 0);
  PCD_PutInt32LE(seed.data(), (464 << 8) | 4);
  uint8_t* bb = seed.data() + kControl;  // bb and mb are used before the seed grows
  PCD_PutInt32LE(bb, 1);
  std::memcpy(bb + 8, kPcdIpcClientId, sizeof kPcdIpcClientId);
  for (int i = 0; i < 4; ++i) PCD_PutInt32LE(bb + 40 + 4 * i, 2);
  uint8_t* mb = bb + kPcdIpcBroadcastSize;
  PCD_PutInt32LE(mb, PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED);
  PCD_PutInt32LE(mb + 40, 464);
  PCD_PutInt32LE(mb + 48, 7);
  const PcdIntSize4D size{2, 2, 2, 2};
  const int32_t types[2] = {SINT16, SINT16}, formats[2] = {0, 0};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  if (v == nullptr) return;
  std::vector<uint8_t> volume(PCD_GetSerializedSizeOfRawVolumeData(v));
  PCD_SerializeRawVolumeData(v, volume.data());
  PCD_DeleteRawVolumeData(v);
  std::vector<uint8_t> free = seed;
  seed.insert(seed.end(), volume.begin(), volume.end());
  PCDfuzz_WriteFile(dir, "connected_accepted_volume.bin", seed);
  // a free server, message 55 on MB
  free[kControl] = 0;
  PCD_PutInt32LE(free.data() + kControl + kPcdIpcBroadcastSize, PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED);
  free[3] = 1;
  free.insert(free.end(), volume.begin(), volume.end());
  PCDfuzz_WriteFile(dir, "free_upload_completed.bin", free);
}
