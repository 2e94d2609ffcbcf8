// The viewer link against the real server process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "io/raw_volume_file.h"
#include "ipc/ipc.h"
#include "support/test_support.h"

namespace {

using quorix_test::TempDir;

using quorix_test::ServerProcess;

// A number no server runs on: the slot of this process that ServerProcess leaves free.
int UniqueNumber() { return getpid() * 8 + 7; }

bool BoardExists(const std::string& name) { return quorix_test::SharedMemoryExists(name); }

PcdRawVolumeData* Volume(int32_t channels, int16_t base) {
  const PcdIntSize4D size{4, 3, 2, channels};
  std::vector<int32_t> t(static_cast<size_t>(channels), SINT16), f(static_cast<size_t>(channels), 0);
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, t.data(), f.data());
  for (int32_t c = 0; c < channels; ++c)
    for (int i = 0; i < 24; ++i) static_cast<int16_t*>(v->data[c])[i] = static_cast<int16_t>(base + 100 * c + i);
  return v;
}

struct Link {
  explicit Link(int number, int64_t retries = 2000000) {
    PCDipc_SetRetryLimit(retries);
    ok = PCDipc_InitializeClient(kPcdIpcClientId, number) == 0;
  }
  ~Link() {
    if (ok) PCDipc_FinalizeClient();
  }
  bool ok;
};

TEST(ViewerLink, BoardNamesAndClientIdLimit) {
  EXPECT_EQ(PCDipc_BoardName("PCD_IPC_BB", 7), "/PCD_IPC_BB(0007)");
  EXPECT_EQ(PCDipc_BoardName("PCD_IPC_DB", 7), "/PCD_IPC_DB(0007)");
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDipc_InitializeClient(std::string(33, 'a').c_str(), 7), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "too long client ID\n");
  ServerProcess server;
  EXPECT_EQ(PCDipc_InitializeClient(std::string(32, 'a').c_str(), server.number), 0);
  PCDipc_SetRetryLimit(2000000);
  EXPECT_EQ(PCDipc_SendConnectionRequest(), 0);
  PcdIpcBroadcast b;
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.state, 1);
  EXPECT_EQ(std::string(b.clientId), std::string(32, 'a'));
  EXPECT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  PCDipc_FinalizeClient();
}

TEST(ViewerLink, NoServerMeansNoLink) {
  const int number = UniqueNumber();
  EXPECT_EQ(PCDipc_InitializeClient(kPcdIpcClientId, number), -1);
}

TEST(ViewerLink, VolumesChannelsAndSettingsTravelBothWays) {
  TempDir dir;
  PcdRawVolumeData* original = Volume(3, 10);
  ASSERT_EQ(WriteRawVolumeFile(original, dir.file("v.raw").c_str()), 0);
  std::filesystem::create_directory(dir.path() / "saved");
  ServerProcess server({"--volume", dir.file("v.raw"), "--save-dir", dir.file("saved"), "--voxel-size", "1.5"});
  Link link(server.number);
  ASSERT_TRUE(link.ok);

  testing::internal::CaptureStderr();
  PcdRawVolumeData* got = PCDipc_ReceiveVolumeFromViewer();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_NE(got, nullptr);
  ASSERT_EQ(got->matrixSize->channels, 3);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(std::memcmp(got->data[c], original->data[c], 48), 0);
  PcdIpcBroadcast b;
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.state, 0);
  EXPECT_EQ(b.matrixSize.channels, 3);
  EXPECT_EQ(b.pair.x, 1.5f);

  // one channel is appended on the viewer's side
  static_cast<int16_t*>(got->data[2])[5] = -999;
  ASSERT_EQ(PCDipc_SendChannelToViewer(got, 2), 0);
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.matrixSize.channels, 4);
  EXPECT_EQ(b.state, 0);

  // settings: connect, send, see them on the broadcast board
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  EXPECT_EQ(PCDipc_SendVoxelSize(2.25f), 0);
  // sent without waiting: a request written at once after it would replace it on RB, so
  // the test lets the server take it first
  for (int i = 0; i < 400 && (PCDipc_GetBroadcastedInfo(&b) != 0 || b.pair.x != 2.25f); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const PcdVector3D origin{1.9f, 2.0f, 3.5f}, size{4.0f, 5.0f, 6.7f};
  EXPECT_EQ(PCDipc_SendRegion(&origin, &size), 0);
  const PcdIntVector3D position{7, 8, 9};
  EXPECT_EQ(PCDipc_SendPosition(&position), 0);
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.regionOrigin.x, 1);
  EXPECT_EQ(b.regionSize.z, 6);
  EXPECT_EQ(b.position.y, 8);
  EXPECT_EQ(b.pair.x, 2.25f);

  // object groups get an ID from the viewer; objects can be removed
  PcdObjectGroup group;
  PcdDisplayObject point;
  point.type = 11;
  point.payload.assign(24, 7);
  group.objects.push_back(std::move(point));
  int32_t id = 0;
  ASSERT_EQ(PCDipc_TransferObjectGroup(&group, &id), 0);
  EXPECT_EQ(id, 1);
  ASSERT_EQ(PCDipc_TransferObjectGroup(&group, &id), 0);
  EXPECT_EQ(id, 2);
  EXPECT_EQ(PCDipc_RemoveObject(5), 0);
  EXPECT_EQ(PCDipc_SendDisconnectionRequest(), 0);

  // a whole volume replaces the viewer's (the link sends channel 0 of it)
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDipc_SendVolumeToViewer(original), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Transfering to PELLUCID... done\n");
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.matrixSize.channels, 1);
  EXPECT_EQ(b.state, 0);

  server.Stop();
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(dir.path() / "saved")) files.push_back(e.path().filename());
  std::sort(files.begin(), files.end());
  ASSERT_EQ(files.size(), 4u);
  EXPECT_EQ(files[0], "001_channel.raw");
  EXPECT_EQ(files[1], "002_group.bin");
  EXPECT_EQ(files[3], "004_volume.raw");
  std::string info;
  PcdRawVolumeData* channel = ReadRawVolumeFile((dir.path() / "saved" / files[0]).c_str(), &info);
  ASSERT_NE(channel, nullptr);
  EXPECT_EQ(static_cast<int16_t*>(channel->data[0])[5], -999);
  EXPECT_EQ(quorix_test::ReadFileBytes((dir.path() / "saved" / files[1]).string()).size(),
            PCD_GetSerializedSizeOfObjectGroup(&group));
  PCD_DeleteRawVolumeData(channel);
  PCD_DeleteRawVolumeData(got);
  PCD_DeleteRawVolumeData(original);
  for (const char* base : {"PCD_IPC_BB", "PCD_IPC_MB", "PCD_IPC_RB", "PCD_IPC_DB"})
    EXPECT_FALSE(BoardExists(PCDipc_BoardName(base, server.number))) << base;
}

TEST(ViewerLink, AnotherClientsServerAndASilentServerRefuse) {
  ServerProcess server;
  {
    PCDipc_SetRetryLimit(2000000);
    ASSERT_EQ(PCDipc_InitializeClient("someone else", server.number), 0);
    ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
    PCDipc_FinalizeClient();
  }
  Link link(server.number, 20000);
  ASSERT_TRUE(link.ok);
  const int rb = shm_open(PCDipc_BoardName("PCD_IPC_RB", server.number).c_str(), O_RDONLY, 0);
  ASSERT_GE(rb, 0);
  std::vector<uint8_t> before(kPcdIpcBoardSize), after(kPcdIpcBoardSize);
  ASSERT_EQ(pread(rb, before.data(), before.size(), 0), static_cast<ssize_t>(before.size()));
  EXPECT_EQ(PCDipc_SendConnectionRequest(), -1);
  EXPECT_EQ(PCDipc_SendRequest(PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA, true), -1);
  EXPECT_EQ(PCDipc_SendRequest(PCDipc_REQUEST_TYPE_SET_POSITION, false), -1);
  ASSERT_EQ(pread(rb, after.data(), after.size(), 0), static_cast<ssize_t>(after.size()));
  EXPECT_EQ(before, after);
  close(rb);

  // the boards are the owner's alone
  struct stat st {};
  const int bb = shm_open(PCDipc_BoardName("PCD_IPC_BB", server.number).c_str(), O_RDONLY, 0);
  ASSERT_EQ(fstat(bb, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  close(bb);

  // a server that stops answering: every bounded wait gives up
  kill(server.pid, SIGSTOP);
  EXPECT_EQ(PCDipc_WaitForMessage(PCDipc_MESSAGE_TYPE_DATA_UPLOAD_COMPLETED), -1);
  EXPECT_EQ(PCDipc_SendRequest(PCDipc_REQUEST_TYPE_LOCK_VOLUMEDATA, true), -1);
}

TEST(ViewerLink, SilentServerTimesOutTheConnection) {
  ServerProcess server;
  Link link(server.number, 20000);
  ASSERT_TRUE(link.ok);
  kill(server.pid, SIGSTOP);
  EXPECT_EQ(PCDipc_SendConnectionRequest(), -1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDipc_SendChannelToViewer(nullptr, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "PCDipc_SendConnectionRequest: Error\n");
}

}  // namespace
