// Small helpers the raw volume files share (not part of the interface).
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

struct PcdRawVolumeData;

namespace pcd_raw_volume_detail {

// The volume has a record of its size and the channel is one of its channels.
bool HasChannel(const PcdRawVolumeData* v, int32_t channel);

// Truncation of a blended value to the 64-bit integer every integer reader returns
// through; values beyond the range saturate instead of being undefined.
inline int64_t TruncToInt64(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (v <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

}  // namespace pcd_raw_volume_detail
