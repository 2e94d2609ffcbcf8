// Tensors estimated and diagonalised side by side must come out as the one-voxel path
// gives them, bit for bit, whatever their neighbours in the batch are doing.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "dti/eigen_lanes.h"
#include "dti/tensor.h"
#include "tools/phantom/phantom.h"

namespace {

struct Record {
  PcdDiffusionTensorData* r;
  Record(int32_t channels, int32_t so) : r(PCDdti_NewDiffusionTensorData(channels, so)) {}
  ~Record() { PCDdti_DeleteDiffusionTensorData(r); }
};

// Equal bits, or both NaN (a NaN's sign may follow the operand order the compiler picked).
bool SameValue(float a, float b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

using Six = std::array<float, 6>;

// Tensors that take the solver down each of its paths: ordinary ones, diagonal ones (no
// Householder step), zero, isotropic, repeated eigenvalues, signs mixed, extreme scales,
// and non-finite components that run the QL iteration into its sweep limit.
std::vector<Six> AwkwardTensors() {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<Six> t = {
      {1.7e-3f, 0.3e-3f, 0.3e-3f, 0, 0, 0},
      {0, 0, 0, 0, 0, 0},
      {1e-3f, 1e-3f, 1e-3f, 0, 0, 0},
      {1e-3f, 1e-3f, 2e-3f, 1e-4f, 0, 0},
      {1e-3f, 1e-3f, 1e-3f, 1e-4f, 1e-4f, 1e-4f},
      {-1e-3f, 2e-3f, -5e-4f, 3e-4f, -2e-4f, 1e-4f},
      {0, 0, 0, 0, 1e-3f, 0},
      {0, 0, 0, 1e-3f, 0, 0},
      {1e30f, 1e-30f, 1.0f, 1e20f, 1e-20f, 1e10f},
      {1e-38f, 2e-39f, 0, 1e-40f, 0, 3e-45f},
      {nan, 1e-3f, 1e-3f, 0, 0, 0},
      {1e-3f, 1e-3f, 1e-3f, inf, 0, 0},
      {1e-3f, -inf, 1e-3f, 1e-4f, 1e-4f, 0},
  };
  std::mt19937 random(11);
  std::normal_distribution<float> normal(0.0f, 1e-3f);
  for (int i = 0; i < 300; ++i)
    t.push_back({normal(random), normal(random), normal(random), normal(random), normal(random),
                 normal(random)});
  return t;
}

void ExpectSameEigenSystem(const PcdTensorBatch& b, int32_t v, const PcdDiffusionTensorData* r,
                           size_t which) {
  PcdDiffusionTensorData taken{};
  float rows[4][4] = {};
  float* rowPointers[4] = {rows[0], rows[1], rows[2], rows[3]};
  taken.tensor = rowPointers;
  PCDdti_TakeDiagonalizedFromTensorBatch(&b, v, &taken);
  for (int i = 1; i <= 3; ++i) {
    EXPECT_TRUE(SameValue(taken.eigenvalues[i], r->eigenvalues[i]))
        << "tensor " << which << " eigenvalue " << i << ": " << taken.eigenvalues[i] << " vs "
        << r->eigenvalues[i];
    for (int j = 1; j <= 3; ++j)
      EXPECT_TRUE(SameValue(taken.tensor[i][j], r->tensor[i][j]))
          << "tensor " << which << " vector entry " << i << "," << j;
  }
  EXPECT_TRUE(SameValue(PCDdti_GetFA(&taken), PCDdti_GetFA(r))) << "tensor " << which;
}

TEST(TensorBatch, EigenSystemsMatchTheOneTensorSolverInEveryLaneAndGroupSize) {
  const std::vector<Six> tensors = AwkwardTensors();
  Record one(7, 1);
  PcdTensorBatch b;
  // every batch size, so that groups of four are full, partial, and mix slow lanes (the
  // sweep-limit tensors) with quick ones
  size_t next = 0;
  for (int32_t count = 1; count <= kPcdTensorLanes && next < tensors.size(); ++count) {
    b.count = count;
    std::vector<size_t> which(static_cast<size_t>(count));
    for (int32_t v = 0; v < count; ++v) {
      which[v] = next++ % tensors.size();
      for (int k = 0; k < 6; ++k) b.component[k][v] = tensors[which[v]][k];
    }
    PCDdti_DiagonalizeTensorBatch(&b);
    for (int32_t v = 0; v < count; ++v) {
      const Six& t = tensors[which[v]];
      PCDdti_SetDiffusionTensorData(one.r, t[0], t[1], t[2], t[3], t[4], t[5]);
      PCDdti_DiagonalizeDiffusionTensorData(one.r);
      ExpectSameEigenSystem(b, v, one.r, which[v]);
    }
  }
  EXPECT_GE(next, tensors.size());
}

#if defined(__SSE2__)
// The batch uses eight AVX lanes where the processor has them, four SSE lanes otherwise:
// both widths must leave the same bits in every lane.
TEST(TensorBatch, FourAndEightLaneIterationsAgree) {
  const std::vector<Six> tensors = AwkwardTensors();
  for (size_t first = 0; first < tensors.size(); first += 8) {
    const int used = static_cast<int>(std::min<size_t>(8, tensors.size() - first));
    PcdEigenLanes four{}, eight{};
    for (int lane = 0; lane < used; ++lane) {
      float a[4][4] = {}, d[4], e[4];
      const Six& t = tensors[first + lane];
      a[1][1] = t[0], a[2][2] = t[1], a[3][3] = t[2];
      a[1][2] = a[2][1] = t[3], a[2][3] = a[3][2] = t[4], a[1][3] = a[3][1] = t[5];
      float* rows[4] = {a[0], a[1], a[2], a[3]};
      tred2(rows, 3, d, e);
      for (int i = 1; i <= 3; ++i) {
        four.d[i][lane] = d[i];
        four.e[i][lane] = e[i];
        for (int j = 1; j <= 3; ++j) four.z[i][j][lane] = a[i][j];
      }
    }
    eight = four;
    TqliLanesOfArrays<__m128, 4>(&four, 0, std::min(used, 4));
    if (used > 4) TqliLanesOfArrays<__m128, 4>(&four, 4, used - 4);
    PCDdti_TqliEightLanes(&eight, used);
    for (int lane = 0; lane < used; ++lane)
      for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(SameValue(four.d[i][lane], eight.d[i][lane])) << first + lane;
        for (int j = 1; j <= 3; ++j)
          EXPECT_TRUE(SameValue(four.z[i][j][lane], eight.z[i][j][lane])) << first + lane;
      }
  }
}
#endif

TEST(TensorBatch, GiveUpStateOfTheSweepLimitIsKeptPerLane) {
  // a NaN component never converges: that lane ends isotropic at 1e-14 while its
  // neighbours finish normally
  PcdTensorBatch b;
  b.count = 3;
  const Six t[3] = {{1.7e-3f, 0.3e-3f, 0.3e-3f, 1e-4f, 0, 0},
                    {std::numeric_limits<float>::quiet_NaN(), 1e-3f, 1e-3f, 1e-4f, 0, 0},
                    {0.5e-3f, 0.6e-3f, 0.9e-3f, 0, 1e-4f, 0}};
  for (int v = 0; v < 3; ++v)
    for (int k = 0; k < 6; ++k) b.component[k][v] = t[v][k];
  PCDdti_DiagonalizeTensorBatch(&b);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(b.values[1][i], 1.0e-14f);
  EXPECT_NEAR(b.values[0][3], 1.7e-3f, 1e-4f);
  EXPECT_NEAR(b.values[2][3], 0.9e-3f, 1e-4f);
}

TEST(TensorBatch, EstimatesMatchTheOneVoxelEstimateIncludingZeroAndNegativeSignals) {
  PcdDtiData* dti = PCD_MakeDwiPhantom(
      {.sizeX = 12, .sizeY = 10, .sizeZ = 3, .noise = 0.08f, .seed = 5}, nullptr);
  ASSERT_NE(dti, nullptr);
  // a few hostile voxels: a zero DWI, a zero So, a negative DWI, a DWI above So
  auto sample = [&](int32_t c, size_t at) -> int16_t& {
    return static_cast<int16_t*>(dti->volume->data[c])[at];
  };
  sample(3, 5) = 0;
  sample(0, 6) = 0;
  sample(4, 7) = -20;
  sample(5, 8) = 32000;

  Record batched(dti->channelCount, dti->soCount), single(dti->channelCount, dti->soCount);
  ASSERT_TRUE(PCDdti_PreparePseudoInverse(dti, batched.r));
  PcdTensorBatch b;
  PCDdti_ResizeTensorBatch(dti, &b);
  const size_t voxels = 12u * 10u * 3u;
  for (size_t first = 0; first < voxels; first += kPcdTensorLanes) {
    b.count = static_cast<int32_t>(std::min<size_t>(kPcdTensorLanes, voxels - first));
    for (int32_t c = 0; c < dti->channelCount; ++c)
      for (int32_t v = 0; v < b.count; ++v)
        b.signal[static_cast<size_t>(c) * kPcdTensorLanes + v] = sample(c, first + v);
    PCDdti_EstimateTensorBatch(dti, batched.r, &b);
    for (int32_t v = 0; v < b.count; ++v) {
      const size_t at = first + v;
      const PcdIntVector3D voxel{static_cast<int32_t>(at % 12), static_cast<int32_t>(at / 12 % 10),
                                 static_cast<int32_t>(at / 120)};
      ASSERT_EQ(PCDdti_CalcDiffusionTensorAtVoxel(dti, single.r, &voxel), 1);
      PCDdti_TakeFromTensorBatch(&b, v, batched.r);
      EXPECT_TRUE(SameValue(batched.r->So, single.r->So)) << at;
      const float got[6] = {batched.r->Dxx, batched.r->Dyy, batched.r->Dzz,
                            batched.r->Dxy, batched.r->Dyz, batched.r->Dxz};
      const float want[6] = {single.r->Dxx, single.r->Dyy, single.r->Dzz,
                             single.r->Dxy, single.r->Dyz, single.r->Dxz};
      for (int k = 0; k < 6; ++k) EXPECT_TRUE(SameValue(got[k], want[k])) << at << " component " << k;
    }
  }
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

// float(ln(S / So)) as the fit forms it, through the batch's shortcut: in a run of five
// (four at a time where the processor has the wide registers, the fifth alone), both
// places must give the library's value; the first that does not is returned.
float LogRatio(float signal, float so) {
  const double inverse = 1.0 / static_cast<double>(so);
  const float S[5] = {signal, 7.0f, signal, 1.0f, signal};
  const double inverses[5] = {inverse, 1.0, inverse, 0.5, inverse};
  double logInverses[5];
  for (int i = 0; i < 5; ++i) logInverses[i] = std::log(inverses[i]);
  float out[5];
  PCDdti_LogRatiosAsFloats(S, inverses, logInverses, out, 5);
  const auto want = static_cast<float>(std::log(static_cast<double>(signal) * inverse));
  return SameValue(out[2], want) ? out[4] : out[2];
}

float LibraryLogRatio(float signal, float so) {
  return static_cast<float>(std::log(static_cast<double>(signal) * (1.0 / static_cast<double>(so))));
}

TEST(TensorBatch, LogarithmOfEverySignalRatioIsTheLibrarysRoundedToFloat) {
  // every 16-bit signal against a spread of So values (means of several So channels too)
  const float soValues[] = {1.0f, 2.0f, 3.0f, 7.0f, 100.0f, 812.5f, 1000.0f, 4096.0f, 8000.0f,
                            12345.67f, 32767.0f, 0.3f, 1e-30f, 3e38f};
  for (const float so : soValues)
    for (int s = -3; s <= 32768; ++s)
      ASSERT_TRUE(SameValue(LogRatio(static_cast<float>(s), so),
                            LibraryLogRatio(static_cast<float>(s), so)))
          << s << " / " << so;
  // So equal to the signal, signals that are not whole numbers, and hostile values
  std::mt19937 random(3);
  std::uniform_real_distribution<float> any(0.0f, 40000.0f);
  for (int i = 0; i < 200000; ++i) {
    const float so = std::floor(any(random));
    const float s = i % 3 == 0 ? so : (i % 3 == 1 ? std::floor(any(random)) : any(random));
    ASSERT_TRUE(SameValue(LogRatio(s, so), LibraryLogRatio(s, so))) << s << " / " << so;
  }
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float hostile[][2] = {{5, 0},    {5, -0.0f}, {0, 0},   {5, -3},  {-5, -3},
                              {nan, 5},  {5, nan},   {inf, 5}, {5, inf}, {1e-45f, 1},
                              {32767, 1e-45f}};
  for (const auto& h : hostile)
    EXPECT_TRUE(SameValue(LogRatio(h[0], h[1]), LibraryLogRatio(h[0], h[1])))
        << h[0] << " / " << h[1];
}

}  // namespace
