// Which vector instructions the hot loops may use. Every level gives the same bytes (no
// fused multiply-add anywhere, every lane rounds as the scalar code does); only the speed
// differs. Tests lower the limit to prove each level against the plain code.
#pragma once

#include <cstdint>

enum PcdSimdLevel : int32_t {
  PCD_SIMD_BASELINE = 0,  // what the compiler targets by default (SSE2 on x86-64)
  PCD_SIMD_AVX2 = 1,
  PCD_SIMD_AVX512 = 2,    // AVX-512F
};

// The best level the processor offers, lowered to the limit.
PcdSimdLevel PCD_GetSimdLevel();
// Caps the level for the whole process (tests and benchmarks); PCD_SIMD_AVX512 lifts it.
void PCD_SetSimdLevelLimit(PcdSimdLevel limit);
