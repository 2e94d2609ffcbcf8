// quorix-batch profile: the diffusion profile of a region, as points for plotting.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "dti/diffusion_profile.h"
#include "dti/dti_check.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

// One point at the centre of every region voxel (sample positions are voxel indices), or
// eight for "high", a quarter voxel from the centre along each axis; x fastest.
std::vector<PcdVector3D> SamplePoints(const PcdRawVolumeData* mask, bool high) {
  const PcdIntSize4D& s = *mask->matrixSize;
  const auto* m = static_cast<const uint8_t*>(mask->data[0]);
  std::vector<PcdVector3D> points;
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at) {
        if (m[at] != 1) continue;
        const auto fx = static_cast<float>(x), fy = static_cast<float>(y),
                   fz = static_cast<float>(z);
        if (!high) {
          points.push_back({fx, fy, fz});
          continue;
        }
        for (float dz : {-0.25f, 0.25f})
          for (float dy : {-0.25f, 0.25f})
            for (float dx : {-0.25f, 0.25f}) points.push_back({fx + dx, fy + dy, fz + dz});
      }
  PCDdti_KeepPointsInsideVolume(&points, {s.x, s.y, s.z});
  return points;
}

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};

int run_profile(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const auto maskFile = args.TakeValue({"--mask"});
  const auto fa = args.TakeNumberPair({"--fa"}, -1e9, 1e9);
  const auto adc = args.TakeNumberPair({"--adc"}, -1e9, 1e9);
  const auto so = args.TakeNumberPair({"--so"}, -1e9, 1e9);
  const auto density = args.TakeValue({"--density"});
  const auto out = args.TakeValue({"-o", "--output"});
  if (!maskFile) args.Fail("needs --mask MASK");
  if (density && *density != "normal" && *density != "high")
    args.Fail("--density takes normal or high");
  if (!args.Finish(1, 1)) return kBatchUsageError;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_INTERPOLATED)) return kBatchFailed;
  std::unique_ptr<PcdRawVolumeData, PcdRawVolumeDataDeleter> mask(
      LoadBatchRegionMask(*maskFile, *set->volume->matrixSize));
  if (!mask) return kBatchFailed;
  const std::vector<PcdVector3D> points = SamplePoints(mask.get(), density && *density == "high");
  if (points.size() > 2147483647u) {
    std::fputs("Err: more sample points than a profile can hold\n", stderr);
    return kBatchFailed;
  }
  std::unique_ptr<FILE, FileCloser> table;
  if (out) {
    table.reset(std::fopen(out->c_str(), "w"));
    if (!table) {
      std::fprintf(stderr, "Err: cannot write %s\n", out->c_str());
      return kBatchFailed;
    }
    std::fputs("x\ty\tz\tFA\tADC\tL1\tL2\tL3\te1x\te1y\te1z\n", table.get());
  }

  PcdDifProfContext context;
  // a range given on the command line sets both of its flags
  auto setRange = [](const auto& range, int32_t* a, float* min, int32_t* b, float* max) {
    if (!range) return;
    *a = *b = 1;
    *min = static_cast<float>(range->first);
    *max = static_cast<float>(range->second);
  };
  setRange(fa, &context.FAcheckA, &context.FAmin, &context.FAcheckB, &context.FAmax);
  setRange(adc, &context.ADCcheckA, &context.ADCmin, &context.ADCcheckB, &context.ADCmax);
  setRange(so, &context.SocheckA, &context.SoMin, &context.SocheckB, &context.SoMax);
  context.pointCount = static_cast<int32_t>(points.size());
  context.points = points.data();
  FILE* rows = table.get();
  auto draw = [rows](const PcdVector3D* p, const PcdDiffusionTensorData* r) {
    if (rows == nullptr) return;
    std::fprintf(rows, "%.2f\t%.2f\t%.2f\t%.9g\t%.9g\t%.9g\t%.9g\t%.9g\t%.9g\t%.9g\t%.9g\n", p->x,
                 p->y, p->z, PCDdti_GetFA(r), PCDdti_GetADC(r), PCDdti_GetLambda1(r),
                 PCDdti_GetLambda2(r), PCDdti_GetLambda3(r), r->tensor[1][3], r->tensor[2][3],
                 r->tensor[3][3]);
  };
  char text[256] = "";
  PCDdti_DiffusionProfileDisplay(set->dti, &context, draw, text, sizeof text);
  if (text[0] == '\0') return kBatchFailed;  // refused, with its line
  std::printf("%s\n", text);
  if (table && std::fclose(table.release()) != 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", out->c_str());
    return kBatchFailed;
  }
  return kBatchOk;
}

}  // namespace

extern const BatchCommand kBatchProfileCommand = {
    "profile", "diffusion profile of a region: tensors at sample points",
    "Usage: quorix-batch profile INPUT --mask MASK [--fa MIN MAX] [--adc MIN MAX]\n"
    "                            [--so MIN MAX] [--density normal|high] [-o POINTS.tsv]\n"
    "\n"
    "Samples the region, fits the tensor at every sample point (signals interpolated\n"
    "between voxels), keeps the points within the given ranges and prints\n"
    "  Symbols: KEPT/ALL (P% displayed)\n"
    "      mean FA: ...\n"
    "      mean ADC(x1k): ...        (10^-3 mm^2/s)\n"
    "\n"
    "Options:\n"
    "  --mask MASK         raw volume file or NIfTI image of the data set's matrix size,\n"
    "                      one channel, every voxel 0 or 1; the 1s form the region\n"
    "  --fa MIN MAX        keep points with MIN <= FA <= MAX\n"
    "  --adc MIN MAX       keep points with MIN <= ADC <= MAX (mm^2/s)\n"
    "  --so MIN MAX        keep points with MIN <= So <= MAX (mean b = 0 signal)\n"
    "  --density D         normal: one point at the centre of each voxel (default);\n"
    "                      high: eight, a quarter voxel from the centre along each axis\n"
    "  -o POINTS.tsv       one row per kept point: x, y, z (voxel units, a voxel's centre\n"
    "                      at its index), FA, ADC, L1, L2, L3 (mm^2/s) and e1 x, y, z\n"
    "  --mpg FILE          replace the MPG setting with an MPG description file\n"
    "  --bval FILE         b values of a NIfTI input (default: <stem>.bval beside it)\n"
    "  --bvec FILE         directions of a NIfTI input (default: <stem>.bvec beside it)\n"
    "  --voxel-size MM     voxel size for inputs that carry none\n",
    run_profile};
