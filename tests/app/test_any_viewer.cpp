// The desktop program against viewers other than our own server: one written from the
// link's protocol text alone, and one that another client holds.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/startup.h"
#include "ipc/ipc.h"
#include "support/protocol_server.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::ProtocolServer;
using quorix_test::TempDir;

PcdRawVolumeData* Phantom() {
  PcdDtiData* dti = PCD_MakeDwiPhantom({.sizeX = 12, .sizeY = 10, .sizeZ = 4, .directions = 6}, nullptr);
  PcdRawVolumeData* volume = dti->volume;
  std::free(dti);
  return volume;
}

TEST(AnyViewer, StartsOnTheVolumeOfAServerThatNeverClearsTheRequestWord) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  setenv("GSETTINGS_BACKEND", "memory", 1);
  PcdRawVolumeData* phantom = Phantom();
  ProtocolServer server(phantom);
  ASSERT_TRUE(server.ok());
  PCD_SetDialogResponder([](const PcdDialogSeen&) { return PcdDialogAnswer{kPcdDialogCancel, ""}; });
  std::string number = std::to_string(server.number);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};

  testing::internal::CaptureStderr();
  const auto start = std::chrono::steady_clock::now();
  const int started = PCD_InitializeApplication(2, argv);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::string err = testing::internal::GetCapturedStderr();
  ASSERT_EQ(started, 1) << err;
  std::fprintf(stderr, "start-up against the protocol-only server: %.2f s\n", seconds);  // for the record

  ASSERT_NE(pcd_app->session.volume, nullptr);
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, 7);
  EXPECT_EQ(std::memcmp(pcd_app->session.volume->data[3], phantom->data[3], 12 * 10 * 4 * 2), 0);
  EXPECT_NE(err.find(">> Establishing connection ... OK\n"), std::string::npos) << err;
  EXPECT_EQ(err.find("Failed <"), std::string::npos) << err;
  EXPECT_EQ(err.find("Missed <"), std::string::npos) << err;
  // the object group first, then the volume: each exchange taken once, in order
  const std::vector<int32_t> taken = server.Taken();
  const std::vector<int32_t> first = {211, 511, 512, 251, 212, 211, 234, 221, 233, 235, 212};
  ASSERT_GE(taken.size(), first.size());
  EXPECT_EQ(std::vector<int32_t>(taken.begin(), taken.begin() + first.size()), first);

  testing::internal::CaptureStderr();
  PCD_CleanUpApplication();
  testing::internal::GetCapturedStderr();
  PCD_SetDialogResponder(nullptr);
  PCD_DeleteRawVolumeData(phantom);
}

// Runs the built desktop program unattended, its console into a file.
pid_t StartQuorix(int number, const std::string& console, const std::string& shots) {
  const std::string program = quorix_test::BuiltProgram("quorix");
  const std::string n = std::to_string(number);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    const int fd = open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) _exit(126);
    dup2(fd, 2);
    setenv("QUORIX_AUTOPILOT", shots.c_str(), 1);
    setenv("GSETTINGS_BACKEND", "memory", 1);
    setenv("NO_AT_BRIDGE", "1", 1);
    execl(program.c_str(), program.c_str(), n.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return child;
}

// Waits until the file holds the text or the process has ended; a bound far beyond any
// machine's load only keeps a broken program from hanging the suite.
bool WaitForText(const std::string& file, const std::string& text, pid_t pid) {
  for (int i = 0; i < 6000; ++i) {
    if (quorix_test::ReadFileText(file).find(text) != std::string::npos) return true;
    if (waitpid(pid, nullptr, WNOHANG) == pid) return quorix_test::ReadFileText(file).find(text) != std::string::npos;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

TEST(AnyViewer, ABusyViewerIsNamedAtOnceAndStartUpGoesOnWhenItIsFree) {
  TempDir dir;
  PcdRawVolumeData* phantom = Phantom();
  ProtocolServer server(phantom);
  ASSERT_TRUE(server.ok());
  // this test process holds the viewer as another client would
  PCDipc_SetRetryLimit(2000000);
  ASSERT_EQ(PCDipc_InitializeClient("Viewer-Holder", server.number), 0);
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);

  const std::string console = dir.file("console.txt");
  const pid_t quorix = StartQuorix(server.number, console, dir.path().string());
  ASSERT_GT(quorix, 0);
  const std::string warning =
      "Warning: the viewer is in use by client \"Viewer-Holder\"; waiting up to 20 s for it to be free.\n";
  const bool warned = WaitForText(console, warning, quorix);
  // the program waits for the viewer, not for the time: it goes on once the holder leaves
  EXPECT_EQ(PCDipc_SendDisconnectionRequest(), 0);
  PCDipc_FinalizeClient();
  EXPECT_TRUE(warned) << quorix_test::ReadFileText(console);
  int status = -1;
  ASSERT_EQ(waitpid(quorix, &status, 0), quorix);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const std::string err = quorix_test::ReadFileText(console);
  const size_t at = err.find(warning);
  ASSERT_NE(at, std::string::npos) << err;
  EXPECT_NE(err.find(">> Establishing connection ... OK\n", at), std::string::npos) << err;
  EXPECT_EQ(err.find("Failed <"), std::string::npos) << err;
  PCD_DeleteRawVolumeData(phantom);
}

}  // namespace
