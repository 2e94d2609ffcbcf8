// quorix-batch track: deterministic fiber tracking from a seed mask or box.
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dti/dti_check.h"
#include "fiber/tracking.h"
#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "io/tract_file.h"
#include "study/fiber_dump.h"
#include "study/study_runner.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

bool ElementIsNonZero(const PcdRawVolumeData* v, size_t at) {
  static const uint8_t zero[8] = {};
  const int32_t size = PCD_SizeOfDataType(v->dataType[0]);
  return std::memcmp(static_cast<const uint8_t*>(v->data[0]) + at * static_cast<size_t>(size), zero,
                     static_cast<size_t>(size)) != 0;
}

// The voxels of a mask file (raw volume or NIfTI) that seed, or false with an "Err: " line.
bool MaskVoxels(const std::string& path, const PcdIntSize4D& size, std::vector<PcdIntVector3D>* out) {
  std::string info;
  PcdWorldGeometry geometry{};
  PcdRawVolumeData* mask = PCD_IsNiftiFile(path.c_str())
                               ? ReadNiftiVolumeFile(path.c_str(), &geometry, &info)
                               : ReadRawVolumeFile(path.c_str(), &info);
  if (mask == nullptr) {
    std::fprintf(stderr, "Err: cannot read the seed mask %s\n", path.c_str());
    return false;
  }
  const PcdIntSize4D& m = *mask->matrixSize;
  const bool same = m.x == size.x && m.y == size.y && m.z == size.z;
  if (!same) {
    std::fprintf(stderr, "Err: the seed mask is %d x %d x %d, the data set %d x %d x %d\n", m.x, m.y,
                 m.z, size.x, size.y, size.z);
  } else {
    size_t at = 0;
    for (int z = 0; z < m.z; ++z)
      for (int y = 0; y < m.y; ++y)
        for (int x = 0; x < m.x; ++x, ++at)
          if (ElementIsNonZero(mask, at)) out->push_back({x, y, z});
  }
  PCD_DeleteRawVolumeData(mask);
  return same;
}

int run_track(BatchArgs& args) {
  BatchInputOptions options = TakeBatchInputOptions(args);
  const auto mask = args.TakeValue({"--seed-mask"});
  const auto box = args.TakeValue({"--seed-box"});
  const auto perVoxel = args.TakeInteger({"--seeds-per-voxel"}, 1, 1000000);
  const auto faMin = args.TakeNumber({"--fa-min"}, -1, 2);
  const bool noFaMin = args.TakeFlag({"--no-fa-min"});
  const bool noSoMin = args.TakeFlag({"--no-so-min"});
  const auto adcMax = args.TakeNumber({"--adc-max"}, 0, 1);
  const auto soMin = args.TakeNumber({"--so-min"}, -40000, 40000);
  const auto soMax = args.TakeNumber({"--so-max"}, -40000, 40000);
  const auto angleMax = args.TakeNumber({"--angle-max"}, 0, 180);
  const auto step = args.TakeNumber({"--step"}, 1e-3, 100);
  const auto nodes = args.TakeInteger({"--nodes"}, 1, 32767);
  const auto scheme = args.TakeInteger({"--scheme"}, -2147483647LL, 2147483647LL);
  const auto threads = args.TakeInteger({"--threads"}, 1, 512);
  const auto dump = args.TakeValue({"--dump"});
  const auto tck = args.TakeValue({"--tck"});
  const auto trk = args.TakeValue({"--trk"});
  const std::vector<std::string> targetFiles = args.TakeValues({"--target"});
  const std::vector<std::string> avoidFiles = args.TakeValues({"--avoid"});
  if (mask.has_value() == box.has_value()) args.Fail("needs exactly one of --seed-mask and --seed-box");
  if (!args.Finish(1, 1)) return kBatchUsageError;
  // the input's body is mapped unless an output is to replace the input file
  const std::string& input = args.positional()[0];
  options.mapRawBody = true;
  for (const auto& out : {dump, tck, trk})
    if (out && PCD_IsSameFile(input.c_str(), out->c_str())) options.mapRawBody = false;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(input, options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_INTERPOLATED)) return kBatchFailed;

  const PcdIntSize4D& size = *set->volume->matrixSize;
  std::vector<PcdIntVector3D> voxels;
  if (!(mask ? MaskVoxels(*mask, size, &voxels) : BatchParseSeedBox(*box, size, &voxels))) return kBatchFailed;
  // the target and avoidance masks, each as one byte a voxel
  std::vector<std::vector<uint8_t>> targets, avoidances;
  for (auto [files, masks] : {std::pair{&targetFiles, &targets}, std::pair{&avoidFiles, &avoidances}})
    for (const std::string& file : *files) {
      std::vector<PcdIntVector3D> in;
      if (!MaskVoxels(file, size, &in)) return kBatchFailed;
      masks->emplace_back(static_cast<size_t>(size.x) * size.y * size.z, 0);
      for (const PcdIntVector3D& v : in) masks->back()[v.x + static_cast<size_t>(size.x) * (v.y + static_cast<size_t>(size.y) * v.z)] = 1;
    }
  const int64_t k = perVoxel.value_or(1);
  if (static_cast<int64_t>(voxels.size()) * k > 100000000) {
    std::fputs("Err: more than 100000000 seeds\n", stderr);
    return kBatchFailed;
  }
  std::vector<PcdVector3D> seeds;
  seeds.reserve(voxels.size() * static_cast<size_t>(k));
  for (const PcdIntVector3D& v : voxels)
    for (int64_t i = 0; i < k; ++i) seeds.push_back(PCDdti_SeedInVoxel(v.x, v.y, v.z, static_cast<int>(i)));

  PcdFibeTrakContext context;
  PcdDiffusionTensorLimits& l = context.limits;
  if (faMin) l.FAmin = static_cast<float>(*faMin);
  if (noFaMin) l.useFAmin = 0;
  if (noSoMin) l.useSoMin = 0;
  if (adcMax) l.useADCmax = 1, l.ADCmax = static_cast<float>(*adcMax);
  if (soMin) l.SoMin = static_cast<float>(*soMin);
  if (soMax) l.useSoMax = 1, l.SoMax = static_cast<float>(*soMax);
  if (angleMax) l.useAngleMax = 1, l.AngleMax = static_cast<float>(*angleMax);
  if (step) context.step = static_cast<float>(*step);
  if (nodes) context.nodeLimit = static_cast<int32_t>(*nodes);
  if (scheme) context.scheme = static_cast<int32_t>(*scheme);
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();

  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(
      set->dti, &context, static_cast<int>(threads.value_or(BatchDefaultThreads())));
  if (result == nullptr) return kBatchFailed;
  // a fiber is kept when it meets every target and no avoidance mask (at its nodes)
  const PcdIntSize3D size3{size.x, size.y, size.z};
  const int drawn = PCD_SelectFibersByMasks(result, targets, avoidances, &size3,
                                            static_cast<int>(threads.value_or(BatchDefaultThreads())));
  if (drawn < 0) {
    PCDdti_DeleteFibeTrakBuffer(result);
    return kBatchFailed;
  }
  int64_t nodesWritten = 0;
  for (int32_t i = 0; i < result->lineCount; ++i)
    if (result->pairs[i]->selection) nodesWritten += PCD_FiberNodeCount(result->pairs[i]);
  std::printf("Seed Points:   %d\n", result->seedCount);
  std::printf("Tracked Lines:   %d\n", result->lineCount);
  std::printf("Drawn Lines:   %d\n", drawn);
  std::printf("Buffer Size:   %3.1f Mb\n", static_cast<double>(PCD_GetFibeTrakBufferMegabytes(result)));
  std::printf("Nodes:   %lld\n", static_cast<long long>(nodesWritten));
  int status = kBatchOk;
  const float voxelSize = set->dti->reserved;
  if (dump && PCDdti_DumpFibeTrakBufferToFile(result, voxelSize, dump->c_str()) < 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", dump->c_str());
    status = kBatchFailed;
  }
  if (tck && WriteTckFile(result, &set->geometry, tck->c_str()) != 0) status = kBatchFailed;
  if (trk && WriteTrkFile(result, &set->geometry, &size, trk->c_str()) != 0) status = kBatchFailed;
  PCDdti_DeleteFibeTrakBuffer(result);
  return status;
}

}  // namespace

extern const BatchCommand kBatchTrackCommand = {
    "track", "deterministic fiber tracking from a seed mask or box",
    "Usage: quorix-batch track INPUT (--seed-mask MASK | --seed-box X0,Y0,Z0,X1,Y1,Z1) [options]\n"
    "\n"
    "Follows the principal diffusion direction from every seed, forward and backward, in\n"
    "fixed steps, refitting the tensor from interpolated signals at every node, until a\n"
    "stop criterion fires. Prints the seed, line and node counts of the fibers kept.\n"
    "\n"
    "Seeds:\n"
    "  --seed-mask MASK    raw volume or NIfTI image of the data set's matrix size; every\n"
    "                      non-zero voxel seeds\n"
    "  --seed-box ...      the voxels X0..X1, Y0..Y1, Z0..Z1 (inclusive) seed\n"
    "  --seeds-per-voxel K seeds per voxel, spread evenly inside it (default 1: the centre)\n"
    "Stop criteria (defaults: FA min 0.18 and So min 0 on, the others off):\n"
    "  --fa-min F  --adc-max A (mm^2/s)  --so-min S  --so-max S  --angle-max DEG\n"
    "  --no-fa-min  --no-so-min   switch the two stops that are on by default off\n"
    "Tracking:\n"
    "  --step H            step in voxels (default 0.7)\n"
    "  --nodes N           nodes per half-line, the seed included (default 160)\n"
    "  --scheme 123|345    by e1 (default) or by anisotropic composition\n"
    "  --threads T         worker threads (default: the number of cores)\n"
    "Selection (a fiber is kept when it meets every target and no avoidance mask, tested\n"
    "at its nodes; without masks every fiber is kept):\n"
    "  --target MASK       raw volume or NIfTI mask of the matrix size; repeatable, 16 at most\n"
    "  --avoid MASK        the same for avoidance; repeatable, 16 at most\n"
    "Output:\n"
    "  --dump FILE         the tracking dump (positions in mm, eigenvalues x 1000)\n"
    "  --tck FILE          MRtrix tracks in world mm\n"
    "  --trk FILE          TrackVis tracks\n"
    "Input options:\n"
    "  --mpg FILE  --bval FILE  --bvec FILE  --voxel-size MM   as for every command\n",
    run_track};
