// The link to the volume viewer (the PELLUCID server) over named shared memory boards:
// a broadcast board (BB) the server writes, a request board (RB) the client writes, a
// message board (MB) the server writes and the client clears, and one data board (DB)
// holding a serialized volume, channel or object group. Both sides poll; nothing sleeps
// on the client side. One link per process, used from one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vol/raw_volume.h"
#include "vol/serialize.h"

// ---- codes -----------------------------------------------------------------------------
enum PcdIpcRequestType : int32_t {
  PCDipc_REQUEST_TYPE_CONNECTION = 211,
  PCDipc_REQUEST_TYPE_DISCONNECTION = 212,
  PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA = 221,
  PCDipc_REQUEST_TYPE_LOAD_VOLUMEDATA = 222,
  PCDipc_REQUEST_TYPE_CLOSE_DATABOARD = 233,
  PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA = 234,
  PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA = 235,
  PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA = 236,
  PCDipc_REQUEST_TYPE_TRANSFER_END = 251,
  PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE = 322,
  PCDipc_REQUEST_TYPE_SET_POSITION = 464,
  PCDipc_REQUEST_TYPE_SET_REGION = 465,
  PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP = 511,
  PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP = 512,
  PCDipc_REQUEST_TYPE_REMOVE_OBJECT = 514,
};

enum PcdIpcMessageType : int32_t {
  PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED = 22,
  PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED = 55,
  PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED = 66,
  PCDipc_MESSAGE_TYPE_DATA_OBJECT_GROUP_CREATED = 77,
};

// ---- board layout ----------------------------------------------------------------------
constexpr size_t kPcdIpcBroadcastSize = 224;  // what the client reads of BB
constexpr size_t kPcdIpcBoardSize = 512;      // MB and RB: 48 bytes of header, 464 of block
constexpr size_t kPcdIpcTypeOffset = 0;
constexpr size_t kPcdIpcIdOffset = 8;
constexpr size_t kPcdIpcIdLength = 32;
constexpr size_t kPcdIpcAcceptedOffset = 40;  // MB: the accepted request's type
constexpr size_t kPcdIpcPidOffset = 44;       // RB: the requesting client's process id
constexpr size_t kPcdIpcParameterOffset = 48;
constexpr size_t kPcdIpcParameterWords = 116;
constexpr int32_t kPcdIpcCleared = -123;      // a cleared word, and what a failed read gives
constexpr char kPcdIpcClientId[] = "Quorix:v2.0";

// The broadcast record: BB copied field by field.
struct PcdIpcBroadcast {
  int32_t state = kPcdIpcCleared;  // 0 free, 1 connected
  char clientId[kPcdIpcIdLength + 1] = {};
  PcdIntSize4D matrixSize{0, 0, 0, 0};
  PcdIntVector3D position{0, 0, 0};
  PcdIntVector3D regionOrigin{0, 0, 0};
  PcdIntVector3D regionSize{1, 1, 1};
  PcdVector2D pair{0, 0};         // offset 144; the project's server keeps the voxel size in x
  int32_t word160 = 0;
  int32_t triples[4][3] = {};
  int32_t word216 = 0;
  int32_t word220 = 0;
};

// A request as the server reads it off RB.
struct PcdIpcRequest {
  int32_t type = 0;
  char clientId[kPcdIpcIdLength + 1] = {};
  int32_t processId = 0;  // 0 from a client that does not give it
  int32_t parameters[kPcdIpcParameterWords] = {};
};

// "/PCD_IPC_BB(0007)": the shared memory name of a board for a server number.
std::string PCDipc_BoardName(const char* base, int serverNumber);

// ---- the protocol ----------------------------------------------------------------------
int PCDipc_InitializeClient(const char* clientId, int serverNumber);
void PCDipc_FinalizeClient();
void PCDipc_SetRetryLimit(int64_t count);
int64_t PCDipc_GetRetryLimit();
int PCDipc_SendConnectionRequest();
int PCDipc_SendDisconnectionRequest();
int PCDipc_SendRequest(int32_t type, bool wait);
int PCDipc_WaitForMessage(int32_t type);
int PCDipc_ClearMessageBoard();
int PCDipc_UploadRawVolumeData(const PcdRawVolumeData* volume);
int PCDipc_UploadSingleChannelOfRawVolumeData(const PcdRawVolumeData* volume, int32_t channel);
PcdRawVolumeData* PCDipc_DownloadRawVolumeData();
int PCDipc_CloseDataBoard();
int PCDipc_GetBroadcastedInfo(PcdIpcBroadcast* record);
int PCDipc_TransferObjectGroup(const PcdObjectGroup* group, int32_t* id);
// The parameter block sent with the next request (word i, 0 .. 115), and the one the last
// awaited message carried.
void PCDipc_SetParameterWord(int index, int32_t value);
void PCDipc_SetParameterFloat(int index, float value);
int32_t PCDipc_GetParameterWord(int index);

// ---- reading the other side's boards ----------------------------------------------------
// The largest record either side takes off a data board: half the machine's memory. A
// board is only address space until it is touched, so a peer can announce far more.
size_t PCDipc_MaxRecordBytes();
// The serialized volume (or single channel) on the data board of that name, rebuilt
// without copying the board: the size its header announces is checked against the board
// and against PCDipc_MaxRecordBytes() before anything is allocated, and nothing beyond it
// is read. Null with an "Err: " line for a bad board; null with *empty set (when given)
// for a board of size 0, the serialized form of no volume; null for a missing board.
PcdRawVolumeData* PCDipc_ReadVolumeFromBoard(const char* name, bool singleChannel, bool* empty);
// The same from the bytes of a board already mapped (size: the board's size).
PcdRawVolumeData* PCDipc_GetVolumeFromBoardBytes(const uint8_t* bytes, size_t size, bool singleChannel,
                                                bool* empty);
// The bytes of the object group on the data board of that name (the board is sized to
// the group); false with an "Err: " line when its object count does not fit the board or
// the board is larger than PCDipc_MaxRecordBytes().
bool PCDipc_ReadObjectGroupFromBoard(const char* name, std::vector<uint8_t>* bytes);
bool PCDipc_GetObjectGroupFromBoardBytes(const uint8_t* board, size_t size, std::vector<uint8_t>* bytes);
// The broadcast record from the first 224 bytes of BB; -1 when size is less than that.
int PCDipc_ParseBroadcastBoard(const uint8_t* bytes, size_t size, PcdIpcBroadcast* record);
// Parses the 512 bytes of a request board; false when the client ID has no terminator
// within its 33 bytes (the rest is filled in all the same).
bool PCDipc_ParseRequestBoard(const uint8_t* board, PcdIpcRequest* request);

// ---- what the application does with it ---------------------------------------------------
// The viewer's current volume ("IPC with PELLUCID"), or null with the messages on stderr.
// A viewer that holds no volume answers with an empty data board: then the exchange ends
// normally, null is returned and *empty (when given) is set.
PcdRawVolumeData* PCDipc_ReceiveVolumeFromViewer(bool* empty = nullptr);
int PCDipc_SendChannelToViewer(const PcdRawVolumeData* volume, int32_t channel);
// Sends channel 0 as a whole volume ("Transfering to PELLUCID... done").
int PCDipc_SendVolumeToViewer(const PcdRawVolumeData* volume);
// Steps 2 to 4 of a group transfer, into an existing group.
int PCDipc_SendObjectGroupTo(const PcdObjectGroup* group, int32_t groupId);
int PCDipc_RemoveObject(int32_t objectId);
int PCDipc_SendVoxelSize(float voxelSize);
int PCDipc_SendPosition(const PcdIntVector3D* position);
int PCDipc_SendRegion(const PcdVector3D* origin, const PcdVector3D* size);
