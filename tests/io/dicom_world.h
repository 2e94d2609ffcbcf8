// Helpers of the DICOM import tests: voxels of a volume, and points and directions
// between a volume's axes and the world of its geometry.
#pragma once

#include <cstdint>

#include "io/nifti_file.h"
#include "vol/raw_volume.h"

namespace quorix_test {

inline int16_t Voxel(const PcdRawVolumeData* v, int c, int x, int y, int z) {
  const PcdIntSize4D& s = *v->matrixSize;
  return static_cast<const int16_t*>(v->data[c])[(static_cast<size_t>(z) * s.y + y) * s.x + x];
}

// (i, j, k) of the voxel at world point w, from the inverse of a geometry's 3x3 part.
inline void VoxelOf(const PcdWorldGeometry& g, const double w[3], double out[3]) {
  const auto& m = g.voxelToWorld;
  const double d[3] = {w[0] - m[0][3], w[1] - m[1][3], w[2] - m[2][3]};
  const double det = PCD_WorldGeometryDeterminant(&g);
  for (int i = 0; i < 3; ++i) {
    // Cramer's rule: column i replaced by d
    double c[3][3];
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 3; ++k) c[r][k] = k == i ? d[r] : m[r][k];
    out[i] = (c[0][0] * (c[1][1] * c[2][2] - c[1][2] * c[2][1]) - c[0][1] * (c[1][0] * c[2][2] - c[1][2] * c[2][0]) +
              c[0][2] * (c[1][0] * c[2][1] - c[1][1] * c[2][0])) / det;
  }
}

// An MPG direction (volume axes) in the world.
inline void WorldDirection(const PcdWorldGeometry& g, const PcdVector3D& v, double out[3]) {
  const double in[3] = {v.x, v.y, v.z};
  for (int r = 0; r < 3; ++r) {
    out[r] = 0.0;
    for (int k = 0; k < 3; ++k) out[r] += g.voxelToWorld[r][k] / g.voxelSize[k] * in[k];
  }
}

}  // namespace quorix_test
