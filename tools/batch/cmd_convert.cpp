// quorix-batch convert: rewrites a data set in another of the supported formats.
#include <cstdio>
#include <string>

#include "tools/batch/batch_input.h"

namespace {

int run_convert(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const std::optional<std::string> out = args.TakeValue({"-o", "--output"});
  if (!out) args.Fail("needs -o OUTPUT");
  else if (!IsBatchDataSetName(*out)) args.Fail("OUTPUT must end in .dti, .raw, .mpg, .nii or .nii.gz");
  if (!args.Finish(1, 1)) return kBatchUsageError;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  return WriteBatchDataSet(set->dti, &set->geometry, *out) == 0 ? kBatchOk : kBatchFailed;
}

}  // namespace

static const std::string kConvertUsage = std::string(
    "Usage: quorix-batch convert INPUT -o OUTPUT [options]\n"
    "\n"
    "Loads INPUT as the desktop program does and writes it again; the ending of OUTPUT\n"
    "picks the format:\n"
    "  .dti            DTI file (volume and MPG setting)\n"
    "  .raw            raw volume file with header (every channel)\n"
    "  .mpg            MPG description file (the setting alone)\n"
    "  .nii, .nii.gz   NIfTI-1 image of the DTI channels with <stem>.bval/<stem>.bvec\n"
    "\n") +
    kBatchInputOptionsHelp;

extern const BatchCommand kBatchConvertCommand = {
    "convert", "write a data set as a DTI, raw volume, MPG or NIfTI file",
    kConvertUsage.c_str(),
    run_convert};
