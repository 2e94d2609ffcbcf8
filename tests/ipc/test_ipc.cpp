// The viewer link against the real server process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "io/raw_volume_file.h"
#include "ipc/ipc.h"
#include "support/protocol_server.h"
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
  // sent without waiting; the next request is written only once the server took it
  EXPECT_EQ(PCDipc_SendVoxelSize(2.25f), 0);
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
  ASSERT_EQ(files.size(), 5u);  // and the list of the object groups it holds
  EXPECT_EQ(files[4], "objects.txt");
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
  Link link(server.number, 2000);
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
  Link link(server.number, 2000);
  ASSERT_TRUE(link.ok);
  kill(server.pid, SIGSTOP);
  EXPECT_EQ(PCDipc_SendConnectionRequest(), -1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDipc_SendChannelToViewer(nullptr, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "PCDipc_SendConnectionRequest: Error\n");
}

// pellucid-server with its console into a file, for counting what it served.
struct LoggedServer {
  int number = getpid() * 8 + 5;
  pid_t pid = -1;
  std::string log;
  // clean: no boards of the number are left from before (a test of take-over says false)
  explicit LoggedServer(const std::string& logFile, const std::vector<std::string>& extra = {}, bool clean = true)
      : log(logFile) {
    for (const char* base : {"PCD_IPC_BB", "PCD_IPC_MB", "PCD_IPC_RB", "PCD_IPC_DB"})
      if (clean) shm_unlink(PCDipc_BoardName(base, number).c_str());
    std::vector<std::string> args = {quorix_test::BuiltProgram("pellucid-server"), "--number",
                                     std::to_string(number)};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // ends with the test, also when it is killed
      const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(fd, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
    // until it serves or has ended (the bound only keeps a broken server from hanging)
    for (int i = 0; i < 12000 && Count("serving") == 0; ++i) {
      if (waitpid(pid, &status, WNOHANG) == pid) {
        pid = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~LoggedServer() { Stop(); }
  int status = -1;  // the exit status, when it ended by itself
  void Stop() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    pid = -1;
  }
  size_t Count(const std::string& line) const {
    const std::string text = quorix_test::ReadFileText(log);
    size_t n = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++n;
    return n;
  }
};

// One live server per number: a second one is refused and leaves the first one's boards
// alone; boards left behind by a killed server are taken over.
TEST(ViewerServer, ALiveNumberIsRefusedAndADeadServersBoardsAreTakenOver) {
  TempDir dir;
  LoggedServer first(dir.file("first.log"));
  ASSERT_GT(first.pid, 0);
  LoggedServer second(dir.file("second.log"), {}, false);
  EXPECT_EQ(second.pid, -1);
  ASSERT_TRUE(WIFEXITED(second.status));
  EXPECT_EQ(WEXITSTATUS(second.status), 1);
  EXPECT_EQ(quorix_test::ReadFileText(dir.file("second.log")),
            "Err: server number " + std::to_string(first.number) + " is in use by a running pellucid-server\n");
  {
    Link link(first.number);
    ASSERT_TRUE(link.ok);
    EXPECT_EQ(PCDipc_SendConnectionRequest(), 0);
    EXPECT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  }
  kill(first.pid, SIGKILL);
  waitpid(first.pid, nullptr, 0);
  first.pid = -1;
  ASSERT_TRUE(BoardExists(PCDipc_BoardName("PCD_IPC_BB", first.number)));  // left behind
  LoggedServer third(dir.file("third.log"), {}, false);
  ASSERT_GT(third.pid, 0) << quorix_test::ReadFileText(dir.file("third.log"));
  Link link(third.number);
  ASSERT_TRUE(link.ok);
  EXPECT_EQ(PCDipc_SendConnectionRequest(), 0);
  EXPECT_EQ(PCDipc_SendDisconnectionRequest(), 0);
}

// The voxel size goes without waiting for an acceptance, and the application disconnects
// at once after it: every one of 50 must reach the server all the same.
TEST(ViewerLink, FiftyVoxelSizesInARowAllArrive) {
  TempDir dir;
  LoggedServer server(dir.file("server.log"), {"--accept-pause", "0"});
  Link link(server.number);
  ASSERT_TRUE(link.ok);
  for (int i = 1; i <= 50; ++i) {
    ASSERT_EQ(PCDipc_SendConnectionRequest(), 0) << i;
    ASSERT_EQ(PCDipc_SendVoxelSize(0.25f * static_cast<float>(i)), 0) << i;
    ASSERT_EQ(PCDipc_SendDisconnectionRequest(), 0) << i;
  }
  // and 50 within one connection, each followed at once by the next
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  for (int i = 1; i <= 50; ++i) ASSERT_EQ(PCDipc_SendVoxelSize(100.0f + static_cast<float>(i)), 0) << i;
  ASSERT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  server.Stop();
  size_t first = 0, second = 0;
  for (int i = 1; i <= 50; ++i) {
    char line[64];
    std::snprintf(line, sizeof line, "voxel size set to %g mm\n", 0.25 * i);
    first += server.Count(line);
    std::snprintf(line, sizeof line, "voxel size set to %g mm\n", 100.0 + i);
    second += server.Count(line);
  }
  EXPECT_EQ(first, 50u);
  EXPECT_EQ(second, 50u);
}

// A client that dies connected frees the link within a few seconds; a disconnection
// request from someone who is not the connected client gets no acceptance.
TEST(ViewerLink, ADeadClientFreesTheLinkAndOnlyTheConnectedOneMayDisconnect) {
  TempDir dir;
  LoggedServer server(dir.file("server.log"));
  // the other client lives until told to die, then dies connected
  int toChild[2], fromChild[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(fromChild), 0);
  const pid_t child = fork();
  if (child == 0) {
    PCDipc_SetRetryLimit(2000000);
    const char ok = PCDipc_InitializeClient("short-lived", server.number) == 0 && PCDipc_SendConnectionRequest() == 0;
    (void)!write(fromChild[1], &ok, 1);
    char go;
    (void)!read(toChild[0], &go, 1);
    _exit(0);  // no disconnection
  }
  char ok = 0;
  ASSERT_EQ(read(fromChild[0], &ok, 1), 1);
  ASSERT_EQ(ok, 1);

  Link link(server.number, 2000);
  ASSERT_TRUE(link.ok);
  PcdIpcBroadcast b;
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  ASSERT_EQ(b.state, 1);
  ASSERT_STREQ(b.clientId, "short-lived");
  // not ours to end: the request is taken off RB, BB and MB stay as they were
  EXPECT_EQ(PCDipc_ClearMessageBoard(), 0);
  EXPECT_EQ(PCDipc_SendDisconnectionRequest(), -1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int mb = shm_open(PCDipc_BoardName("PCD_IPC_MB", server.number).c_str(), O_RDONLY, 0);
  uint8_t words[44];
  ASSERT_EQ(pread(mb, words, sizeof words, 0), static_cast<ssize_t>(sizeof words));
  close(mb);
  EXPECT_EQ(PCD_GetInt32LE(words), kPcdIpcCleared);
  EXPECT_EQ(PCD_GetInt32LE(words + 40), kPcdIpcCleared);
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.state, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.state, 1);  // a live client keeps its link

  const char go = 1;
  ASSERT_EQ(write(toChild[1], &go, 1), 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);

  // the dead client's link is freed; then we connect
  bool freed = false;
  for (int i = 0; i < 6000 && !freed; ++i) {  // the server looks once a second
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    freed = PCDipc_GetBroadcastedInfo(&b) == 0 && b.state == 0;
  }
  EXPECT_TRUE(freed);
  EXPECT_STREQ(b.clientId, "");
  PCDipc_SetRetryLimit(2000000);
  EXPECT_EQ(PCDipc_SendConnectionRequest(), 0);
  EXPECT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  server.Stop();
  EXPECT_EQ(server.Count("the connected client is gone: link freed\n"), 1u);
}

// A server that holds no volume answers the volume request with an empty board.
TEST(ViewerLink, AServerWithoutVolumeAnswersAtOnce) {
  ServerProcess server;
  Link link(server.number);
  ASSERT_TRUE(link.ok);
  testing::internal::CaptureStderr();
  bool empty = false;
  EXPECT_EQ(PCDipc_ReceiveVolumeFromViewer(&empty), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(empty);
  PcdIpcBroadcast b;
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&b), 0);
  EXPECT_EQ(b.state, 0);
  EXPECT_EQ(b.matrixSize.x, 0);
}

}  // namespace

namespace {

// Against a server that follows the protocol text and never clears the request word, every
// exchange of the program goes through and ends. The retry limit is far beyond what any
// answer needs: a wait that misses the server's answer would spin for hours, and ctest's
// time limit would fail the test.
TEST(ViewerLink, AServerThatNeverClearsTheRequestWordServesEveryExchange) {
  PcdRawVolumeData* original = Volume(2, 40);
  quorix_test::ProtocolServer server(original);
  ASSERT_TRUE(server.ok());
  Link link(server.number);
  ASSERT_TRUE(link.ok);
  const int64_t forever = int64_t{1} << 50;

  testing::internal::CaptureStderr();
  PcdRawVolumeData* got = PCDipc_ReceiveVolumeFromViewer();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_NE(got, nullptr);
  ASSERT_EQ(got->matrixSize->channels, 2);
  for (int c = 0; c < 2; ++c) EXPECT_EQ(std::memcmp(got->data[c], original->data[c], 48), 0);

  PCDipc_SetRetryLimit(forever);
  ASSERT_EQ(PCDipc_SendChannelToViewer(got, 1), 0);
  // settings sent without waiting, one after the other and then a disconnection
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  for (float mm : {1.5f, 2.0f, 2.5f}) ASSERT_EQ(PCDipc_SendVoxelSize(mm), 0);
  ASSERT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  // two object groups in one connection, a voxel size between them
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  PcdObjectGroup group;
  PcdDisplayObject point;
  point.type = 11;
  point.payload.assign(24, 7);
  group.objects.push_back(std::move(point));
  int32_t first = 0, second = 0;
  ASSERT_EQ(PCDipc_TransferObjectGroup(&group, &first), 0);
  ASSERT_EQ(PCDipc_SendVoxelSize(3.0f), 0);
  ASSERT_EQ(PCDipc_TransferObjectGroup(&group, &second), 0);
  EXPECT_EQ(PCDipc_RemoveObject(first), 0);
  ASSERT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  PCDipc_SetRetryLimit(2000000);

  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
  EXPECT_EQ(server.VoxelSizes(), (std::vector<float>{1.5f, 2.0f, 2.5f, 3.0f}));
  const std::vector<int32_t> expected = {
      211, 234, 221, 233, 235, 212,       // the viewer's volume
      211, 234, 236, 235, 212,            // one channel back
      211, 322, 322, 322, 212,            // three voxel sizes
      211, 511, 512, 251, 322, 511, 512, 251, 514, 212};
  EXPECT_EQ(server.Taken(), expected);
  // what arrived: the channel, then each group as serialized by hand-counted size
  const auto received = server.Received();
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0].size(), PCD_GetSerializedSizeOfSingleChannel(got, 1));
  EXPECT_EQ(received[1].size(), PCD_GetSerializedSizeOfObjectGroup(&group));
  EXPECT_EQ(server.RequestWord(), 212);  // the server never cleared it
  PCD_DeleteRawVolumeData(got);
  PCD_DeleteRawVolumeData(original);
}

}  // namespace
