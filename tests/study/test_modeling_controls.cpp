// The bounded default control region of fiber modeling: Otsu's head mask, the
// neighbourhood of the seed and target regions, and what a default study makes of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "study/modeling_controls.h"
#include "study/study_runner.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using VolumePtr = std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)>;

struct PhantomSession {
  PcdWorkSession s;
  PcdPhantomTruth truth;
  PcdPhantomOptions options;
  PhantomSession(int x, int y, int z, float noise) {
    options.sizeX = x, options.sizeY = y, options.sizeZ = z, options.directions = 12, options.noise = noise;
    s.dti = PCD_MakeDwiPhantom(options, &truth);
    s.volume = s.dti->volume;
  }
};

}  // namespace

// Histograms worked by hand: 4 x 0, 4 x 10, 8 x 100. Threshold 0 splits {0} | {10, 100}:
// between-class variance 1/4 * 3/4 * (0 - 70)^2 = 918.75; threshold 10 (up to 99, the
// same split) splits {0, 10} | {100}: 1/2 * 1/2 * (5 - 100)^2 = 2256.25, the largest, and
// 10 is its smallest threshold. Equal values: everything is foreground.
TEST(ModelingControls, OtsuThresholdAndHeadMaskOfAHandBuiltSo) {
  std::vector<int16_t> v = {0, 0, 0, 0, 10, 10, 10, 10, 100, 100, 100, 100, 100, 100, 100, 100};
  EXPECT_EQ(PCD_OtsuThreshold(v.data(), v.size()), 10);
  std::reverse(v.begin(), v.end());  // order does not matter
  EXPECT_EQ(PCD_OtsuThreshold(v.data(), v.size()), 10);
  // 1 x -5 and 3 x 7: the only split
  const int16_t two[] = {7, -5, 7, 7};
  EXPECT_EQ(PCD_OtsuThreshold(two, 4), -5);
  const int16_t flat[] = {42, 42, 42};
  EXPECT_EQ(PCD_OtsuThreshold(flat, 3), 41);
  EXPECT_EQ(PCD_OtsuThreshold(nullptr, 0), 0);

  // the head mask of a data set whose first So channel holds that histogram: 4 x 2 x 2,
  // background 0 and 10 in the first slice, tissue 100 in the second
  PhantomSession p(4, 2, 2, 0.0f);
  auto* so = static_cast<int16_t*>(p.s.dti->volume->data[0]);
  for (int i = 0; i < 16; ++i) so[i] = static_cast<int16_t>(i < 4 ? 0 : i < 8 ? 10 : 100);
  const std::vector<uint8_t> head = PCD_GetHeadMask(p.s.dti);
  const std::vector<uint8_t> expected = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(head, expected);
}

// The neighbourhood: a cube of side 2r + 1 around each voxel, clipped at the volume's
// faces, counted by hand.
TEST(ModelingControls, NeighbourhoodOfSeedVoxelsIsACubeClippedAtTheFaces) {
  const PcdIntSize3D size{12, 10, 8};
  // seeds at voxel centres; (5, 5, 4) and the corner (0, 0, 0); one outside is ignored
  const std::vector<PcdVector3D> seeds = {{5.0f, 5.0f, 4.0f}, {0.2f, -0.3f, 0.1f}, {50.0f, 1.0f, 1.0f}};
  const std::vector<uint8_t> mask = PCD_MaskOfPoints(seeds, size);
  ASSERT_EQ(mask.size(), 960u);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), 2);
  EXPECT_EQ(mask[(4 * 10 + 5) * 12 + 5], 1);
  EXPECT_EQ(mask[0], 1);
  const std::vector<uint8_t> around = PCD_DilateMask(mask, size, 2);
  // 5 x 5 x 5 around (5, 5, 4) and 3 x 3 x 3 at the corner, apart
  EXPECT_EQ(std::count(around.begin(), around.end(), 1), 125 + 27);
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 10; ++y)
      for (int x = 0; x < 12; ++x) {
        const bool inCube = std::abs(x - 5) <= 2 && std::abs(y - 5) <= 2 && std::abs(z - 4) <= 2;
        const bool inCorner = x <= 2 && y <= 2 && z <= 2;
        EXPECT_EQ(around[static_cast<size_t>((z * 10 + y) * 12 + x)], inCube || inCorner ? 1 : 0) << x << y << z;
      }
}

// On a noisy phantom the limits alone let background noise in; the bounded region holds
// only voxels that pass the limits, lie in the head (the phantom's ellipsoid) and lie within
// the neighbourhood of a seed voxel (Chebyshev distance, by brute force).
TEST(ModelingControls, BoundedRegionIsTissueNearTheSeeds) {
  PhantomSession p(40, 40, 16, 0.05f);
  const PcdIntSize3D size{40, 40, 16};
  PcdDiffusionTensorLimits limits;
  std::vector<PcdVector3D> seeds;
  for (int y = 18; y <= 21; ++y) seeds.push_back({8.0f, static_cast<float>(y), 8.0f});
  testing::internal::CaptureStderr();
  VolumePtr all(PCD_NewModelingControlVolume(p.s.dti, &limits), PCD_DeleteRawVolumeData);
  VolumePtr bounded(PCD_NewBoundedModelingControlVolume(p.s.dti, &limits, PCD_MaskOfPoints(seeds, size)),
                    PCD_DeleteRawVolumeData);
  testing::internal::GetCapturedStderr();
  ASSERT_TRUE(all && bounded);
  const auto* a = static_cast<const uint8_t*>(all->data[0]);
  const auto* b = static_cast<const uint8_t*>(bounded->data[0]);
  int outsideHead = 0, kept = 0;
  size_t at = 0;
  for (int z = 0; z < 16; ++z)
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x, ++at) {
        // the phantom's head: the ellipsoid it is drawn in
        const double ex = (x - 19.5) / (0.46 * 40), ey = (y - 19.5) / (0.46 * 40), ez = (z - 7.5) / (0.46 * 16);
        const bool head = ex * ex + ey * ey + ez * ez <= 1.0;
        outsideHead += a[at] == 1 && !head;
        if (b[at] != 1) continue;
        ++kept;
        EXPECT_EQ(a[at], 1) << at;
        EXPECT_TRUE(head) << x << "," << y << "," << z;
        bool near = false;
        for (const PcdVector3D& s : seeds)
          near = near || (std::abs(x - static_cast<int>(s.x)) <= kPcdModelingNeighbourhood &&
                          std::abs(y - static_cast<int>(s.y)) <= kPcdModelingNeighbourhood &&
                          std::abs(z - static_cast<int>(s.z)) <= kPcdModelingNeighbourhood);
        EXPECT_TRUE(near) << x << "," << y << "," << z;
      }
  EXPECT_GT(outsideHead, 100);  // the fault the bound removes
  EXPECT_GT(kept, 20);
  const std::vector<uint8_t> wrongSize(10, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_NewBoundedModelingControlVolume(p.s.dti, &limits, wrongSize), nullptr);
  EXPECT_TRUE(quorix_test::HasLine(testing::internal::GetCapturedStderr(),
                                   "Err: the seed and target regions do not have the size of the volume\n"));
}

// A modeling study with its default settings on a noisy phantom: no control voxel
// outside the head or far from the seeds, and its fibers follow the phantom's true
// directions wherever one exists (segments within 30 degrees of it).
TEST(ModelingControls, DefaultStudyOnNoisyDataStaysOnTheBundle) {
  constexpr int kNx = 32, kNy = 32, kNz = 10;
  PhantomSession p(kNx, kNy, kNz, 0.05f);
  PcdStudyObject* study = PCD_NewStudyObject(&p.s.studies, PCD_STUDY_FIBER_MODELING, nullptr);
  study->tract->regions[0].shape->centre = {6.5f, kNy / 2 - 0.5f, kNz / 2 - 0.5f};  // in the bundle along x
  study->tract->regions[0].shape->radius = 1.5f;
  int lines = 0, along = 0, across = 0;
  PcdStudyRunOptions options;
  options.drawFibers = [&](const PcdStudyObject*, const PcdFibeTrakBuffer* result, int) {
    lines = result->lineCount;
    for (int i = 0; i < result->lineCount; ++i)
      for (const PcdTrakLineBuffer* l : {result->pairs[i]->forward, result->pairs[i]->backward})
        for (int k = 0; l != nullptr && k + 1 < l->nodeCount; ++k) {
          // a segment inside the bundle: both its nodes in voxels of the same true direction
          // (a line that leaves the bundle at its end turns into the fluid rim)
          size_t at = 0, next = 0;
          if (!PCDdti_VoxelIndexOfPoint(l->x[k], l->y[k], l->z[k], {kNx, kNy, kNz}, &at) ||
              !PCDdti_VoxelIndexOfPoint(l->x[k + 1], l->y[k + 1], l->z[k + 1], {kNx, kNy, kNz}, &next))
            continue;
          const PcdVector3D d = p.truth.direction[at], e = p.truth.direction[next];
          if (d.x != e.x || d.y != e.y || d.z != e.z) continue;
          const double sx = l->x[k + 1] - l->x[k], sy = l->y[k + 1] - l->y[k], sz = l->z[k + 1] - l->z[k];
          const double length = std::sqrt(sx * sx + sy * sy + sz * sz);
          if (d.x == 0 && d.y == 0 && d.z == 0) continue;
          (std::fabs(sx * d.x + sy * d.y + sz * d.z) >= 0.866 * length ? along : across) += 1;
        }
  };
  testing::internal::CaptureStderr();
  const int status = PCD_RunStudy(&p.s, study, options);
  const std::string console = testing::internal::GetCapturedStderr();
  ASSERT_EQ(status, 0) << console;
  EXPECT_GT(lines, 10);
  EXPECT_GT(along, 500);
  EXPECT_EQ(across, 0);
  // fewer controls than the limits alone give
  PcdDiffusionTensorLimits limits;
  testing::internal::CaptureStderr();
  VolumePtr all(PCD_NewModelingControlVolume(p.s.dti, &limits), PCD_DeleteRawVolumeData);
  testing::internal::GetCapturedStderr();
  const auto* a = static_cast<const uint8_t*>(all->data[0]);
  const long everywhere = std::count(a, a + kNx * kNy * kNz, 1);
  const size_t at = console.find("Originally ");
  ASSERT_NE(at, std::string::npos);
  EXPECT_LT(std::atol(console.c_str() + at + 11), everywhere * 3 / 4) << console;
}

// The target region widens the default region as the seed region does: with the seed at
// one end of a 40-voxel-wide volume and the target at the other, their neighbourhoods
// (x 0..17 and 22..39) do not meet, so the control count with the target is the sum of
// the counts of the seed alone and of the target taken as the seed.
TEST(ModelingControls, TargetRegionsWidenTheDefaultRegion) {
  PhantomSession p(40, 16, 8, 0.0f);
  PcdStudyObject* study = PCD_NewStudyObject(&p.s.studies, PCD_STUDY_FIBER_MODELING, nullptr);
  PcdTractSettings& t = *study->tract;
  t.regions[0].shape->centre = {1.5f, 8.5f, 4.5f};
  t.regions[0].shape->radius = 0.5f;
  auto originally = [&]() {
    testing::internal::CaptureStderr();
    PCD_RunStudy(&p.s, study, {});
    const std::string said = testing::internal::GetCapturedStderr();
    const size_t at = said.find("Originally ");
    return at == std::string::npos ? -1 : std::atoi(said.c_str() + at + 11);
  };
  const int seedAlone = originally();
  t.regions[0].shape->centre = {38.5f, 8.5f, 4.5f};
  const int targetAlone = originally();
  t.regions[0].shape->centre = {1.5f, 8.5f, 4.5f};
  t.regions[1].use = kPcdRegionInUse;
  t.regions[1].kind = kPcdRegionSphere;
  t.regions[1].shape = std::make_unique<PcdRoiShape>(*t.regions[0].shape);
  t.regions[1].shape->centre = {38.5f, 8.5f, 4.5f};
  const int both = originally();
  EXPECT_GT(seedAlone, 50);
  EXPECT_GT(targetAlone, 50);
  EXPECT_EQ(both, seedAlone + targetAlone) << seedAlone << " + " << targetAlone;
}
