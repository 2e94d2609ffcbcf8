// The parts of the tensor batch built for AVX2 (the eight-lane QL iteration of
// eigen_lanes.h, the table logarithms four at a time); called only where the processor
// has AVX2. Nothing here may use an inline function shared with other files, whose
// single copy in the program could then be this file's AVX2 one.
#include "dti/eigen_lanes.h"

#if defined(__AVX2__)
void PCDdti_TqliEightLanes(PcdEigenLanes* systems, int used) {
  TqliLanesOfArrays<__m256, 8>(systems, 0, used);
}

uint32_t PCDdti_LogRatiosFourWide(const double* table, const float* S, const double* logInverse,
                                  float* out, int32_t n) {
  const __m128 one = _mm_set1_ps(1.0f), end = _mm_set1_ps(32768.0f);
  const __m256d sign = _mm256_set1_pd(-0.0), unit = _mm256_set1_pd(1.0);
  const __m256d relative = _mm256_set1_pd(0x1p-50);
  uint32_t settled = 0;
  for (int32_t v = 0; v + 4 <= n; v += 4) {
    const __m128 s = _mm_loadu_ps(S + v);
    const __m128 inTable = _mm_and_ps(_mm_cmpge_ps(s, one), _mm_cmplt_ps(s, end));
    const __m128i index = _mm_cvttps_epi32(_mm_and_ps(inTable, s));  // 0 outside
    const __m128 whole = _mm_cmpeq_ps(_mm_cvtepi32_ps(index), s);
    const __m256d a = _mm256_mask_i32gather_pd(
        _mm256_setzero_pd(), table, index, _mm256_castsi256_pd(_mm256_set1_epi64x(-1)), 8);
    const __m256d b = _mm256_loadu_pd(logInverse + v);
    const __m256d r = _mm256_add_pd(a, b);
    const __m256d tolerance = _mm256_mul_pd(
        _mm256_add_pd(_mm256_add_pd(_mm256_andnot_pd(sign, a), _mm256_andnot_pd(sign, b)), unit),
        relative);
    const __m128 low = _mm256_cvtpd_ps(_mm256_sub_pd(r, tolerance));
    const __m128 high = _mm256_cvtpd_ps(_mm256_add_pd(r, tolerance));
    _mm_storeu_ps(out + v, low);
    const __m128 ok = _mm_and_ps(_mm_and_ps(inTable, whole), _mm_cmpeq_ps(low, high));
    settled |= static_cast<uint32_t>(_mm_movemask_ps(ok)) << v;
  }
  return settled;
}
#elif defined(__SSE2__)
// without AVX2 in this build
void PCDdti_TqliEightLanes(PcdEigenLanes* systems, int used) {
  TqliEightLanesInSse(systems, used);
}

uint32_t PCDdti_LogRatiosFourWide(const double*, const float*, const double*, float*, int32_t) {
  return 0;  // nothing settled: the caller's own path decides (never called without AVX2)
}
#endif
