// Small DTI data sets with a tensor chosen for every voxel, and masks drawn as text, for
// the tests of statistics, region growing and diffusion profiles.
#pragma once

#include <cmath>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "dti/dti_data.h"
#include "dti/gradient_vectors.h"
#include "vol/raw_volume.h"

namespace region_test {

struct Tensor6 {
  double xx, yy, zz, xy, yz, xz;
};

// Axially symmetric tensor: `axial` along (cos a, sin a, 0) for a in degrees, `radial`
// across it (mm^2/s).
inline Tensor6 Prolate(double degrees, double axial = 1.7e-3, double radial = 0.3e-3) {
  const double a = degrees * 3.14159265358979323846 / 180.0;
  const double c = std::cos(a), s = std::sin(a), d = axial - radial;
  return {radial + d * c * c, radial + d * s * s, radial, d * c * s, 0.0, 0.0};
}

struct VoxelSpec {
  int16_t so;
  Tensor6 d;
};

// One So channel and `directions` DWIs of the default table, b = 1000; every voxel's
// signals are So * exp(-b g'Dg), rounded to whole numbers.
struct TensorVolume {
  PcdRawVolumeData* volume = nullptr;
  PcdDtiData* dti = nullptr;
  TensorVolume(int nx, int ny, int nz, const std::function<VoxelSpec(int, int, int)>& at,
               int directions = 6) {
    const int32_t channels = directions + 1;
    const PcdIntSize4D size{nx, ny, nz, channels};
    std::vector<int32_t> types(channels, SINT16), formats(channels, PCD_MONOCHROME);
    volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
    dti = static_cast<PcdDtiData*>(std::calloc(1, sizeof(PcdDtiData)));
    dti->volume = volume;
    dti->channelCount = channels;
    dti->soCount = 1;
    for (int k = 0; k < directions; ++k) {
      dti->bValues[k + 1] = 1000.0f;
      const float* g = gradient_vectors[directions - 6][k];
      dti->mpgVectors[k + 1] = {g[0], g[1], g[2]};
    }
    dti->isReady = 1;
    size_t i = 0;
    for (int z = 0; z < nz; ++z)
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x, ++i) {
          const VoxelSpec v = at(x, y, z);
          static_cast<int16_t*>(volume->data[0])[i] = v.so;
          for (int k = 0; k < directions; ++k) {
            const PcdVector3D& g = dti->mpgVectors[k + 1];
            const Tensor6& d = v.d;
            const double q = d.xx * g.x * g.x + d.yy * g.y * g.y + d.zz * g.z * g.z +
                             2 * d.xy * g.x * g.y + 2 * d.yz * g.y * g.z + 2 * d.xz * g.x * g.z;
            const double s = std::round(v.so * std::exp(-1000.0 * q));
            static_cast<int16_t*>(volume->data[k + 1])[i] =
                static_cast<int16_t>(s > 32767 ? 32767 : (s < -32768 ? -32768 : s));
          }
        }
  }
  ~TensorVolume() {
    PCD_DeleteRawVolumeData(volume);
    std::free(dti);
  }
  TensorVolume(const TensorVolume&) = delete;
  TensorVolume& operator=(const TensorVolume&) = delete;
};

// A one-byte-a-voxel mask, or its picture: '#' is 1, '.' is 0, digits 2..9 are themselves;
// x fastest, slices separated by '|' (other characters are ignored when drawing).
struct Mask {
  PcdRawVolumeData* v;
  Mask(int nx, int ny, int nz) {
    const PcdIntSize3D s{nx, ny, nz};
    v = PCD_NewSingleChannelRawVolumeData(&s, UINT8, PCD_MONOCHROME);
  }
  Mask(int nx, int ny, int nz, const std::string& picture) : Mask(nx, ny, nz) { Draw(picture); }
  ~Mask() { PCD_DeleteRawVolumeData(v); }
  Mask(const Mask&) = delete;
  Mask& operator=(const Mask&) = delete;
  uint8_t* data() const { return static_cast<uint8_t*>(v->data[0]); }
  uint8_t& at(int x, int y, int z) const {
    const PcdIntSize4D& s = *v->matrixSize;
    return data()[(static_cast<size_t>(z) * s.y + y) * s.x + x];
  }
  void Draw(const std::string& picture) const {
    size_t i = 0;
    for (char c : picture) {
      if (c == '#') data()[i++] = 1;
      else if (c == '.') data()[i++] = 0;
      else if (c >= '2' && c <= '9') data()[i++] = static_cast<uint8_t>(c - '0');
    }
  }
  std::string Picture() const {
    const PcdIntSize4D& s = *v->matrixSize;
    std::string out;
    for (int64_t i = 0; i < PCD_GetNumberOfVoxels(v); ++i) {
      if (i > 0 && i % (static_cast<int64_t>(s.x) * s.y) == 0) out += '|';
      const uint8_t b = data()[i];
      out += b == 1 ? '#' : (b == 0 ? '.' : '?');
    }
    return out;
  }
};

}  // namespace region_test
