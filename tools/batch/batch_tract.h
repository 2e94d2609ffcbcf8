// What `track` and `model` share: the seed options, the stop criteria, the mask files of
// the data set's matrix and the summary and files of a result.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fiber/tracking.h"
#include "tools/batch/batch.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

struct BatchTractOptions {
  std::optional<std::string> seedMask, seedBox;
  std::optional<long long> perVoxel, nodes, threads;
  std::optional<double> faMin, adcMax, soMin, soMax, angleMax, step;
  bool noFaMin = false, noSoMin = false;
  std::optional<std::string> dump, tck, trk;
};

// Takes the options both commands share; exactly one of --seed-mask and --seed-box.
BatchTractOptions TakeBatchTractOptions(BatchArgs& args);
// The stop criteria, step and node limit given on the command line, over the defaults.
void ApplyBatchTractStops(const BatchTractOptions& options, PcdDiffusionTensorLimits* limits, float* step,
                          int32_t* nodeLimit);
int BatchTractThreads(const BatchTractOptions& options);

using BatchVolumePtr = std::unique_ptr<PcdRawVolumeData, PcdRawVolumeDataDeleter>;
// A mask file (raw volume or NIfTI) of the data set's matrix: its non-zero voxels of
// channel 0 as 1 in a new one-byte volume, or null with an "Err: " line naming WHAT.
BatchVolumePtr ReadBatchBinaryMask(const std::string& path, const char* what, const PcdIntSize4D& size);
// The seed points: --seeds-per-voxel points in each voxel of the mask or the box, or false
// with an "Err: " line. The seed voxels go to VOXELS.
bool BatchTractSeeds(const BatchTractOptions& options, const PcdIntSize4D& size,
                     std::vector<PcdIntVector3D>* voxels, std::vector<PcdVector3D>* seeds);
// Prints the summary of a result whose selected fibers are DRAWN and writes the dump and
// the track files asked for; the exit status.
int FinishBatchTract(const BatchTractOptions& options, const BatchDataSet& set, const PcdFibeTrakBuffer* result,
                     int drawn);
