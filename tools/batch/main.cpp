// quorix-batch COMMAND [ARGUMENTS]: runs one command of the table in commands.cpp.
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "tools/batch/batch.h"

namespace {

void print_tool_usage(FILE* out) {
  std::fputs(
      "Usage: quorix-batch COMMAND [ARGUMENTS]\n"
      "       quorix-batch help COMMAND | COMMAND --help\n"
      "\n"
      "Runs the Quorix.II DTI analyses without the desktop program. Inputs are raw\n"
      "volume files with header, DTI files, or NIfTI-1 images (.nii, .nii.gz) with FSL\n"
      ".bval/.bvec files. Diagnostics and the MPG setting dump go to standard error.\n"
      "\n"
      "Commands:\n",
      out);
  for (const BatchCommand* command : BatchCommands())
    std::fprintf(out, "  %-10s %s\n", command->name, command->summary);
  std::fputs(
      "\n"
      "Exit status: 0 on success, 1 when the work failed, 2 for a wrong command line.\n",
      out);
}

int unknown_command(const std::string& name) {
  std::fprintf(stderr, "Err: unknown command \"%s\"\n", name.c_str());
  print_tool_usage(stderr);
  return kBatchUsageError;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    print_tool_usage(stderr);
    return kBatchUsageError;
  }
  const std::string name = args.front();
  if (name == "--help" || name == "-h") {
    print_tool_usage(stdout);
    return kBatchOk;
  }
  if (name == "help") {
    if (args.size() == 1) {
      print_tool_usage(stdout);
      return kBatchOk;
    }
    const BatchCommand* command = FindBatchCommand(args[1]);
    if (command == nullptr) return unknown_command(args[1]);
    std::fputs(command->usage, stdout);
    return kBatchOk;
  }
  const BatchCommand* command = FindBatchCommand(name);
  if (command == nullptr) return unknown_command(name);
  args.erase(args.begin());
  if (BatchWantsHelp(args)) {
    std::fputs(command->usage, stdout);
    return kBatchOk;
  }
  BatchArgs commandArgs(name, std::move(args));
  // no command may end by an exception: what slipped past the checks ends as one line
  try {
    return command->run(commandArgs);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "Err: %s: out of memory\n", name.c_str());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "Err: %s: %s\n", name.c_str(), e.what());
  } catch (...) {
    std::fprintf(stderr, "Err: %s: unexpected failure\n", name.c_str());
  }
  return kBatchFailed;
}
