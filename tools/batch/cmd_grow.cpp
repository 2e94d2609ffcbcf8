// quorix-batch grow: region growing from a seed mask.
#include <cstdio>
#include <memory>
#include <string>

#include "dti/dti_check.h"
#include "dti/region_growing.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

// The growing defaults of a new ROI.
constexpr float kDefaultFAmin = 0.2f;
constexpr float kDefaultAngleMax = 5.0f;
constexpr int32_t kDefaultGenerations = 10;
constexpr float kDefaultLow = 1.0f, kDefaultHigh = 10000.0f;

int64_t CountRegion(const PcdRawVolumeData* mask) {
  const auto* m = static_cast<const uint8_t*>(mask->data[0]);
  int64_t n = 0;
  for (int64_t i = 0; i < PCD_GetNumberOfVoxels(mask); ++i) n += m[i] != 0;
  return n;
}

int run_grow(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const auto seedMask = args.TakeValue({"--seed-mask"});
  const bool tensor = args.TakeFlag({"--tensor"});
  const bool signal = args.TakeFlag({"--signal"});
  const auto faMin = args.TakeNumber({"--fa-min"}, -1, 2);
  const auto angleMax = args.TakeNumber({"--angle-max"}, 0, 180);
  const auto channel = args.TakeInteger({"--channel"}, 0, 1023);
  const auto low = args.TakeNumber({"--low"}, -32768, 32767);
  const auto high = args.TakeNumber({"--high"}, -32768, 32767);
  const auto generations = args.TakeInteger({"--generations"}, 0, 2147483647);
  const auto out = args.TakeValue({"-o", "--output"});
  if (!seedMask) args.Fail("needs --seed-mask MASK");
  if (tensor && signal) args.Fail("--tensor and --signal exclude each other");
  if (signal && (faMin || angleMax)) args.Fail("--fa-min and --angle-max belong to --tensor");
  if (!signal && (channel || low || high))
    args.Fail("--channel, --low and --high belong to --signal");
  if (!out) args.Fail("needs -o REGION");
  else if (!IsBatchRegionName(*out)) args.Fail("REGION must end in .nii, .nii.gz or .raw");
  if (!args.Finish(1, 1)) return kBatchUsageError;

  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  // tensor growing needs the DTI setting; grey growing reads one channel only
  if (!signal && !PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_AT_VOXELS)) return kBatchFailed;
  const PcdIntSize4D& size = *set->volume->matrixSize;
  if (signal && channel.value_or(0) >= size.channels) {
    std::fprintf(stderr, "Err: channel %lld is not in the volume (channels 0 to %d)\n",
                 *channel, size.channels - 1);
    return kBatchFailed;
  }
  std::unique_ptr<PcdRawVolumeData, PcdRawVolumeDataDeleter> mask(
      LoadBatchRegionMask(*seedMask, size));
  if (!mask) return kBatchFailed;

  PcdDtiRegionGrowingContext context;
  context.mode = signal ? kPcdGrowBySingleSignal : kPcdGrowByTensorProperty;
  context.tensorCriteria[kPcdGrowingFAminWord] = static_cast<float>(faMin.value_or(kDefaultFAmin));
  context.tensorCriteria[kPcdGrowingAngleMaxWord] =
      static_cast<float>(angleMax.value_or(kDefaultAngleMax));
  context.generationLimit = static_cast<int32_t>(generations.value_or(kDefaultGenerations));
  context.channel = static_cast<int32_t>(channel.value_or(0));
  context.lowerBound = static_cast<float>(low.value_or(kDefaultLow));
  context.upperBound = static_cast<float>(high.value_or(kDefaultHigh));
  context.mask = mask.get();
  const int64_t seeds = CountRegion(mask.get());
  PCDdti_RegionGrowing(set->dti, &context);

  std::printf("Seed voxels: %lld\n", static_cast<long long>(seeds));
  std::printf("Region voxels: %lld\n", static_cast<long long>(CountRegion(mask.get())));
  if (!signal)
    std::printf("Region direction: %.6f %.6f %.6f\n", context.regionDirection.x,
                context.regionDirection.y, context.regionDirection.z);
  return WriteBatchRegion(mask.get(), &set->geometry, *out) == 0 ? kBatchOk : kBatchFailed;
}

}  // namespace

extern const BatchCommand kBatchGrowCommand = {
    "grow", "region growing from a seed mask",
    "Usage: quorix-batch grow INPUT --seed-mask MASK [--tensor [--fa-min F] [--angle-max DEG]\n"
    "                         | --signal [--channel C] [--low L] [--high H]]\n"
    "                         [--generations G] -o REGION [options]\n"
    "\n"
    "Grows the seed voxels of MASK, generation by generation, into their six face\n"
    "neighbours (never into the outermost layer of the volume) and writes the region.\n"
    "Seeds that fail the criterion are dropped first.\n"
    "  --tensor (default)  a neighbour joins when its FA is at least F and its principal\n"
    "                      direction lies within DEG degrees of that of the voxel it\n"
    "                      grows from (sign ignored); the region direction, the unit sum\n"
    "                      of the principal directions of the region, is printed\n"
    "  --signal            a neighbour joins when its value in channel C lies within L to\n"
    "                      H (whole numbers, bounds included)\n"
    "REGION ending .nii or .nii.gz is a NIfTI image in the input's space, .raw a raw\n"
    "volume file; one unsigned byte a voxel, 1 inside. Growing progress goes to\n"
    "standard error.\n"
    "\n"
    "Options:\n"
    "  --seed-mask MASK    raw volume file or NIfTI image of the data set's matrix size,\n"
    "                      one channel, every voxel 0 or 1\n"
    "  --fa-min F          FA minimum (default 0.2)\n"
    "  --angle-max DEG     largest angle between principal directions (default 5.0)\n"
    "  --channel C         0-based channel of the volume for --signal (default 0)\n"
    "  --low L, --high H   signal range for --signal (default 1 to 10000)\n"
    "  --generations G     the last generation grown from; seeds are generation 1, 0\n"
    "                      only drops seeds (default 10)\n"
    "  --mpg FILE          replace the MPG setting with an MPG description file\n"
    "  --bval FILE         b values of a NIfTI input (default: <stem>.bval beside it)\n"
    "  --bvec FILE         directions of a NIfTI input (default: <stem>.bvec beside it)\n"
    "  --voxel-size MM     voxel size for inputs that carry none\n",
    run_grow};
