// Small helpers shared by the test programs: temporary folders, whole-file I/O, paths
// of the built programs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "io/notice.h"

namespace quorix_test {

// A fresh folder under the system's temporary directory, removed with everything in it
// when the object goes out of scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

std::vector<uint8_t> ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes);
std::string ReadFileText(const std::string& path);

// Whether text holds line as the start of one of its lines (at the start, or after a line
// break or a carriage return; a progress line that starts with its own carriage return may
// follow anything): a message with something put in front of it does not pass.
inline bool HasLine(const std::string& text, const std::string& line) {
  for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
    if (at == 0 || line[0] == '\r' || text[at - 1] == '\n' || text[at - 1] == '\r') return true;
  return false;
}
void WriteFileText(const std::string& path, const std::string& text);

// Path of an executable built next to the tests (quorix-batch, pellucid-server, ...).
std::string BuiltProgram(const std::string& name);

// The shell command line of the built quorix-batch with these arguments, stderr merged
// into stdout (for RunCommand).
std::string BatchCommandLine(const std::string& arguments);

// Runs a command through /bin/sh, returning its exit status (or -1) and its output.
int RunCommand(const std::string& command, std::string* output = nullptr);

// The built quorix-batch with these arguments, its standard output and standard error
// apart (the latter through a file in dir); the exit status.
int RunBatchApart(const TempDir& dir, const std::string& arguments, std::string* out, std::string* err);

// pellucid-server as a child process on a server number of its own (chosen from the
// test's process id and a counter), with extra arguments; its stderr is discarded. The
// constructor returns once the boards exist; the destructor stops and reaps it.
struct ServerProcess {
  int number;
  int pid = -1;
  explicit ServerProcess(const std::vector<std::string>& extra = {});
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  void Stop();
};

// True when a shared memory object of that name ("/PCD_IPC_BB(0007)") exists.
bool SharedMemoryExists(const std::string& name);

// Collects the core's notices while it lives instead of letting them print.
struct NoticeRecorder {
  std::vector<PcdNotice> notices;
  PcdNoticeHandler previous;
  NoticeRecorder();
  ~NoticeRecorder();
};

}  // namespace quorix_test
