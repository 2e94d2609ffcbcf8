// Region masks on the command line (stats, grow, profile): a mask file of the data
// set's matrix size becomes the one-byte-a-voxel mask the region analyses read, and a
// grown region is written back in the input's space.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "io/nifti_file.h"
#include "vol/raw_volume.h"

// Reads MASK (raw volume file or NIfTI image, one channel, x, y and z of size) into a new
// single-channel UINT8 volume holding 1 inside the region and 0 elsewhere. Without a label
// the mask must be binary (every voxel 0 or 1); with one, the voxels equal to it form the
// region (an atlas). Null with one "Err: " line when the file cannot be read or does not fit.
PcdRawVolumeData* LoadBatchRegionMask(const std::string& path, const PcdIntSize4D& size,
                                      std::optional<long long> label = std::nullopt);

// Writes channel 0 of a region as a NIfTI image (.nii, .nii.gz, with the geometry) or a
// raw volume file (.raw). 0, or -1 with an "Err: " line.
int WriteBatchRegion(const PcdRawVolumeData* region, const PcdWorldGeometry* geometry,
                     const std::string& path);
bool IsBatchRegionName(const std::string& path);

// The voxels of a --seed-box X0,Y0,Z0,X1,Y1,Z1 inside the matrix, z, y, x order; false with
// an "Err: " line for anything else.
bool BatchParseSeedBox(const std::string& text, const PcdIntSize4D& size, std::vector<PcdIntVector3D>* out);
// The --threads default: one per core.
int32_t BatchDefaultThreads();

struct PcdRawVolumeDataDeleter {
  void operator()(PcdRawVolumeData* v) const { PCD_DeleteRawVolumeData(v); }
};
