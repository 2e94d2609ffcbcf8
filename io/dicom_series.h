// What both DICOM readers make of a series beside its voxels, and their last steps: the
// z resampling to cubic voxels and the voxel-to-world geometry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/nifti_file.h"
#include "vol/raw_volume.h"

// What the import learns beside the voxels.
struct PcdDicomSeries {
  float voxelSize = 0.0f;       // mm (cubic after the z resampling); 0 when the files carry none
  PcdWorldGeometry geometry{};  // RAS world of the voxels; xformCode 0 without orientation
  bool hasDiffusion = false;    // the diffusion elements gave a full setting
  int32_t soCount = 0;          // leading b = 0 channels
  std::vector<float> bValues;   // per channel, 0 for b = 0 channels
  std::vector<PcdVector3D> directions;  // per channel, in the volume's axes
  std::string diffusionSource;  // where the b values and directions came from
};

// A new SINT16 volume with every channel resampled along z: output slice k samples input
// position k / ratio, blending its two neighbours linearly and rounding to the nearest
// integer (halves away from zero). The slice count becomes floor((z - 1) * ratio) + 1, so
// the first and last slices keep their places; at ratio 1 every slice comes back unchanged.
// Null for a ratio that is not finite and positive, or a result over 65535 slices.
PcdRawVolumeData* PCD_ResampleDicomVolumeInZ(const PcdRawVolumeData* volume, double ratio);

// The last steps of both readers: the z resampling to cubic voxels at ratio sliceSpacing /
// pixelSize, refused (null, with an "Err: " line) when it would make more than
// kPcdDicomMaxResampleGrowth times the slices of the files; then the voxel-to-world
// geometry from the lowest slice's position and the axes (row, column, normal; patient
// coordinates), kept only when hasOrientation. Takes the volume (deleted on failure).
constexpr int32_t kPcdDicomMaxResampleGrowth = 8;
PcdRawVolumeData* pcd_finish_dicom_volume(PcdRawVolumeData* volume, const std::string& directory,
                                          double sliceSpacing, double pixelSize,
                                          const double position[3], const double axes[3][3],
                                          bool hasOrientation, PcdDicomSeries* series);
