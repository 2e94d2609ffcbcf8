// quorix-batch: the command-line tool over the core library.
//
// Every command is one BatchCommand record (in its own file cmd_<name>.cpp) listed in the
// table of commands.cpp. A command's run function receives its arguments as a BatchArgs,
// takes its options from it, checks the positional arguments with Finish() and returns
// the exit status.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

// Exit statuses of every command.
constexpr int kBatchOk = 0;
constexpr int kBatchFailed = 1;      // the work could not be done (bad input file, ...)
constexpr int kBatchUsageError = 2;  // the command line is wrong

class BatchArgs;

struct BatchCommand {
  const char* name;     // as typed: "info"
  const char* summary;  // one line for the tool's command list
  const char* usage;    // the whole --help text of the command
  int (*run)(BatchArgs& args);
};

// The table of commands (commands.cpp), in the order the help lists them.
std::span<const BatchCommand* const> BatchCommands();
const BatchCommand* FindBatchCommand(const std::string& name);

// The arguments of one command. Options may stand anywhere: "--name VALUE",
// "--name=VALUE" or a bare flag; "--" ends the options. Each Take* removes what it
// consumed. Errors are printed at once as "Err: <command>: ..." lines and remembered;
// Finish() then reports leftover options and a wrong number of positional arguments.
class BatchArgs {
 public:
  BatchArgs(std::string command, std::vector<std::string> args);

  bool TakeFlag(std::initializer_list<const char*> names);
  std::optional<std::string> TakeValue(std::initializer_list<const char*> names);
  // Every value of a repeatable option, in order.
  std::vector<std::string> TakeValues(std::initializer_list<const char*> names);
  // A number within [min, max]; anything else is an error naming the option.
  std::optional<double> TakeNumber(std::initializer_list<const char*> names, double min,
                                   double max);
  std::optional<long long> TakeInteger(std::initializer_list<const char*> names, long long min,
                                       long long max);
  // "--name LOW HIGH": two numbers within [min, max], the second not below the first.
  std::optional<std::pair<double, double>> TakeNumberPair(std::initializer_list<const char*> names,
                                                          double min, double max);

  // Checks that no option is left and that minCount..maxCount positional arguments
  // remain. True when the command line was right.
  bool Finish(size_t minCount, size_t maxCount);

  // The positional arguments, in order (valid after Finish()).
  const std::vector<std::string>& positional() const { return positional_; }
  const std::string& command() const { return command_; }
  bool ok() const { return ok_; }
  // Reports a usage error (printed as "Err: <command>: <message>").
  void Fail(const std::string& message);

 private:
  struct Token {
    std::string text;
    bool isOption;  // starts with '-' and stands before "--"
  };
  std::string command_;
  std::vector<Token> tokens_;            // what no Take* has consumed yet, in order
  std::vector<std::string> positional_;  // filled by Finish()
  bool ok_ = true;
};

// True when the arguments ask for help (--help or -h before any "--").
bool BatchWantsHelp(const std::vector<std::string>& args);
