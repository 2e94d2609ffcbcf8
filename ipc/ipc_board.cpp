// Reading what the other side of the link wrote: the data board and the request board.
// Nothing here trusts a size it has not compared with the board it came on.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ipc/ipc.h"

namespace {

// A board opened and mapped read-only as a whole for one access; unmapped and closed
// when it goes out of scope. A board of size 0 is open but has no view.
struct BoardView {
  int fd = -1;
  const uint8_t* bytes = nullptr;
  size_t size = 0;

  explicit BoardView(const char* name) {
    fd = shm_open(name, O_RDONLY, 0);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size <= 0) return;
    void* v = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
    if (v == MAP_FAILED) return;
    bytes = static_cast<const uint8_t*>(v);
    size = static_cast<size_t>(st.st_size);
  }
  ~BoardView() {
    if (bytes != nullptr) munmap(const_cast<uint8_t*>(bytes), size);
    if (fd >= 0) close(fd);
  }
  BoardView(const BoardView&) = delete;
  BoardView& operator=(const BoardView&) = delete;
  bool open() const { return fd >= 0; }
};

// The announced record must lie on the board and fit in memory; one "Err: " line if not.
bool RecordFits(size_t announced, size_t boardSize, const char* what) {
  if (announced == 0) {
    std::fprintf(stderr, "Err: the data board does not hold a valid %s\n", what);
    return false;
  }
  if (announced > boardSize) {
    std::fprintf(stderr, "Err: the data board announces a %s of %zu bytes but holds %zu\n", what, announced,
                 boardSize);
    return false;
  }
  if (announced > PCDipc_MaxRecordBytes()) {
    std::fprintf(stderr, "Err: the data board announces a %s of %zu bytes, more than this machine can take\n",
                 what, announced);
    return false;
  }
  return true;
}

}  // namespace

size_t PCDipc_MaxRecordBytes() { return PCD_MaxAllocationBytes(); }

PcdRawVolumeData* PCDipc_GetVolumeFromBoardBytes(const uint8_t* bytes, size_t size, bool singleChannel,
                                                bool* empty) {
  if (empty != nullptr) *empty = size == 0;
  if (size == 0) return nullptr;  // the serialized form of no volume
  if (singleChannel) {
    const size_t announced = PCD_GetAnnouncedSizeOfSerializedSingleChannel(bytes, size);
    if (!RecordFits(announced, size, "channel")) return nullptr;
    return PCD_GetSingleChannelFromSerializedDataChecked(bytes, announced);
  }
  const size_t announced = PCD_GetAnnouncedSizeOfSerializedRawVolumeData(bytes, size);
  if (!RecordFits(announced, size, "volume")) return nullptr;
  return PCD_GetRawVolumeDataFromSerializedDataChecked(bytes, announced);
}

PcdRawVolumeData* PCDipc_ReadVolumeFromBoard(const char* name, bool singleChannel, bool* empty) {
  if (empty != nullptr) *empty = false;
  const BoardView board(name);
  if (!board.open()) return nullptr;
  return PCDipc_GetVolumeFromBoardBytes(board.bytes, board.size, singleChannel, empty);
}

bool PCDipc_GetObjectGroupFromBoardBytes(const uint8_t* board, size_t size, std::vector<uint8_t>* bytes) {
  bytes->clear();
  if (size < 4) {
    std::fputs("Err: the data board does not hold an object group\n", stderr);
    return false;
  }
  // the board is sized to the group: its objects' headers must be on it
  const int32_t m = PCD_GetInt32LE(board);
  if (m < 0 || static_cast<size_t>(m) > (size - 4) / 24) {
    std::fprintf(stderr, "Err: the data board announces %d objects on %zu bytes\n", m, size);
    return false;
  }
  if (!RecordFits(size, size, "object group")) return false;
  bytes->assign(board, board + size);
  return true;
}

bool PCDipc_ReadObjectGroupFromBoard(const char* name, std::vector<uint8_t>* bytes) {
  const BoardView board(name);
  return PCDipc_GetObjectGroupFromBoardBytes(board.bytes, board.size, bytes);
}

int PCDipc_ParseBroadcastBoard(const uint8_t* b, size_t size, PcdIpcBroadcast* r) {
  if (b == nullptr || r == nullptr || size < kPcdIpcBroadcastSize) return -1;
  auto word = [&](size_t offset) { return PCD_GetInt32LE(b + offset); };
  r->state = word(0);
  std::memcpy(r->clientId, b + kPcdIpcIdOffset, kPcdIpcIdLength);
  r->clientId[kPcdIpcIdLength] = '\0';
  r->matrixSize = {word(40), word(44), word(48), word(52)};
  r->position = {word(72), word(76), word(80)};
  r->regionOrigin = {word(96), word(100), word(104)};
  r->regionSize = {word(108), word(112), word(116)};
  r->pair = {PCD_GetFloat32LE(b + 144), PCD_GetFloat32LE(b + 148)};
  r->word160 = word(160);
  for (size_t t = 0; t < 4; ++t)
    for (size_t k = 0; k < 3; ++k) r->triples[t][k] = word(168 + 12 * t + 4 * k);
  r->word216 = word(216);
  r->word220 = word(220);
  return 0;
}

bool PCDipc_ParseRequestBoard(const uint8_t* board, PcdIpcRequest* request) {
  request->type = PCD_GetInt32LE(board + kPcdIpcTypeOffset);
  request->processId = PCD_GetInt32LE(board + kPcdIpcPidOffset);
  for (size_t i = 0; i < kPcdIpcParameterWords; ++i)
    request->parameters[i] = PCD_GetInt32LE(board + kPcdIpcParameterOffset + 4 * i);
  // the ID ends within its 33 bytes (a 32-character ID's terminator is at offset 40)
  const void* end = std::memchr(board + kPcdIpcIdOffset, '\0', kPcdIpcIdLength + 1);
  std::memset(request->clientId, 0, sizeof request->clientId);
  if (end == nullptr) return false;
  std::memcpy(request->clientId, board + kPcdIpcIdOffset,
              static_cast<size_t>(static_cast<const uint8_t*>(end) - (board + kPcdIpcIdOffset)));
  return true;
}
