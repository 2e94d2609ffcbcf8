// The viewer link against a pellucid-server process started next to this program: the
// round trip of one request with waiting while connected (an active exchange), and a
// connection opened after a quiet spell (the server has backed off to its idle pause).
// Arg 0: the server's default idle pause; arg 1: --idle-pause 0.2, the server polling
// every 200 microseconds all the time, as it did before it learnt to back off.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc.h"

namespace {

struct Server {
  int number = getpid() * 8 + 1;
  pid_t pid = -1;
  explicit Server(bool alwaysFast) {
    const std::string program =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "pellucid-server").string();
    std::vector<std::string> args = {program, "--number", std::to_string(number), "--accept-pause", "0"};
    if (alwaysFast) args.insert(args.end(), {"--idle-pause", "0.2"});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      (void)!freopen("/dev/null", "w", stderr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    for (int i = 0; i < 500 && PCDipc_InitializeClient(kPcdIpcClientId, number) != 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    PCDipc_SetRetryLimit(6553500);
  }
  ~Server() {
    PCDipc_FinalizeClient();
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
};

void BM_LinkRequestWhileConnected(benchmark::State& state) {
  Server server(state.range(0) == 1);
  if (PCDipc_SendConnectionRequest() != 0) {
    state.SkipWithError("no connection");
    return;
  }
  PcdIntVector3D at{1, 2, 3};
  for (auto _ : state) {
    ++at.x;  // a new request each time, not a repetition of the last
    if (PCDipc_SendPosition(&at) != 0) state.SkipWithError("request not accepted");
  }
  PCDipc_SendDisconnectionRequest();
}
BENCHMARK(BM_LinkRequestWhileConnected)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_LinkConnectAfterQuietSecond(benchmark::State& state) {
  Server server(state.range(0) == 1);
  for (auto _ : state) {
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    state.ResumeTiming();
    if (PCDipc_SendConnectionRequest() != 0) state.SkipWithError("no connection");
    state.PauseTiming();
    PCDipc_SendDisconnectionRequest();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_LinkConnectAfterQuietSecond)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(8)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
