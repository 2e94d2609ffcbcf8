// Small helpers shared by the test programs: temporary folders, whole-file I/O, paths
// of the built programs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

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
void WriteFileText(const std::string& path, const std::string& text);

// Path of an executable built next to the tests (quorix-batch, pellucid-server, ...).
std::string BuiltProgram(const std::string& name);

// Runs a command through /bin/sh, returning its exit status (or -1) and its output.
int RunCommand(const std::string& command, std::string* output = nullptr);

}  // namespace quorix_test
