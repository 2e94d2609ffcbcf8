// Files of a cohort run: checksums, whole-or-nothing writes and locks, so that parallel
// and repeated runs never see half a file or work on the same subject twice.
#pragma once

#include <optional>
#include <string>

// The SHA-256 of a file's bytes as 64 lower-case hex digits; nullopt when it cannot be read.
std::optional<std::string> CohortSha256OfFile(const std::string& path);

// Writes text to path through a temporary file beside it and a rename, so that readers
// see the old or the new file, never a part. False when anything fails.
bool CohortWriteFileAtomically(const std::string& path, const std::string& text);

// The whole file, or nullopt when it cannot be read or is longer than limit bytes.
std::optional<std::string> CohortReadFile(const std::string& path, size_t limit);

// An exclusive advisory lock on a file (created when missing). The kernel drops it when
// the process ends in any way, so a killed run never leaves a lock behind.
class CohortLock {
 public:
  // Tries once; locked() says whether it was taken.
  explicit CohortLock(const std::string& path, bool wait = false);
  ~CohortLock();
  CohortLock(const CohortLock&) = delete;
  CohortLock& operator=(const CohortLock&) = delete;
  bool locked() const { return locked_; }

 private:
  int fd_ = -1;
  bool locked_ = false;
};

// True when someone holds the lock on path now (asked without taking it).
bool CohortLockIsHeld(const std::string& path);

// A string as a JSON string literal (quotes included).
std::string CohortJsonString(const std::string& text);

// The version that outputs and markers record.
const char* CohortVersion();
