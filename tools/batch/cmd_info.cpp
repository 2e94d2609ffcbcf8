// quorix-batch info: what a data set holds and how its channels are set up.
#include <cstdio>

#include "tools/batch/batch_input.h"

namespace {

int run_info(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  if (!args.Finish(1, 1)) return kBatchUsageError;
  const std::string& path = args.positional()[0];
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(path, options);
  if (!set) return kBatchFailed;

  const PcdIntSize4D& size = *set->volume->matrixSize;
  std::printf("%s", set->information.c_str());
  std::printf("Kind: %s\n", BatchInputKindName(set->kind));
  std::printf("Matrix: %d x %d x %d, %d channels\n", size.x, size.y, size.z, size.channels);
  std::printf("Voxel size: %g mm\n", static_cast<double>(set->dti->reserved));
  for (int32_t c = 0; c < size.channels; ++c) {
    std::printf("Channel %d: %s%s\n", c, PCD_NameOfDataType(set->volume->dataType[c]),
                set->volume->colorFormat[c] == PCD_RGBA_PACKED ? " RGBA" : "");
  }
  std::fflush(stdout);
  PCDdti_DumpMPGvectorSetting(set->dti);
  return kBatchOk;
}

}  // namespace

static const std::string kInfoUsage = std::string(
    "Usage: quorix-batch info INPUT [options]\n"
    "\n"
    "Loads INPUT (raw volume file with header, DTI file, or NIfTI image) as the desktop\n"
    "program does and prints its matrix size, voxel size and channel types on standard\n"
    "output, then the MPG setting on standard error.\n"
    "\n") +
    kBatchInputOptionsHelp;

extern const BatchCommand kBatchInfoCommand = {
    "info", "print the matrix, channel types and MPG setting of a data set",
    kInfoUsage.c_str(),
    run_info};
