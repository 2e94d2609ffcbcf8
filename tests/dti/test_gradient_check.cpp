// The gradient-table check on the phantom (with its oblique bundle, so that every axis
// has an off-diagonal term to see): each deliberate flip and swap of the table is found,
// in the sense that applying the verdict gives back the true directions up to one common
// sign; the true table is never "corrected", with or without noise.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "dti/gradient_check.h"
#include "tools/phantom/phantom.h"

namespace {

struct Phantom {
  PcdDtiData* dti = nullptr;
  explicit Phantom(float noise) {
    PcdPhantomOptions o;
    o.sizeX = 40, o.sizeY = 40, o.sizeZ = 16;
    o.oblique = true;
    o.noise = noise;
    dti = PCD_MakeDwiPhantom(o, nullptr);
  }
  ~Phantom() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
  Phantom(const Phantom&) = delete;
  Phantom& operator=(const Phantom&) = delete;
};

PcdGradientCheckOptions SmallCheck() {
  PcdGradientCheckOptions o;
  o.maxSeeds = 300;
  o.nodeLimit = 40;
  o.threads = 2;
  return o;
}

// Whether every direction of a equals the same direction of b times one common sign.
bool SameUpToSign(const PcdDtiData& a, const PcdDtiData& b) {
  for (float sign : {1.0f, -1.0f}) {
    bool all = true;
    for (int32_t k = 0; k < a.channelCount; ++k)
      all = all && a.mpgVectors[k].x == sign * b.mpgVectors[k].x &&
            a.mpgVectors[k].y == sign * b.mpgVectors[k].y && a.mpgVectors[k].z == sign * b.mpgVectors[k].z;
    if (all) return true;
  }
  return false;
}

TEST(GradientCheck, EveryFlipAndSwapIsFoundAndTheTrueTableKept) {
  Phantom phantom(0.0f);
  ASSERT_NE(phantom.dti, nullptr);
  const PcdDtiData truth = *phantom.dti;
  PcdGradientCheck kept;
  ASSERT_TRUE(PCDdti_CheckGradientTable(phantom.dti, SmallCheck(), &kept));
  EXPECT_TRUE(kept.tableIsBest);
  EXPECT_EQ(kept.best, 0);
  EXPECT_EQ(PCDdti_GradientVerdict(kept), "as given");
  ASSERT_EQ(kept.candidates.size(), 24u);

  // the deliberate damage, written out by hand: new component i = sign * old component
  struct Damage {
    const char* name;
    PcdGradientCandidate change;
  };
  const Damage damages[] = {
      {"flip x", {{0, 1, 2}, {-1, 1, 1}}}, {"flip y", {{0, 1, 2}, {1, -1, 1}}},
      {"flip z", {{0, 1, 2}, {1, 1, -1}}}, {"swap x y", {{1, 0, 2}, {1, 1, 1}}},
      {"swap x z", {{2, 1, 0}, {1, 1, 1}}}, {"swap y z", {{0, 2, 1}, {1, 1, 1}}},
      {"rotate x y z", {{1, 2, 0}, {1, 1, 1}}}, {"swap x y, flip z", {{1, 0, 2}, {1, 1, -1}}},
  };
  for (const Damage& d : damages) {
    SCOPED_TRACE(d.name);
    PcdDtiData damaged = truth;
    for (int32_t k = 0; k < truth.channelCount; ++k) {
      const float g[3] = {truth.mpgVectors[k].x, truth.mpgVectors[k].y, truth.mpgVectors[k].z};
      damaged.mpgVectors[k] = {d.change.sign[0] * g[d.change.axis[0]], d.change.sign[1] * g[d.change.axis[1]],
                               d.change.sign[2] * g[d.change.axis[2]]};
    }
    EXPECT_FALSE(SameUpToSign(damaged, truth));
    PcdGradientCheck check;
    ASSERT_TRUE(PCDdti_CheckGradientTable(&damaged, SmallCheck(), &check));
    EXPECT_FALSE(check.tableIsBest);
    PCDdti_ApplyGradientCandidate(check.candidates[static_cast<size_t>(check.best)], &damaged);
    EXPECT_TRUE(SameUpToSign(damaged, truth)) << PCDdti_GradientVerdict(check);
  }
}

TEST(GradientCheck, NoisyTrueTableIsKeptAndNegationsScoreAlike) {
  Phantom phantom(0.04f);
  ASSERT_NE(phantom.dti, nullptr);
  PcdGradientCheck check;
  ASSERT_TRUE(PCDdti_CheckGradientTable(phantom.dti, SmallCheck(), &check));
  EXPECT_TRUE(check.tableIsBest);
  // a candidate and its negation give the same design, hence the same score bit for bit
  PcdDtiData negated = *phantom.dti;
  for (int32_t k = 0; k < negated.channelCount; ++k)
    negated.mpgVectors[k] = {-negated.mpgVectors[k].x, -negated.mpgVectors[k].y, -negated.mpgVectors[k].z};
  PcdGradientCheck other;
  ASSERT_TRUE(PCDdti_CheckGradientTable(&negated, SmallCheck(), &other));
  EXPECT_TRUE(other.tableIsBest);
  EXPECT_EQ(other.candidates[0].meanLength, check.candidates[0].meanLength);
  // the names: a candidate and the table it is the same as
  EXPECT_EQ(PCDdti_DescribeGradientCandidate({{1, 0, 2}, {1, 1, -1}}), "y x -z");
  EXPECT_EQ(PCDdti_DescribeEquivalentCandidate({{1, 0, 2}, {1, 1, -1}}), "-y -x z");
}

TEST(GradientCheck, NothingToSeedFromIsRefused) {
  Phantom phantom(0.0f);
  PcdGradientCheckOptions o = SmallCheck();
  std::vector<uint8_t> empty(static_cast<size_t>(40 * 40 * 16), 0);
  o.mask = &empty;
  PcdGradientCheck check;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(PCDdti_CheckGradientTable(phantom.dti, o, &check));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: no voxel with FA of at least 0.40 to seed from\n");
  std::vector<uint8_t> wrong(7, 1);
  o.mask = &wrong;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(PCDdti_CheckGradientTable(phantom.dti, o, &check));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: the mask does not match the data set\n");
}

}  // namespace
