// Channel operations: thresholding and conversion of a channel's data type.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "vol/raw_volume.h"
#include "vol/raw_volume_detail.h"

using pcd_raw_volume_detail::HasChannel;
using pcd_raw_volume_detail::TruncToInt64;

namespace {

double ReadAsDouble(const void* block, int32_t type, size_t i) {
  switch (type) {
    case UINT8: return static_cast<const uint8_t*>(block)[i];
    case SINT8: return static_cast<const int8_t*>(block)[i];
    case UINT16: return static_cast<const uint16_t*>(block)[i];
    case SINT16: return static_cast<const int16_t*>(block)[i];
    case UINT32: return static_cast<const uint32_t*>(block)[i];
    case SINT32: return static_cast<const int32_t*>(block)[i];
    case FLOAT32: return static_cast<const float*>(block)[i];
    default: return static_cast<const double*>(block)[i];
  }
}

struct TypeRange {
  double lo, hi;
};
TypeRange RangeOf(int32_t type) {
  switch (type) {
    case UINT8: return {0, 255};
    case SINT8: return {-128, 127};
    case UINT16: return {0, 65535};
    case SINT16: return {-32768, 32767};
    case UINT32: return {0, 4294967295.0};
    case SINT32: return {-2147483648.0, 2147483647.0};
    case FLOAT32: return {-3.4028234663852886e38, 3.4028234663852886e38};
    default: return {-1.7976931348623157e308, 1.7976931348623157e308};
  }
}

// Writes v into element i of a block of the given type. Integer targets truncate; with
// wrap the low bits of the 64-bit truncation are kept, otherwise v is clamped first.
void WriteFromDouble(void* block, int32_t type, size_t i, double v, bool wrap) {
  const TypeRange r = RangeOf(type);
  if (std::isnan(v)) v = 0.0;
  if (!wrap || type == FLOAT32 || type == FLOAT64) v = v < r.lo ? r.lo : (v > r.hi ? r.hi : v);
  const auto bits = static_cast<uint64_t>(TruncToInt64(v));
  switch (type) {
    case UINT8: static_cast<uint8_t*>(block)[i] = static_cast<uint8_t>(bits); break;
    case SINT8: static_cast<int8_t*>(block)[i] = static_cast<int8_t>(bits); break;
    case UINT16: static_cast<uint16_t*>(block)[i] = static_cast<uint16_t>(bits); break;
    case SINT16: static_cast<int16_t*>(block)[i] = static_cast<int16_t>(bits); break;
    case UINT32: static_cast<uint32_t*>(block)[i] = static_cast<uint32_t>(bits); break;
    case SINT32: static_cast<int32_t*>(block)[i] = static_cast<int32_t>(bits); break;
    case FLOAT32: static_cast<float*>(block)[i] = static_cast<float>(v); break;
    default: static_cast<double*>(block)[i] = v; break;
  }
}

}  // namespace

int PCD_ThresholdingBySingleFloat32Value(PcdRawVolumeData* volume, int32_t channel,
                                         float threshold) {
  if (!HasChannel(volume, channel) || volume->colorFormat[channel] == PCD_RGBA_PACKED)
    return -1;
  const int32_t type = volume->dataType[channel];
  const auto n = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  void* block = volume->data[channel];
  for (size_t i = 0; i < n; ++i) {
    const float v = static_cast<float>(ReadAsDouble(block, type, i));
    WriteFromDouble(block, type, i, v >= threshold ? 1.0 : 0.0, false);
  }
  return 0;
}

int PCD_ConvertChannelDataType(PcdRawVolumeData* volume, int32_t channel, int32_t newType,
                               int32_t mode, double p1, double p2) {
  if (!HasChannel(volume, channel) || !PCD_IsValidDataType(newType) ||
      volume->colorFormat[channel] != PCD_MONOCHROME)
    return -1;
  if (mode == PCD_CONVERT_LINEAR && (p1 == 0.0 || p2 == 0.0)) return -1;
  if (mode == PCD_CONVERT_WINDOW && p1 == p2) return -1;
  if (mode < PCD_CONVERT_CLAMP || mode > PCD_CONVERT_WINDOW) return -1;
  const PcdIntSize4D& s = *volume->matrixSize;
  const int32_t oldType = volume->dataType[channel];
  Pcd3DArray a = PCD_New3DArray(s.x, s.y, s.z, newType);
  if (a == nullptr) return -1;
  const auto n = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  const TypeRange r = RangeOf(newType);
  for (size_t i = 0; i < n; ++i) {
    double v = ReadAsDouble(volume->data[channel], oldType, i);
    if (mode == PCD_CONVERT_LINEAR) v = v * p1 + p2;
    if (mode == PCD_CONVERT_WINDOW) v = r.lo + (v - p1) / (p2 - p1) * (r.hi - r.lo);
    WriteFromDouble(a[0][0], newType, i, v, mode == PCD_CONVERT_WRAP);
  }
  PCD_Delete3DArray(volume->array3D[channel], s.x, s.y, s.z, oldType);
  volume->array3D[channel] = a;
  volume->data[channel] = a[0][0];
  volume->dataType[channel] = newType;
  return 0;
}