#include "ipc/ipc.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace {

// One open board: its name and descriptor. Every access maps the whole board, copies and
// unmaps it again; no view stays open between accesses.
struct Board {
  std::string name;
  int fd = -1;
};

struct Client {
  int serverNumber = 0;
  char id[kPcdIpcIdLength + 1] = {};
  Board bb, mb, rb, db;
  int32_t parameters[kPcdIpcParameterWords] = {};
  std::unique_ptr<PcdIpcBroadcast> broadcast;
  bool dbCreatedHere = false;
  // a request written without waiting for its acceptance, not yet seen taken
  int32_t pending = 0;
};

Client g_client;
int64_t g_retryLimit = 1310700;

bool OpenBoard(Board* board) {
  board->fd = shm_open(board->name.c_str(), O_RDWR, 0);
  return board->fd >= 0;
}

void CloseBoard(Board* board) {
  if (board->fd >= 0) close(board->fd);
  board->fd = -1;
}

// Copies len bytes at offset out of (write: into) the board; false when the board is
// missing, too small, or cannot be mapped.
bool AccessBoard(const Board& board, size_t offset, void* bytes, size_t len, bool write) {
  if (board.fd < 0) return false;
  struct stat st {};
  if (fstat(board.fd, &st) != 0 || st.st_size < 0 || static_cast<size_t>(st.st_size) < offset + len)
    return false;
  const auto size = static_cast<size_t>(st.st_size);
  void* view = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, board.fd, 0);
  if (view == MAP_FAILED) return false;
  auto* at = static_cast<uint8_t*>(view) + offset;
  if (write) std::memcpy(at, bytes, len);
  else std::memcpy(bytes, at, len);
  munmap(view, size);
  return true;
}

int32_t ReadWord(const Board& board, size_t offset) {
  uint8_t b[4];
  return AccessBoard(board, offset, b, 4, false) ? PCD_GetInt32LE(b) : kPcdIpcCleared;
}

bool WriteWord(const Board& board, size_t offset, int32_t value) {
  uint8_t b[4];
  PCD_PutInt32LE(b, value);
  return AccessBoard(board, offset, b, 4, true);
}

bool ReadText(const Board& board, size_t offset, char* text) {
  char raw[kPcdIpcIdLength + 1] = {};
  if (!AccessBoard(board, offset, raw, kPcdIpcIdLength, false)) return false;
  std::memcpy(text, raw, kPcdIpcIdLength);
  text[kPcdIpcIdLength] = '\0';
  return true;
}

bool WriteText(const Board& board, size_t offset, const char* text, size_t room) {
  std::vector<char> raw(room, '\0');
  std::memcpy(raw.data(), text, std::min(std::strlen(text), room - 1));
  return AccessBoard(board, offset, raw.data(), room, true);
}

bool ServerFree() { return ReadWord(g_client.bb, 0) == 0; }

bool ConnectedToUs() {
  if (ReadWord(g_client.bb, 0) != 1) return false;
  char id[kPcdIpcIdLength + 1];
  return ReadText(g_client.bb, kPcdIpcIdOffset, id) && std::strcmp(id, g_client.id) == 0;
}

// The message a server posts when it has done what a request sent without waiting asked
// for; 0 for requests that only get an acceptance.
int32_t ReplyTo(int32_t type) {
  switch (type) {
    case PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA: return PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED;
    case PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP: return PCDipc_MESSAGE_TYPE_DATA_OBJECT_GROUP_CREATED;
    case PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP:
    case PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA:
    case PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA: return PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED;
    default: return 0;
  }
}

// Whether the server has taken the pending request. The protocol gives two signs on MB:
// its acceptance of that type, or the message the request leads to (the client cleared
// both before writing it, so neither is left over from an earlier request). A server that
// clears the type word on RB when it takes a request gives a third.
bool PendingTaken() {
  if (ReadWord(g_client.rb, kPcdIpcTypeOffset) != g_client.pending) return true;
  const int32_t message = ReadWord(g_client.mb, kPcdIpcTypeOffset);
  if (message == PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED)
    return ReadWord(g_client.mb, kPcdIpcAcceptedOffset) == g_client.pending;
  return message != kPcdIpcCleared && message == ReplyTo(g_client.pending);
}

// A request written without waiting stays on RB until the server takes it. Writing the
// next request over it would lose it, so the next write first waits, up to the retry
// limit, for a sign that it was taken.
void WaitUntilPendingRequestTaken() {
  if (g_client.pending == 0) return;
  for (int64_t i = 0; i < g_retryLimit && !PendingTaken(); ++i) {
  }
  g_client.pending = 0;
}

// Our process id beside the ID: lets the server free the link when this process dies
// while connected.
bool WriteProcessId() { return WriteWord(g_client.rb, kPcdIpcPidOffset, static_cast<int32_t>(getpid())); }

// No request, then our ID and the parameter block, then the type: the server acts when it
// sees a type, so everything the request carries must be on the board before it, and a
// server that leaves the last type on the board must not see it beside the new parameters.
// The ID's terminator of a 32-character ID falls on offset 40, which the request board does
// not otherwise use.
// A rewrite of the same request (while waiting for its acceptance) changes nothing on the
// board and leaves the type in place.
bool WriteRequest(int32_t type, bool rewrite = false) {
  uint8_t block[4 * kPcdIpcParameterWords];
  for (size_t i = 0; i < kPcdIpcParameterWords; ++i) PCD_PutInt32LE(block + 4 * i, g_client.parameters[i]);
  return (rewrite || WriteWord(g_client.rb, kPcdIpcTypeOffset, 0)) &&
         WriteText(g_client.rb, kPcdIpcIdOffset, g_client.id, kPcdIpcIdLength + 1) && WriteProcessId() &&
         AccessBoard(g_client.rb, kPcdIpcParameterOffset, block, sizeof block, true) &&
         WriteWord(g_client.rb, kPcdIpcTypeOffset, type);
}

// A connection or disconnection request: no request, the ID, then the type.
bool WriteBareRequest(int32_t type) {
  WaitUntilPendingRequestTaken();
  return WriteWord(g_client.rb, kPcdIpcTypeOffset, 0) &&
         WriteText(g_client.rb, kPcdIpcIdOffset, g_client.id, kPcdIpcIdLength + 1) && WriteProcessId() &&
         WriteWord(g_client.rb, kPcdIpcTypeOffset, type);
}

bool ReadMessageBlock() {
  uint8_t block[4 * kPcdIpcParameterWords];
  if (!AccessBoard(g_client.mb, kPcdIpcParameterOffset, block, sizeof block, false)) return false;
  for (size_t i = 0; i < kPcdIpcParameterWords; ++i) g_client.parameters[i] = PCD_GetInt32LE(block + 4 * i);
  return true;
}

// Creates the data board at the exact size of the bytes and fills it; the descriptor
// stays open so that the board lives on until the client closes it.
bool CreateDataBoard(const std::vector<uint8_t>& bytes) {
  Board stale{g_client.db.name, -1};
  if (OpenBoard(&stale)) CloseBoard(&stale);
  CloseBoard(&g_client.db);
  shm_unlink(g_client.db.name.c_str());  // a board of the old size would not fit
  g_client.db.fd = shm_open(g_client.db.name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (g_client.db.fd < 0) return false;
  g_client.dbCreatedHere = true;
  if (ftruncate(g_client.db.fd, static_cast<off_t>(bytes.size())) != 0) return false;
  return AccessBoard(g_client.db, 0, const_cast<uint8_t*>(bytes.data()), bytes.size(), true);
}

}  // namespace

std::string PCDipc_BoardName(const char* base, int serverNumber) {
  char name[64];
  std::snprintf(name, sizeof name, "/%s(%04d)", base, serverNumber);
  return name;
}

int PCDipc_InitializeClient(const char* clientId, int serverNumber) {
  g_client.broadcast = std::make_unique<PcdIpcBroadcast>();
  if (!g_client.broadcast) {
    std::fputs("broadcaster NULL\n", stderr);
    return -1;
  }
  if (clientId == nullptr || std::strlen(clientId) > kPcdIpcIdLength) {
    std::fputs("too long client ID\n", stderr);
    g_client.broadcast.reset();
    return -1;
  }
  std::memset(g_client.id, 0, sizeof g_client.id);
  std::memcpy(g_client.id, clientId, std::strlen(clientId));
  g_client.serverNumber = serverNumber;
  g_client.pending = 0;
  g_client.bb.name = PCDipc_BoardName("PCD_IPC_BB", serverNumber);
  g_client.mb.name = PCDipc_BoardName("PCD_IPC_MB", serverNumber);
  g_client.rb.name = PCDipc_BoardName("PCD_IPC_RB", serverNumber);
  g_client.db.name = PCDipc_BoardName("PCD_IPC_DB", serverNumber);
  if (!OpenBoard(&g_client.bb) || !OpenBoard(&g_client.mb) || !OpenBoard(&g_client.rb)) {
    CloseBoard(&g_client.bb);
    CloseBoard(&g_client.mb);
    CloseBoard(&g_client.rb);
    g_client.broadcast.reset();
    return -1;
  }
  return 0;
}

void PCDipc_FinalizeClient() {
  PCDipc_CloseDataBoard();
  CloseBoard(&g_client.bb);
  CloseBoard(&g_client.mb);
  CloseBoard(&g_client.rb);
  g_client.broadcast.reset();
}

void PCDipc_SetRetryLimit(int64_t count) { g_retryLimit = count; }
int64_t PCDipc_GetRetryLimit() { return g_retryLimit; }

void PCDipc_SetParameterWord(int index, int32_t value) {
  if (index >= 0 && index < static_cast<int>(kPcdIpcParameterWords)) g_client.parameters[index] = value;
}

void PCDipc_SetParameterFloat(int index, float value) {
  int32_t bits;
  std::memcpy(&bits, &value, 4);
  PCDipc_SetParameterWord(index, bits);
}

int32_t PCDipc_GetParameterWord(int index) {
  return index >= 0 && index < static_cast<int>(kPcdIpcParameterWords) ? g_client.parameters[index] : 0;
}

int PCDipc_SendConnectionRequest() {
  if (!ServerFree()) return -1;
  if (!WriteBareRequest(PCDipc_REQUEST_TYPE_CONNECTION)) return -1;
  for (int64_t i = 0; i < g_retryLimit; ++i)
    if (ConnectedToUs()) return 0;
  PCDipc_SendRequest(PCDipc_REQUEST_TYPE_DISCONNECTION, true);
  return -1;
}

int PCDipc_SendDisconnectionRequest() {
  if (ServerFree()) return 0;
  if (!WriteBareRequest(PCDipc_REQUEST_TYPE_DISCONNECTION)) return -1;
  for (int64_t i = 0; i < g_retryLimit; ++i)
    if (ServerFree()) return 0;
  return -1;
}

int PCDipc_SendRequest(int32_t type, bool wait) {
  if (!ServerFree() && !ConnectedToUs()) return -1;
  WaitUntilPendingRequestTaken();
  // a fresh message board, so that only the server's answer to this request counts
  WriteWord(g_client.mb, kPcdIpcTypeOffset, kPcdIpcCleared);
  WriteWord(g_client.mb, kPcdIpcAcceptedOffset, kPcdIpcCleared);
  if (!WriteRequest(type)) return -1;
  if (!wait) {
    g_client.pending = type;
    return 0;
  }
  for (int64_t i = 0; i < g_retryLimit; ++i) {
    WriteRequest(type, true);
    if (ReadWord(g_client.mb, kPcdIpcAcceptedOffset) != type) continue;
    // the acceptance, or the message that a server which did the work at once has
    // already written over it
    const int32_t message = ReadWord(g_client.mb, kPcdIpcTypeOffset);
    if (message == PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED || (message != 0 && message == ReplyTo(type))) return 0;
  }
  return -1;
}

int PCDipc_WaitForMessage(int32_t type) {
  for (int64_t i = 0; i < g_retryLimit; ++i) {
    const int32_t word = ReadWord(g_client.mb, kPcdIpcTypeOffset);
    if (!ReadMessageBlock())
      for (int32_t& p : g_client.parameters) p = kPcdIpcCleared;
    if (word != type) continue;
    g_client.pending = 0;  // the server answered: whatever was sent before was taken
    for (int k = 0; k < 50; ++k) ReadWord(g_client.mb, kPcdIpcTypeOffset);  // settling pause
    return 0;
  }
  return -1;
}

int PCDipc_ClearMessageBoard() {
  const bool ok = WriteWord(g_client.mb, kPcdIpcTypeOffset, kPcdIpcCleared) &&
                  WriteText(g_client.mb, kPcdIpcIdOffset, "   ", kPcdIpcIdLength) &&
                  WriteWord(g_client.mb, kPcdIpcAcceptedOffset, kPcdIpcCleared);
  return ok ? 0 : -1;
}

int PCDipc_UploadRawVolumeData(const PcdRawVolumeData* volume) {
  const size_t size = PCD_GetSerializedSizeOfRawVolumeData(volume);
  if (size == 0) return -1;
  std::vector<uint8_t> bytes(size);
  if (PCD_SerializeRawVolumeData(volume, bytes.data()) != 0) return -1;
  return CreateDataBoard(bytes) ? 0 : -1;
}

int PCDipc_UploadSingleChannelOfRawVolumeData(const PcdRawVolumeData* volume, int32_t channel) {
  const size_t size = PCD_GetSerializedSizeOfSingleChannel(volume, channel);
  if (size == 0) return -1;
  std::vector<uint8_t> bytes(size);
  if (PCD_SerializeSingleChannel(volume, channel, bytes.data()) != 0) return -1;
  return CreateDataBoard(bytes) ? 0 : -1;
}

PcdRawVolumeData* PCDipc_DownloadRawVolumeData() {
  return PCDipc_ReadVolumeFromBoard(g_client.db.name.c_str(), false, nullptr);
}

int PCDipc_CloseDataBoard() {
  if (g_client.db.fd < 0) return g_client.dbCreatedHere ? -1 : 0;
  CloseBoard(&g_client.db);
  // the last handle of a named mapping takes the board with it
  if (g_client.dbCreatedHere) shm_unlink(g_client.db.name.c_str());
  g_client.dbCreatedHere = false;
  return 0;
}

int PCDipc_GetBroadcastedInfo(PcdIpcBroadcast* r) {
  uint8_t b[kPcdIpcBroadcastSize];
  if (r == nullptr || !AccessBoard(g_client.bb, 0, b, sizeof b, false)) return -1;
  return PCDipc_ParseBroadcastBoard(b, sizeof b, r);
}

int PCDipc_SendObjectGroupTo(const PcdObjectGroup* group, int32_t groupId) {
  PCDipc_ClearMessageBoard();
  const size_t size = PCD_GetSerializedSizeOfObjectGroup(group);
  std::vector<uint8_t> bytes(size);
  if (size == 0 || PCD_SerializeObjectGroup(group, bytes.data()) != 0 || !CreateDataBoard(bytes)) return -1;
  PCDipc_SetParameterWord(0, groupId);
  PCDipc_SendRequest(PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP, false);
  if (PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED) != 0) {
    std::fputs("Missed <PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED>\n", stderr);
    PCDipc_CloseDataBoard();
    return -1;
  }
  PCDipc_CloseDataBoard();
  PCDipc_SendRequest(PCDipc_REQUEST_TYPE_TRANSFER_END, true);
  return 0;
}

int PCDipc_TransferObjectGroup(const PcdObjectGroup* group, int32_t* id) {
  PCDipc_SendRequest(PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP, false);
  if (PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_OBJECT_GROUP_CREATED) != 0) {
    std::fputs("Missed <PCDipc_MESSAGE_TYPE_DATA_OBJECT_GROUP_CREATED>\n", stderr);
    return -1;
  }
  const int32_t groupId = PCDipc_GetParameterWord(0);
  if (PCDipc_SendObjectGroupTo(group, groupId) != 0) return -1;
  if (id != nullptr) *id = groupId;
  return 0;
}

// ---- what the application does with it ---------------------------------------------------

PcdRawVolumeData* PCDipc_ReceiveVolumeFromViewer(bool* empty) {
  PCDipc_SetRetryLimit(6553500);
  bool nothing = false;
  if (empty != nullptr) *empty = false;
  auto fail = [](const char* message) -> PcdRawVolumeData* {
    PCDipc_SendDisconnectionRequest();
    std::fputs(message, stderr);
    return nullptr;
  };
  if (PCDipc_SendConnectionRequest() != 0) return fail("Failed <PCDipc_SendConnectionRequest>. Exit now.\n");
  if (PCDipc_SendRequest(PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA, true) != 0)
    return fail("Failed <PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA>. Exit now.\n");
  PCDipc_SendRequest(PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA, false);
  while (PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED) != 0)
    std::fputs("<Warning> Server busy. To trying to send upload message\n", stderr);
  PcdRawVolumeData* volume = PCDipc_ReadVolumeFromBoard(g_client.db.name.c_str(), false, &nothing);
  if (volume == nullptr && !nothing) return fail("Failed <PCDipc_DownloadRawVolumeData>. Exit now.\n");
  while (PCDipc_SendRequest(PCDipc_REQUEST_TYPE_CLOSE_DATABOARD, true) != 0)
    std::fputs("<Warning> Server busy. To trying to close data board\n", stderr);
  if (PCDipc_SendRequest(PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA, true) != 0) {
    PCD_DeleteRawVolumeData(volume);
    return fail("Missed <PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA>. Exit now.\n");
  }
  if (PCDipc_SendDisconnectionRequest() != 0) {
    PCD_DeleteRawVolumeData(volume);
    return fail("Failed <PCDipc_SendDisconnectionRequest>. Exit now.\n");
  }
  if (empty != nullptr) *empty = nothing;
  return volume;
}

int PCDipc_SendChannelToViewer(const PcdRawVolumeData* volume, int32_t channel) {
  if (PCDipc_SendConnectionRequest() != 0) {
    std::fputs("PCDipc_SendConnectionRequest: Error\n", stderr);
    return -1;
  }
  auto fail = [](const char* message) {
    std::fputs(message, stderr);
    PCDipc_CloseDataBoard();
    PCDipc_SendDisconnectionRequest();
    return -1;
  };
  if (PCDipc_SendRequest(PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA, true) != 0)
    return fail("PCDipc_SendRequest(PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA): Error\n");
  if (PCDipc_UploadSingleChannelOfRawVolumeData(volume, channel) != 0)
    return fail("PCDipc_UploadSingleChannelOfRawVolumeData: Error\n");
  const int sent = PCDipc_SendRequest(PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA, true);
  PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED);
  if (sent != 0) return fail("PCDipc_SendRequest(PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA): Error\n");
  if (PCDipc_CloseDataBoard() != 0) return fail("PCDipc_CloseDataBoard: Error\n");
  if (PCDipc_SendRequest(PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA, true) != 0) {
    std::fputs("PCDipc_SendRequest(PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA): Error\n", stderr);
    PCDipc_SendDisconnectionRequest();
    return 0;
  }
  if (PCDipc_SendDisconnectionRequest() != 0) {
    std::fputs("PCDipc_SendDisconnectionRequest: Error\n", stderr);
    return -1;
  }
  return 0;
}

int PCDipc_SendVolumeToViewer(const PcdRawVolumeData* volume) {
  PcdRawVolumeData* copy = PCD_CopyChannelOfRawVolumeData(volume, 0);
  if (copy == nullptr) return -1;
  std::fputs("Transfering to PELLUCID... ", stderr);
  int result = -1;
  if (PCDipc_UploadRawVolumeData(copy) == 0 &&
      PCDipc_SendRequest(PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA, true) == 0) {
    PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED);
    if (PCDipc_CloseDataBoard() == 0 && PCDipc_SendDisconnectionRequest() == 0) {
      std::fputs("done\n", stderr);
      result = 0;
    }
  }
  if (result != 0) PCDipc_CloseDataBoard();
  PCD_DeleteRawVolumeData(copy);
  return result;
}

int PCDipc_RemoveObject(int32_t objectId) {
  PCDipc_SetParameterWord(0, objectId);
  const int sent = PCDipc_SendRequest(PCDipc_REQUEST_TYPE_REMOVE_OBJECT, true);
  PCDipc_ClearMessageBoard();
  return sent;
}

int PCDipc_SendVoxelSize(float voxelSize) {
  PCDipc_SetParameterFloat(0, voxelSize);
  if (PCDipc_SendRequest(PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE, false) != 0) {
    std::fputs("Missed <PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED>\n", stderr);
    return -1;
  }
  return 0;
}

int PCDipc_SendPosition(const PcdIntVector3D* p) {
  PCDipc_SetParameterWord(0, p->x);
  PCDipc_SetParameterWord(1, p->y);
  PCDipc_SetParameterWord(2, p->z);
  return PCDipc_SendRequest(PCDipc_REQUEST_TYPE_SET_POSITION, true);
}

int PCDipc_SendRegion(const PcdVector3D* origin, const PcdVector3D* size) {
  const float values[6] = {origin->x, origin->y, origin->z, size->x, size->y, size->z};
  for (int i = 0; i < 6; ++i) PCDipc_SetParameterWord(i, static_cast<int32_t>(values[i]));
  return PCDipc_SendRequest(PCDipc_REQUEST_TYPE_SET_REGION, true);
}
