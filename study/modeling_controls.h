// The default control region of fiber modeling. Every control voxel costs a row and a
// column of a dense system solved in cubic time, so the region must be tissue near the
// fibers asked for, not every voxel whose tensor passes the limits (background noise
// passes the FA test easily): the voxels that pass the study's limits, lie inside the
// head (the first So channel above its Otsu threshold) and lie within a few voxels of the
// seed and target regions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dti/dti_data.h"
#include "dti/tensor.h"
#include "fiber/tracking.h"

// How far (voxels, along each axis) the control region reaches beyond the seed and
// target regions.
constexpr int kPcdModelingNeighbourhood = 16;

// The default control-location volume of a modeling study: one byte a voxel, 1 where the
// tensor is valid and passes the limits' FA minimum, ADC maximum, So minimum and So
// maximum (each when its enable word is 1). Null when memory runs out.
PcdRawVolumeData* PCD_NewModelingControlVolume(const PcdDtiData* dti,
                                               const PcdDiffusionTensorLimits* limits);

// Otsu's threshold of the values: the smallest t that maximises the between-class
// variance of {v <= t} and {v > t}. The foreground is v > t; when all values are equal
// the threshold is one below them, so everything is foreground.
int32_t PCD_OtsuThreshold(const int16_t* values, size_t count);

// The head: 1 where the first So channel lies above its Otsu threshold (x fastest).
std::vector<uint8_t> PCD_GetHeadMask(const PcdDtiData* dti);

// The voxels within `radius` of a voxel of the mask along each axis (a cube around each).
std::vector<uint8_t> PCD_DilateMask(const std::vector<uint8_t>& mask, const PcdIntSize3D& size, int radius);

// The voxels of the points (voxel coordinates, as seeds are) in a mask of this size.
std::vector<uint8_t> PCD_MaskOfPoints(const std::vector<PcdVector3D>& points, const PcdIntSize3D& size);

// The bounded default control volume: the voxels of PCD_NewModelingControlVolume (the
// limits) that are in the head and within kPcdModelingNeighbourhood of `near` (the seed
// and target voxels). Null when memory runs out or `near` has another size.
PcdRawVolumeData* PCD_NewBoundedModelingControlVolume(const PcdDtiData* dti,
                                                      const PcdDiffusionTensorLimits* limits,
                                                      const std::vector<uint8_t>& near);
