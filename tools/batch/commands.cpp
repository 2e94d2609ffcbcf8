// The commands of quorix-batch.
//
// Adding a command:
//   1. write tools/batch/cmd_<name>.cpp defining
//        extern const BatchCommand kBatch<Name>Command = {"<name>", "<one-line summary>",
//                                                       "<--help text>", run_<name>};
//      where run_<name>(BatchArgs&) takes its options (LoadBatchInput and
//      TakeBatchInputOptions in batch_input.h load any input file the same way for every
//      command), calls args.Finish(...) and returns kBatchOk, kBatchFailed or
//      kBatchUsageError;
//   2. declare it below and add one line to kCommands;
//   3. add tests/tools/test_batch_<name>.cpp running the built program.
// The build picks up every tools/batch/*.cpp by itself.
#include "tools/batch/batch.h"

extern const BatchCommand kBatchInfoCommand;
extern const BatchCommand kBatchConvertCommand;
extern const BatchCommand kBatchPhantomCommand;
extern const BatchCommand kBatchChannelsCommand;
extern const BatchCommand kBatchTrackCommand;
extern const BatchCommand kBatchModelCommand;
extern const BatchCommand kBatchStatsCommand;
extern const BatchCommand kBatchGrowCommand;
extern const BatchCommand kBatchProfileCommand;
extern const BatchCommand kBatchSessionCommand;
extern const BatchCommand kBatchRoiCommand;
extern const BatchCommand kBatchStudyCommand;
extern const BatchCommand kBatchGradcheckCommand;
extern const BatchCommand kBatchReportCommand;
extern const BatchCommand kBatchBidsCommand;

namespace {

const BatchCommand* const kCommands[] = {
    &kBatchInfoCommand,
    &kBatchConvertCommand,
    &kBatchPhantomCommand,
    &kBatchChannelsCommand,
    &kBatchTrackCommand,
    &kBatchModelCommand,
    &kBatchStatsCommand,
    &kBatchGrowCommand,
    &kBatchProfileCommand,
    &kBatchSessionCommand,
    &kBatchRoiCommand,
    &kBatchStudyCommand,
    &kBatchGradcheckCommand,
    &kBatchReportCommand,
    &kBatchBidsCommand,
};

}  // namespace

std::span<const BatchCommand* const> BatchCommands() { return kCommands; }

const BatchCommand* FindBatchCommand(const std::string& name) {
  for (const BatchCommand* command : kCommands)
    if (name == command->name) return command;
  return nullptr;
}
