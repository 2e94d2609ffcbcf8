#include "support/test_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <thread>


namespace quorix_test {

TempDir::TempDir() {
  std::random_device rd;
  auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto candidate = base / ("quorix-test-" + std::to_string(getpid()) + "-" +
                             std::to_string(rd() % 1000000));
    if (std::filesystem::create_directory(candidate)) {
      path_ = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::vector<uint8_t> ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFileText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

std::string BuiltProgram(const std::string& name) {
  return std::string(QUORIX_BINARY_DIR) + "/bin/" + name;
}

int RunCommand(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
  int status = pclose(pipe);
  if (output) *output = text;
  if (status == -1 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

int RunBatchApart(const TempDir& dir, const std::string& arguments, std::string* out, std::string* err) {
  const std::string errFile = dir.file("stderr.txt");
  const int status = RunCommand(BuiltProgram("quorix-batch") + " " + arguments + " 2>" + errFile, out);
  *err = ReadFileText(errFile);
  return status;
}

std::string BatchCommandLine(const std::string& arguments) {
  return BuiltProgram("quorix-batch") + " " + arguments + " 2>&1";
}

bool SharedMemoryExists(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDONLY, 0);
  if (fd < 0) return false;
  close(fd);
  return true;
}

ServerProcess::ServerProcess(const std::vector<std::string>& extra) {
  static int next = 0;
  // process ids are unique among live processes: no two running tests share a number
  number = getpid() * 8 + next++ % 7;
  // boards of this number can only be left over from a killed process that had our pid:
  // remove them, so that waiting for the new server's boards does not find the old ones
  for (const char* base : {"BB", "MB", "RB", "DB"}) {
    char name[40];
    std::snprintf(name, sizeof name, "/PCD_IPC_%s(%04d)", base, number);
    shm_unlink(name);
  }
  std::vector<std::string> args = {BuiltProgram("pellucid-server"), "--number", std::to_string(number)};
  args.insert(args.end(), extra.begin(), extra.end());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  // the server ends with the test process, also when a test aborts or is killed
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (child > 0) pid = child;
  // until the server has made its boards or has ended; the bound only keeps a broken
  // server from hanging the test, whatever the machine's load
  char board[32];
  std::snprintf(board, sizeof board, "/PCD_IPC_RB(%04d)", number);
  for (int i = 0; i < 12000 && pid > 0 && !SharedMemoryExists(board); ++i) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) {
      pid = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void ServerProcess::Stop() {
  if (pid <= 0) return;
  kill(pid, SIGCONT);
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  pid = -1;
}

ServerProcess::~ServerProcess() { Stop(); }

NoticeRecorder::NoticeRecorder() {
  previous = PCD_SetNoticeHandler([this](const PcdNotice& n) { notices.push_back(n); });
}

NoticeRecorder::~NoticeRecorder() { PCD_SetNoticeHandler(previous); }

}  // namespace quorix_test
