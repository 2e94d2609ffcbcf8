// Voxel statistics of a region: minimum, maximum, mean and population standard deviation
// of So, FA, ADC and the three eigenvalues over the valid tensors of a mask.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "dti/dti_data.h"
#include "vol/raw_volume.h"

struct PcdDiffusionTensorStatistics {
  int32_t voxelCount;   // mask voxels (value 1), valid or not
  uint32_t validCount;  // mask voxels whose tensor passed the validity test
  // While accumulating, each mean holds the running sum and each SD the running sum of
  // squares. Minima and maxima mean something only when validCount > 0.
  double SoMin, SoMax, SoMean, SoSD;
  double FAmin, FAmax, FAmean, FAsd;
  double ADCmin, ADCmax, ADCmean, ADCsd;  // mm^2/s
  double L1min, L1max, L1mean, L1sd;      // the largest eigenvalue
  double L2min, L2max, L2mean, L2sd;
  double L3min, L3max, L3mean, L3sd;      // the smallest
};

// Estimates and diagonalises the tensor of every voxel whose mask value is 1 (channel 0
// of mask: one unsigned byte a voxel, the data set's x, y and z; any other value is
// outside), on the calling thread, x fastest, with a progress line per slice on stderr.
// A voxel whose estimate fails is judged by the tensor the record still holds from the
// voxel before it. The two last arguments are accepted and not used.
// Returns a new record (std::calloc; free it with std::free), or null with one "Err: "
// line when the data set or the mask does not fit, "insufficient memory" when memory
// runs out.
PcdDiffusionTensorStatistics* PCDdti_GetDiffusionTensorStatistics(const PcdDtiData* dti,
                                                                  const PcdRawVolumeData* mask,
                                                                  int unused = 0,
                                                                  char* unusedText = nullptr);

// The same numbers from the plain per-voxel path (one estimate after another through
// the record); kept to show that the fast path gives the same bytes.
PcdDiffusionTensorStatistics* PCDdti_GetDiffusionTensorStatisticsVoxelByVoxel(
    const PcdDtiData* dti, const PcdRawVolumeData* mask);

// The summary text of a voxel statistics study: "Tensors: N", "Valid Tensors: M", then
// the six min - max (mean/stdev.) lines with ADC and eigenvalues x 1000, or
// "No valid voxels." when M is 0.
std::string PCDdti_FormatDiffusionTensorStatistics(const PcdDiffusionTensorStatistics* s);
