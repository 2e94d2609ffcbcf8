// The stop and position rules of tracking, one by one at their boundaries, on tensors and
// volumes whose values are worked out by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "fiber/tracking.h"
#include "vol/raw_volume.h"
#include "support/test_support.h"

namespace {

// A diagonal tensor diag(a, b, c), diagonalised.
struct Tensor {
  PcdDiffusionTensorData* t = PCDdti_NewDiffusionTensorData(7, 1);
  Tensor(float a, float b, float c) {
    PCDdti_SetDiffusionTensorData(t, a, b, c, 0, 0, 0);
    PCDdti_DiagonalizeDiffusionTensorData(t);
  }
  ~Tensor() { PCDdti_DeleteDiffusionTensorData(t); }
};

PcdDiffusionTensorLimits AllOff() {
  PcdDiffusionTensorLimits l;
  l.useFAmin = l.useADCmax = l.useSoMin = l.useSoMax = l.useAngleMax = 0;
  return l;
}

float Above(float v) { return std::nextafter(v, 1e30f); }
float Below(float v) { return std::nextafter(v, -1e30f); }

// diag(1.7, 0.3, 0.3) x 10^-3: mean 0.7667e-3, FA = sqrt(3/2) * |D - mean| / |D|
// = sqrt(1.5) * sqrt(2 * 0.9333^2 / ... ) worked out in double below, independently of the
// eigen solver.
TEST(StopRules, FaAndAdcOfAKnownTensorAndTheirStrictLimits) {
  Tensor k(1.7e-3f, 0.3e-3f, 0.3e-3f);
  const double mean = (1.7e-3 + 0.3e-3 + 0.3e-3) / 3;
  const double dev = std::pow(1.7e-3 - mean, 2) + 2 * std::pow(0.3e-3 - mean, 2);
  const double norm = std::pow(1.7e-3, 2) + 2 * std::pow(0.3e-3, 2);
  const double fa = std::sqrt(1.5 * dev / norm);  // 0.7888...
  EXPECT_NEAR(PCDdti_GetFA(k.t), fa, 1e-5);
  EXPECT_NEAR(PCDdti_GetADC(k.t), mean, 1e-9);

  PcdDiffusionTensorLimits l = AllOff();
  const float FA = PCDdti_GetFA(k.t), ADC = PCDdti_GetADC(k.t);
  l.FAmin = FA;  // equal: not below
  EXPECT_EQ(check_if_stop_by_FA_min(k.t, &l), 0);
  l.FAmin = Above(FA);
  EXPECT_EQ(check_if_stop_by_FA_min(k.t, &l), 1);
  l.ADCmax = ADC;  // equal: not above
  EXPECT_EQ(check_if_stop_by_ADC_max(k.t, &l), 0);
  l.ADCmax = Below(ADC);
  EXPECT_EQ(check_if_stop_by_ADC_max(k.t, &l), 1);
}

// The combined test asks each criterion only when its word is exactly 1.
TEST(StopRules, EachCriterionCountsOnlyWhenItsWordIsExactlyOne) {
  Tensor k(1.7e-3f, 0.3e-3f, 0.3e-3f);
  k.t->turningAngle = 0.5f;  // a turn of 60 degrees
  PcdDiffusionTensorLimits l = AllOff();
  l.FAmin = 0.95f;                                    // would stop
  l.ADCmax = 0.5e-3f;                                 // would stop
  l.cosAngleMax = 0.9f;                               // would stop
  EXPECT_EQ(check_if_stop_by_values(k.t, &l), 0);     // all off
  for (int word : {2, -1, 257}) {
    l.useFAmin = l.useADCmax = l.useAngleMax = word;
    EXPECT_EQ(check_if_stop_by_values(k.t, &l), 0) << word;
  }
  l.useFAmin = l.useADCmax = l.useAngleMax = 0;
  l.useFAmin = 1;
  EXPECT_EQ(check_if_stop_by_values(k.t, &l), 1);
  l.useFAmin = 0, l.useADCmax = 1;
  EXPECT_EQ(check_if_stop_by_values(k.t, &l), 1);
  l.useADCmax = 0, l.useAngleMax = 1;
  EXPECT_EQ(check_if_stop_by_values(k.t, &l), 1);
  l.cosAngleMax = 0.5f;  // equal cosine: not a sharper turn
  EXPECT_EQ(check_if_stop_by_Angle_max(k.t, &l), 0);
  l.cosAngleMax = Above(0.5f);
  EXPECT_EQ(check_if_stop_by_Angle_max(k.t, &l), 1);
  EXPECT_EQ(check_if_stop_by_none(k.t, &l), 0);
}

TEST(StopRules, ANanValueNeverStops) {
  Tensor k(NAN, NAN, NAN);
  k.t->turningAngle = NAN;
  PcdDiffusionTensorLimits l = AllOff();
  l.useFAmin = l.useADCmax = l.useAngleMax = 1;
  l.cosAngleMax = 0.9f;
  EXPECT_EQ(check_if_stop_by_values(k.t, &l), 0);
}

// Truncation toward zero makes (-1, 0) count as inside, on purpose.
TEST(PositionRules, InsideTestTruncatesTowardZero) {
  const PcdIntSize4D size{4, 3, 2, 7};
  auto outside = [&](float x, float y, float z) {
    PcdVector3D c{x, y, z};
    return check_if_within_volume(&c, &size);
  };
  EXPECT_EQ(outside(-0.999f, 0, 0), 0);
  EXPECT_EQ(outside(0, -0.5f, -0.25f), 0);
  EXPECT_EQ(outside(-1.0f, 0, 0), 1);
  EXPECT_EQ(outside(0, -1.0f, 0), 1);
  EXPECT_EQ(outside(0, 0, -1.0f), 1);
  EXPECT_EQ(outside(3.999f, 2.999f, 1.999f), 0);
  EXPECT_EQ(outside(4.0f, 0, 0), 1);
  EXPECT_EQ(outside(0, 3.0f, 0), 1);
  EXPECT_EQ(outside(0, 0, 2.0f), 1);
}

// A 2 x 2 x 2 volume of 7 channels whose So is 100 + 10x + 20y + 40z: at the centre the
// trilinear So is 135, at (1, 0, 0) it is 110.
struct SoCube {
  PcdRawVolumeData* volume = nullptr;
  PcdDtiData* dti = nullptr;
  SoCube() {
    const PcdIntSize4D size{2, 2, 2, 7};
    int32_t types[7], formats[7];
    for (int c = 0; c < 7; ++c) types[c] = SINT16, formats[c] = PCD_MONOCHROME;
    volume = PCD_NewRawVolumeData(&size, types, formats);
    for (int c = 0; c < 7; ++c) {
      auto* v = static_cast<int16_t*>(volume->data[c]);
      for (int i = 0; i < 8; ++i)
        v[i] = static_cast<int16_t>(c == 0 ? 100 + 10 * (i & 1) + 20 * ((i >> 1) & 1) + 40 * (i >> 2) : 50);
    }
    dti = PCDdti_NewDiffusionTensorImageData(volume, 7);
    PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(dti, 7);
  }
  ~SoCube() {
    PCD_DeleteRawVolumeData(volume);
    std::free(dti);
  }
};

TEST(PositionRules, SoRangeIsStrictAndAskedOnlyWhenItsWordIsOne) {
  SoCube cube;
  ASSERT_EQ(cube.dti->isReady, 1);
  const PcdVector3D centre{0.5f, 0.5f, 0.5f}, edge{1.0f, 0.0f, 0.0f};
  PcdDiffusionTensorLimits l = AllOff();
  l.SoMin = 1000.0f, l.SoMax = 1.0f;  // both would stop everything
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &centre), 0);
  l.useSoMin = 2, l.useSoMax = 2;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &centre), 0);

  l = AllOff();
  l.useSoMin = 1;
  l.SoMin = 135.0f;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &centre), 0);
  l.SoMin = 135.5f;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &centre), 1);
  l.SoMin = 110.0f;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &edge), 0);
  l.SoMin = 110.5f;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &edge), 1);

  l = AllOff();
  l.useSoMax = 1;
  l.SoMax = 135.0f;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &centre), 0);
  l.SoMax = 134.5f;
  EXPECT_EQ(precheck_by_So(cube.dti, &l, &centre), 1);
  EXPECT_EQ(check_if_stop_by_So_max(135.0f, &l), 1);
  EXPECT_EQ(check_if_stop_by_So_max(134.5f, &l), 0);

  // outside the volume stops whatever the So range says
  l = AllOff();
  const PcdVector3D out{2.0f, 0.0f, 0.0f}, justIn{-0.5f, 0.0f, 0.0f};
  EXPECT_EQ(precheck_by_pos_and_So(cube.dti, &l, &out), 1);
  EXPECT_EQ(precheck_by_pos_and_So(cube.dti, &l, &justIn), 0);
}

// The angle limit in degrees becomes a cosine through the program's own degree factor.
TEST(FiberTrackingRun, AngleLimitUsesTheDegreeFactorAndEndsTheProgressLine) {
  SoCube cube;
  PcdFibeTrakContext context;
  context.limits.useAngleMax = 1;
  context.limits.AngleMax = 60.0f;
  PcdVector3D seeds[3] = {{0.5f, 0.5f, 0.5f}, {0.2f, 0.7f, 0.4f}, {0.9f, 0.1f, 0.6f}};
  context.seedCount = 3;
  context.seedPoints = seeds;
  testing::internal::CaptureStderr();
  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(cube.dti, &context, 2);
  const std::string said = testing::internal::GetCapturedStderr();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(context.limits.cosAngleMax, static_cast<float>(std::cos(60.0f * 0.01745328888888889)));
  EXPECT_NE(context.limits.cosAngleMax, static_cast<float>(std::cos(60.0 * M_PI / 180.0)));
  EXPECT_EQ(context.stopTest, check_if_stop_by_values);
  // two workers: the monitor prints the percentage and the run closes the line once
  EXPECT_NE(said.find("\rFiber tracking 100% completed"), std::string::npos) << said;
  EXPECT_EQ(said.back(), '\n');
  EXPECT_EQ(said.find("\n"), said.size() - 1) << said;
  PCDdti_DeleteFibeTrakBuffer(result);

  // every word off: the stop test is the one that never stops
  PcdFibeTrakContext none;
  none.limits = AllOff();
  none.seedCount = 0;
  testing::internal::CaptureStderr();
  result = PCDdti_FiberTracking(cube.dti, &none, 2);
  const std::string quiet = testing::internal::GetCapturedStderr();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(none.stopTest, check_if_stop_by_none);
  EXPECT_EQ(quiet.find('%'), std::string::npos) << quiet;
  PCDdti_DeleteFibeTrakBuffer(result);
}

// The anisotropic composition on diagonal tensors, whose eigenvectors are the axes:
// w = s3 u3 + s2 rb^k u2 + s1 ra^k u1 with s_j = |u_j . p|, normalised, worked out in
// double; the turning cosine is u1 . p.
TEST(DirectionRules, AnisotropicCompositionWeighsEachAxisByItsRatioAndExponent) {
  struct Case {
    float l1, l2, l3;
  };
  for (const Case c : {Case{0.5f, 0.9f, 1.0f}, Case{0.35f, 0.7f, 1.0f}}) {
    SCOPED_TRACE(c.l2);
    Tensor k(c.l1, c.l2, c.l3);
    const double p[3] = {0.48, -0.6, 0.64};  // a unit vector
    const double ra = c.l1 / c.l3, rb = c.l2 / c.l3;
    const double e = rb > 0.8 ? 1.0 : static_cast<double>(51.0f - (static_cast<float>(rb) - 0.2f) * 83.33333f);
    double w[3] = {std::fabs(p[0]) * std::pow(ra, e), std::fabs(p[1]) * std::pow(rb, e), std::fabs(p[2])};
    // each axis is oriented along p, so the signs of w follow p's
    for (int i = 0; i < 3; ++i) w[i] = std::copysign(w[i], p[i]);
    const double norm = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
    float x = 0, y = 0, z = 0;
    get_tracking_direction_by_anisotropic_composition(k.t, 0.48f, -0.6f, 0.64f, &x, &y, &z);
    EXPECT_NEAR(x, w[0] / norm, 1e-5);
    EXPECT_NEAR(y, w[1] / norm, 1e-5);
    EXPECT_NEAR(z, w[2] / norm, 1e-5);
    EXPECT_NEAR(k.t->turningAngle, 0.48, 1e-6);
  }
}

}  // namespace
