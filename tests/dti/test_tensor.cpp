// Tensor fit, eigen-system, indices and the computed channels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dti/channels.h"
#include "dti/gradient_vectors.h"
#include "dti/tensor.h"
#include "tools/phantom/phantom.h"

namespace {

struct Tensor6 {
  double xx, yy, zz, xy, yz, xz;
};

double Quadratic(const Tensor6& d, const PcdVector3D& g) {
  return d.xx * g.x * g.x + d.yy * g.y * g.y + d.zz * g.z * g.z + 2 * d.xy * g.x * g.y +
         2 * d.yz * g.y * g.z + 2 * d.xz * g.x * g.z;
}

// A DTI data set of one So channel and the given directions (b = 1000), every voxel
// filled from tensorAt(x, y, z) with So = 1000.
struct Phantom {
  PcdRawVolumeData* volume = nullptr;
  PcdDtiData* dti = nullptr;
  Phantom(int nx, int ny, int nz, const std::vector<PcdVector3D>& dirs,
          Tensor6 (*tensorAt)(int, int, int), int16_t so = 1000) {
    const int32_t channels = static_cast<int32_t>(dirs.size()) + 1;
    const PcdIntSize4D size{nx, ny, nz, channels};
    std::vector<int32_t> types(channels, SINT16), formats(channels, PCD_MONOCHROME);
    volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
    dti = static_cast<PcdDtiData*>(std::calloc(1, sizeof(PcdDtiData)));
    dti->volume = volume;
    dti->channelCount = channels;
    dti->soCount = 1;
    for (size_t k = 0; k < dirs.size(); ++k) {
      dti->bValues[k + 1] = 1000.0f;
      dti->mpgVectors[k + 1] = dirs[k];
    }
    dti->isReady = 1;
    for (int z = 0; z < nz; ++z)
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x) {
          const size_t at = static_cast<size_t>((z * ny + y) * nx + x);
          static_cast<int16_t*>(volume->data[0])[at] = so;
          const Tensor6 d = tensorAt(x, y, z);
          for (size_t k = 0; k < dirs.size(); ++k)
            static_cast<int16_t*>(volume->data[k + 1])[at] =
                static_cast<int16_t>(std::lround(so * std::exp(-1000.0 * Quadratic(d, dirs[k]))));
        }
  }
  ~Phantom() {
    PCD_DeleteRawVolumeData(volume);
    std::free(dti);
  }
};

std::vector<PcdVector3D> Directions(int n) {
  std::vector<PcdVector3D> dirs;
  for (int k = 0; k < n; ++k)
    dirs.push_back({gradient_vectors[n - 6][k][0], gradient_vectors[n - 6][k][1],
                    gradient_vectors[n - 6][k][2]});
  return dirs;
}

Tensor6 ProlateAlongX(int, int, int) { return {1.7e-3, 0.3e-3, 0.3e-3, 0, 0, 0}; }
Tensor6 Varied(int x, int y, int z) {
  return {0.4e-3 + 0.3e-3 * x, 0.5e-3 + 0.1e-3 * y, 0.6e-3 + 0.05e-3 * z, 0.1e-3 * (x - y),
          0.05e-3 * z, -0.08e-3 * y};
}

struct Record {
  PcdDiffusionTensorData* r;
  Record(int32_t channels, int32_t so) : r(PCDdti_NewDiffusionTensorData(channels, so)) {}
  ~Record() { PCDdti_DeleteDiffusionTensorData(r); }
};

void Diagonalise(PcdDiffusionTensorData* r, float xx, float yy, float zz, float xy, float yz,
                 float xz) {
  PCDdti_SetDiffusionTensorData(r, xx, yy, zz, xy, yz, xz);
  PCDdti_DiagonalizeDiffusionTensorData(r);
}

TEST(EigenSystem, DiagonalAndIsotropicTensorsGiveTheirAxesAndIndices) {
  Record rec(7, 1);
  PcdDiffusionTensorData* r = rec.r;
  Diagonalise(r, 3, 2, 1, 0, 0, 0);
  EXPECT_EQ(PCDdti_GetLambda1(r), 3.0f);
  EXPECT_EQ(PCDdti_GetLambda2(r), 2.0f);
  EXPECT_EQ(PCDdti_GetLambda3(r), 1.0f);
  EXPECT_EQ(std::fabs(r->tensor[1][3]), 1.0f);  // e1 along x
  EXPECT_EQ(std::fabs(r->tensor[2][2]), 1.0f);  // e2 along y
  EXPECT_EQ(std::fabs(r->tensor[3][1]), 1.0f);  // e3 along z
  EXPECT_EQ(r->Dxx, 3.0f);                      // components kept as estimated

  Diagonalise(r, 1, 1, 1, 0, 0, 0);
  EXPECT_EQ(PCDdti_GetFA(r), 0.0f);
  EXPECT_FLOAT_EQ(PCDdti_GetADC(r), 1.0f);
  EXPECT_EQ(PCDdti_CheckDiffusionTensorIsValid(r), 1);

  Diagonalise(r, 1, 0, 0, 0, 0, 0);
  EXPECT_FLOAT_EQ(PCDdti_GetFA(r), 1.0f);
  EXPECT_EQ(PCDdti_CheckDiffusionTensorIsValid(r), 0);

  Diagonalise(r, 2, 1, -0.1f, 0, 0, 0);
  EXPECT_EQ(PCDdti_CheckDiffusionTensorIsValid(r), 0);

  Diagonalise(r, 0, 0, 0, 0, 0, 0);
  EXPECT_TRUE(std::isnan(PCDdti_GetFA(r)));
  EXPECT_EQ(PCDdti_CheckDiffusionTensorIsValid(r), 0);

  Diagonalise(r, 1.7f, 0.3f, 0.3f, 0, 0, 0);
  EXPECT_NEAR(PCDdti_GetFA(r), 0.79902, 1e-5);
  EXPECT_NEAR(PCDdti_GetADC(r), 0.76667, 1e-5);
}

TEST(EigenSystem, GeneralTensorsGiveOrthonormalEigenvectorsSortedAscending) {
  Record rec(7, 1);
  PcdDiffusionTensorData* r = rec.r;
  const float cases[][6] = {{1.2f, 0.8f, 0.5f, 0.3f, -0.2f, 0.1f},
                            {0.7f, 0.7f, 0.7f, 0.2f, 0.2f, 0.2f},
                            {1e-3f, 2e-3f, 1.5e-3f, -4e-4f, 1e-4f, 3e-4f},
                            {5, 5, 1, 0, 0, 0}};
  for (const auto& c : cases) {
    Diagonalise(r, c[0], c[1], c[2], c[3], c[4], c[5]);
    const double A[3][3] = {{c[0], c[3], c[5]}, {c[3], c[1], c[4]}, {c[5], c[4], c[2]}};
    EXPECT_LE(r->eigenvalues[1], r->eigenvalues[2]);
    EXPECT_LE(r->eigenvalues[2], r->eigenvalues[3]);
    const double scale = std::fabs(r->eigenvalues[3]) + std::fabs(r->eigenvalues[1]);
    for (int j = 1; j <= 3; ++j) {
      for (int k = 1; k <= 3; ++k) {
        double dot = 0;
        for (int i = 1; i <= 3; ++i) dot += r->tensor[i][j] * r->tensor[i][k];
        EXPECT_NEAR(dot, j == k ? 1.0 : 0.0, 1e-5);
      }
      for (int i = 0; i < 3; ++i) {  // A v = lambda v
        double av = 0;
        for (int k = 0; k < 3; ++k) av += A[i][k] * r->tensor[k + 1][j];
        EXPECT_NEAR(av, r->eigenvalues[j] * r->tensor[i + 1][j], 1e-5 * scale);
      }
    }
  }
}

TEST(EigenSystem, SortKeepsTiesInOrderAndPythagAvoidsOverflow) {
  float arr[4] = {0, 2, 1, 1}, brr[4] = {0, 10, 20, 30};
  sort2(3, arr, brr);
  EXPECT_EQ(arr[1], 1);
  EXPECT_EQ(brr[1], 20);  // the first of the equal keys stays first
  EXPECT_EQ(brr[2], 30);
  EXPECT_EQ(brr[3], 10);
  std::vector<float> big(21), other(21);
  for (int i = 1; i <= 20; ++i) big[i] = static_cast<float>((i * 7) % 20), other[i] = i;
  sort2(20, big.data(), other.data());
  for (int i = 2; i <= 20; ++i) EXPECT_LE(big[i - 1], big[i]);
  for (int i = 1; i <= 20; ++i) EXPECT_EQ(static_cast<int>(other[i]) * 7 % 20, big[i]);
  EXPECT_FLOAT_EQ(pythag(3e30f, 4e30f), 5e30f);
  EXPECT_EQ(pythag(0, 0), 0.0f);
}

TEST(TensorFit, SixDirectionsReproduceTheTensorAndEqualSignalsGiveZero) {
  Phantom p(1, 1, 1, Directions(6), ProlateAlongX);
  Record rec(7, 1);
  const PcdIntVector3D v{0, 0, 0};
  ASSERT_EQ(PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(p.dti, rec.r, &v), 1);
  EXPECT_EQ(rec.r->So, 1000.0f);
  // signals are rounded to integers, so the recovery is to about 1e-3 relative
  EXPECT_NEAR(rec.r->Dxx, 1.7e-3, 2e-6);
  EXPECT_NEAR(rec.r->Dyy, 0.3e-3, 2e-6);
  EXPECT_NEAR(rec.r->Dxy, 0.0, 2e-6);
  EXPECT_NEAR(std::fabs(rec.r->tensor[1][3]), 1.0, 1e-4);

  for (int c = 1; c < 7; ++c) static_cast<int16_t*>(p.volume->data[c])[0] = 1000;
  ASSERT_EQ(PCDdti_CalcDiffusionTensorAtVoxel(p.dti, rec.r, &v), 1);
  EXPECT_EQ(rec.r->Dxx, 0.0f);
  EXPECT_EQ(rec.r->Dxz, 0.0f);

  static_cast<int16_t*>(p.volume->data[3])[0] = 0;  // log of 0: still "solved"
  ASSERT_EQ(PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(p.dti, rec.r, &v), 1);
  EXPECT_EQ(PCDdti_CheckDiffusionTensorIsValid(rec.r), 0);
}

// The pseudo-inverse is computed once per record and reused; the components must be
// the bytes a fresh solve of each voxel's system gives.
TEST(TensorFit, ReusedPseudoInverseGivesTheBytesOfAFreshSolve) {
  Phantom p(3, 2, 2, Directions(30), Varied);
  Record rec(31, 1);
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x) {
        const PcdIntVector3D v{x, y, z};
        ASSERT_EQ(PCDdti_CalcDiffusionTensorAtVoxel(p.dti, rec.r, &v), 1);
        PcdVector* fresh = PCDnumerical_SolveLinearEquations(rec.r->design, rec.r->rightHand);
        ASSERT_NE(fresh, nullptr);
        const float got[6] = {rec.r->Dxx, rec.r->Dyy, rec.r->Dzz,
                              rec.r->Dxy, rec.r->Dyz, rec.r->Dxz};
        EXPECT_EQ(std::memcmp(got, fresh->data, sizeof got), 0);
        const Tensor6 d = Varied(x, y, z);
        EXPECT_NEAR(rec.r->Dxx, d.xx, 2e-5);
        EXPECT_NEAR(rec.r->Dyz, d.yz, 2e-5);
        PCD_DeleteVector(fresh);
      }
  // a point between voxels is fitted from interpolated signals
  const PcdVector3D mid{0.5f, 0.0f, 0.0f};
  ASSERT_EQ(PCDdti_CalcDiffusionTensor(p.dti, rec.r, &mid), 1);
  EXPECT_NEAR(rec.r->Dxx, 0.55e-3, 2e-5);
}

TEST(TensorFit, AdcOfOneDwi) {
  Phantom p(2, 2, 2, Directions(6), ProlateAlongX);
  static_cast<int16_t*>(p.volume->data[1])[0] = 1000;
  const PcdVector3D at{0, 0, 0};
  EXPECT_EQ(PCDdti_GetADCofSingleDWI(p.dti, &at, 1), 0.0f);
  static_cast<int16_t*>(p.volume->data[0])[0] = 2718;
  static_cast<int16_t*>(p.volume->data[1])[0] = 1000;
  EXPECT_NEAR(PCDdti_GetADCofSingleDWI(p.dti, &at, 1), 1e-3, 2e-7);  // ln(2718 / 1000)
}

TEST(ComputedChannels, ThreadsShareSlicesAsDocumented) {
  int32_t counts[4];
  EXPECT_EQ(distribute_objects_to_threads_optimally(10, 4, counts), 4);
  EXPECT_EQ(std::vector<int32_t>(counts, counts + 4), (std::vector<int32_t>{3, 3, 2, 2}));
  EXPECT_EQ(distribute_objects_to_threads_optimally(9, 4, counts), 3);
  EXPECT_EQ(std::vector<int32_t>(counts, counts + 4), (std::vector<int32_t>{3, 3, 3, 0}));
  EXPECT_EQ(distribute_objects_to_threads_optimally(3, 4, counts), 3);
  EXPECT_EQ(std::vector<int32_t>(counts, counts + 4), (std::vector<int32_t>{1, 1, 1, 0}));
  EXPECT_EQ(distribute_objects_to_threads_optimally(8, 4, counts), 4);
  EXPECT_EQ(counts[3], 2);
  EXPECT_EQ(distribute_objects_to_threads_optimally(11, 3, counts), 3);
  EXPECT_EQ(std::vector<int32_t>(counts, counts + 3), (std::vector<int32_t>{4, 4, 3}));
}

TEST(ComputedChannels, ValuesWrapToSixteenBitsAndColourFollowsFa) {
  EXPECT_EQ(PCDdti_MapValueToSINT16(40000.0f), -25536);
  EXPECT_EQ(PCDdti_MapValueToSINT16(-1.9f), -1);
  EXPECT_EQ(PCDdti_MapValueToSINT16(NAN), 0);
  EXPECT_EQ(PCDdti_MapValueToSINT16(1e12f), 0);

  Record rec(7, 1);
  uint32_t r, g, b, a;
  Diagonalise(rec.r, 0.1f, 0.1f, 1.0f, 0, 0, 0);  // FA about 0.89, e1 along z
  get_directional_color(rec.r, &r, &g, &b, &a);
  EXPECT_EQ(r, 0u);
  EXPECT_EQ(g, 0u);
  EXPECT_EQ(b, 255u);
  EXPECT_EQ(a, 255u);
  Diagonalise(rec.r, 1.97004f, 1, 1, 0, 0, 0);  // FA 0.4: half brightness
  EXPECT_NEAR(PCDdti_GetFA(rec.r), 0.4f, 1e-5);
  get_directional_color(rec.r, &r, &g, &b, &a);
  EXPECT_EQ(a, 127u);
  EXPECT_EQ(r, 127u);
  EXPECT_EQ(b, 0u);
}

TEST(ComputedChannels, AppendsFourChannelsIdenticalForAnyThreadCount) {
  Phantom p1(4, 3, 5, Directions(12), Varied);
  Phantom p3(4, 3, 5, Directions(12), Varied);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDdti_AddComputationalChannels(p1.dti, 0, 1), 4);
  EXPECT_EQ(PCDdti_AddComputationalChannels(p3.dti, 0, 3), 4);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(p1.volume->matrixSize->channels, 17);
  EXPECT_EQ(p1.volume->dataType[13], UINT32);
  EXPECT_EQ(p1.volume->colorFormat[13], PCD_RGBA_PACKED);
  for (int c = 13; c < 17; ++c)
    EXPECT_EQ(std::memcmp(p1.volume->data[c], p3.volume->data[c],
                          60 * static_cast<size_t>(PCD_SizeOfDataType(p1.volume->dataType[c]))),
              0)
        << "channel " << c;
  // voxel (1, 2, 3): FA x 1000 and ADC x 10^6 as the record gives them
  Record rec(13, 1);
  const PcdIntVector3D v{1, 2, 3};
  PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(p1.dti, rec.r, &v);
  const size_t at = 1 + 2 * 4 + 3 * 12;
  EXPECT_EQ(static_cast<int16_t*>(p1.volume->data[14])[at],
            static_cast<int16_t>(static_cast<int32_t>(PCDdti_GetFA(rec.r) * 1000.0f)));
  EXPECT_EQ(static_cast<int16_t*>(p1.volume->data[15])[at],
            static_cast<int16_t>(static_cast<int32_t>(PCDdti_GetADC(rec.r) * 1000000.0f)));
}

TEST(ComputedChannels, ThresholdAboveEverySignalGivesZeroChannelsAndOneSliceNoProgress) {
  Phantom p(3, 3, 1, Directions(6), ProlateAlongX);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDdti_AddComputationalChannels(p.dti, 1000, 4), 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n");
  ASSERT_EQ(p.volume->matrixSize->channels, 11);
  for (int c = 7; c < 11; ++c)
    for (int i = 0; i < 9 * PCD_SizeOfDataType(p.volume->dataType[c]); ++i)
      EXPECT_EQ(static_cast<uint8_t*>(p.volume->data[c])[i], 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDdti_AddComputationalChannels(p.dti, 999, 4), 4);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(p.volume->matrixSize->channels, 15);
  EXPECT_NE(static_cast<int16_t*>(p.volume->data[12])[4], 0);  // FA of the prolate tensor
}

// The maps computed the straightforward way: every voxel's system built from the signals
// and solved afresh through its own pseudo-inverse. The threaded run, which forms the
// pseudo-inverse once, must give the same bytes in all four channels.
TEST(ComputedChannels, MatchThePlainPerVoxelPathByteForByteOnANoisyPhantom) {
  PcdDtiData* dti = PCD_MakeDwiPhantom(
      {.sizeX = 20, .sizeY = 18, .sizeZ = 6, .noise = 0.05f, .seed = 7}, nullptr);
  ASSERT_NE(dti, nullptr);
  const int32_t first = dti->volume->matrixSize->channels;
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCDdti_AddComputationalChannels(dti, 0, 2), 4);
  testing::internal::GetCapturedStderr();

  const int32_t dwi = dti->channelCount - dti->soCount;
  PcdMatrix* design = PCD_NewMatrix(dwi, 6);
  PcdVector* y = PCD_NewVector(dwi);
  Record rec(dti->channelCount, dti->soCount);
  const float b = dti->bValues[dti->soCount];
  int computed = 0;
  for (size_t at = 0; at < 20u * 18u * 6u; ++at) {
    auto sample = [&](int32_t c) { return static_cast<int16_t*>(dti->volume->data[c])[at]; };
    const int16_t s = sample(0);
    uint32_t color = 0;
    int16_t fa = 0, adc = 0, iso = 0;
    if (s > 0) {
      const float so = static_cast<float>(s);
      for (int32_t k = 0; k < dwi; ++k) {
        const PcdVector3D g = dti->mpgVectors[1 + k];
        const float row[6] = {g.x * g.x, g.y * g.y, g.z * g.z, 2.0f * g.x * g.y, 2.0f * g.y * g.z,
                              2.0f * g.z * g.x};
        std::copy(row, row + 6, design->m[k]);
        const auto lg = static_cast<float>(std::log(sample(1 + k) * (1.0 / so)));
        y->data[k] = -(lg / dti->bValues[1 + k]);
      }
      PcdVector* x = PCDnumerical_SolveLinearEquations(design, y);
      ASSERT_NE(x, nullptr);
      PCDdti_SetDiffusionTensorData(rec.r, x->data[0], x->data[1], x->data[2], x->data[3],
                                    x->data[4], x->data[5]);
      PCD_DeleteVector(x);
      PCDdti_DiagonalizeDiffusionTensorData(rec.r);
      uint32_t r, g, bl, a;
      get_directional_color(rec.r, &r, &g, &bl, &a);
      color = (r << 24) | (g << 16) | (bl << 8) | a;
      fa = PCDdti_MapValueToSINT16(PCDdti_GetFA(rec.r) * 1000.0f);
      adc = PCDdti_MapValueToSINT16(PCDdti_GetADC(rec.r) * 1000000.0f);
      iso = PCDdti_MapValueToSINT16(std::exp(-PCDdti_GetADC(rec.r) * b) * so);
      ++computed;
    }
    ASSERT_EQ(static_cast<uint32_t*>(dti->volume->data[first])[at], color) << at;
    ASSERT_EQ(static_cast<int16_t*>(dti->volume->data[first + 1])[at], fa) << at;
    ASSERT_EQ(static_cast<int16_t*>(dti->volume->data[first + 2])[at], adc) << at;
    ASSERT_EQ(static_cast<int16_t*>(dti->volume->data[first + 3])[at], iso) << at;
  }
  EXPECT_GT(computed, 800);
  PCD_DeleteMatrix(design);
  PCD_DeleteVector(y);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

}  // namespace
