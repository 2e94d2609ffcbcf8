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
#include "dti/eigen_lanes.h"
#endif

namespace {

#if defined(__SSE2__)
// The AVX2 parts (tensor_batch_avx2.cpp) are used where the processor has AVX2.
bool WideVectorsAvailable() {
#if defined(__x86_64__)
  static const bool available = __builtin_cpu_supports("avx2") != 0;
  return available;
#else
  return false;
#endif
}
#endif

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

// ln S + ln(1/So) is within 4 ulp of |ln S| + |ln(1/So)| of the true ln x (each term within
// 1 ulp, the product x = S/So and the sum rounded once each), and the library's ln x is
// within 1 ulp of the true value. When everything that close rounds to one float, the
// library's result does too: the value is taken and bit v of the result set (n <= 32).
uint32_t LogRatiosFromTable(const double* table, const float* S, const double* logInverse,
                            float* out, int32_t n) {
  uint32_t settled = 0;
  for (int32_t v = 0; v < n; ++v) {
    const bool inTable = S[v] >= 1.0f && S[v] < static_cast<float>(kLogTableSize);
    const auto s = static_cast<int32_t>(inTable ? S[v] : 0.0f);
    const double a = table[s], b = logInverse[v];
    const double r = a + b;
    const double tolerance = (std::fabs(a) + std::fabs(b) + 1.0) * 0x1p-50;
    const auto low = static_cast<float>(r - tolerance);
    const auto high = static_cast<float>(r + tolerance);
    out[v] = low;
    if (inTable && static_cast<float>(s) == S[v] && low == high) settled |= 1u << v;
  }
  return settled;
}

}  // namespace

void PCDdti_LogRatiosAsFloats(const float* S, const double* inverse, const double* logInverse,
                              float* out, int32_t n) {
  static_assert(kPcdTensorLanes <= 32, "one bit per lane");
  const double* table = LogTable().data();
  for (int32_t first = 0; first < n; first += kPcdTensorLanes) {
    const int32_t count = std::min(n - first, kPcdTensorLanes);
    int32_t wide = 0;
    uint32_t settled = 0;
#if defined(__SSE2__)
    if (WideVectorsAvailable()) {
      // four at a time in AVX registers, the rest one by one
      wide = count & ~3;
      settled = PCDdti_LogRatiosFourWide(table, S + first, logInverse + first, out + first, wide);
    }
#endif
    // a shift by the full 32 bits is undefined, so a block done wholly wide skips this
    if (wide < count)
      settled |= LogRatiosFromTable(table, S + first + wide, logInverse + first + wide,
                                    out + first + wide, count - wide)
                 << wide;
    // signals that are not whole numbers in the table, and the rare close calls
    const uint32_t all = count == 32 ? ~0u : (1u << count) - 1u;
    for (uint32_t pending = all & ~settled; pending != 0; pending &= pending - 1) {
      const int32_t v = first + __builtin_ctz(pending);
      out[v] = static_cast<float>(std::log(static_cast<double>(S[v]) * inverse[v]));
    }
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

// Voxels first .. first+used-1 (used <= 8) of the batch: reduction and finishing one by
// one, the QL iteration side by side.
void DiagonalizeLanes(PcdTensorBatch* b, int32_t first, int used) {
  PcdEigenLanes lanes{};
  float e[8][4];
  for (int lane = 0; lane < used; ++lane) {
    const int32_t v = first + lane;
    float(*a)[4] = b->vectors[v];
    pcd_eigen::ComponentsToMatrix(b->componentOf(v).data(), a);
    pcd_eigen::Tred2Body(a, pcd_eigen::Three{}, b->values[v], e[lane]);
    for (int i = 1; i <= 3; ++i) {
      lanes.d[i][lane] = b->values[v][i];
      lanes.e[i][lane] = e[lane][i];
      for (int j = 1; j <= 3; ++j) lanes.z[i][j][lane] = a[i][j];
    }
  }
  if (WideVectorsAvailable())
    PCDdti_TqliEightLanes(&lanes, used);
  else
    TqliEightLanesInSse(&lanes, used);
  for (int lane = 0; lane < used; ++lane) {
    const int32_t v = first + lane;
    for (int i = 1; i <= 3; ++i) {
      b->values[v][i] = lanes.d[i][lane];
      e[lane][i] = lanes.e[i][lane];
      for (int j = 1; j <= 3; ++j) b->vectors[v][i][j] = lanes.z[i][j][lane];
    }
    pcd_eigen::FinishEigenSystem(b->vectors[v], b->values[v], e[lane]);
  }
}

#endif  // __SSE2__

}  // namespace

void PCDdti_DiagonalizeTensorBatch(PcdTensorBatch* b) {
  int32_t v = 0;
#if defined(__SSE2__)
  for (; v < b->count; v += 8) DiagonalizeLanes(b, v, b->count - v < 8 ? b->count - v : 8);
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

void PCDdti_FitRowLanesInTensorBatch(const PcdDtiData* dti, const PcdDiffusionTensorData* record,
                                     size_t rowStart, const int32_t* lanes, PcdTensorBatch* batch) {
  for (int32_t c = 0; c < dti->channelCount; ++c) {
    const auto* block = static_cast<const int16_t*>(dti->volume->data[c]) + rowStart;
    float* to = &batch->signal[static_cast<size_t>(c) * kPcdTensorLanes];
    for (int32_t v = 0; v < batch->count; ++v) to[v] = static_cast<float>(block[lanes[v]]);
  }
  PCDdti_EstimateTensorBatch(dti, record, batch);
  PCDdti_DiagonalizeTensorBatch(batch);
}
