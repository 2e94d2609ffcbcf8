// The QL iteration of the 3 x 3 eigen solver (TqliBody with n = 3) for several tensors at
// once, one tensor per SIMD lane: 4 lanes in SSE registers, 8 in AVX registers.
//
// The iteration of one tensor is a chain of dependent divisions and square roots, so one
// tensor at a time leaves the processor waiting. Here the lanes run one sweep per round:
// each lane finds its own l and m and takes the values of its own rows and columns
// through masks, and a lane that has converged (or has less work in this sweep) keeps its
// values untouched. Every lane goes through its tensor's operations in their order, so
// each lane's bits are those of the one-tensor solver.
//
// Everything here has internal linkage: each file that includes it gets code for the
// instruction set it is built with (the AVX file is built for AVX2, the rest is not).
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

// The systems of up to 8 tensors, lane by lane: d[i][lane], e[i][lane], z[i][j][lane].
struct PcdEigenLanes {
  alignas(32) float d[4][8];
  alignas(32) float e[4][8];
  alignas(32) float z[4][4][8];
};

// The QL iteration for lanes 0 .. used-1 (used <= 8) with AVX registers; only on
// processors with AVX2.
void PCDdti_TqliEightLanes(PcdEigenLanes* systems, int used);

// out[v] = float(table[S[v]] + logInverse[v]) for v < n (n a multiple of 4), and bit v of
// the result set where that is certainly the library's float(ln(S / So)) (see
// PCDdti_LogRatiosAsFloats); only on processors with AVX2.
uint32_t PCDdti_LogRatiosFourWide(const double* table, const float* S, const double* logInverse,
                                  float* out, int32_t n);

namespace {

// ---- the operations, for both register widths ----------------------------------------

#if defined(__SSE2__)
inline __m128 Add(__m128 a, __m128 b) { return _mm_add_ps(a, b); }
inline __m128 Sub(__m128 a, __m128 b) { return _mm_sub_ps(a, b); }
inline __m128 Mul(__m128 a, __m128 b) { return _mm_mul_ps(a, b); }
inline __m128 Div(__m128 a, __m128 b) { return _mm_div_ps(a, b); }
inline __m128 And(__m128 a, __m128 b) { return _mm_and_ps(a, b); }
inline __m128 AndNot(__m128 a, __m128 b) { return _mm_andnot_ps(a, b); }  // ~a & b
inline __m128 Or(__m128 a, __m128 b) { return _mm_or_ps(a, b); }
inline __m128 Xor(__m128 a, __m128 b) { return _mm_xor_ps(a, b); }
inline __m128 Greater(__m128 a, __m128 b) { return _mm_cmpgt_ps(a, b); }
inline __m128 GreaterEqual(__m128 a, __m128 b) { return _mm_cmpge_ps(a, b); }
inline __m128 Equal(__m128 a, __m128 b) { return _mm_cmpeq_ps(a, b); }
inline int Bits(__m128 mask) { return _mm_movemask_ps(mask); }
inline void Splat(float x, __m128* out) { *out = _mm_set1_ps(x); }
inline __m128 Load(const float* p, __m128*) { return _mm_load_ps(p); }
inline void Store(float* p, __m128 x) { _mm_store_ps(p, x); }
inline __m128 LaneMask(int bits, __m128*) {
  const __m128i lane = _mm_set_epi32(8, 4, 2, 1);
  const __m128i set = _mm_and_si128(_mm_set1_epi32(bits), lane);
  return _mm_castsi128_ps(_mm_cmpeq_epi32(set, lane));
}
// float(big * sqrt(1.0 + ratio * ratio)) with the root and the product in double.
inline __m128 ScaledRoot(__m128 big, __m128 ratio) {
  const __m128 square = _mm_mul_ps(ratio, ratio);
  const __m128d one = _mm_set1_pd(1.0);
  const __m128d lo =
      _mm_mul_pd(_mm_cvtps_pd(big), _mm_sqrt_pd(_mm_add_pd(one, _mm_cvtps_pd(square))));
  const __m128d hi =
      _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(big, big)),
                 _mm_sqrt_pd(_mm_add_pd(one, _mm_cvtps_pd(_mm_movehl_ps(square, square)))));
  return _mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi));
}
#endif

#if defined(__AVX2__)
inline __m256 Add(__m256 a, __m256 b) { return _mm256_add_ps(a, b); }
inline __m256 Sub(__m256 a, __m256 b) { return _mm256_sub_ps(a, b); }
inline __m256 Mul(__m256 a, __m256 b) { return _mm256_mul_ps(a, b); }
inline __m256 Div(__m256 a, __m256 b) { return _mm256_div_ps(a, b); }
inline __m256 And(__m256 a, __m256 b) { return _mm256_and_ps(a, b); }
inline __m256 AndNot(__m256 a, __m256 b) { return _mm256_andnot_ps(a, b); }
inline __m256 Or(__m256 a, __m256 b) { return _mm256_or_ps(a, b); }
inline __m256 Xor(__m256 a, __m256 b) { return _mm256_xor_ps(a, b); }
// the ordered, quiet predicates: false for NaN, as the SSE comparisons
inline __m256 Greater(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
inline __m256 GreaterEqual(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_GE_OQ); }
inline __m256 Equal(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_EQ_OQ); }
inline int Bits(__m256 mask) { return _mm256_movemask_ps(mask); }
inline void Splat(float x, __m256* out) { *out = _mm256_set1_ps(x); }
inline __m256 Load(const float* p, __m256*) { return _mm256_load_ps(p); }
inline void Store(float* p, __m256 x) { _mm256_store_ps(p, x); }
inline __m256 LaneMask(int bits, __m256*) {
  const __m256i lane = _mm256_set_epi32(128, 64, 32, 16, 8, 4, 2, 1);
  const __m256i set = _mm256_and_si256(_mm256_set1_epi32(bits), lane);
  return _mm256_castsi256_ps(_mm256_cmpeq_epi32(set, lane));
}
inline __m256 ScaledRoot(__m256 big, __m256 ratio) {
  const __m256 square = _mm256_mul_ps(ratio, ratio);
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d lo = _mm256_mul_pd(
      _mm256_cvtps_pd(_mm256_castps256_ps128(big)),
      _mm256_sqrt_pd(_mm256_add_pd(one, _mm256_cvtps_pd(_mm256_castps256_ps128(square)))));
  const __m256d hi = _mm256_mul_pd(
      _mm256_cvtps_pd(_mm256_extractf128_ps(big, 1)),
      _mm256_sqrt_pd(_mm256_add_pd(one, _mm256_cvtps_pd(_mm256_extractf128_ps(square, 1)))));
  return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(lo)),
                              _mm256_cvtpd_ps(hi), 1);
}
#endif

template <typename V>
V Constant(float x) {
  V v;
  Splat(x, &v);
  return v;
}

template <typename V>
V Select(V mask, V a, V b) {
  return Or(And(mask, a), AndNot(mask, b));
}

template <typename V>
V Abs(V x) {
  return AndNot(Constant<V>(-0.0f), x);
}

// Pythag lane by lane, both branches taken and the one each lane would take kept.
template <typename V>
V PythagLanes(V a, V b) {
  const V absa = Abs(a), absb = Abs(b);
  const V aBigger = Greater(absa, absb);
  const V big = Select(aBigger, absa, absb);
  const V ratio = Div(Select(aBigger, absb, absa), big);
  const V zero = AndNot(aBigger, Equal(absb, Constant<V>(0.0f)));
  return AndNot(zero, ScaledRoot(big, ratio));
}

template <typename V>
struct LaneSystems {
  V d[4], e[4];  // [1..3]
  V z[4][4];     // [1..3][1..3]
};

// One step of the inner loop at i (lanes with iIsOne take i = 1, the others i = 2) for
// the lanes in active. Lanes whose rotation length comes out 0 leave the sweep there
// (they join broken); the rest carry s, c, p and g on.
template <typename V>
void InnerStep(LaneSystems<V>& q, V active, V iIsOne, V mIsTwo, V& s, V& c, V& p, V& g,
               V& broken) {
  const V zero = Constant<V>(0.0f);
  const V ei = Select(iIsOne, q.e[1], q.e[2]);
  const V di = Select(iIsOne, q.d[1], q.d[2]);
  const V di1 = Select(iIsOne, q.d[2], q.d[3]);
  const V f = Mul(s, ei);
  const V b = Mul(c, ei);
  const V r = PythagLanes(f, g);
  // e[i + 1] = r
  q.e[2] = Select(And(active, iIsOne), r, q.e[2]);
  q.e[3] = Select(AndNot(iIsOne, active), r, q.e[3]);
  // r == 0: d[i + 1] -= p, e[m] = 0, and the sweep ends for the lane
  const V stop = And(active, Equal(r, zero));
  const V lowered = Sub(di1, p);
  q.d[2] = Select(And(stop, iIsOne), lowered, q.d[2]);
  q.d[3] = Select(AndNot(iIsOne, stop), lowered, q.d[3]);
  q.e[2] = Select(And(stop, mIsTwo), zero, q.e[2]);
  q.e[3] = Select(AndNot(mIsTwo, stop), zero, q.e[3]);
  broken = Or(broken, stop);
  const V go = AndNot(stop, active);
  // the rotation
  const V sNew = Div(f, r);
  const V cNew = Div(g, r);
  const V g1 = Sub(di1, p);
  const V rNew = Add(Mul(Sub(di, g1), sNew), Mul(Mul(Constant<V>(2.0f), cNew), b));
  const V pNew = Mul(sNew, rNew);
  const V raised = Add(g1, pNew);
  const V gNew = Sub(Mul(cNew, rNew), b);
  q.d[2] = Select(And(go, iIsOne), raised, q.d[2]);
  q.d[3] = Select(AndNot(iIsOne, go), raised, q.d[3]);
  const V goOne = And(go, iIsOne), goTwo = AndNot(iIsOne, go);
  for (int k = 1; k <= 3; ++k) {
    const V zi = Select(iIsOne, q.z[k][1], q.z[k][2]);
    const V zi1 = Select(iIsOne, q.z[k][2], q.z[k][3]);
    const V newI1 = Add(Mul(sNew, zi), Mul(cNew, zi1));
    const V newI = Sub(Mul(cNew, zi), Mul(sNew, zi1));
    q.z[k][1] = Select(goOne, newI, q.z[k][1]);
    q.z[k][2] = Select(goOne, newI1, Select(goTwo, newI, q.z[k][2]));
    q.z[k][3] = Select(goTwo, newI1, q.z[k][3]);
  }
  s = Select(go, sNew, s);
  c = Select(go, cNew, c);
  p = Select(go, pNew, p);
  g = Select(go, gNew, g);
}

// One sweep of the lanes in active, each with its own l (1 or 2) and m (2 or 3).
template <typename V>
void Sweep(LaneSystems<V>& q, V active, V lIsOne, V mIsTwo) {
  const V zero = Constant<V>(0.0f);
  const V dl = Select(lIsOne, q.d[1], q.d[2]);
  const V dl1 = Select(lIsOne, q.d[2], q.d[3]);
  const V el = Select(lIsOne, q.e[1], q.e[2]);
  const V dm = Select(mIsTwo, q.d[2], q.d[3]);
  V g = Div(Sub(dl1, dl), Mul(Constant<V>(2.0f), el));
  const V r = Abs(PythagLanes(g, Constant<V>(1.0f)));
  const V signedR = Select(GreaterEqual(g, zero), r, Xor(Constant<V>(-0.0f), r));
  g = Add(Sub(dm, dl), Div(el, Add(g, signedR)));
  V s = Constant<V>(1.0f), c = Constant<V>(1.0f), p = zero;
  V broken = zero;
  // first step at i = m - 1; a second at i = 1 for the lanes with l = 1 and m = 3
  InnerStep(q, active, mIsTwo, mIsTwo, s, c, p, g, broken);
  const V second = AndNot(broken, AndNot(mIsTwo, And(active, lIsOne)));
  InnerStep(q, second, Equal(zero, zero), mIsTwo, s, c, p, g, broken);
  // d[l] -= p, e[l] = g, e[m] = 0 where the sweep went through
  const V through = AndNot(broken, active);
  const V lowered = Sub(Select(lIsOne, q.d[1], q.d[2]), p);
  q.d[1] = Select(And(through, lIsOne), lowered, q.d[1]);
  q.d[2] = Select(AndNot(lIsOne, through), lowered, q.d[2]);
  q.e[1] = Select(And(through, lIsOne), g, q.e[1]);
  q.e[2] = Select(AndNot(lIsOne, through), g, q.e[2]);
  q.e[2] = Select(And(through, mIsTwo), zero, q.e[2]);
  q.e[3] = Select(AndNot(mIsTwo, through), zero, q.e[3]);
}

// The give-up state (identity axes, eigenvalues 1e-14) in the lanes of mask.
template <typename V>
void ResetLanes(LaneSystems<V>& q, V mask) {
  const V tiny = Constant<V>(1.0e-14f);
  for (int i = 1; i <= 3; ++i) {
    q.d[i] = Select(mask, tiny, q.d[i]);
    q.e[i] = Select(mask, tiny, q.e[i]);
    for (int j = 1; j <= 3; ++j)
      q.z[i][j] = Select(mask, Constant<V>(i == j ? 1.0f : 0.0f), q.z[i][j]);
  }
}

// The QL iteration in every lane below `used`; kLanes is 4 or 8.
template <typename V, int kLanes>
void TqliLanes(LaneSystems<V>& q, int used) {
  q.e[1] = q.e[2];
  q.e[2] = q.e[3];
  q.e[3] = Constant<V>(0.0f);
  int l[kLanes], sweeps[kLanes];
  for (int lane = 0; lane < kLanes; ++lane) {
    l[lane] = lane < used ? 1 : 3;  // l = 3 is done
    sweeps[lane] = 0;
  }
  for (;;) {
    // where |e[m]| is negligible against its neighbours on the diagonal, for m = 1, 2
    const V dd1 = Add(Abs(q.d[1]), Abs(q.d[2]));
    const V dd2 = Add(Abs(q.d[2]), Abs(q.d[3]));
    const int split1 = Bits(Equal(Add(Abs(q.e[1]), dd1), dd1));
    const int split2 = Bits(Equal(Add(Abs(q.e[2]), dd2), dd2));
    int sweep = 0, lOne = 0, mTwo = 0, reset = 0;
    for (int lane = 0; lane < kLanes; ++lane) {
      int m = 0;
      while (l[lane] < 3) {
        const bool at1 = l[lane] == 1 && (split1 >> lane & 1);
        m = at1 ? 1 : (split2 >> lane & 1) ? 2 : 3;
        if (m != l[lane]) break;
        ++l[lane];
        sweeps[lane] = 0;
      }
      if (l[lane] >= 3) continue;
      if (sweeps[lane]++ == 30) {
        reset |= 1 << lane;
        l[lane] = 3;
        continue;
      }
      sweep |= 1 << lane;
      if (l[lane] == 1) lOne |= 1 << lane;
      if (m == 2) mTwo |= 1 << lane;
    }
    V* kind = nullptr;
    if (reset != 0) ResetLanes(q, LaneMask(reset, kind));
    if (sweep == 0) return;
    Sweep(q, LaneMask(sweep, kind), LaneMask(lOne, kind), LaneMask(mTwo, kind));
  }
}

// The lanes [offset, offset + kLanes) of the plain arrays through registers.
template <typename V, int kLanes>
void TqliLanesOfArrays(PcdEigenLanes* a, int offset, int used) {
  LaneSystems<V> q;
  V* kind = nullptr;
  for (int i = 1; i <= 3; ++i) {
    q.d[i] = Load(&a->d[i][offset], kind);
    q.e[i] = Load(&a->e[i][offset], kind);
    for (int j = 1; j <= 3; ++j) q.z[i][j] = Load(&a->z[i][j][offset], kind);
  }
  TqliLanes<V, kLanes>(q, used);
  for (int i = 1; i <= 3; ++i) {
    Store(&a->d[i][offset], q.d[i]);
    Store(&a->e[i][offset], q.e[i]);
    for (int j = 1; j <= 3; ++j) Store(&a->z[i][j][offset], q.z[i][j]);
  }
}

#if defined(__SSE2__)
// Lanes 0 .. used-1 (used <= 8) in SSE registers: two rounds of four.
inline void TqliEightLanesInSse(PcdEigenLanes* a, int used) {
  TqliLanesOfArrays<__m128, 4>(a, 0, used < 4 ? used : 4);
  if (used > 4) TqliLanesOfArrays<__m128, 4>(a, 4, used - 4);
}
#endif

}  // namespace
