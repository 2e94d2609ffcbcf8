#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "fiber/tracking.h"
#include "study/modeling_controls.h"
#include "study/study_runner.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

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
      // the voxel whose sample is nearest: samples lie at integer coordinates
      const int x = static_cast<int>(std::lround(line->x[i])), y = static_cast<int>(std::lround(line->y[i])),
                z = static_cast<int>(std::lround(line->z[i]));
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
  // the ROI's geometry counts voxel v as the box v .. v + 1; a seed at a voxel's centre lies
  // at the voxel's integer coordinates, where the interpolated reads take its sample
  EXPECT_EQ(seeds[0].x, 3.0f);  // voxel (3, 3, 4) first, its centre
  EXPECT_EQ(seeds[0].y, 3.0f);
  EXPECT_EQ(seeds[3].x, 4.0f);  // voxel (4, 4, 4) last
  EXPECT_EQ(seeds[3].y, 4.0f);
  EXPECT_EQ(seeds[3].z, 4.0f);

  study->tract->seedDensity = kPcdSeedDensityHigh;
  seeds = PCD_GenerateStudySeeds(study, &rois, &size);
  ASSERT_EQ(seeds.size(), 32u);
  for (int k = 0; k < 8; ++k) {
    const PcdVector3D expected = PCDdti_SeedInVoxel(3, 3, 4, k);
    EXPECT_EQ(seeds[k].x, expected.x);
    EXPECT_GE(seeds[k].x, 2.5f);
    EXPECT_LT(seeds[k].x, 3.5f);
  }

  study->tract->seedSource = kPcdSeedFromFreehand;
  study->tract->seedDensity = kPcdSeedDensityNormal;
  shape.points = {{7, 7, 7}, {1, 0, 0}, {9, 9, 9}};  // stored order does not matter
  seeds = PCD_GenerateStudySeeds(study, &rois, &size);
  ASSERT_EQ(seeds.size(), 2u);
  EXPECT_EQ(seeds[0].x, 1.0f);
  EXPECT_EQ(seeds[1].z, 7.0f);

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
  EXPECT_EQ(seeds[0].x, 6.0f);
  EXPECT_EQ(seeds[1].x, 0.0f);

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
  PcdStudyRunOptions options;
  std::vector<uint8_t> mask;
  int touching = 0;
  options.drawFibers = [&](const PcdStudyObject*, const PcdFibeTrakBuffer* result, int drawn) {
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

namespace {

// A 2 x 2 x 2 data set of one So and six DWIs along x, y, z and the three diagonals
// (1,1,0), (0,1,1), (1,0,1) over sqrt 2, b = 1000. Signals are the rounded
// So exp(-b g.D.g) of known tensors:
//   diag(1.2, 1.0, 0.8)e-3, So 1000: 301 368 449 333 407 368
//   the same, So 800:                 241 294 359 266 325 294
//   diag(1.7, 0.3, 0.3)e-3 (along x): 183 741 741 368 741 368
//   diag(0.3, 1.7, 0.3)e-3 (along y): 741 183 741 368 368 741
//   a DWI above So (1200 x 6): negative diffusivities, no valid tensor.
// (An exactly isotropic tensor would not do: the expanded FA formula may round its
// zero numerator below zero and judge it invalid.)
struct HandMadeSet {
  static constexpr int16_t kOval[7] = {1000, 301, 368, 449, 333, 407, 368};
  static constexpr int16_t kOval800[7] = {800, 241, 294, 359, 266, 325, 294};
  static constexpr int16_t kAlongX[7] = {1000, 183, 741, 741, 368, 741, 368};
  static constexpr int16_t kAlongY[7] = {1000, 741, 183, 741, 368, 368, 741};
  static constexpr int16_t kInvalid[7] = {1000, 1200, 1200, 1200, 1200, 1200, 1200};

  // voxels in x, y, z order
  explicit HandMadeSet(PcdWorkSession* s, const std::array<const int16_t*, 8>& voxels) {
    const PcdIntSize4D size{2, 2, 2, 7};
    std::vector<int32_t> types(7, SINT16), formats(7, PCD_MONOCHROME);
    s->volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
    for (int c = 0; c < 7; ++c)
      for (int v = 0; v < 8; ++v) static_cast<int16_t*>(s->volume->data[c])[v] = voxels[v][c];
    s->dti = PCDdti_NewDiffusionTensorImageData(s->volume, 7);
    const float r = 1.0f / std::sqrt(2.0f);
    const float b[7] = {0, 1000, 1000, 1000, 1000, 1000, 1000};
    const PcdVector3D g[7] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {r, r, 0}, {0, r, r}, {r, 0, r}};
    PCDdti_SetPropertiesOfDiffusionTensorImageData(s->dti, 7, 1, b, g);
    s->dti->reserved = 2.0f;
  }
};

bool Begins(const std::string& text, const std::string& head) { return text.rfind(head, 0) == 0; }

std::string RunQuietly(PcdWorkSession* s, PcdStudyObject* study, const PcdStudyRunOptions& options, int* status) {
  testing::internal::CaptureStderr();
  *status = PCD_RunStudy(s, study, options);
  return testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(StatisticsStudy, SummaryOfAHandMadeSetMatchesTheNumbersWorkedOutByHand) {
  PcdWorkSession s;
  using H = HandMadeSet;
  // z = 0: oval, oval (So 800), along x, along y; z = 1: invalid, oval, oval, oval
  H set(&s, {H::kOval, H::kOval800, H::kAlongX, H::kAlongY, H::kInvalid, H::kOval, H::kOval, H::kOval});
  ASSERT_EQ(s.dti->isReady, 1);
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  int seen = -1;
  PcdStudyRunOptions options;
  options.statistics = [&](const PcdStudyObject* from, const PcdDiffusionTensorStatistics* st) {
    EXPECT_EQ(from, study);
    seen = static_cast<int>(st->validCount);
  };
  int status = 0;
  RunQuietly(&s, study, options, &status);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(seen, 7);
  EXPECT_EQ(study->analysed, 1);
  // The seven valid tensors, each solved exactly from its six log ratios (dxx = ln(So/S_x)
  // / b, ..., dxy = ln(So/S_xy) / b - (dxx + dyy) / 2, ...) and diagonalised in double:
  //   oval, So 1000 (four): eigenvalues 1.20065, 0.99968, 0.80072 (e-3), FA 0.19728
  //   oval, So 800:         1.19982, 1.00103, 0.80129, FA 0.19654
  //   along x or y (two):   1.69827, 0.29975, 0.29975, ADC 0.76593, FA 0.79898
  // So: 1000 x 6 and 800: mean 6800 / 7, SD sqrt(6640000 / 7 - (6800 / 7)^2) = 69.985.
  EXPECT_EQ(PCD_GetStudySummary(study),
            "Tensors: 8\n"
            "Valid Tensors: 7\n"
            "Statistics: min. - max. (mean/stdev.)\n"
            "  So: 800.00 - 1000.00 (971.43/69.99)\n"
            "  FA:  0.20 - 0.80 (0.37/0.27)\n"
            "  ADC(x1k): 0.77 - 1.00 (0.93/0.11)\n"
            "  L1(x1k):    1.20 - 1.70 (1.34/0.22)\n"
            "  L2(x1k):    0.30 - 1.00 (0.80/0.32)\n"
            "  L3(x1k):    0.30 - 0.80 (0.66/0.23)\n");

  // the viewer's box: origin .. origin + size - 1, clipped to the volume
  options.hasBoxVoi = true;
  options.boxOrigin = {1, 0, 0};
  options.boxSize = {5, 1, 1};  // the So 800 voxel alone
  RunQuietly(&s, study, options, &status);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study),
            "Tensors: 1\nValid Tensors: 1\nStatistics: min. - max. (mean/stdev.)\n"
            "  So: 800.00 - 800.00 (800.00/0.00)\n  FA:  0.20 - 0.20 (0.20/0.00)\n");
  options.boxOrigin = {0, 0, 1};
  options.boxSize = {1, 1, 1};
  RunQuietly(&s, study, options, &status);
  EXPECT_EQ(PCD_GetStudySummary(study), "Tensors: 1\nValid Tensors: 0\nNo valid voxels.\n");
  const int32_t big = std::numeric_limits<int32_t>::max(), low = std::numeric_limits<int32_t>::min();
  const PcdIntVector3D outside[3][2] = {{{-5, -5, -5}, {5, 5, 5}},           // ends just before the volume
                                        {{big, big, big}, {big, big, big}},  // sums beyond 32 bits
                                        {{low, 0, 0}, {big, 2, 2}}};  // ends at -1
  for (const auto& box : outside) {
    options.boxOrigin = box[0];
    options.boxSize = {box[1].x, box[1].y, box[1].z};
    RunQuietly(&s, study, options, &status);
    EXPECT_EQ(PCD_GetStudySummary(study), "Tensors: 0\nValid Tensors: 0\nNo valid voxels.\n");
  }

  // a sphere around voxel (1, 1, 0) takes that voxel's centre only
  PcdStudyRegion& region = study->statistics->region;
  region.kind = kPcdRegionSphere;
  region.shape->centre = {1.5f, 1.5f, 0.5f};
  region.shape->radius = 0.5f;
  RunQuietly(&s, study, options, &status);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), "Tensors: 1\nValid Tensors: 1");
  EXPECT_NE(PCD_GetStudySummary(study).find("  FA:  0.80 - 0.80 (0.80/0.00)\n"), std::string::npos);
  region.use = 0;  // a region that takes no part holds nothing
  RunQuietly(&s, study, options, &status);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), "Tensors: 0\nValid Tensors: 0\n");

  // listed ROIs: their union, a voxel two of them share counted once, an id that no ROI
  // holds skipped. Freehand ROIs {(0,0,0), (1,0,0)} and {(1,0,0), (0,1,0)}: the oval, the
  // So 800 oval and the voxel along x
  region.use = kPcdRegionInUse;
  region.kind = kPcdRegionListed;
  const PcdIntSize3D size{2, 2, 2};
  PcdRoiObject* a = PCD_NewRoiObject(&s.rois, PCD_ROI_FREEHAND, &size);
  PcdRoiObject* b = PCD_NewRoiObject(&s.rois, PCD_ROI_FREEHAND, &size);
  a->shape->points = {{0, 0, 0}, {1, 0, 0}};
  b->shape->points = {{1, 0, 0}, {0, 1, 0}};
  const uint16_t ids[3] = {a->id, 77, b->id};
  ASSERT_EQ(PCD_SetStudyRegionIds(study, 0, ids, 3), 0);
  RunQuietly(&s, study, options, &status);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study),
               "Tensors: 3\nValid Tensors: 3\nStatistics: min. - max. (mean/stdev.)\n"
               "  So: 800.00 - 1000.00 ");
  EXPECT_NE(PCD_GetStudySummary(study).find("  FA:  0.20 - 0.80 "), std::string::npos);
}

TEST(ProfileStudy, RangesApplyInPairsAndTheSummaryCountsTheDrawnSymbols) {
  PcdWorkSession s;
  using H = HandMadeSet;
  H set(&s, {H::kAlongX, H::kAlongX, H::kAlongX, H::kAlongX, H::kAlongX, H::kAlongX, H::kAlongX, H::kAlongX});
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_DIFFUSION_PROFILE, nullptr);
  std::vector<PcdVector3D> drawn;
  PcdStudyRunOptions options;
  options.drawProfile = [&](const PcdStudyObject*, const PcdVector3D* p, const PcdDiffusionTensorData* t) {
    drawn.push_back(*p);
    EXPECT_NEAR(PCDdti_GetFA(t), 0.79898, 1e-4);
  };
  int status = 0;
  // the defaults show So up to 900 only: every voxel has So 1000
  RunQuietly(&s, study, options, &status);
  ASSERT_EQ(status, 0);
  EXPECT_TRUE(drawn.empty());
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), "Symbols: 0/8 (0% displayed)\n    mean");
  // one flag of a pair filters nothing
  study->profile->useSoMax = 0;
  RunQuietly(&s, study, options, &status);
  // FA 0.79898 and ADC 0.76593e-3 worked out by hand (see HandMadeSet)
  EXPECT_EQ(PCD_GetStudySummary(study),
            "Symbols: 8/8 (100% displayed)\n    mean FA: 0.7990\n    mean ADC(x1k): 0.7659");
  ASSERT_EQ(drawn.size(), 8u);
  EXPECT_EQ(drawn[0].x, 0.0f);  // voxel centres (their samples' coordinates) in x, y, z order
  EXPECT_EQ(drawn[7].z, 1.0f);
  // "high" symbol density: eight points a voxel; an FA range above the data's hides all
  drawn.clear();
  study->profile->symbolDensity = kPcdSymbolDensityHigh;
  study->profile->FAmin = 0.85f;
  RunQuietly(&s, study, options, &status);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), "Symbols: 0/64 (0% displayed)\n");
  EXPECT_TRUE(drawn.empty());
  study->profile->FAmin = 0.18f;
  RunQuietly(&s, study, options, &status);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), "Symbols: 64/64 (100% displayed)");
  ASSERT_EQ(drawn.size(), 64u);
  for (int k = 0; k < 8; ++k) {  // the eight points of voxel (0, 0, 0) first
    EXPECT_GE(drawn[k].x, -0.5f);
    EXPECT_LT(drawn[k].x, 0.5f);
    EXPECT_LT(drawn[k].z, 0.5f);
  }
}

TEST(ModelingStudy, ControlVolumeFollowsTheStudysLimits) {
  PcdWorkSession s;
  PcdPhantomOptions options;
  options.sizeX = 32, options.sizeY = 32, options.sizeZ = 12, options.directions = 12;
  PcdPhantomTruth truth;
  s.dti = PCD_MakeDwiPhantom(options, &truth);
  ASSERT_NE(s.dti, nullptr);
  s.volume = s.dti->volume;
  PcdDiffusionTensorLimits limits;  // FA 0.18 and So 0 on
  testing::internal::CaptureStderr();
  std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)> controls(
      PCD_NewModelingControlVolume(s.dti, &limits), PCD_DeleteRawVolumeData);
  testing::internal::GetCapturedStderr();
  ASSERT_TRUE(controls);
  // the phantom's own truth: every single-bundle voxel (FA about 0.7) may carry a control
  // tensor, no voxel of isotropic tissue does (crossings, where the truth holds no
  // single direction, are left out of the comparison)
  const auto* bytes = static_cast<const uint8_t*>(controls->data[0]);
  int bundle = 0, tissue = 0;
  for (size_t i = 0; i < truth.fa.size(); ++i) {
    if (truth.adc[i] <= 0) continue;
    if (truth.fa[i] >= 0.18f) {
      EXPECT_EQ(bytes[i], 1) << i;
      ++bundle;
    } else {
      EXPECT_EQ(bytes[i], 0) << i;
      ++tissue;
    }
  }
  EXPECT_GT(bundle, 500);
  EXPECT_GT(tissue, 1000);
  // without the FA minimum the tissue counts too (where its exactly isotropic tensor
  // passes the validity test: the expanded FA may round below zero); a So minimum above
  // every signal leaves nothing
  limits.useFAmin = 0;
  testing::internal::CaptureStderr();
  controls.reset(PCD_NewModelingControlVolume(s.dti, &limits));
  const auto* all = static_cast<const uint8_t*>(controls->data[0]);
  size_t tissueNow = 0;
  for (size_t i = 0; i < truth.fa.size(); ++i) tissueNow += truth.adc[i] > 0 && truth.fa[i] < 0.18f && all[i];
  EXPECT_GT(tissueNow, static_cast<size_t>(tissue) / 2);
  limits.SoMin = 30000.0f;
  controls.reset(PCD_NewModelingControlVolume(s.dti, &limits));
  testing::internal::GetCapturedStderr();
  const auto* none = static_cast<const uint8_t*>(controls->data[0]);
  EXPECT_EQ(std::count(none, none + truth.fa.size(), 1), 0);
}

TEST(ModelingStudy, SharesSeedsSelectionAndSummaryWithTrackingAndDumpsTheField) {
  PcdWorkSession s;
  GivePhantom(&s);
  const PcdIntSize3D size{32, 32, 12};
  PcdRoiObject* crossing = Sphere(&s, 16.0f, 16.0f, 6.0f, 2.0f);
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_MODELING, &size);
  PcdTractSettings& t = *study->tract;
  t.regions[0].shape->centre = {6.5f, 15.5f, 5.5f};  // in the x bundle: 19 voxels
  t.regions[0].shape->radius = 1.5f;
  quorix_test::TempDir dir;

  std::vector<uint8_t> mask = PCD_RasterizeRoiObject(crossing, &size);
  int tracked = -1, selected = 0, touching = 0, strays = 0, drawnSeen = -1;
  PcdStudyRunOptions options;
  options.drawFibers = [&](const PcdStudyObject* from, const PcdFibeTrakBuffer* result, int drawn) {
    EXPECT_EQ(from, study);
    tracked = result->lineCount;
    drawnSeen = drawn;
    selected = touching = strays = 0;
    for (int i = 0; i < result->lineCount; ++i) {
      const PcdTrakLinePair* p = result->pairs[i];
      selected += p->selection;
      const bool touches = Touches(p, mask, size);
      touching += touches;
      if (t.regions[1].use == kPcdRegionInUse) {
        EXPECT_EQ(p->selection != 0, touches) << i;
      }
      if (t.regions[2].use == kPcdRegionInUse) {
        EXPECT_EQ(p->selection != 0, !touches) << i;
      }
      // before the crossing the x bundle (y 13..18, z 4..7) holds every node
      for (const PcdTrakLineBuffer* line : {p->forward, p->backward})
        for (int k = 0; line && k < line->nodeCount; ++k)
          if (line->x[k] < 12.0f && (line->y[k] < 12.5f || line->y[k] > 19.5f || line->z[k] < 3.5f ||
                                     line->z[k] > 8.5f))
            ++strays;
    }
  };
  options.dump = true;
  options.dumpFile = dir.file("field.raw");
  int status = 0;
  const std::string console = RunQuietly(&s, study, options, &status);
  ASSERT_EQ(status, 0) << console;
  EXPECT_NE(console.find("Modeling start\n"), std::string::npos);
  EXPECT_EQ(study->analysed, 1);
  ASSERT_GT(tracked, 10);
  EXPECT_EQ(selected, tracked);  // no conditions: every fiber
  EXPECT_EQ(drawnSeen, tracked);
  EXPECT_EQ(strays, 0);
  EXPECT_GT(touching, 0);  // fibers along x run on through the crossing
  char expected[128];
  std::snprintf(expected, sizeof expected, "Seed Points:   19\nTracked Lines:   %d\nDrawn Lines:   %d\nBuffer Size:   0.",
                tracked, tracked);
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), expected);
  // the dump is the interpolated field: 7 SINT16 channels of the volume
  EXPECT_EQ(quorix_test::ReadFileBytes(dir.file("field.raw")).size(), 32u * 32 * 12 * 7 * 2);

  // the crossing as target, then as avoidance, through the same selection as tracking
  const uint16_t crossingId[] = {crossing->id};
  t.regions[1].use = kPcdRegionInUse;
  t.regions[1].kind = kPcdRegionListed;
  PCD_SetStudyRegionIds(study, 1, crossingId, 1);
  options.dump = false;
  RunQuietly(&s, study, options, &status);
  EXPECT_EQ(selected, touching);
  EXPECT_LT(selected, tracked);
  t.regions[1].use = 0;
  t.regions[2] = {};
  t.regions[2].use = kPcdRegionInUse;
  t.regions[2].kind = kPcdRegionSphere;
  t.regions[2].shape = std::make_unique<PcdRoiShape>(*crossing->shape);
  RunQuietly(&s, study, options, &status);
  EXPECT_EQ(selected, tracked - touching);
  std::snprintf(expected, sizeof expected, "Drawn Lines:   %d\n", tracked - touching);
  EXPECT_NE(PCD_GetStudySummary(study).find(expected), std::string::npos);
}

TEST(ModelingStudy, DefaultDumpNamesNoControlsAndNoDataSet) {
  PcdWorkSession s;
  GivePhantom(&s);
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_MODELING, nullptr);
  study->tract->regions[0].shape->centre = {6.5f, 15.5f, 5.5f};
  study->tract->regions[0].shape->radius = 0.5f;
  quorix_test::TempDir dir;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  PcdStudyRunOptions options;
  options.dump = true;  // no name: the default, in the working folder
  int status = 0;
  RunQuietly(&s, study, options, &status);
  EXPECT_EQ(status, 0);
  PcdStudyObject* tracking = PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  tracking->tract->regions[0].shape->centre = {6.5f, 15.5f, 5.5f};
  tracking->tract->regions[0].shape->radius = 0.5f;
  RunQuietly(&s, tracking, options, &status);
  std::filesystem::current_path(before);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::filesystem::exists(dir.file("fibemodel_dump.raw")));
  EXPECT_TRUE(std::filesystem::exists(dir.file("fibetrak_dump.txt")));
  EXPECT_PRED2(Begins, PCD_GetStudySummary(study), "Seed Points:   1\n");

  // an empty control region: the core makes no field, the runner reports no result and
  // the study keeps what it had
  const PcdIntSize3D size{32, 32, 12};
  std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)> empty(
      PCD_NewSingleChannelRawVolumeData(&size, UINT8, PCD_MONOCHROME), PCD_DeleteRawVolumeData);
  options.modelingControls = empty.get();
  options.dump = false;
  const std::string summary = PCD_GetStudySummary(study);
  const std::string console = RunQuietly(&s, study, options, &status);
  EXPECT_EQ(status, -1);
  EXPECT_NE(console.find("Control voxel NOT found\n"), std::string::npos);
  EXPECT_NE(console.find("No result obtained\n"), std::string::npos);
  EXPECT_EQ(PCD_GetStudySummary(study), summary);

  // every runner refuses a data set that cannot be analysed, with the check's line
  PcdWorkSession bare;
  for (int type : {0, 1, 2, 3}) {
    PcdStudyObject* other = PCD_NewStudyObject(&bare.studies, type, nullptr);
    const std::string line = RunQuietly(&bare, other, {}, &status);
    EXPECT_EQ(status, -1) << type;
    EXPECT_PRED2(Begins, line, "Err: ");
    EXPECT_EQ(other->analysed, 0);
    EXPECT_STREQ(other->summary, "(not analyzed yet)");
  }
  study->type = 7;  // no runner for an unknown kind
  EXPECT_EQ(RunQuietly(&s, study, {}, &status), "Err: Invalid study object type\n");
  EXPECT_EQ(status, -1);
  study->type = PCD_STUDY_FIBER_MODELING;
}
