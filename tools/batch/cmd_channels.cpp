// quorix-batch channels: the directional colour, FA, ADC and isotropic maps.
#include <cstdio>
#include <string>
#include <thread>

#include "dti/channels.h"
#include "dti/dti_check.h"
#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

// Writes colour, FA and ADC as three NIfTI maps beside each other: <stem>_color,
// <stem>_fa (shown as FA through its scale factor) and <stem>_adc (mm^2/s).
int WriteMaps(const BatchDataSet& set, int32_t first, const std::string& out) {
  const std::string stem = PCD_NiftiStem(out);
  const std::string tail = BatchEndsWith(out, ".nii") ? ".nii" : ".nii.gz";
  const int32_t color = first, fa = first + 1, adc = first + 2;
  if (WriteNiftiChannels(set.volume, &color, 1, &set.geometry, (stem + "_color" + tail).c_str()) != 0 ||
      WriteNiftiChannels(set.volume, &fa, 1, &set.geometry, (stem + "_fa" + tail).c_str(), 0.001f) != 0 ||
      WriteNiftiChannels(set.volume, &adc, 1, &set.geometry, (stem + "_adc" + tail).c_str(), 1e-6f) != 0)
    return -1;
  return 0;
}

int run_channels(BatchArgs& args) {
  BatchInputOptions options = TakeBatchInputOptions(args);
  const auto threshold = args.TakeInteger({"--threshold"}, -32768, 32767);
  const auto threads = args.TakeInteger({"--threads"}, 1, 256);
  const auto out = args.TakeValue({"-o", "--output"});
  if (!out) args.Fail("needs -o OUTPUT");
  else if (!BatchEndsWith(*out, ".raw") && !BatchEndsWith(*out, ".dti") &&
           !BatchEndsWith(*out, ".nii") && !BatchEndsWith(*out, ".nii.gz"))
    args.Fail("OUTPUT must end in .raw, .dti, .nii or .nii.gz");
  if (!args.Finish(1, 1)) return kBatchUsageError;
  // the input's body is mapped unless the result is to replace the input file
  options.mapRawBody = PCD_IsSameFile(args.positional()[0].c_str(), out->c_str()) == 0;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_AT_VOXELS)) return kBatchFailed;
  const int32_t first = set->volume->matrixSize->channels;
  if (PCDdti_AddComputationalChannels(set->dti, static_cast<int16_t>(threshold.value_or(0)),
                                      static_cast<int32_t>(threads.value_or(BatchDefaultThreads()))) != 4) {
    std::fputs("Err: not enough memory for the computed channels\n", stderr);
    return kBatchFailed;
  }
  int result;
  if (BatchEndsWith(*out, ".raw") || BatchEndsWith(*out, ".dti"))
    result = WriteBatchDataSet(set->dti, &set->geometry, *out);
  else
    result = WriteMaps(*set, first, *out);
  return result == 0 ? kBatchOk : kBatchFailed;
}

}  // namespace

extern const BatchCommand kBatchChannelsCommand = {
    "channels", "compute the colour, FA, ADC and isotropic maps",
    "Usage: quorix-batch channels INPUT -o OUTPUT [options]\n"
    "\n"
    "Fits the diffusion tensor at every voxel whose first So signal is above the\n"
    "threshold and appends four channels to the volume: directional colour (RGBA),\n"
    "FA x 1000, ADC x 10^6 (mm^2/s) and the isotropic DWI. Voxels at or below the\n"
    "threshold hold 0 in all four.\n"
    "  OUTPUT ending .raw or .dti   the volume with the four channels appended\n"
    "  OUTPUT ending .nii(.gz)      <stem>_color, <stem>_fa and <stem>_adc maps\n"
    "\n"
    "Options:\n"
    "  --threshold N       So threshold, a 16-bit signal value (default 0)\n"
    "  --threads T         worker threads (default: the number of cores)\n"
    "  --mpg FILE          replace the MPG setting with an MPG description file\n"
    "  --bval FILE         b values of a NIfTI input (default: <stem>.bval beside it)\n"
    "  --bvec FILE         directions of a NIfTI input (default: <stem>.bvec beside it)\n"
    "  --voxel-size MM     voxel size for inputs that carry none; otherwise 1.0 with a\n"
    "                      warning\n",
    run_channels};
