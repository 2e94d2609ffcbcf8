// The client side of the link against a scripted peer (boards built by hand, answers
// right and wrong), and the server's side of what it reads.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_peer.h"
#include "ipc/ipc.h"
#include "support/test_support.h"

namespace {

using quorix_test::FakePeer;
using quorix_test::PutDataBoard;

void Put(std::vector<uint8_t>* b, int32_t v) {
  for (int i = 0; i < 4; ++i) b->push_back(static_cast<uint8_t>(static_cast<uint32_t>(v) >> (8 * i)));
}

// A 2 x 1 x 1 volume of one SINT16 channel holding 300 and -2, by hand.
std::vector<uint8_t> TinyVolume() {
  std::vector<uint8_t> b;
  for (int32_t v : {2, 1, 1, 1, 3, 0}) Put(&b, v);
  for (uint8_t byte : {0x2C, 0x01, 0xFE, 0xFF}) b.push_back(byte);
  return b;
}

struct Client {
  explicit Client(int number, int64_t retries = 200000) {
    PCDipc_SetRetryLimit(retries);
    ok = PCDipc_InitializeClient(kPcdIpcClientId, number) == 0;
  }
  ~Client() {
    if (ok) PCDipc_FinalizeClient();
  }
  bool ok;
};

const std::vector<int32_t> kDownloadSequence = {
    PCDipc_REQUEST_TYPE_CONNECTION,       PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA, PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA,
    PCDipc_REQUEST_TYPE_CLOSE_DATABOARD,  PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA,
    PCDipc_REQUEST_TYPE_DISCONNECTION};

// A peer that answers the volume request with the given board after message 55.
FakePeer::Script UploadWith(std::vector<uint8_t> bytes, size_t boardSize, bool board = true) {
  return [bytes, boardSize, board](FakePeer& p, const PcdIpcRequest& r) {
    if (r.type != PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA) return p.Serve(r);
    if (board) PutDataBoard(p.number, bytes, boardSize);
    p.Message(PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED);
  };
}

TEST(LinkProtocol, DownloadConnectsLocksTakesClosesUnlocksAndDisconnects) {
  FakePeer peer(UploadWith(TinyVolume(), TinyVolume().size() + 100));  // a board larger than its record
  Client client(peer.number);
  ASSERT_TRUE(client.ok);
  testing::internal::CaptureStderr();
  bool empty = true;
  PcdRawVolumeData* v = PCDipc_ReceiveVolumeFromViewer(&empty);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_NE(v, nullptr);
  EXPECT_FALSE(empty);
  EXPECT_EQ(v->matrixSize->x, 2);
  EXPECT_EQ(v->dataType[0], SINT16);
  EXPECT_EQ(static_cast<int16_t*>(v->data[0])[0], 300);
  EXPECT_EQ(static_cast<int16_t*>(v->data[0])[1], -2);
  EXPECT_EQ(peer.Taken(), kDownloadSequence);
  PCD_DeleteRawVolumeData(v);
}

TEST(LinkProtocol, AnEmptyBoardIsAViewerWithoutVolume) {
  FakePeer peer(UploadWith({}, 0));
  Client client(peer.number);
  ASSERT_TRUE(client.ok);
  testing::internal::CaptureStderr();
  bool empty = false;
  EXPECT_EQ(PCDipc_ReceiveVolumeFromViewer(&empty), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(empty);
  EXPECT_EQ(peer.Taken(), kDownloadSequence);  // still closed, unlocked and disconnected
}

// Boards no server should write: each download fails with its messages and leaves the
// server free; nothing is allocated at the size a board merely announces.
TEST(LinkProtocol, BadDataBoardsAreRefused) {
  std::vector<uint8_t> truncated = TinyVolume();
  truncated.pop_back();
  std::vector<uint8_t> huge;  // 4096^3 voxels x 4 FLOAT32 channels: 1 TiB announced
  for (int32_t v : {4096, 4096, 4096, 4, 6, 6, 6, 6, 0, 0, 0, 0}) Put(&huge, v);
  const size_t hugeSize = 48 + (size_t{1} << 40);
  std::vector<uint8_t> badType = TinyVolume();
  badType[16] = 9;
  const std::vector<uint8_t> headerCut(badType.begin(), badType.begin() + 12);
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    size_t boardSize;
    bool board;
    std::string err;
  } cases[] = {
      {"short", truncated, truncated.size(), true,
       "Err: the data board announces a volume of 28 bytes but holds 27\n"},
      {"absurd", huge, hugeSize, true,
       "Err: the data board announces a volume of " + std::to_string(hugeSize) +
           " bytes, more than this machine can take\n"},
      {"bad type", badType, badType.size(), true, "Err: the data board does not hold a valid volume\n"},
      {"header cut", headerCut, 12, true,
       "Err: the data board does not hold a valid volume\n"},
      {"no board", {}, 0, false, ""},
  };
  for (const Case& c : cases) {
    FakePeer peer(UploadWith(c.bytes, c.boardSize, c.board));
    Client client(peer.number);
    ASSERT_TRUE(client.ok);
    testing::internal::CaptureStderr();
    bool empty = true;
    EXPECT_EQ(PCDipc_ReceiveVolumeFromViewer(&empty), nullptr) << c.what;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err + "Failed <PCDipc_DownloadRawVolumeData>. Exit now.\n")
        << c.what;
    EXPECT_FALSE(empty) << c.what;
    const std::vector<int32_t> failed = {PCDipc_REQUEST_TYPE_CONNECTION, PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA,
                                         PCDipc_REQUEST_TYPE_UPLOAD_VOLUMEDATA, PCDipc_REQUEST_TYPE_DISCONNECTION};
    EXPECT_EQ(peer.Taken(), failed) << c.what;
  }
}

// A request with waiting is taken only when MB shows 22 and that very type at offset 40.
TEST(LinkProtocol, AnAcceptanceCountsOnlyForItsOwnRequestType) {
  struct Answer {
    int32_t message, accepted;
    int expected;
  } answers[] = {
      {PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED, PCDipc_REQUEST_TYPE_SET_POSITION, 0},
      {PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED, PCDipc_REQUEST_TYPE_SET_REGION, -1},
      {PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED, PCDipc_REQUEST_TYPE_SET_POSITION, -1},
      {PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED, kPcdIpcCleared, -1},
  };
  for (const Answer& a : answers) {
    FakePeer peer([a](FakePeer& p, const PcdIpcRequest&) {
      p.mb.SetWord(kPcdIpcAcceptedOffset, a.accepted);
      p.mb.SetWord(0, a.message);
    });
    Client client(peer.number, a.expected == 0 ? 200000 : 300);  // a refusal waits out the limit
    ASSERT_TRUE(client.ok);
    const PcdIntVector3D at{1, 2, 3};
    EXPECT_EQ(PCDipc_SendPosition(&at), a.expected) << a.message << " " << a.accepted;
  }
}

void CutBoard(const std::string& name, off_t size) {
  const int fd = shm_open(name.c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, size), 0);
  close(fd);
}

// A viewer that does not accept the channel: the link reports it, closes its board and
// disconnects without an unlock; the request cannot be retried on a board that is gone.
TEST(LinkProtocol, ARefusedChannelEndsTheExchange) {
  FakePeer peer([](FakePeer& p, const PcdIpcRequest& r) {
    if (r.type != PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA) return p.Serve(r);
    p.mb.SetWord(kPcdIpcAcceptedOffset, PCDipc_REQUEST_TYPE_UNLOCK_VOLUMEDATA);  // not this request
    p.mb.SetWord(0, PCDipc_MESSAGE_TYPE_REQUEST_ACCEPTED);
  });
  Client client(peer.number, 3000);
  ASSERT_TRUE(client.ok);
  const PcdIntSize4D size{2, 1, 1, 1};
  const int32_t type = SINT16, format = 0;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, &type, &format);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDipc_SendChannelToViewer(v, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "PCDipc_SendRequest(PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA): Error\n");
  const std::vector<int32_t> expected = {PCDipc_REQUEST_TYPE_CONNECTION, PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA,
                                         PCDipc_REQUEST_TYPE_DOWNLOAD_VOLUMEDATA, PCDipc_REQUEST_TYPE_DISCONNECTION};
  EXPECT_EQ(peer.Taken(), expected);
  EXPECT_FALSE(quorix_test::SharedMemoryExists(PCDipc_BoardName("PCD_IPC_DB", peer.number)));
  PCD_DeleteRawVolumeData(v);
}

// A viewer that never reads the group: -1 after the message, and the board is taken back.
TEST(LinkProtocol, AnObjectGroupNobodyReads) {
  FakePeer peer([](FakePeer& p, const PcdIpcRequest& r) {
    if (r.type != PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP) p.Serve(r);
  });
  Client client(peer.number, 3000);
  ASSERT_TRUE(client.ok);
  PcdObjectGroup empty;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDipc_SendObjectGroupTo(&empty, 4), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Missed <PCDipc_MESSAGE_TYPE_DATA_DOWNLOAD_COMPLETED>\n");
  EXPECT_FALSE(quorix_test::SharedMemoryExists(PCDipc_BoardName("PCD_IPC_DB", peer.number)));
  EXPECT_EQ(peer.Taken(), std::vector<int32_t>{PCDipc_REQUEST_TYPE_DOWNLOAD_OBJECT_GROUP});
}

// The parameter block has 116 words: indexes outside it are neither written nor read.
TEST(LinkProtocol, ParameterWordsOutsideTheBlock) {
  for (int i = 0; i < 116; ++i) PCDipc_SetParameterWord(i, 1000 + i);
  PCDipc_SetParameterWord(116, 5);
  PCDipc_SetParameterWord(-1, 5);
  EXPECT_EQ(PCDipc_GetParameterWord(115), 1115);
  EXPECT_EQ(PCDipc_GetParameterWord(0), 1000);
  EXPECT_EQ(PCDipc_GetParameterWord(116), 0);
  EXPECT_EQ(PCDipc_GetParameterWord(-1), 0);
  PCDipc_SetParameterFloat(1, 0.5f);
  EXPECT_EQ(PCDipc_GetParameterWord(1), 0x3F000000);
}

TEST(LinkProtocol, WaitsGiveUpOnBoardsTooSmallToRead) {
  FakePeer peer;
  Client client(peer.number, 2000);
  ASSERT_TRUE(client.ok);
  // MB cut to 40 bytes: its message word reads as -123 from then on, the parameters too
  CutBoard(peer.mb.name, 40);
  PCDipc_SetParameterWord(0, 5);
  EXPECT_EQ(PCDipc_WaitForMessage(kPcdIpcCleared), 0);
  EXPECT_EQ(PCDipc_GetParameterWord(0), kPcdIpcCleared);
  EXPECT_EQ(PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED), -1);
  // BB shorter than the 224 bytes the client reads
  CutBoard(peer.bb.name, 220);
  PcdIpcBroadcast b;
  EXPECT_EQ(PCDipc_GetBroadcastedInfo(&b), -1);
}

// A request sent without waiting stays on RB until the peer takes it; the next request
// must not be written over it, even when the peer is slow.
TEST(LinkProtocol, TheNextRequestWaitsUntilTheLastOneWasTaken) {
  FakePeer peer;
  peer.takeDelayUs = 3000;
  Client client(peer.number, 2000000);
  ASSERT_TRUE(client.ok);
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  ASSERT_EQ(PCDipc_SendVoxelSize(1.5f), 0);
  ASSERT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  ASSERT_EQ(PCDipc_SendRequest(PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP, false), 0);
  ASSERT_EQ(PCDipc_SendVoxelSize(2.0f), 0);
  ASSERT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  const std::vector<int32_t> expected = {
      PCDipc_REQUEST_TYPE_CONNECTION,          PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE, PCDipc_REQUEST_TYPE_DISCONNECTION,
      PCDipc_REQUEST_TYPE_CONNECTION,          PCDipc_REQUEST_TYPE_CREATE_OBJECT_GROUP,
      PCDipc_REQUEST_TYPE_SET_VOXEL_SIZE,      PCDipc_REQUEST_TYPE_DISCONNECTION};
  EXPECT_EQ(peer.Taken(), expected);
}

// ---- what the server reads ---------------------------------------------------------------

TEST(LinkBoards, RequestBoardFieldsAndTheClientIdsTerminator) {
  std::vector<uint8_t> board(kPcdIpcBoardSize, 0);
  board[0] = 0x42;  // 322
  board[1] = 0x01;
  std::memset(&board[8], 'q', 32);  // 32 characters, the terminator at offset 40
  board[44] = 0x39;                 // process id 12345
  board[45] = 0x30;
  board[48 + 4 * 115] = 0xFF;  // the last parameter word: 255
  PcdIpcRequest r;
  ASSERT_TRUE(PCDipc_ParseRequestBoard(board.data(), &r));
  EXPECT_EQ(r.type, 322);
  EXPECT_EQ(std::string(r.clientId), std::string(32, 'q'));
  EXPECT_EQ(r.processId, 12345);
  EXPECT_EQ(r.parameters[115], 255);
  EXPECT_EQ(r.parameters[0], 0);
  board[40] = 'q';  // no terminator within 33 bytes
  EXPECT_FALSE(PCDipc_ParseRequestBoard(board.data(), &r));
  EXPECT_EQ(r.clientId[0], '\0');
  EXPECT_EQ(r.type, 322);
}

TEST(LinkBoards, ChannelAndObjectGroupBoardsAreCheckedAgainstTheirSize) {
  const int number = getpid() * 8 + 6;
  const std::string name = PCDipc_BoardName("PCD_IPC_DB", number);
  // one channel: x, y, z, type, colour, then 2 x 1 x 1 UINT8 voxels
  std::vector<uint8_t> channel;
  for (int32_t v : {2, 1, 1, 0, 0}) Put(&channel, v);
  channel.push_back(7);
  channel.push_back(9);
  PutDataBoard(number, channel, 4096);
  PcdRawVolumeData* v = PCDipc_ReadVolumeFromBoard(name.c_str(), true, nullptr);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(static_cast<uint8_t*>(v->data[0])[1], 9);
  PCD_DeleteRawVolumeData(v);
  testing::internal::CaptureStderr();
  PutDataBoard(number, channel, 21);
  EXPECT_EQ(PCDipc_ReadVolumeFromBoard(name.c_str(), true, nullptr), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: the data board announces a channel of 22 bytes but holds 21\n");

  // object groups: the count's headers (24 bytes each after the count) must be on it
  std::vector<uint8_t> group;
  for (int32_t w : {1, 22, 5}) Put(&group, w);
  for (int i = 0; i < 4; ++i) Put(&group, 0x3F800000);
  std::vector<uint8_t> bytes;
  PutDataBoard(number, group, group.size());
  ASSERT_TRUE(PCDipc_ReadObjectGroupFromBoard(name.c_str(), &bytes));
  EXPECT_EQ(bytes, group);
  testing::internal::CaptureStderr();
  PutDataBoard(number, group, group.size() - 1);
  EXPECT_FALSE(PCDipc_ReadObjectGroupFromBoard(name.c_str(), &bytes));
  std::memset(group.data(), 0xFF, 4);  // -1 objects
  PutDataBoard(number, group, group.size());
  EXPECT_FALSE(PCDipc_ReadObjectGroupFromBoard(name.c_str(), &bytes));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: the data board announces 1 objects on 27 bytes\n"
            "Err: the data board announces -1 objects on 28 bytes\n");
  EXPECT_TRUE(bytes.empty());
  shm_unlink(name.c_str());
}

}  // namespace
