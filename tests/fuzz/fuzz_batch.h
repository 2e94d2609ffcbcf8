// Whole quorix-batch commands in the harness's process: what the commands do with an
// input after its reader took it (sizes, settings, writers) is fuzzed too.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/batch/batch.h"

// Runs one command as `quorix-batch NAME ARGS...` would, its summaries on standard output
// thrown away; its exit status.
inline int PCDfuzz_RunBatch(const std::string& name, std::vector<std::string> args) {
  // the harness's memory limit is below half the machine's: sizes are checked against it
  // (a harness may have set a lower one first)
  static bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr && setenv("QUORIX_MEMORY_LIMIT_MB", "512", 0) == 0;
  (void)quiet;
  const BatchCommand* command = FindBatchCommand(name);
  if (command == nullptr) __builtin_trap();
  BatchArgs commandArgs(name, std::move(args));
  return command->run(commandArgs);
}
