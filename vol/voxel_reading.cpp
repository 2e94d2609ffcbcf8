// Typed voxel access: nearest and interpolated reads of 3D and 2D arrays, the trilinear
// stencil.
#include <cmath>
#include <cstdint>
#include <limits>

#include "vol/raw_volume.h"
#include "vol/raw_volume_detail.h"

using pcd_raw_volume_detail::TruncToInt64;

namespace {

// Truncation toward zero of a float coordinate, kept in range for the int conversion.
int32_t Trunc(float v) {
  if (!(v > -2147483648.0f)) return std::numeric_limits<int32_t>::min();
  if (!(v < 2147483648.0f)) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(v);
}

// One axis of the clamped trilinear read: lower sample index and fraction.
struct AxisSample {
  int32_t base;
  double f;
  int32_t next = 1;  // index step to the upper sample
};
// An axis of one sample has no upper neighbour: both samples are that one, weight 0 on
// the second, so the read stays inside the block and gives the sample itself.
AxisSample ClampAxis(float p, int32_t n) {
  if (n < 2) return {0, 0.0, 0};
  const int32_t i = Trunc(p);
  if (i >= n - 1) return {n - 2, static_cast<double>(static_cast<float>(n - 1) - (n - 2))};
  if (i < 0) return {0, 0.0};
  return {i, static_cast<double>(p - static_cast<float>(i))};
}

template <typename T>
double SampleAsDouble(const void* row, int32_t x) {
  return static_cast<double>(static_cast<const T*>(row)[x]);
}

template <typename T>
double BlendByStencil(const void* block, const PcdTrilinearStencil& st) {
  const T* b = static_cast<const T*>(block);
  auto at = [&](int i) { return static_cast<double>(b[st.offset[i]]); };
  double plane[2];
  for (int dz = 0; dz < 2; ++dz) {
    const int o = 4 * dz;
    const double r0 = at(o + 0) * (1.0 - st.fx) + at(o + 1) * st.fx;
    const double r1 = at(o + 2) * (1.0 - st.fx) + at(o + 3) * st.fx;
    plane[dz] = r0 * (1.0 - st.fy) + r1 * st.fy;
  }
  return plane[0] * (1.0 - st.fz) + plane[1] * st.fz;
}

// The handle points into one contiguous block, so reading the block by offsets gives the
// samples the handle would.
template <typename T>
double Trilinear(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x, float y,
                 float z) {
  return BlendByStencil<T>(a[0][0], PCD_GetTrilinearStencil(nx, ny, nz, x, y, z));
}

template <typename T>
double Bilinear(Pcd2DArray a, float x, float y) {
  const int32_t i = Trunc(x), j = Trunc(y);
  const double fx = x - static_cast<float>(i), fy = y - static_cast<float>(j);
  const double r0 = SampleAsDouble<T>(a[j], i) * (1.0 - fx) + SampleAsDouble<T>(a[j], i + 1) * fx;
  const double r1 =
      SampleAsDouble<T>(a[j + 1], i) * (1.0 - fx) + SampleAsDouble<T>(a[j + 1], i + 1) * fx;
  return r0 * (1.0 - fy) + r1 * fy;
}

bool InsideVolume(int32_t nx, int32_t ny, int32_t nz, float x, float y, float z, int32_t* ix,
                  int32_t* iy, int32_t* iz) {
  *ix = Trunc(x);
  *iy = Trunc(y);
  *iz = Trunc(z);
  return *ix >= 0 && *ix < nx && *iy >= 0 && *iy < ny && *iz >= 0 && *iz < nz;
}

template <typename T>
T NearestRead3D(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x, float y, float z) {
  int32_t ix, iy, iz;
  if (!InsideVolume(nx, ny, nz, x, y, z, &ix, &iy, &iz)) return T(0);
  return static_cast<T*>(a[iz][iy])[ix];
}

template <typename T>
T NearestRead2D(Pcd2DArray a, float x, float y) {
  return static_cast<T*>(a[Trunc(y)])[Trunc(x)];
}

}  // namespace

PcdTrilinearStencil PCD_GetTrilinearStencil(int32_t nx, int32_t ny, int32_t nz, float x, float y,
                                            float z) {
  const AxisSample ax = ClampAxis(x, nx), ay = ClampAxis(y, ny), az = ClampAxis(z, nz);
  PcdTrilinearStencil st;
  st.fx = ax.f;
  st.fy = ay.f;
  st.fz = az.f;
  const auto sx = static_cast<int64_t>(nx), plane = static_cast<int64_t>(nx) * ny;
  for (int i = 0; i < 8; ++i) {
    const int64_t dx = (i & 1) * ax.next, dy = ((i >> 1) & 1) * ay.next, dz = ((i >> 2) & 1) * az.next;
    st.offset[i] = static_cast<size_t>((az.base + dz) * plane + (ay.base + dy) * sx + ax.base + dx);
  }
  return st;
}

int32_t PCD_GetValueOfSINT16BlockByStencil(const void* block, const PcdTrilinearStencil& stencil) {
  return static_cast<int32_t>(TruncToInt64(BlendByStencil<int16_t>(block, stencil)));
}

// ---- 3D readers ------------------------------------------------------------------------

int32_t PCD_GetValueOf3DArray8bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                  float y, float z, bool isSigned) {
  return isSigned ? NearestRead3D<int8_t>(a, nx, ny, nz, x, y, z)
                  : NearestRead3D<uint8_t>(a, nx, ny, nz, x, y, z);
}
int32_t PCD_GetValueOf3DArray16bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z, bool isSigned) {
  return isSigned ? NearestRead3D<int16_t>(a, nx, ny, nz, x, y, z)
                  : NearestRead3D<uint16_t>(a, nx, ny, nz, x, y, z);
}
int64_t PCD_GetValueOf3DArray32bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z, bool isSigned) {
  // each branch widened on its own: a common type of int32/uint32 would be unsigned
  if (isSigned) return NearestRead3D<int32_t>(a, nx, ny, nz, x, y, z);
  return NearestRead3D<uint32_t>(a, nx, ny, nz, x, y, z);
}
float PCD_GetValueOf3DArrayFLOAT32(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z) {
  return NearestRead3D<float>(a, nx, ny, nz, x, y, z);
}
double PCD_GetValueOf3DArrayFLOAT64(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return NearestRead3D<double>(a, nx, ny, nz, x, y, z);
}

int32_t PCD_GetValueOf3DArrayUINT8i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<uint8_t>(a, nx, ny, nz, x, y, z)));
}
int32_t PCD_GetValueOf3DArraySINT8i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<int8_t>(a, nx, ny, nz, x, y, z)));
}
int32_t PCD_GetValueOf3DArrayUINT16i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<uint16_t>(a, nx, ny, nz, x, y, z)));
}
int32_t PCD_GetValueOf3DArraySINT16i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<int16_t>(a, nx, ny, nz, x, y, z)));
}
// A UINT32 sample is read unsigned: all 32 bits set is 4294967295, never -1.
int64_t PCD_GetValueOf3DArrayUINT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return TruncToInt64(Trilinear<uint32_t>(a, nx, ny, nz, x, y, z));
}
int32_t PCD_GetValueOf3DArraySINT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<int32_t>(a, nx, ny, nz, x, y, z)));
}
float PCD_GetValueOf3DArrayFLOAT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<float>(Trilinear<float>(a, nx, ny, nz, x, y, z));
}
float PCD_GetValueOf3DArrayFLOAT64i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<float>(Trilinear<double>(a, nx, ny, nz, x, y, z));
}

double PCD_GetInterpolatedValueOf3DArray(Pcd3DArray a, int32_t type, int32_t nx, int32_t ny,
                                         int32_t nz, float x, float y, float z) {
  switch (type) {
    case UINT8: return PCD_GetValueOf3DArrayUINT8i(a, nx, ny, nz, x, y, z);
    case SINT8: return PCD_GetValueOf3DArraySINT8i(a, nx, ny, nz, x, y, z);
    case UINT16: return PCD_GetValueOf3DArrayUINT16i(a, nx, ny, nz, x, y, z);
    case SINT16: return PCD_GetValueOf3DArraySINT16i(a, nx, ny, nz, x, y, z);
    case UINT32: return static_cast<double>(PCD_GetValueOf3DArrayUINT32i(a, nx, ny, nz, x, y, z));
    case SINT32: return PCD_GetValueOf3DArraySINT32i(a, nx, ny, nz, x, y, z);
    case FLOAT32: return PCD_GetValueOf3DArrayFLOAT32i(a, nx, ny, nz, x, y, z);
    case FLOAT64: return PCD_GetValueOf3DArrayFLOAT64i(a, nx, ny, nz, x, y, z);
    default: return 0.0;
  }
}

// ---- 2D readers ------------------------------------------------------------------------

int32_t PCD_GetValueOf2DArray8bit(Pcd2DArray a, int32_t, int32_t, float x, float y,
                                  bool isSigned) {
  return isSigned ? NearestRead2D<int8_t>(a, x, y) : NearestRead2D<uint8_t>(a, x, y);
}
int32_t PCD_GetValueOf2DArray16bit(Pcd2DArray a, int32_t, int32_t, float x, float y,
                                   bool isSigned) {
  return isSigned ? NearestRead2D<int16_t>(a, x, y) : NearestRead2D<uint16_t>(a, x, y);
}
int64_t PCD_GetValueOf2DArray32bit(Pcd2DArray a, int32_t, int32_t, float x, float y,
                                   bool isSigned) {
  return isSigned ? static_cast<int64_t>(NearestRead2D<int32_t>(a, x, y))
                  : static_cast<int64_t>(NearestRead2D<uint32_t>(a, x, y));
}
float PCD_GetValueOf2DArrayFLOAT32(Pcd2DArray a, int32_t, int32_t, float x, float y) {
  return NearestRead2D<float>(a, x, y);
}
double PCD_GetValueOf2DArrayFLOAT64(Pcd2DArray a, int32_t, int32_t, float x, float y) {
  return NearestRead2D<double>(a, x, y);
}

double PCD_GetInterpolatedValueOf2DArray(Pcd2DArray a, int32_t type, int32_t, int32_t, float x,
                                         float y) {
  switch (type) {
    case UINT8: return static_cast<double>(TruncToInt64(Bilinear<uint8_t>(a, x, y)));
    case SINT8: return static_cast<double>(TruncToInt64(Bilinear<int8_t>(a, x, y)));
    case UINT16: return static_cast<double>(TruncToInt64(Bilinear<uint16_t>(a, x, y)));
    case SINT16: return static_cast<double>(TruncToInt64(Bilinear<int16_t>(a, x, y)));
    case UINT32: return static_cast<double>(TruncToInt64(Bilinear<uint32_t>(a, x, y)));
    case SINT32: return static_cast<double>(TruncToInt64(Bilinear<int32_t>(a, x, y)));
    case FLOAT32: return static_cast<float>(Bilinear<float>(a, x, y));
    case FLOAT64: return static_cast<float>(Bilinear<double>(a, x, y));
    default: return 0.0;
  }
}

uint32_t PCD_GetValueOf2DArrayRGBAi(Pcd2DArray a, int32_t, int32_t, float x, float y) {
  const int32_t i = Trunc(x), j = Trunc(y);
  const double fx = x - static_cast<float>(i), fy = y - static_cast<float>(j);
  const uint32_t s00 = static_cast<uint32_t*>(a[j])[i], s01 = static_cast<uint32_t*>(a[j])[i + 1];
  const uint32_t s10 = static_cast<uint32_t*>(a[j + 1])[i];
  const uint32_t s11 = static_cast<uint32_t*>(a[j + 1])[i + 1];
  uint32_t packed = 0;
  for (int shift = 24; shift >= 0; shift -= 8) {
    auto comp = [shift](uint32_t w) { return static_cast<double>((w >> shift) & 0xFFu); };
    const double r0 = comp(s00) * (1.0 - fx) + comp(s01) * fx;
    const double r1 = comp(s10) * (1.0 - fx) + comp(s11) * fx;
    const auto v = static_cast<uint32_t>(TruncToInt64(r0 * (1.0 - fy) + r1 * fy)) & 0xFFu;
    packed |= v << shift;
  }
  return packed;
}
