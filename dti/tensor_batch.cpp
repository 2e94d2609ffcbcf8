// Tensors of many voxels side by side (see PcdTensorBatch). Every voxel goes through the
// arithmetic of the one-voxel estimate and eigen solver, operation for operation; only
// the order in which voxels take their turns differs, so each voxel's bits are the same.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "dti/eigen_solver.h"
#include "dti/tensor.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// ln s for the whole numbers s = 0 .. 32767 that signals mostly are (entry 0 unused).
constexpr int32_t kLogTableSize = 32768;
const std::vector<double>& LogTable() {
  static const std::vector<double> table = [] {
    std::vector<double> t(kLogTableSize, 0.0);
    for (int32_t s = 1; s < kLogTableSize; ++s) t[s] = std::log(static_cast<double>(s));
    return t;
  }();
  return table;
}

}  // namespace

namespace {

// ln S + ln(1/So) is within 4 ulp of |ln S| + |ln(1/So)| of the true ln x (each term within
// 1 ulp, the product x = S/So and the sum rounded once each), and the library's ln x is
// within 1 ulp of the true value. When everything that close rounds to one float, the
// library's result does too: the value is taken and settled[v] set. Branch-free, so that
// the loop runs in vector registers.
PCD_WIDE_VECTORS
void LogRatiosFromTable(const double* table, const float* S, const double* logInverse,
                        float* out, uint8_t* settled, int32_t n) {
  for (int32_t v = 0; v < n; ++v) {
    const bool inTable = S[v] >= 1.0f && S[v] < static_cast<float>(kLogTableSize);
    const auto s = static_cast<int32_t>(inTable ? S[v] : 0.0f);
    const double a = table[s], b = logInverse[v];
    const double r = a + b;
    const double tolerance = (std::fabs(a) + std::fabs(b) + 1.0) * 0x1p-50;
    const auto low = static_cast<float>(r - tolerance);
    const auto high = static_cast<float>(r + tolerance);
    out[v] = low;
    settled[v] = inTable && static_cast<float>(s) == S[v] && low == high;
  }
}

}  // namespace

void PCDdti_LogRatiosAsFloats(const float* S, const double* inverse, const double* logInverse,
                              float* out, int32_t n) {
  uint8_t settled[kPcdTensorLanes];
  for (int32_t first = 0; first < n; first += kPcdTensorLanes) {
    const int32_t count = std::min(n - first, kPcdTensorLanes);
    LogRatiosFromTable(LogTable().data(), S + first, logInverse + first, out + first, settled,
                       count);
    // signals that are not whole numbers in the table, and the rare close calls
    for (int32_t v = 0; v < count; ++v)
      if (!settled[v])
        out[first + v] = static_cast<float>(
            std::log(static_cast<double>(S[first + v]) * inverse[first + v]));
  }
}

namespace {

// x = P y accumulated as the matrix-vector product does it, every voxel a lane of its
// own (lanes past the count compute on stale values and are never read).
PCD_WIDE_VECTORS
void ApplyPseudoInverseToLanes(const PcdMatrix* P, const float* rightHand,
                               float (*acc)[kPcdTensorLanes]) {
  constexpr int L = kPcdTensorLanes;
  for (int row = 0; row < 6; ++row)
    for (int32_t v = 0; v < L; ++v) acc[row][v] = 0.0f;
  for (int32_t k = 0; k < P->cols; ++k) {
    const float* y = rightHand + static_cast<size_t>(k) * L;
    for (int row = 0; row < 6; ++row) {
      const double p = P->m[row][k];
      for (int32_t v = 0; v < L; ++v)
        acc[row][v] = static_cast<float>(static_cast<double>(acc[row][v]) +
                                         p * static_cast<double>(y[v]));
    }
  }
}

}  // namespace

void PCDdti_ResizeTensorBatch(const PcdDtiData* dti, PcdTensorBatch* b) {
  b->signal.assign(static_cast<size_t>(dti->channelCount) * kPcdTensorLanes, 0.0f);
  b->rightHand.assign(static_cast<size_t>(dti->channelCount - dti->soCount) * kPcdTensorLanes,
                      0.0f);
  b->count = 0;
}

void PCDdti_EstimateTensorBatch(const PcdDtiData* dti, const PcdDiffusionTensorData* r,
                                PcdTensorBatch* b) {
  constexpr int L = kPcdTensorLanes;
  const int32_t n = b->count, soCount = dti->soCount, dwi = r->cachedInverse->cols;
  const float* S = b->signal.data();
  // So and the right-hand sides, in the order the one-voxel estimate takes them
  double inverseSo[L], logInverseSo[L];
  for (int32_t v = 0; v < n; ++v) {
    float sum = 0.0f;
    for (int32_t c = 0; c < soCount; ++c) sum += S[c * L + v];
    b->So[v] = sum / static_cast<float>(soCount);
    inverseSo[v] = 1.0 / static_cast<double>(b->So[v]);
    logInverseSo[v] = std::log(inverseSo[v]);
  }
  for (int32_t k = 0; k < dwi; ++k) {
    const float* Sk = S + static_cast<size_t>(soCount + k) * L;
    float* y = &b->rightHand[static_cast<size_t>(k) * L];
    PCDdti_LogRatiosAsFloats(Sk, inverseSo, logInverseSo, y, n);
    const float bValue = dti->bValues[soCount + k];
    for (int32_t v = 0; v < n; ++v) y[v] = -(y[v] / bValue);
  }
  ApplyPseudoInverseToLanes(r->cachedInverse, b->rightHand.data(), b->component);
}

namespace {

#if defined(__SSE2__)

// ---- the QL iteration on four tensors at once ----------------------------------------
//
// The iteration of one tensor is a chain of dependent divisions and square roots, so one
// tensor at a time leaves the processor waiting. Here four tensors run in the lanes of
// SSE registers, one sweep per round: each lane finds its own l and m and takes the
// values of its own rows and columns through masks, and a lane that has converged (or has
// a different amount of work in this sweep) keeps its values untouched.

using F4 = __m128;
using D2 = __m128d;

F4 Select(F4 mask, F4 a, F4 b) { return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b)); }
F4 Abs(F4 x) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), x); }
F4 Negate(F4 x) { return _mm_xor_ps(_mm_set1_ps(-0.0f), x); }
F4 LaneMask(bool l0, bool l1, bool l2, bool l3) {
  return _mm_castsi128_ps(_mm_set_epi32(l3 ? -1 : 0, l2 ? -1 : 0, l1 ? -1 : 0, l0 ? -1 : 0));
}

// float(big * sqrt(1.0 + ratio * ratio)) with the root and the product in double.
F4 ScaledRoot(F4 big, F4 ratio) {
  const F4 square = _mm_mul_ps(ratio, ratio);
  const D2 one = _mm_set1_pd(1.0);
  const D2 lo = _mm_mul_pd(_mm_cvtps_pd(big),
                           _mm_sqrt_pd(_mm_add_pd(one, _mm_cvtps_pd(square))));
  const D2 hi = _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(big, big)),
                           _mm_sqrt_pd(_mm_add_pd(one, _mm_cvtps_pd(_mm_movehl_ps(square, square)))));
  return _mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi));
}

// Pythag lane by lane, both branches taken and the one each lane would take kept.
F4 PythagLanes(F4 a, F4 b) {
  const F4 absa = Abs(a), absb = Abs(b);
  const F4 aBigger = _mm_cmpgt_ps(absa, absb);
  const F4 big = Select(aBigger, absa, absb);
  const F4 ratio = _mm_div_ps(Select(aBigger, absb, absa), big);
  const F4 zero = _mm_andnot_ps(aBigger, _mm_cmpeq_ps(absb, _mm_setzero_ps()));
  return _mm_andnot_ps(zero, ScaledRoot(big, ratio));
}

struct FourSystems {
  F4 d[4], e[4];  // [1..3]
  F4 z[4][4];     // [1..3][1..3]
};

// One step of the inner loop at i (lanes with iIsOne take i = 1, the others i = 2) for
// the lanes in active. Lanes whose rotation length comes out 0 leave the sweep there
// (they join broken); the rest carry s, c, p and g on.
void InnerStep(FourSystems& q, F4 active, F4 iIsOne, F4 mIsTwo, F4& s, F4& c, F4& p, F4& g,
               F4& broken) {
  const F4 ei = Select(iIsOne, q.e[1], q.e[2]);
  const F4 di = Select(iIsOne, q.d[1], q.d[2]);
  const F4 di1 = Select(iIsOne, q.d[2], q.d[3]);
  const F4 f = _mm_mul_ps(s, ei);
  const F4 b = _mm_mul_ps(c, ei);
  const F4 r = PythagLanes(f, g);
  // e[i + 1] = r
  q.e[2] = Select(_mm_and_ps(active, iIsOne), r, q.e[2]);
  q.e[3] = Select(_mm_andnot_ps(iIsOne, active), r, q.e[3]);
  // r == 0: d[i + 1] -= p, e[m] = 0, and the sweep ends for the lane
  const F4 stop = _mm_and_ps(active, _mm_cmpeq_ps(r, _mm_setzero_ps()));
  const F4 lowered = _mm_sub_ps(di1, p);
  q.d[2] = Select(_mm_and_ps(stop, iIsOne), lowered, q.d[2]);
  q.d[3] = Select(_mm_andnot_ps(iIsOne, stop), lowered, q.d[3]);
  q.e[2] = Select(_mm_and_ps(stop, mIsTwo), _mm_setzero_ps(), q.e[2]);
  q.e[3] = Select(_mm_andnot_ps(mIsTwo, stop), _mm_setzero_ps(), q.e[3]);
  broken = _mm_or_ps(broken, stop);
  const F4 go = _mm_andnot_ps(stop, active);
  // the rotation
  const F4 sNew = _mm_div_ps(f, r);
  const F4 cNew = _mm_div_ps(g, r);
  const F4 g1 = _mm_sub_ps(di1, p);
  const F4 rNew = _mm_add_ps(_mm_mul_ps(_mm_sub_ps(di, g1), sNew),
                             _mm_mul_ps(_mm_mul_ps(_mm_set1_ps(2.0f), cNew), b));
  const F4 pNew = _mm_mul_ps(sNew, rNew);
  const F4 raised = _mm_add_ps(g1, pNew);
  const F4 gNew = _mm_sub_ps(_mm_mul_ps(cNew, rNew), b);
  q.d[2] = Select(_mm_and_ps(go, iIsOne), raised, q.d[2]);
  q.d[3] = Select(_mm_andnot_ps(iIsOne, go), raised, q.d[3]);
  for (int k = 1; k <= 3; ++k) {
    const F4 zi = Select(iIsOne, q.z[k][1], q.z[k][2]);
    const F4 zi1 = Select(iIsOne, q.z[k][2], q.z[k][3]);
    const F4 newI1 = _mm_add_ps(_mm_mul_ps(sNew, zi), _mm_mul_ps(cNew, zi1));
    const F4 newI = _mm_sub_ps(_mm_mul_ps(cNew, zi), _mm_mul_ps(sNew, zi1));
    const F4 goOne = _mm_and_ps(go, iIsOne), goTwo = _mm_andnot_ps(iIsOne, go);
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
void Sweep(FourSystems& q, F4 active, F4 lIsOne, F4 mIsTwo) {
  const F4 dl = Select(lIsOne, q.d[1], q.d[2]);
  const F4 dl1 = Select(lIsOne, q.d[2], q.d[3]);
  const F4 el = Select(lIsOne, q.e[1], q.e[2]);
  const F4 dm = Select(mIsTwo, q.d[2], q.d[3]);
  F4 g = _mm_div_ps(_mm_sub_ps(dl1, dl), _mm_mul_ps(_mm_set1_ps(2.0f), el));
  const F4 r = Abs(PythagLanes(g, _mm_set1_ps(1.0f)));
  const F4 signedR = Select(_mm_cmpge_ps(g, _mm_setzero_ps()), r, Negate(r));
  g = _mm_add_ps(_mm_sub_ps(dm, dl), _mm_div_ps(el, _mm_add_ps(g, signedR)));
  F4 s = _mm_set1_ps(1.0f), c = _mm_set1_ps(1.0f), p = _mm_setzero_ps();
  F4 broken = _mm_setzero_ps();
  // first step at i = m - 1; a second at i = 1 for the lanes with l = 1 and m = 3
  InnerStep(q, active, mIsTwo, mIsTwo, s, c, p, g, broken);
  const F4 second = _mm_andnot_ps(broken, _mm_andnot_ps(mIsTwo, _mm_and_ps(active, lIsOne)));
  InnerStep(q, second, _mm_castsi128_ps(_mm_set1_epi32(-1)), mIsTwo, s, c, p, g, broken);
  // d[l] -= p, e[l] = g, e[m] = 0 where the sweep went through
  const F4 through = _mm_andnot_ps(broken, active);
  const F4 lowered = _mm_sub_ps(Select(lIsOne, q.d[1], q.d[2]), p);
  q.d[1] = Select(_mm_and_ps(through, lIsOne), lowered, q.d[1]);
  q.d[2] = Select(_mm_andnot_ps(lIsOne, through), lowered, q.d[2]);
  q.e[1] = Select(_mm_and_ps(through, lIsOne), g, q.e[1]);
  q.e[2] = Select(_mm_andnot_ps(lIsOne, through), g, q.e[2]);
  q.e[2] = Select(_mm_and_ps(through, mIsTwo), _mm_setzero_ps(), q.e[2]);
  q.e[3] = Select(_mm_andnot_ps(mIsTwo, through), _mm_setzero_ps(), q.e[3]);
}

// The give-up state (identity axes, eigenvalues 1e-14) in the lanes of mask.
void ResetLanes(FourSystems& q, F4 mask) {
  const F4 tiny = _mm_set1_ps(1.0e-14f);
  for (int i = 1; i <= 3; ++i) {
    q.d[i] = Select(mask, tiny, q.d[i]);
    q.e[i] = Select(mask, tiny, q.e[i]);
    for (int j = 1; j <= 3; ++j)
      q.z[i][j] = Select(mask, _mm_set1_ps(i == j ? 1.0f : 0.0f), q.z[i][j]);
  }
}

// The QL iteration of TqliBody for n = 3 in every lane below `used`.
void TqliFourLanes(FourSystems& q, int used) {
  q.e[1] = q.e[2];
  q.e[2] = q.e[3];
  q.e[3] = _mm_setzero_ps();
  int l[4], sweeps[4] = {0, 0, 0, 0};
  for (int lane = 0; lane < 4; ++lane) l[lane] = lane < used ? 1 : 3;  // l = 3 is done
  for (;;) {
    // where |e[m]| is negligible against its neighbours on the diagonal, for m = 1, 2
    const F4 dd1 = _mm_add_ps(Abs(q.d[1]), Abs(q.d[2]));
    const F4 dd2 = _mm_add_ps(Abs(q.d[2]), Abs(q.d[3]));
    const int split1 = _mm_movemask_ps(_mm_cmpeq_ps(_mm_add_ps(Abs(q.e[1]), dd1), dd1));
    const int split2 = _mm_movemask_ps(_mm_cmpeq_ps(_mm_add_ps(Abs(q.e[2]), dd2), dd2));
    bool sweep[4] = {}, lOne[4] = {}, mTwo[4] = {}, reset[4] = {};
    bool anySweep = false, anyReset = false;
    for (int lane = 0; lane < 4; ++lane) {
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
        reset[lane] = anyReset = true;
        l[lane] = 3;
        continue;
      }
      sweep[lane] = anySweep = true;
      lOne[lane] = l[lane] == 1;
      mTwo[lane] = m == 2;
    }
    if (anyReset) ResetLanes(q, LaneMask(reset[0], reset[1], reset[2], reset[3]));
    if (!anySweep) return;
    Sweep(q, LaneMask(sweep[0], sweep[1], sweep[2], sweep[3]),
          LaneMask(lOne[0], lOne[1], lOne[2], lOne[3]),
          LaneMask(mTwo[0], mTwo[1], mTwo[2], mTwo[3]));
  }
}

// Voxels first .. first+used-1 of the batch: reduction and finishing one by one, the QL
// iteration in four lanes.
void DiagonalizeFourLanes(PcdTensorBatch* b, int32_t first, int used) {
  alignas(16) float lanes[4];
  float e[4][4];
  FourSystems q{};
  for (int lane = 0; lane < used; ++lane) {
    const int32_t v = first + lane;
    pcd_eigen::ComponentsToMatrix(b->componentOf(v).data(), b->vectors[v]);
    pcd_eigen::Tred2Body(b->vectors[v], pcd_eigen::Three{}, b->values[v], e[lane]);
  }
  auto gather = [&](auto value) {
    for (int lane = 0; lane < 4; ++lane) lanes[lane] = lane < used ? value(first + lane, lane) : 0.0f;
    return _mm_load_ps(lanes);
  };
  for (int i = 1; i <= 3; ++i) {
    q.d[i] = gather([&](int32_t v, int) { return b->values[v][i]; });
    q.e[i] = gather([&](int32_t, int lane) { return e[lane][i]; });
    for (int j = 1; j <= 3; ++j) q.z[i][j] = gather([&](int32_t v, int) { return b->vectors[v][i][j]; });
  }
  TqliFourLanes(q, used);
  auto scatter = [&](F4 x, auto store) {
    _mm_store_ps(lanes, x);
    for (int lane = 0; lane < used; ++lane) store(first + lane, lane, lanes[lane]);
  };
  for (int i = 1; i <= 3; ++i) {
    scatter(q.d[i], [&](int32_t v, int, float x) { b->values[v][i] = x; });
    scatter(q.e[i], [&](int32_t, int lane, float x) { e[lane][i] = x; });
    for (int j = 1; j <= 3; ++j)
      scatter(q.z[i][j], [&](int32_t v, int, float x) { b->vectors[v][i][j] = x; });
  }
  for (int lane = 0; lane < used; ++lane)
    pcd_eigen::FinishEigenSystem(b->vectors[first + lane], b->values[first + lane], e[lane]);
}

#endif  // __SSE2__

}  // namespace

void PCDdti_DiagonalizeTensorBatch(PcdTensorBatch* b) {
  int32_t v = 0;
#if defined(__SSE2__)
  for (; v < b->count; v += 4) DiagonalizeFourLanes(b, v, b->count - v < 4 ? b->count - v : 4);
#endif
  for (; v < b->count; ++v) {
    float e[4];
    pcd_eigen::ComponentsToMatrix(b->componentOf(v).data(), b->vectors[v]);
    pcd_eigen::Diagonalize3(b->vectors[v], b->values[v], e);
  }
}

void PCDdti_TakeFromTensorBatch(const PcdTensorBatch* b, int32_t v, PcdDiffusionTensorData* r) {
  r->So = b->So[v];
  PCDdti_SetDiffusionTensorData(r, b->component[0][v], b->component[1][v], b->component[2][v],
                                b->component[3][v], b->component[4][v], b->component[5][v]);
}

void PCDdti_TakeDiagonalizedFromTensorBatch(const PcdTensorBatch* b, int32_t v,
                                            PcdDiffusionTensorData* r) {
  PCDdti_TakeFromTensorBatch(b, v, r);
  for (int i = 1; i <= 3; ++i) {
    for (int j = 1; j <= 3; ++j) r->tensor[i][j] = b->vectors[v][i][j];
    r->eigenvalues[i] = r->work[i] = b->values[v][i];
  }
}
