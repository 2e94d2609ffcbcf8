#include "io/dicom_series.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

constexpr int32_t kMaxResampledSlices = 65535;

void fill_geometry(const double position[3], const double axes[3][3], float voxelSize,
                   PcdWorldGeometry* geometry) {
  *geometry = PcdWorldGeometry{};
  // patient coordinates are LPS; the world of NIfTI is RAS
  const double sign[3] = {-1.0, -1.0, 1.0};
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) geometry->voxelToWorld[row][col] = sign[row] * axes[col][row] * voxelSize;
    geometry->voxelToWorld[row][3] = sign[row] * position[row];
    geometry->voxelSize[row] = voxelSize;
  }
  geometry->voxelToWorld[3][3] = 1.0;
  geometry->xformCode = 1;  // scanner anatomical
}

}  // namespace

PcdRawVolumeData* PCD_ResampleDicomVolumeInZ(const PcdRawVolumeData* volume, double ratio) {
  if (volume == nullptr || volume->matrixSize == nullptr || !std::isfinite(ratio) || !(ratio > 0.0))
    return nullptr;
  const PcdIntSize4D& in = *volume->matrixSize;
  const double last = std::floor((in.z - 1) * ratio + 1e-4);
  if (in.z < 1 || last + 1 > kMaxResampledSlices) return nullptr;
  const PcdIntSize4D size{in.x, in.y, static_cast<int32_t>(last) + 1, in.channels};
  std::vector<int32_t> types(static_cast<size_t>(in.channels), SINT16);
  std::vector<int32_t> formats(static_cast<size_t>(in.channels), PCD_MONOCHROME);
  PcdRawVolumeData* out = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (out == nullptr) return nullptr;
  const size_t plane = static_cast<size_t>(in.x) * static_cast<size_t>(in.y);
  for (int32_t k = 0; k < size.z; ++k) {
    const double s = k / ratio;
    int32_t i = static_cast<int32_t>(std::floor(s));
    double f = s - i;
    if (i >= in.z - 1) {  // the last slice (or a hair beyond it)
      i = in.z - 1;
      f = 0.0;
    }
    for (int32_t c = 0; c < in.channels; ++c) {
      const int16_t* a = static_cast<const int16_t*>(volume->data[c]) + plane * static_cast<size_t>(i);
      int16_t* o = static_cast<int16_t*>(out->data[c]) + plane * static_cast<size_t>(k);
      if (f == 0.0) {
        std::memcpy(o, a, plane * sizeof(int16_t));
        continue;
      }
      const int16_t* b = a + plane;
      for (size_t v = 0; v < plane; ++v)
        o[v] = static_cast<int16_t>(std::lround((1.0 - f) * a[v] + f * b[v]));
    }
  }
  return out;
}

PcdRawVolumeData* pcd_finish_dicom_volume(PcdRawVolumeData* volume, const std::string& directory,
                                          double sliceSpacing, double pixelSize,
                                          const double position[3], const double axes[3][3],
                                          bool hasOrientation, PcdDicomSeries* series) {
  const int32_t slices = volume->matrixSize->z;
  double ratio = 1.0;
  if (pixelSize > 0.0 && slices > 1) ratio = sliceSpacing / pixelSize;
  else if (!(pixelSize > 0.0)) std::fputs("Warning: no pixel size in DICOM; z is not resampled\n", stderr);
  // a resampled volume out of proportion to its files (a slice spacing far above the pixel
  // size, as a wrong header gives) is refused before its memory is asked for
  const double resampled = std::floor((slices - 1) * ratio + 1e-4) + 1;
  if (ratio != 1.0 && std::isfinite(ratio) && resampled > double{kPcdDicomMaxResampleGrowth} * slices) {
    std::fprintf(stderr,
                 "Err: resampling the %d slices of %s to cubic voxels (ratio %.3f) would make %.0f slices, more than %d times "
                 "the files' pixel data; refused\n",
                 slices, directory.c_str(), ratio, resampled, kPcdDicomMaxResampleGrowth);
    PCD_DeleteRawVolumeData(volume);
    return nullptr;
  }
  std::fprintf(stderr, "Interpolating in z direction (ratio:%3.3f)...", ratio);
  // at ratio 1 every slice comes back as it is: the copy is not made
  PcdRawVolumeData* out = ratio == 1.0 ? volume : PCD_ResampleDicomVolumeInZ(volume, ratio);
  if (out != volume) PCD_DeleteRawVolumeData(volume);
  if (out == nullptr) {
    std::fprintf(stderr, "\nErr: the slices of %s cannot be resampled at ratio %f\n", directory.c_str(), ratio);
    return nullptr;
  }
  std::fputs("done\n", stderr);
  series->voxelSize = static_cast<float>(pixelSize);
  series->geometry = PcdWorldGeometry{};
  if (hasOrientation && series->voxelSize > 0.0f) fill_geometry(position, axes, series->voxelSize, &series->geometry);
  return out;
}
