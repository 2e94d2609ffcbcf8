#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "fiber/tracking.h"
#include "study/study_runner.h"
#include "tools/phantom/phantom.h"
#include "support/test_support.h"

namespace {

// 32 x 32 x 12 phantom: an x bundle (y 13..18, z 4..7) crossing a y bundle (x 13..18).
void GivePhantom(PcdWorkSession* s) {
  PcdPhantomOptions options;
  options.sizeX = 32, options.sizeY = 32, options.sizeZ = 12, options.directions = 12;
  s->dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(s->dti, nullptr);
  s->volume = s->dti->volume;
}

PcdRoiObject* Sphere(PcdWorkSession* s, float x, float y, float z, float r) {
  PcdRoiObject* roi = PCD_NewRoiObject(&s->rois, PCD_ROI_SPHERICAL, nullptr);
  roi->shape->centre = {x, y, z};
  roi->shape->radius = r;
  return roi;
}

// Does any node of the pair lie in the mask? Worked out node by node, apart from the
// marking machinery.
bool Touches(const PcdTrakLinePair* p, const std::vector<uint8_t>& mask, const PcdIntSize3D& n) {
  for (const PcdTrakLineBuffer* line : {p->forward, p->backward})
    for (int i = 0; line && i < line->nodeCount; ++i) {
      const int x = static_cast<int>(std::floor(line->x[i])), y = static_cast<int>(std::floor(line->y[i])),
                z = static_cast<int>(std::floor(line->z[i]));
      if (x >= 0 && y >= 0 && z >= 0 && x < n.x && y < n.y && z < n.z && mask[x + n.x * (y + n.y * z)])
        return true;
    }
  return false;
}

}  // namespace

TEST(StudySeeds, DensityAndSourceDecideTheSeedsInVoxelOrder) {
  PcdRoiList rois;
  const PcdIntSize3D size{8, 8, 8};
  PcdStudyObject* study = new_study_object(PCD_STUDY_FIBER_TRACKING);
  PcdRoiShape& shape = *study->tract->regions[0].shape;
  shape.centre = {4.0f, 4.0f, 4.5f};  // the four voxels around x = y = 4 in slice 4
  shape.radius = 0.75f;
  std::vector<PcdVector3D> seeds = PCD_GenerateStudySeeds(study, &rois, &size);
  ASSERT_EQ(seeds.size(), 4u);
  EXPECT_EQ(seeds[0].x, 3.5f);  // voxel (3, 3, 4) first, its centre
  EXPECT_EQ(seeds[0].y, 3.5f);
  EXPECT_EQ(seeds[3].x, 4.5f);  // voxel (4, 4, 4) last
  EXPECT_EQ(seeds[3].y, 4.5f);
  EXPECT_EQ(seeds[3].z, 4.5f);

  study->tract->seedDensity = kPcdSeedDensityHigh;
  seeds = PCD_GenerateStudySeeds(study, &rois, &size);
  ASSERT_EQ(seeds.size(), 32u);
  for (int k = 0; k < 8; ++k) {
    const PcdVector3D expected = PCDdti_SeedInVoxel(3, 3, 4, k);
    EXPECT_EQ(seeds[k].x, expected.x);
    EXPECT_GE(seeds[k].x, 3.0f);
    EXPECT_LT(seeds[k].x, 4.0f);
  }

  study->tract->seedSource = kPcdSeedFromFreehand;
  study->tract->seedDensity = kPcdSeedDensityNormal;
  shape.points = {{7, 7, 7}, {1, 0, 0}, {9, 9, 9}};  // stored order does not matter
  seeds = PCD_GenerateStudySeeds(study, &rois, &size);
  ASSERT_EQ(seeds.size(), 2u);
  EXPECT_EQ(seeds[0].x, 1.5f);
  EXPECT_EQ(seeds[1].z, 7.5f);

  // listed ROIs one after the other, in list order, missing ids skipped
  PcdRoiObject* a = PCD_NewRoiObject(&rois, PCD_ROI_FREEHAND, nullptr);
  a->shape->points = {{6, 6, 6}};
  PcdRoiObject* b = PCD_NewRoiObject(&rois, PCD_ROI_FREEHAND, nullptr);
  b->shape->points = {{0, 0, 0}};
  const uint16_t ids[] = {a->id, 77, b->id};
  PCD_SetStudyRegionIds(study, 0, ids, 3);
  study->tract->seedSource = kPcdSeedFromList;
  seeds = PCD_GenerateStudySeeds(study, &rois, &size);
  ASSERT_EQ(seeds.size(), 2u);
  EXPECT_EQ(seeds[0].x, 6.5f);
  EXPECT_EQ(seeds[1].x, 0.5f);

  // at most 1,000,000 seeds
  const PcdIntSize3D big{100, 100, 101};
  study->tract->seedSource = kPcdSeedFromSphere;
  shape.centre = {50, 50, 50};
  shape.radius = 1000;
  EXPECT_EQ(PCD_GenerateStudySeeds(study, &rois, &big).size(), 1000000u);
  delete_study_object(study);
}

TEST(StudyRunner, TargetSelectsTheFibersThatReachItAndAvoidanceRemovesThoseThatTouchIt) {
  PcdWorkSession s;
  GivePhantom(&s);
  const PcdIntSize3D size{32, 32, 12};
  PcdRoiObject* seedA = Sphere(&s, 6.5f, 15.5f, 5.5f, 1.5f);    // in the x bundle
  PcdRoiObject* seedB = Sphere(&s, 15.5f, 26.5f, 5.5f, 1.5f);   // in the y bundle
  PcdRoiObject* crossing = Sphere(&s, 16.0f, 16.0f, 6.0f, 2.0f);
  PcdRoiObject* beyond = Sphere(&s, 26.5f, 15.5f, 5.5f, 1.5f);  // the x bundle's far side
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_TRACKING, &size);
  PcdTractSettings& t = *study->tract;
  t.seedSource = kPcdSeedFromList;
  const uint16_t seeds[] = {seedA->id, seedB->id};
  PCD_SetStudyRegionIds(study, 0, seeds, 2);

  std::vector<int> selection;  // the selection words the drawing side received
  int tracked = 0, seedCount = 0;
  PcdTrackingRunOptions options;
  std::vector<uint8_t> mask;
  int touching = 0;
  options.draw = [&](const PcdFibeTrakBuffer* result, int drawn) {
    selection.clear();
    touching = 0;
    tracked = result->lineCount;
    seedCount = result->seedCount;
    int selected = 0;
    for (int i = 0; i < result->lineCount; ++i) {
      selection.push_back(result->pairs[i]->selection);
      selected += result->pairs[i]->selection;
      if (mask.empty()) continue;
      const bool touches = Touches(result->pairs[i], mask, size);
      touching += touches;
      // a target selects what touches it, an avoidance what does not
      const bool target = t.regions[1].use == kPcdRegionInUse;
      EXPECT_EQ(result->pairs[i]->selection != 0, touches == target) << i;
    }
    EXPECT_EQ(drawn, selected);
  };

  // no conditions: every fiber
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCD_RunFiberTrackingStudy(&s, study, options), 0);
  ASSERT_GT(tracked, 10);
  EXPECT_EQ(seedCount, 2 * 19);  // each sphere: its centre voxel, 6 face and 12 edge neighbours
  EXPECT_EQ(std::count(selection.begin(), selection.end(), 1), tracked);
  EXPECT_EQ(study->analysed, 1);

  // the crossing as target: only the fibers that reach it
  const uint16_t crossingId[] = {crossing->id};
  t.regions[1].use = kPcdRegionInUse;
  t.regions[1].kind = kPcdRegionListed;
  PCD_SetStudyRegionIds(study, 1, crossingId, 1);
  mask = PCD_RasterizeRoiObject(crossing, &size);
  ASSERT_EQ(PCD_RunFiberTrackingStudy(&s, study, options), 0);
  const int reaching = touching;
  EXPECT_GT(reaching, 0);
  EXPECT_LT(reaching, tracked);  // the y bundle's seeds do not all get there
  EXPECT_EQ(std::count(selection.begin(), selection.end(), 1), reaching);

  // two targets: both must be met
  const uint16_t both[] = {crossing->id, beyond->id};
  PCD_SetStudyRegionIds(study, 1, both, 2);
  mask.clear();
  ASSERT_EQ(PCD_RunFiberTrackingStudy(&s, study, options), 0);
  const int bothCount = static_cast<int>(std::count(selection.begin(), selection.end(), 1));
  EXPECT_LE(bothCount, reaching);

  // the crossing as avoidance: exactly the others
  t.regions[1].use = 0;
  t.regions[2].use = kPcdRegionInUse;
  t.regions[2].kind = kPcdRegionListed;
  PCD_SetStudyRegionIds(study, 2, crossingId, 1);
  mask = PCD_RasterizeRoiObject(crossing, &size);
  ASSERT_EQ(PCD_RunFiberTrackingStudy(&s, study, options), 0);
  EXPECT_EQ(std::count(selection.begin(), selection.end(), 1), tracked - touching);
  EXPECT_EQ(touching, reaching);
  const std::string console = testing::internal::GetCapturedStderr();

  // the summary of the last run, worked out from the drawn result
  char expected[256];
  std::snprintf(expected, sizeof expected, "Seed Points:   %d\nTracked Lines:   %d\nDrawn Lines:   %d\n",
                seedCount, tracked, tracked - touching);
  EXPECT_EQ(PCD_GetStudySummary(study).rfind(expected, 0), 0u) << PCD_GetStudySummary(study);
  EXPECT_TRUE(quorix_test::HasLine(PCD_GetStudySummary(study), "Buffer Size:   0."));
  (void)console;
}

TEST(StudyRunner, RefusesADataSetThatCannotBeAnalysedAndTooManyConditions) {
  PcdWorkSession s;
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_RunFiberTrackingStudy(&s, study, {}), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Err: ", 0), 0u);
  EXPECT_EQ(study->analysed, 0);
  EXPECT_EQ(PCD_GetStudySummary(study), "(not analyzed yet)");

  PcdFibeTrakBuffer* empty = new_fibetrak_buffer(0, nullptr, 10);
  const PcdIntSize3D size{2, 2, 2};
  std::vector<std::vector<uint8_t>> many(17, std::vector<uint8_t>(8, 0));
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_SelectFibersByMasks(empty, many, {}, &size, 1), -1);
  EXPECT_EQ(PCD_SelectFibersByMasks(empty, {}, {std::vector<uint8_t>(7, 0)}, &size, 1), -1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(PCD_SelectFibersByMasks(empty, {}, {}, &size, 1), 0);
  EXPECT_EQ(PCD_GetFibeTrakBufferMegabytes(empty), 0.0f);
  PCDdti_DeleteFibeTrakBuffer(empty);
}
