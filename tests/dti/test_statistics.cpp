// Voxel statistics of a region, against values worked out by hand for known tensors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "dti/statistics.h"
#include "test_region_growing_volumes.h"
#include "tools/phantom/phantom.h"

namespace {

using region_test::Mask;
using region_test::Prolate;
using region_test::TensorVolume;
using region_test::VoxelSpec;

struct Freed {
  void operator()(PcdDiffusionTensorStatistics* s) const { std::free(s); }
};
using Stats = std::unique_ptr<PcdDiffusionTensorStatistics, Freed>;

// Row z = 0: A (So 20000, 1.7/0.3/0.3 along x), B (So 30000, 1.0/0.5/0.5 along x), a
// tensor with a negative eigenvalue, and a very anisotropic one under mask value 255.
// Row z = 1: C = A turned by 90 degrees (So 25000), a voxel without signal, two unmasked.
VoxelSpec Sample(int x, int, int z) {
  const region_test::Tensor6 negative{1e-3, 1e-3, -0.2e-3, 0, 0, 0};
  if (z == 0) {
    switch (x) {
      case 0: return {20000, Prolate(0)};
      case 1: return {30000, Prolate(0, 1.0e-3, 0.5e-3)};
      case 2: return {10000, negative};
      default: return {10000, Prolate(30, 2.9e-3, 0.05e-3)};
    }
  }
  if (x == 0) return {25000, Prolate(90)};
  if (x == 1) return {0, {0, 0, 0, 0, 0, 0}};
  return {10000, Prolate(0, 2.5e-3, 0.1e-3)};
}

// Worked out by hand over the valid voxels A, B, C (population SD):
//   FA(A) = FA(C) = sqrt(1.5 (0.9333^2 + 2 * 0.4667^2) / (1.7^2 + 2 * 0.3^2)) = 0.79902
//   FA(B) = sqrt(1.5 (0.3333^2 + 2 * 0.1667^2) / (1 + 2 * 0.25)) = sqrt(1/6) = 0.40825
//   FA mean (2 * 0.79902 + 0.40825) / 3 = 0.66876, SD sqrt(2/3 * 0.13026^2 + ... ) = 0.18421
//   So 20000, 30000, 25000: mean 25000, SD 5000 sqrt(2/3) = 4082.48
//   ADC 0.7667, 0.6667, 0.7667 (10^-3): mean 0.7333, SD 0.04714
//   L1 1.7, 1.0, 1.7: mean 1.4667, SD 0.32998; L2 = L3 0.3, 0.5, 0.3: mean 0.3667, SD 0.09428
TEST(TensorStatistics, ThreeValidVoxelsOfKnownTensorsGiveTheHandWorkedSummary) {
  TensorVolume data(4, 1, 2, Sample);
  Mask mask(4, 1, 2, "###9|##..");
  mask.at(3, 0, 0) = 255;  // outside, whatever its tensor
  testing::internal::CaptureStderr();
  Stats s(PCDdti_GetDiffusionTensorStatistics(data.dti, mask.v, 7, nullptr));
  const std::string console = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(s);
  EXPECT_EQ(s->voxelCount, 5);  // A, B, the negative one, C and the one without signal
  EXPECT_EQ(s->validCount, 3u);
  EXPECT_EQ(s->SoMin, 20000.0);
  EXPECT_EQ(s->SoMax, 30000.0);
  EXPECT_DOUBLE_EQ(s->SoMean, 25000.0);
  EXPECT_NEAR(s->SoSD, 4082.48, 0.01);
  EXPECT_NEAR(s->FAmin, 0.40825, 2e-4);
  EXPECT_NEAR(s->FAmax, 0.79902, 2e-4);
  EXPECT_NEAR(s->FAmean, 0.66876, 2e-4);
  EXPECT_NEAR(s->FAsd, 0.18421, 2e-4);
  EXPECT_NEAR(s->ADCmin * 1e3, 0.66667, 2e-4);
  EXPECT_NEAR(s->ADCmax * 1e3, 0.76667, 2e-4);
  EXPECT_NEAR(s->ADCmean * 1e3, 0.73333, 2e-4);
  EXPECT_NEAR(s->ADCsd * 1e3, 0.04714, 2e-4);
  EXPECT_NEAR(s->L1min * 1e3, 1.0, 5e-4);
  EXPECT_NEAR(s->L1max * 1e3, 1.7, 5e-4);
  EXPECT_NEAR(s->L1mean * 1e3, 1.46667, 5e-4);
  EXPECT_NEAR(s->L1sd * 1e3, 0.32998, 5e-4);
  for (double mean : {s->L2mean, s->L3mean}) EXPECT_NEAR(mean * 1e3, 0.36667, 5e-4);
  for (double sd : {s->L2sd, s->L3sd}) EXPECT_NEAR(sd * 1e3, 0.09428, 5e-4);
  EXPECT_NEAR(s->L3min * 1e3, 0.3, 5e-4);
  EXPECT_NEAR(s->L2max * 1e3, 0.5, 5e-4);
  // one progress line per slice, z / size z truncated, then the closing line
  EXPECT_EQ(console, "\rComputation 0% completed ...\rComputation 50% completed ..."
                     "\rDone.                             \n");

  EXPECT_EQ(PCDdti_FormatDiffusionTensorStatistics(s.get()),
            "Tensors: 5\n"
            "Valid Tensors: 3\n"
            "Statistics: min. - max. (mean/stdev.)\n"
            "  So: 20000.00 - 30000.00 (25000.00/4082.48)\n"
            "  FA:  0.41 - 0.80 (0.67/0.18)\n"
            "  ADC(x1k): 0.67 - 0.77 (0.73/0.05)\n"
            "  L1(x1k):    1.00 - 1.70 (1.47/0.33)\n"
            "  L2(x1k):    0.30 - 0.50 (0.37/0.09)\n"
            "  L3(x1k):    0.30 - 0.50 (0.37/0.09)\n");
}

TEST(TensorStatistics, OneValidVoxelEmptyMasksAndInvalidOnes) {
  TensorVolume data(4, 1, 2, Sample);
  {
    Mask mask(4, 1, 2, ".#..|....");  // B alone: min = max = mean, SD 0
    testing::internal::CaptureStderr();
    Stats s(PCDdti_GetDiffusionTensorStatistics(data.dti, mask.v));
    testing::internal::GetCapturedStderr();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->validCount, 1u);
    const double rows[6][4] = {{s->SoMin, s->SoMax, s->SoMean, s->SoSD},
                               {s->FAmin, s->FAmax, s->FAmean, s->FAsd},
                               {s->ADCmin, s->ADCmax, s->ADCmean, s->ADCsd},
                               {s->L1min, s->L1max, s->L1mean, s->L1sd},
                               {s->L2min, s->L2max, s->L2mean, s->L2sd},
                               {s->L3min, s->L3max, s->L3mean, s->L3sd}};
    for (const auto& q : rows) {
      EXPECT_EQ(q[0], q[1]);
      EXPECT_EQ(q[0], q[2]);
      EXPECT_EQ(q[3], 0.0);
    }
    EXPECT_EQ(s->SoMean, 30000.0);
  }
  for (const char* picture : {"....|....", "..#.|.#..", "...5|...."}) {
    Mask mask(4, 1, 2, picture);
    testing::internal::CaptureStderr();
    Stats s(PCDdti_GetDiffusionTensorStatistics(data.dti, mask.v));
    testing::internal::GetCapturedStderr();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->voxelCount, std::string(picture) == "..#.|.#.." ? 2 : 0) << picture;
    EXPECT_EQ(s->validCount, 0u);
    EXPECT_EQ(s->FAmean, 0.0);
    EXPECT_EQ(s->SoSD, 0.0);
    EXPECT_EQ(PCDdti_FormatDiffusionTensorStatistics(s.get()),
              "Tensors: " + std::to_string(s->voxelCount) + "\nValid Tensors: 0\nNo valid voxels.\n");
  }
}

TEST(TensorStatistics, RefusesMasksAndDataSetsThatDoNotFit) {
  TensorVolume data(4, 1, 2, Sample);
  Mask small(4, 1, 1, "####");
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDdti_GetDiffusionTensorStatistics(data.dti, small.v), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: the mask is 4 x 1 x 1, the data set 4 x 1 x 2\n");
  Mask mask(4, 1, 2, "####|####");
  data.dti->isReady = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDdti_GetDiffusionTensorStatistics(data.dti, mask.v), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Err: ", 0), 0u);
  data.dti->isReady = 1;
  data.dti->channelCount = 12;  // more channels than the volume has
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDdti_GetDiffusionTensorStatistics(data.dti, mask.v), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Err: ", 0), 0u);
}

// The row-by-row batches give every field to the bit, on noisy data where many tensors
// are invalid and the accumulation order decides the last bits of the sums.
TEST(TensorStatistics, SideBySideEqualsVoxelByVoxelToTheBit) {
  PcdPhantomOptions o{.sizeX = 40, .sizeY = 36, .sizeZ = 10, .directions = 13, .noise = 0.08f};
  PcdDtiData* dti = PCD_MakeDwiPhantom(o, nullptr);
  ASSERT_NE(dti, nullptr);
  Mask mask(40, 36, 10);
  for (int64_t i = 0; i < 40 * 36 * 10; ++i) mask.data()[i] = i % 7 == 3 ? 0 : 1;
  testing::internal::CaptureStderr();
  Stats fast(PCDdti_GetDiffusionTensorStatistics(dti, mask.v));
  Stats plain(PCDdti_GetDiffusionTensorStatisticsVoxelByVoxel(dti, mask.v));
  testing::internal::GetCapturedStderr();
  ASSERT_TRUE(fast && plain);
  EXPECT_GT(fast->validCount, 1000u);
  EXPECT_LT(fast->validCount, static_cast<uint32_t>(fast->voxelCount));
  EXPECT_EQ(std::memcmp(fast.get(), plain.get(), sizeof(PcdDiffusionTensorStatistics)), 0);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

}  // namespace
