// Diffusion profile: which points are drawn, in which order, and the three-line text.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "dti/diffusion_profile.h"
#include "test_region_growing_volumes.h"
#include "tools/phantom/phantom.h"

namespace {

using region_test::Prolate;
using region_test::TensorVolume;
using region_test::VoxelSpec;

// x = 0: FA 0.79902, ADC 0.76667e-3, So 30000; x = 1: FA 0.40825, ADC 0.66667e-3, So
// 30000; x = 2: FA 0.79902, So 10000. Two slices of the same.
VoxelSpec Sample(int x, int, int) {
  if (x == 0) return {30000, Prolate(0)};
  if (x == 1) return {30000, Prolate(90, 1.0e-3, 0.5e-3)};
  return {10000, Prolate(45)};
}

struct Drawn {
  std::vector<const PcdVector3D*> points;
  std::vector<float> fa;
};

struct Outcome {
  std::string text;
  std::string console;
  Drawn drawn;
};

Outcome Display(const PcdDtiData* dti, const PcdDifProfContext& c, bool withDraw = true) {
  Outcome run;
  char text[256] = "untouched";
  PcdDifProfDrawFunction draw;
  if (withDraw)
    draw = [&run](const PcdVector3D* p, const PcdDiffusionTensorData* r) {
      run.drawn.points.push_back(p);
      run.drawn.fa.push_back(PCDdti_GetFA(r));
    };
  testing::internal::CaptureStderr();
  PCDdti_DiffusionProfileDisplay(dti, &c, draw, text, sizeof text);
  run.console = testing::internal::GetCapturedStderr();
  run.text = text;
  return run;
}

// The numbers of the text's second and third lines.
void MeansOf(const std::string& text, float* fa, float* adc) {
  ASSERT_EQ(std::sscanf(text.c_str(), "Symbols: %*d/%*d (%*d%% displayed)\n    mean FA: %f\n"
                                      "    mean ADC(x1k): %f", fa, adc), 2) << text;
}

const PcdVector3D kPoints[4] = {{0, 0, 0}, {1, 0, 1}, {2, 0, 0}, {0.0f, 0.0f, 1.0f}};

TEST(DiffusionProfile, WithoutRangesEveryPointIsDrawnInOrder) {
  TensorVolume v(3, 2, 2, Sample);
  PcdDifProfContext c;
  c.pointCount = 4;
  c.points = kPoints;
  const Outcome run = Display(v.dti, c);
  ASSERT_EQ(run.drawn.points.size(), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(run.drawn.points[i], &kPoints[i]);
  EXPECT_EQ(run.text.substr(0, 30), "Symbols: 4/4 (100% displayed)\n");
  float fa = 0, adc = 0;
  MeansOf(run.text, &fa, &adc);
  EXPECT_NEAR(fa, (3 * 0.79902f + 0.40825f) / 4, 2e-4f);  // 0.70133
  EXPECT_NEAR(adc, (3 * 0.76667f + 0.66667f) / 4, 2e-4f);  // 0.74167, shown x 1000
  EXPECT_EQ(run.console, "");
}

TEST(DiffusionProfile, RangesNeedBothFlagsAndKeepTheirBounds) {
  TensorVolume v(3, 2, 2, Sample);
  PcdDifProfContext c;
  c.pointCount = 4;
  c.points = kPoints;
  // one flag alone filters nothing, however narrow its range
  c.FAcheckA = 1;
  c.FAmin = 0.9f;
  c.FAmax = 1.0f;
  c.ADCcheckB = 1;
  c.ADCmax = 0.0f;
  c.SocheckA = 1;
  c.SoMin = 1e6f;
  EXPECT_EQ(Display(v.dti, c).drawn.points.size(), 4u);

  // FA exactly at either bound is kept: the bounds are the smallest and largest FA
  PcdDifProfContext all;
  all.pointCount = 4;
  all.points = kPoints;
  const std::vector<float> fa = Display(v.dti, all).drawn.fa;
  ASSERT_EQ(fa.size(), 4u);
  c = PcdDifProfContext{};
  c.pointCount = 4;
  c.points = kPoints;
  c.FAcheckA = c.FAcheckB = 1;
  c.FAmin = fa[1];  // 0.40825, the only low one
  c.FAmax = std::max({fa[0], fa[2], fa[3]});
  EXPECT_EQ(Display(v.dti, c).drawn.points.size(), 4u);
  c.FAmin = std::nextafter(fa[1], 1.0f);  // point 1 drops out
  Outcome run = Display(v.dti, c);
  EXPECT_EQ(run.drawn.points.size(), 3u);
  EXPECT_EQ(run.text.substr(0, 29), "Symbols: 3/4 (75% displayed)\n");

  // the So range: point 2 (So 10000) is rejected; ADC range: point 1 is rejected
  c = PcdDifProfContext{};
  c.pointCount = 4;
  c.points = kPoints;
  c.SocheckA = c.SocheckB = 1;
  c.SoMin = 20000.0f;
  c.SoMax = 40000.0f;
  c.ADCcheckA = c.ADCcheckB = 1;
  c.ADCmin = 0.7e-3f;
  c.ADCmax = 0.8e-3f;
  run = Display(v.dti, c);
  ASSERT_EQ(run.drawn.points.size(), 2u);
  EXPECT_EQ(run.drawn.points[0], &kPoints[0]);
  EXPECT_EQ(run.drawn.points[1], &kPoints[3]);
  EXPECT_EQ(run.text.substr(0, 29), "Symbols: 2/4 (50% displayed)\n");
  float meanFa = 0, meanAdc = 0;
  MeansOf(run.text, &meanFa, &meanAdc);
  EXPECT_NEAR(meanFa, 0.79902f, 2e-4f);
  EXPECT_NEAR(meanAdc, 0.76667f, 2e-4f);
}

TEST(DiffusionProfile, ZeroPointsTruncatedPercentAndRefusals) {
  TensorVolume v(3, 2, 2, Sample);
  PcdDifProfContext c;
  EXPECT_EQ(Display(v.dti, c).text,
            "Symbols: 0/0 (0% displayed)\n    mean FA: 0.0000\n    mean ADC(x1k): 0.0000");
  // two of three: 66.67 % is shown as 66
  c.pointCount = 3;
  c.points = kPoints;
  c.SocheckA = c.SocheckB = 1;
  c.SoMin = 20000.0f;
  c.SoMax = 30000.0f;
  EXPECT_EQ(Display(v.dti, c).text.substr(0, 29), "Symbols: 2/3 (66% displayed)\n");

  Outcome run = Display(v.dti, c, false);
  EXPECT_EQ(run.console, "Func ptr for graphics NULL\n");
  EXPECT_EQ(run.text, "untouched");
  v.dti->isReady = 0;
  run = Display(v.dti, c);
  EXPECT_EQ(run.console, "DTI data NOT ready\n");
  EXPECT_EQ(run.text, "untouched");
  EXPECT_TRUE(run.drawn.points.empty());
  v.dti->isReady = 1;
  v.dti->channelCount = 9;  // more than the volume holds
  run = Display(v.dti, c);
  EXPECT_EQ(run.console.rfind("Err: ", 0), 0u);
  EXPECT_EQ(run.text, "untouched");
}

TEST(DiffusionProfile, MeanAdcIsShownInThousandths) {
  // ADC (1.5 + 0.3 + 0.3) / 3 = 0.7e-3 mm^2/s at every voxel
  TensorVolume v(3, 2, 2, [](int, int, int) { return VoxelSpec{30000, Prolate(30, 1.5e-3, 0.3e-3)}; });
  PcdDifProfContext c;
  c.pointCount = 2;
  c.points = kPoints;
  float fa = 0, adc = 0;
  MeansOf(Display(v.dti, c).text, &fa, &adc);
  EXPECT_NEAR(adc, 0.7f, 2e-4f);
}

// Points fitted side by side give the draw calls and the text of point-by-point fits,
// between voxels, on the edges and outside the volume.
TEST(DiffusionProfile, SideBySideEqualsPointByPointToTheBit) {
  const PcdPhantomOptions o{.sizeX = 24, .sizeY = 20, .sizeZ = 8, .directions = 13, .noise = 0.06f};
  PcdDtiData* dti = PCD_MakeDwiPhantom(o, nullptr);
  ASSERT_NE(dti, nullptr);
  std::mt19937 random(5);
  std::uniform_real_distribution<float> ux(-1.5f, 25.0f), uy(-1.5f, 21.0f), uz(-1.5f, 9.0f);
  std::vector<PcdVector3D> points(1000);
  for (PcdVector3D& p : points) p = {ux(random), uy(random), uz(random)};
  PcdDifProfContext c;
  c.FAcheckA = c.FAcheckB = 1;
  c.FAmin = 0.1f;
  c.FAmax = 0.9f;
  c.pointCount = static_cast<int32_t>(points.size());
  c.points = points.data();
  std::vector<std::vector<float>> calls[2];
  char text[2][256];
  for (int path = 0; path < 2; ++path) {
    auto draw = [&calls, path](const PcdVector3D* p, const PcdDiffusionTensorData* r) {
      calls[path].push_back({p->x, p->y, p->z, r->So, r->eigenvalues[1], r->eigenvalues[2],
                             r->eigenvalues[3], r->tensor[1][3], r->tensor[2][3], r->tensor[3][3]});
    };
    if (path == 0)
      PCDdti_DiffusionProfileDisplay(dti, &c, draw, text[path], sizeof text[path]);
    else
      PCDdti_DiffusionProfileDisplayPointByPoint(dti, &c, draw, text[path], sizeof text[path]);
  }
  EXPECT_GT(calls[0].size(), 100u);
  EXPECT_LT(calls[0].size(), 1000u);
  ASSERT_EQ(calls[0].size(), calls[1].size());
  for (size_t i = 0; i < calls[0].size(); ++i)
    EXPECT_EQ(std::memcmp(calls[0][i].data(), calls[1][i].data(), 10 * sizeof(float)), 0) << i;
  EXPECT_STREQ(text[0], text[1]);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

}  // namespace

namespace {

// A voxel one of whose DWIs reads 0 has no finite tensor (the log of 0): it counts as
// displayed, as specified, and stays out of the means, which are those of the others.
TEST(DiffusionProfile, MeansAreOverTheFiniteValuesAlone) {
  TensorVolume v(3, 2, 2, Sample);
  static_cast<int16_t*>(v.dti->volume->data[2])[2] = 0;  // voxel (2, 0, 0), one DWI
  const PcdVector3D points[2] = {{0, 0, 0}, {2, 0, 0}};
  PcdDifProfContext c;
  c.pointCount = 2;
  c.points = points;
  const Outcome run = Display(v.dti, c);
  EXPECT_EQ(run.text.substr(0, 30), "Symbols: 2/2 (100% displayed)\n") << run.text;
  float fa = 0, adc = 0;
  MeansOf(run.text, &fa, &adc);
  EXPECT_NEAR(fa, 0.79902f, 2e-4f);  // voxel (0, 0, 0) alone
  EXPECT_NEAR(adc, 0.76667f, 2e-4f);
}

// Points spread around edge voxels are moved onto the outermost samples, never past them.
TEST(DiffusionProfile, PointsAroundEdgeVoxelsStayInsideTheVolume) {
  std::vector<PcdVector3D> points = {{-0.25f, 0.25f, 1.25f}, {2.25f, -0.5f, 0.75f}, {1.0f, 1.0f, 1.0f}};
  PCDdti_KeepPointsInsideVolume(&points, {3, 2, 2});
  const std::vector<std::array<float, 3>> want = {{0.0f, 0.25f, 1.0f}, {2.0f, 0.0f, 0.75f}, {1.0f, 1.0f, 1.0f}};
  for (size_t i = 0; i < points.size(); ++i) {
    EXPECT_EQ(points[i].x, want[i][0]) << i;
    EXPECT_EQ(points[i].y, want[i][1]) << i;
    EXPECT_EQ(points[i].z, want[i][2]) << i;
  }
}

}  // namespace
