// quorix-batch track: deterministic fiber tracking from a seed mask or box.
#include <string>
#include <tuple>
#include <vector>

#include "dti/dti_check.h"
#include "fiber/tracking.h"
#include "io/raw_volume_file.h"
#include "study/study_runner.h"
#include "tools/batch/batch_tract.h"

namespace {

int run_track(BatchArgs& args) {
  BatchInputOptions options = TakeBatchInputOptions(args);
  const BatchTractOptions tract = TakeBatchTractOptions(args);
  const auto scheme = args.TakeInteger({"--scheme"}, -2147483647LL, 2147483647LL);
  const std::vector<std::string> targetFiles = args.TakeValues({"--target"});
  const std::vector<std::string> avoidFiles = args.TakeValues({"--avoid"});
  if (!args.Finish(1, 1)) return kBatchUsageError;
  // the input's body is mapped unless an output is to replace the input file
  const std::string& input = args.positional()[0];
  options.mapRawBody = true;
  for (const auto& out : {tract.dump, tract.tck, tract.trk})
    if (out && PCD_IsSameFile(input.c_str(), out->c_str())) options.mapRawBody = false;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(input, options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_INTERPOLATED)) return kBatchFailed;

  const PcdIntSize4D& size = *set->volume->matrixSize;
  std::vector<PcdIntVector3D> voxels;
  std::vector<PcdVector3D> seeds;
  if (!BatchTractSeeds(tract, size, &voxels, &seeds)) return kBatchFailed;
  // the target and avoidance masks, each as one byte a voxel
  std::vector<std::vector<uint8_t>> targets, avoidances;
  for (auto [files, masks, what] : {std::tuple{&targetFiles, &targets, "target mask"},
                                    std::tuple{&avoidFiles, &avoidances, "avoidance mask"}})
    for (const std::string& file : *files) {
      BatchVolumePtr mask = ReadBatchBinaryMask(file, what, size);
      if (!mask) return kBatchFailed;
      const auto* bytes = static_cast<const uint8_t*>(mask->data[0]);
      masks->emplace_back(bytes, bytes + static_cast<size_t>(size.x) * size.y * size.z);
    }

  PcdFibeTrakContext context;
  ApplyBatchTractStops(tract, &context.limits, &context.step, &context.nodeLimit);
  if (scheme) context.scheme = static_cast<int32_t>(*scheme);
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();

  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(set->dti, &context, BatchTractThreads(tract));
  if (result == nullptr) return kBatchFailed;
  // a fiber is kept when it meets every target and no avoidance mask (at its nodes)
  const PcdIntSize3D size3{size.x, size.y, size.z};
  const int drawn = PCD_SelectFibersByMasks(result, targets, avoidances, &size3, BatchTractThreads(tract));
  const int status = drawn < 0 ? kBatchFailed : FinishBatchTract(tract, *set, result, drawn);
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
