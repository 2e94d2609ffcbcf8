// quorix-batch stats: voxel statistics of the tensors in a region.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "dti/dti_check.h"
#include "dti/statistics.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

void PrintJson(const PcdDiffusionTensorStatistics& s) {
  std::printf("{\n  \"tensors\": %d,\n  \"valid_tensors\": %u", s.voxelCount, s.validCount);
  const struct {
    const char* name;
    double min, max, mean, sd;
  } rows[6] = {{"So", s.SoMin, s.SoMax, s.SoMean, s.SoSD},
               {"FA", s.FAmin, s.FAmax, s.FAmean, s.FAsd},
               {"ADC", s.ADCmin, s.ADCmax, s.ADCmean, s.ADCsd},
               {"L1", s.L1min, s.L1max, s.L1mean, s.L1sd},
               {"L2", s.L2min, s.L2max, s.L2mean, s.L2sd},
               {"L3", s.L3min, s.L3max, s.L3mean, s.L3sd}};
  for (const auto& r : rows) {
    if (s.validCount == 0) {
      std::printf(",\n  \"%s\": null", r.name);
      continue;
    }
    // JSON has no NaN: an undefined SD (rounding below zero under the root) becomes null
    char sd[32] = "null";
    if (r.sd == r.sd) std::snprintf(sd, sizeof sd, "%.17g", r.sd);
    std::printf(",\n  \"%s\": {\"min\": %.17g, \"max\": %.17g, \"mean\": %.17g, \"sd\": %s}",
                r.name, r.min, r.max, r.mean, sd);
  }
  std::printf("\n}\n");
}

int run_stats(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const auto maskFile = args.TakeValue({"--mask"});
  const auto label = args.TakeInteger({"--label"}, -2147483648LL, 4294967295LL);
  const bool json = args.TakeFlag({"--json"});
  if (!maskFile) args.Fail("needs --mask MASK");
  if (!args.Finish(1, 1)) return kBatchUsageError;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_AT_VOXELS)) return kBatchFailed;
  std::unique_ptr<PcdRawVolumeData, PcdRawVolumeDataDeleter> mask(
      LoadBatchRegionMask(*maskFile, *set->volume->matrixSize, label));
  if (!mask) return kBatchFailed;
  PcdDiffusionTensorStatistics* s = PCDdti_GetDiffusionTensorStatistics(set->dti, mask.get());
  if (s == nullptr) return kBatchFailed;
  if (json)
    PrintJson(*s);
  else
    std::fputs(PCDdti_FormatDiffusionTensorStatistics(s).c_str(), stdout);
  std::free(s);
  return kBatchOk;
}

}  // namespace

extern const BatchCommand kBatchStatsCommand = {
    "stats", "voxel statistics of the tensors in a region",
    "Usage: quorix-batch stats INPUT --mask MASK [--label N] [--json] [options]\n"
    "\n"
    "Fits the diffusion tensor at every voxel of the region and prints how many there\n"
    "are, how many are valid (three positive eigenvalues, FA within 0 to 1), and the\n"
    "minimum - maximum (mean/population SD) of So, FA, ADC and the eigenvalues L1 >= L2\n"
    ">= L3 over the valid ones, ADC and eigenvalues in 10^-3 mm^2/s; or \"No valid\n"
    "voxels.\". Progress goes to standard error.\n"
    "\n"
    "Options:\n"
    "  --mask MASK         the region (see below)\n"
    "  --label N           the region is the voxels of MASK equal to N (an atlas)\n"
    "  --json              print the same numbers as JSON: \"tensors\", \"valid_tensors\"\n"
    "                      and min, max, mean and sd of \"So\", \"FA\", \"ADC\", \"L1\", \"L2\"\n"
    "                      and \"L3\" (ADC and eigenvalues in mm^2/s; null without valid\n"
    "                      voxels)\n"
    "  --mpg FILE          replace the MPG setting with an MPG description file\n"
    "  --bval FILE         b values of a NIfTI input (default: <stem>.bval beside it)\n"
    "  --bvec FILE         directions of a NIfTI input (default: <stem>.bvec beside it)\n"
    "  --voxel-size MM     voxel size for inputs that carry none\n"
    "\n"
    "A MASK is a raw volume file or a NIfTI image with one channel and the data set's\n"
    "matrix size; without --label every voxel must be 0 or 1, and the 1s form the region.\n",
    run_stats};
