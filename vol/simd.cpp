#include "vol/simd.h"

#include <atomic>

namespace {

std::atomic<int32_t> g_limit{PCD_SIMD_AVX512};

PcdSimdLevel ProcessorLevel() {
#if defined(__x86_64__) && defined(__GNUC__)
  static const PcdSimdLevel level = __builtin_cpu_supports("avx512f")  ? PCD_SIMD_AVX512
                                    : __builtin_cpu_supports("avx2") ? PCD_SIMD_AVX2
                                                                     : PCD_SIMD_BASELINE;
  return level;
#else
  return PCD_SIMD_BASELINE;
#endif
}

}  // namespace

PcdSimdLevel PCD_GetSimdLevel() {
  const int32_t limit = g_limit.load(std::memory_order_relaxed);
  const PcdSimdLevel have = ProcessorLevel();
  return have < limit ? have : static_cast<PcdSimdLevel>(limit);
}

void PCD_SetSimdLevelLimit(PcdSimdLevel limit) { g_limit.store(limit, std::memory_order_relaxed); }
