// Whole quorix-batch commands in the harness's process: what the commands do with an
// input after its reader took it (sizes, settings, writers) is fuzzed too.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tools/batch/batch.h"

// Runs one command as `quorix-batch NAME ARGS...` would, its summaries on standard output
// thrown away; its exit status.
inline int PCDfuzz_RunBatch(const std::string& name, std::vector<std::string> args) {
  static bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  (void)quiet;
  const BatchCommand* command = FindBatchCommand(name);
  if (command == nullptr) __builtin_trap();
  BatchArgs commandArgs(name, std::move(args));
  return command->run(commandArgs);
}
