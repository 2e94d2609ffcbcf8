// quorix-batch model: fiber modeling through the RBF-interpolated tensor field of a
// control region, from a seed mask or box.
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "dti/dti_check.h"
#include "fiber/modeling.h"
#include "study/modeling_controls.h"
#include "tools/batch/batch_tract.h"

namespace {

int run_model(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const BatchTractOptions tract = TakeBatchTractOptions(args);
  const auto control = args.TakeValue({"--control-mask"});
  const auto fieldDump = args.TakeValue({"--field-dump"});
  if (!args.Finish(1, 1)) return kBatchUsageError;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_INTERPOLATED)) return kBatchFailed;

  const PcdIntSize4D& size = *set->volume->matrixSize;
  std::vector<PcdIntVector3D> voxels;
  std::vector<PcdVector3D> seeds;
  if (!BatchTractSeeds(tract, size, &voxels, &seeds)) return kBatchFailed;

  PcdFibeModelContext context;
  ApplyBatchTractStops(tract, &context.limits, &context.step, &context.nodeLimit);
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();

  // without a mask, the default of a modeling study: tissue near the seeds
  BatchVolumePtr controls;
  if (control) {
    controls = ReadBatchBinaryMask(*control, "control mask", size);
  } else {
    const PcdIntSize3D size3{size.x, size.y, size.z};
    std::vector<uint8_t> near(static_cast<size_t>(size.x) * static_cast<size_t>(size.y) * static_cast<size_t>(size.z), 0);
    for (const PcdIntVector3D& v : voxels)
      near[(static_cast<size_t>(v.z) * static_cast<size_t>(size3.y) + static_cast<size_t>(v.y)) * static_cast<size_t>(size3.x) +
           static_cast<size_t>(v.x)] = 1;
    controls.reset(PCD_NewBoundedModelingControlVolume(set->dti, &context.limits, near));
  }
  if (!controls) return kBatchFailed;

  if (fieldDump) std::remove(fieldDump->c_str());  // so that a file left from before cannot pass
  PcdFibeTrakBuffer* result = PCDdti_FiberModeling(set->dti, &context, controls.get(), BatchTractThreads(tract),
                                                   fieldDump ? fieldDump->c_str() : nullptr);
  if (result == nullptr) return kBatchFailed;
  // no ROI conditions here: every fiber is selected
  for (int32_t i = 0; i < result->lineCount; ++i) result->pairs[i]->selection = 1;
  int status = FinishBatchTract(tract, *set, result, result->lineCount);
  if (fieldDump && !std::ifstream(*fieldDump).good()) status = kBatchFailed;
  PCDdti_DeleteFibeTrakBuffer(result);
  return status;
}

}  // namespace

extern const BatchCommand kBatchModelCommand = {
    "model", "fiber modeling through an RBF-interpolated tensor field",
    "Usage: quorix-batch model INPUT (--seed-mask MASK | --seed-box X0,Y0,Z0,X1,Y1,Z1)\n"
    "                          [--control-mask MASK] [options]\n"
    "\n"
    "Measures the tensor at the control voxels (the mask's non-zero voxels on a grid of\n"
    "pitch 1, 2, 4 or 6 by the matrix width: up to 64, 128, 256, beyond), interpolates\n"
    "each of its six components by radial basis functions (phi(r) = r) and follows the\n"
    "principal direction of the interpolated field from every seed, forward and backward.\n"
    "Prints the seed, line and node counts; every fiber is kept. The dense systems take\n"
    "about 12 (n + 4)^2 bytes and time growing as n^3 for n control voxels: a region\n"
    "past what the machine solves in three minutes is refused, as is one lying in a plane.\n"
    "\n"
    "Regions:\n"
    "  --control-mask MASK raw volume or NIfTI image of the data set's matrix size;\n"
    "                      default, as a modeling study: the voxels passing the stop\n"
    "                      criteria inside the head (So above its Otsu threshold) and\n"
    "                      within 16 voxels of a seed voxel\n"
    "  --seed-mask MASK    likewise; every non-zero voxel seeds\n"
    "  --seed-box ...      the voxels X0..X1, Y0..Y1, Z0..Z1 (inclusive) seed\n"
    "  --seeds-per-voxel K seeds per voxel, spread evenly inside it (default 1: the centre)\n"
    "Stop criteria (defaults: FA min 0.18 and So min 0 on, the others off):\n"
    "  --fa-min F  --adc-max A (mm^2/s)  --so-min S  --so-max S  --angle-max DEG\n"
    "  --no-fa-min  --no-so-min   switch the two stops that are on by default off\n"
    "Modeling:\n"
    "  --step H            step in voxels (default 0.7)\n"
    "  --nodes N           nodes per half-line, the seed included (default 160)\n"
    "  --threads T         worker threads (default: the number of cores)\n"
    "Output:\n"
    "  --field-dump FILE   the interpolated field as 7 SINT16 channels of b = 1000 signal\n"
    "                      (directions 0 and six at 45 degrees), the raw body alone\n"
    "  --dump FILE         the tracking dump (positions in mm, eigenvalues x 1000)\n"
    "  --tck FILE          MRtrix tracks in world mm\n"
    "  --trk FILE          TrackVis tracks\n"
    "Input options:\n"
    "  --mpg FILE  --bval FILE  --bvec FILE  --voxel-size MM   as for every command\n",
    run_model};
