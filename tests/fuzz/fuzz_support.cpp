#include "fuzz/fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (const char* dir = std::getenv("QUORIX_FUZZ_SEEDS")) {
    PCDfuzz_WriteSeeds(dir);
    std::exit(0);
  }
  return 0;
}

std::string PCDfuzz_TempFile(const uint8_t* data, size_t size, const char* suffix) {
  const char* tmp = std::getenv("TMPDIR");
  const std::string path = std::string(tmp != nullptr ? tmp : "/tmp") + "/quorix-fuzz-" +
                           std::to_string(getpid()) + suffix;
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);
  return path;
}

void PCDfuzz_WriteFile(const char* dir, const char* name, const std::vector<uint8_t>& bytes) {
  std::ofstream out(std::string(dir) + "/" + name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> PCDfuzz_ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
