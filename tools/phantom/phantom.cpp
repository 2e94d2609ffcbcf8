#include "tools/phantom/phantom.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "dti/gradient_vectors.h"

namespace {

constexpr double kTissueAdc = 0.8e-3;                  // isotropic grey matter, mm^2/s
constexpr double kAxial = 1.7e-3, kRadial = 0.3e-3;    // bundles: FA about 0.80
// signals high enough that rounding them to whole numbers moves no map by a unit
constexpr double kBundleSo = 8000.0, kTissueSo = 6400.0, kFluidSo = 9600.0, kFluidAdc = 2.5e-3;

struct Vec {
  double x, y, z;
};

// One diffusion compartment: a prolate tensor along d, or isotropic when d is zero.
struct Compartment {
  Vec d;
  double isotropic;  // ADC of an isotropic compartment (0 for a bundle)
};

double Signal(const Compartment& c, const PcdVector3D& g, double b) {
  if (c.isotropic > 0) return std::exp(-b * c.isotropic);
  const double cosine = c.d.x * g.x + c.d.y * g.y + c.d.z * g.z;
  const double q = kRadial + (kAxial - kRadial) * cosine * cosine;  // g^T D g for |g| = 1
  return std::exp(-b * q);
}

// What lies at a voxel: up to two compartments sharing the voxel equally.
struct Voxel {
  int count = 0;
  Compartment parts[2];
  double so = 0;
};

Voxel Describe(const PcdPhantomOptions& o, int x, int y, int z) {
  Voxel v;
  const double cx = (o.sizeX - 1) / 2.0, cy = (o.sizeY - 1) / 2.0, cz = (o.sizeZ - 1) / 2.0;
  const double ex = (x - cx) / (0.46 * o.sizeX), ey = (y - cy) / (0.46 * o.sizeY),
               ez = (z - cz) / (0.46 * o.sizeZ);
  const double r2 = ex * ex + ey * ey + ez * ez;
  if (r2 > 1.0) return v;                       // outside the head
  if (r2 > 0.85) {                              // a rim of fluid, like the CSF around a brain
    v.count = 1;
    v.parts[0] = {{0, 0, 0}, kFluidAdc};
    v.so = kFluidSo;
    return v;
  }
  const double band = std::max(1.5, o.sizeZ / 8.0);
  const double dz = z - cz, dzc = z - (cz + 2 * band);
  auto add = [&](Vec d) {
    if (v.count < 2) v.parts[v.count++] = {d, 0};
  };
  if (std::fabs(y - cy) <= o.sizeY / 12.0 && std::fabs(dz) <= band) add({1, 0, 0});
  if (std::fabs(x - cx) <= o.sizeX / 12.0 && std::fabs(dz) <= band) add({0, 1, 0});
  // a quarter circle in the xy-plane, centred on the head's corner, above the crossing
  const double rx = x - (cx - o.sizeX * 0.25), ry = y - (cy - o.sizeY * 0.25);
  const double radius = std::sqrt(rx * rx + ry * ry), arc = o.sizeX * 0.3;
  if (std::fabs(dzc) <= band && std::fabs(radius - arc) <= o.sizeX / 16.0 && rx > 0 && ry > 0)
    add({-ry / radius, rx / radius, 0});
  if (o.oblique) {
    // distance from the line through (cx + 0.2 X, cy + 0.25 Y, cz) along (1, 0, 1) / sqrt 2
    const double ox = x - (cx + 0.2 * o.sizeX), oy = y - (cy + 0.25 * o.sizeY), along = (ox + dz) / 2;
    const double px = ox - along, pz = dz - along;
    if (px * px + oy * oy + pz * pz <= (o.sizeX / 12.0) * (o.sizeX / 12.0))
      add({0.7071067811865476, 0, 0.7071067811865476});
  }
  if (v.count == 0) {
    v.count = 1;
    v.parts[0] = {{0, 0, 0}, kTissueAdc};
    v.so = kTissueSo;
  } else {
    v.so = kBundleSo;
  }
  return v;
}

// True FA, ADC and principal direction of a voxel with one compartment.
void Truth(const Voxel& v, float* fa, float* adc, PcdVector3D* dir) {
  *fa = 0;
  *adc = 0;
  *dir = {0, 0, 0};
  if (v.count != 1) return;  // no single tensor describes a crossing
  const Compartment& c = v.parts[0];
  if (c.isotropic > 0) {
    *adc = static_cast<float>(c.isotropic);
    return;
  }
  const double m = (kAxial + 2 * kRadial) / 3;
  const double dev = (kAxial - m) * (kAxial - m) + 2 * (kRadial - m) * (kRadial - m);
  *fa = static_cast<float>(std::sqrt(1.5 * dev / (kAxial * kAxial + 2 * kRadial * kRadial)));
  *adc = static_cast<float>(m);
  *dir = {static_cast<float>(c.d.x), static_cast<float>(c.d.y), static_cast<float>(c.d.z)};
}

// Gaussian deviates by Box-Muller over the engine's raw output, so that a seed gives the
// same data set on every standard library.
struct Noise {
  std::mt19937 engine;
  double Uniform() { return (engine() + 0.5) / 4294967296.0; }
  double Gaussian() {
    return std::sqrt(-2.0 * std::log(Uniform())) * std::cos(6.283185307179586 * Uniform());
  }
};

int16_t ToSample(double s) {
  const double r = std::floor(s + 0.5);
  return static_cast<int16_t>(r > 32767 ? 32767 : (r < 0 ? 0 : r));
}

}  // namespace

PcdDtiData* PCD_MakeDwiPhantom(const PcdPhantomOptions& o, PcdPhantomTruth* truth) {
  if (o.sizeX < 2 || o.sizeY < 2 || o.sizeZ < 2 || o.sizeX > 1024 || o.sizeY > 1024 ||
      o.sizeZ > 1024 || o.directions < kPcdDtiMinDwi || o.directions > kPcdDtiMaxDwi ||
      o.soCount < 1 || o.soCount + o.directions > kPcdDtiMaxChannels || !(o.bValue > 0) ||
      !(o.noise >= 0)) {
    std::fputs("Err: invalid phantom options\n", stderr);
    return nullptr;
  }
  const int32_t channels = o.soCount + o.directions;
  const PcdIntSize4D size{o.sizeX, o.sizeY, o.sizeZ, channels};
  std::vector<int32_t> types(static_cast<size_t>(channels), SINT16);
  std::vector<int32_t> formats(static_cast<size_t>(channels), PCD_MONOCHROME);
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (volume == nullptr) {
    std::fputs("Err: not enough memory for the phantom\n", stderr);
    return nullptr;
  }
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(volume, channels);
  if (dti == nullptr) {
    PCD_DeleteRawVolumeData(volume);
    return nullptr;
  }
  std::vector<float> b(static_cast<size_t>(channels), 0.0f);
  std::vector<PcdVector3D> g(static_cast<size_t>(channels), PcdVector3D{0, 0, 0});
  const auto& row = gradient_vectors[o.directions - kPcdDtiMinDwi];
  for (int32_t k = 0; k < o.directions; ++k) {
    b[static_cast<size_t>(o.soCount + k)] = o.bValue;
    g[static_cast<size_t>(o.soCount + k)] = {row[k][0], row[k][1], row[k][2]};
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, channels, o.soCount, b.data(), g.data());

  const size_t voxels = static_cast<size_t>(o.sizeX) * o.sizeY * o.sizeZ;
  if (truth != nullptr) {
    truth->fa.assign(voxels, 0.0f);
    truth->adc.assign(voxels, 0.0f);
    truth->direction.assign(voxels, PcdVector3D{0, 0, 0});
  }
  Noise noise{std::mt19937(o.seed)};
  const double sigma = o.noise * kBundleSo;
  size_t at = 0;
  for (int z = 0; z < o.sizeZ; ++z)
    for (int y = 0; y < o.sizeY; ++y)
      for (int x = 0; x < o.sizeX; ++x, ++at) {
        const Voxel v = Describe(o, x, y, z);
        if (truth != nullptr) Truth(v, &truth->fa[at], &truth->adc[at], &truth->direction[at]);
        for (int32_t c = 0; c < channels; ++c) {
          double s = 0;
          for (int i = 0; i < v.count; ++i) s += Signal(v.parts[i], g[static_cast<size_t>(c)], b[static_cast<size_t>(c)]);
          s = v.count > 0 ? v.so * s / v.count : 0.0;
          if (sigma > 0) {
            const double re = s + sigma * noise.Gaussian(), im = sigma * noise.Gaussian();
            s = std::sqrt(re * re + im * im);
          }
          static_cast<int16_t*>(volume->data[c])[at] = ToSample(s);
        }
      }
  dti->reserved = 2.0f;  // voxel size in mm
  return dti;
}
