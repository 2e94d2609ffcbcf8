#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

#include "study/voxel_distance.h"

namespace {

std::unique_ptr<PcdVoxelGroup> Group(PcdIntVector3D origin, PcdIntSize3D size, int32_t storage = kPcdVoxelGroupOneByte) {
  return PCD_NewVoxelGroup(&origin, &size, nullptr, storage);
}

void Fill(PcdVoxelGroup* g) {
  for (int z = 0; z < g->size.z; ++z)
    for (int y = 0; y < g->size.y; ++y)
      for (int x = 0; x < g->size.x; ++x) PCD_SetVoxelOfVoxelGroup(g, x, y, z, 1);
}

}  // namespace

TEST(VoxelGroupDistance, HandWorkedCases) {
  auto a = Group({0, 0, 0}, {2, 2, 2});
  Fill(a.get());
  auto b = Group({5, 1, 0}, {1, 1, 1});
  PCD_SetVoxelOfVoxelGroup(b.get(), 0, 0, 0, 1);
  // voxel (1, 1, 0) of a is 4 voxels from (5, 1, 0)
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(a.get(), b.get()), 16);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(b.get(), a.get()), 16);

  // 3-4-5 across the diagonal, the far group given at a negative origin
  auto c = Group({-3, -4, 7}, {1, 1, 1}, kPcdVoxelGroupBitPacked);
  PCD_SetVoxelOfVoxelGroup(c.get(), 0, 0, 0, 1);
  auto d = Group({0, 0, 7}, {3, 1, 1});
  PCD_SetVoxelOfVoxelGroup(d.get(), 0, 0, 0, 1);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(c.get(), d.get()), 25);

  // sharing a voxel deep inside both: 0
  auto big = Group({0, 0, 0}, {5, 5, 5});
  Fill(big.get());
  auto inner = Group({1, 1, 1}, {3, 3, 3}, kPcdVoxelGroupBitPacked);
  PCD_SetVoxelOfVoxelGroup(inner.get(), 1, 1, 1, 1);  // the centre (2, 2, 2) only
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(big.get(), inner.get()), 0);

  // a hollow shell around a voxel in its cavity: the cavity voxel is 2 from the shell
  auto shell = Group({0, 0, 0}, {5, 5, 5});
  Fill(shell.get());
  for (int z = 1; z < 4; ++z)
    for (int y = 1; y < 4; ++y)
      for (int x = 1; x < 4; ++x) PCD_SetVoxelOfVoxelGroup(shell.get(), x, y, z, 0);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(shell.get(), inner.get()), 4);

  // empty, missing and out of range
  auto empty = Group({0, 0, 0}, {3, 3, 3});
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(a.get(), empty.get()), -1);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(nullptr, a.get()), -1);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistanceByPairs(empty.get(), a.get()), -1);
  auto far = Group({kPcdVoxelDistanceRange, 0, 0}, {1, 1, 1});
  PCD_SetVoxelOfVoxelGroup(far.get(), 0, 0, 0, 1);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(a.get(), far.get()), -2);
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistanceByPairs(a.get(), far.get()), -2);
  auto edge = Group({kPcdVoxelDistanceRange - 1, -kPcdVoxelDistanceRange, 0}, {1, 1, 1});
  PCD_SetVoxelOfVoxelGroup(edge.get(), 0, 0, 0, 1);
  const int64_t span = kPcdVoxelDistanceRange - 1;  // from (1, 0..1, 0..1) of a
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(a.get(), edge.get()),
            (span - 1) * (span - 1) + kPcdVoxelDistanceRange * kPcdVoxelDistanceRange);
}

TEST(VoxelGroupDistance, TreeEqualsEveryPairOnRandomGroups) {
  std::mt19937 random(7);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
  for (int round = 0; round < 300; ++round) {
    std::unique_ptr<PcdVoxelGroup> g[2];
    for (auto& group : g) {
      group = Group({pick(-20, 20), pick(-20, 20), pick(-20, 20)}, {pick(1, 9), pick(1, 9), pick(1, 9)},
                    pick(0, 1) ? kPcdVoxelGroupBitPacked : kPcdVoxelGroupOneByte);
      const int density = pick(1, 100);  // sparse clouds to solid blocks
      for (int z = 0; z < group->size.z; ++z)
        for (int y = 0; y < group->size.y; ++y)
          for (int x = 0; x < group->size.x; ++x)
            if (pick(1, 100) <= density) PCD_SetVoxelOfVoxelGroup(group.get(), x, y, z, 1);
    }
    ASSERT_EQ(PCD_GetVoxelGroupSquaredDistance(g[0].get(), g[1].get()),
              PCD_GetVoxelGroupSquaredDistanceByPairs(g[0].get(), g[1].get()))
        << "round " << round;
  }
}

TEST(VoxelGroupDistance, LargeBlocksNeedOnlyTheirFaces) {
  // two 60-voxel cubes (216,000 voxels each) 11 apart along x: every pair would be
  // 4.7e10 comparisons
  auto a = Group({0, 0, 0}, {60, 60, 60}, kPcdVoxelGroupBitPacked);
  auto b = Group({70, 30, 50}, {60, 60, 60}, kPcdVoxelGroupBitPacked);
  Fill(a.get());
  Fill(b.get());
  // all pairs would outlast the suite's time limit; bench/ times the faces-only search
  EXPECT_EQ(PCD_GetVoxelGroupSquaredDistance(a.get(), b.get()), 11 * 11);
}

TEST(VoxelGroupDistance, RunnerWritesTheLineInMillimetres) {
  PcdRoiList rois;
  PcdRoiObject* a = PCD_NewRoiObject(&rois, PCD_ROI_VOXELGROUP, nullptr);
  PcdRoiObject* b = PCD_NewRoiObject(&rois, PCD_ROI_VOXELGROUP, nullptr);
  PcdRoiObject* sphere = PCD_NewRoiObject(&rois, PCD_ROI_SPHERICAL, nullptr);
  a->voxelGroup = Group({0, 0, 0}, {1, 1, 1});
  b->voxelGroup = Group({1, 1, 1}, {1, 1, 1});
  PCD_SetVoxelOfVoxelGroup(a->voxelGroup.get(), 0, 0, 0, 1);
  PCD_SetVoxelOfVoxelGroup(b->voxelGroup.get(), 0, 0, 0, 1);
  std::string line;
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCD_RunVoxelGroupDistance(&rois, a->id, b->id, 1.5f, &line), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
  EXPECT_EQ(line, "Distance between 2 voxelgroups: 2.598(mm)\n");  // sqrt 3 x 1.5
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_RunVoxelGroupDistance(&rois, a->id, sphere->id, 1.0f, &line), -1);
  EXPECT_EQ(PCD_RunVoxelGroupDistance(&rois, a->id, 999, 1.0f, &line), -1);
  PCD_SetVoxelOfVoxelGroup(b->voxelGroup.get(), 0, 0, 0, 0);
  EXPECT_EQ(PCD_RunVoxelGroupDistance(&rois, a->id, b->id, 1.0f, &line), -1);
  const std::string console = testing::internal::GetCapturedStderr();
  EXPECT_EQ(console, "Err: the distance needs two voxelgroup ROIs\nErr: the distance needs two voxelgroup ROIs\n"
                     "Err: an empty voxel group has no distance\n");
  EXPECT_EQ(line, "Distance between 2 voxelgroups: 2.598(mm)\n");  // untouched by the refusals
}
