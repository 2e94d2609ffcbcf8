#include "cohort/cohort_files.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#ifndef QUORIX_VERSION
#define QUORIX_VERSION "unknown"
#endif

const char* CohortVersion() { return QUORIX_VERSION; }

std::optional<std::string> CohortSha256OfFile(const std::string& path) {
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) return std::nullopt;
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
  std::vector<unsigned char> buffer(1 << 16);
  size_t got;
  while ((got = std::fread(buffer.data(), 1, buffer.size(), file.get())) > 0)
    if (EVP_DigestUpdate(context.get(), buffer.data(), got) != 1) return std::nullopt;
  if (std::ferror(file.get())) return std::nullopt;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return std::nullopt;
  static const char hex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += hex[digest[i] >> 4];
    text += hex[digest[i] & 15];
  }
  return text;
}

bool CohortWriteFileAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp." + std::to_string(getpid());
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.flush();
    if (!out) {
      std::error_code ignored;
      std::filesystem::remove(temporary, ignored);
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    return false;
  }
  return true;
}

std::optional<std::string> CohortReadFile(const std::string& path, size_t limit) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text;
  char buffer[1 << 14];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<size_t>(in.gcount()));
    if (text.size() > limit) return std::nullopt;
  }
  return text;
}

namespace {

// An open-file-description lock over the whole file: exclusive between any two opens (also
// within one process), dropped by the kernel when the file is closed or the process ends,
// and it can be queried without being taken.
struct flock WholeFileLock(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

CohortLock::CohortLock(const std::string& path, bool wait) {
  fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) return;
  struct flock lock = WholeFileLock(F_WRLCK);
  int result;
  do result = fcntl(fd_, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock);
  while (result != 0 && errno == EINTR);
  locked_ = result == 0;
}

CohortLock::~CohortLock() {
  if (fd_ >= 0) close(fd_);  // closing drops the lock
}

bool CohortLockIsHeld(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // asks without taking it, so that a unit starting just now is never turned away
  struct flock lock = WholeFileLock(F_WRLCK);
  const bool held = fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  close(fd);
  return held;
}

std::string CohortJsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}
