// The MPG rotation with axes that tell u, v and w apart, and the channel-count limits of
// both MPG file layouts at their boundaries. Expected directions worked out by hand.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "io/dti_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::TempDir;
using quorix_test::WriteFileText;

const std::string kMagic = "#Quorix-II MPG description file (not used in earlier Quorix)\n";

// A record over a volume of the given channel count (2 x 2 x 2, signed 16-bit), set by
// the single-So default so that "unchanged" can be told from "cleared".
struct Record {
  PcdRawVolumeData* volume;
  PcdDtiData* dti;
  explicit Record(int32_t channels) {
    const PcdIntSize4D size{2, 2, 2, channels};
    std::vector<int32_t> t(static_cast<size_t>(channels), SINT16), f(static_cast<size_t>(channels), 0);
    volume = PCD_NewRawVolumeData(&size, t.data(), f.data());
    testing::internal::CaptureStderr();
    dti = PCDdti_NewDiffusionTensorImageData(volume, channels);
    testing::internal::GetCapturedStderr();
    PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(dti, channels);
  }
  ~Record() {
    std::free(dti);
    PCD_DeleteRawVolumeData(volume);
  }
  // The whole record, to show that a refusal changed nothing.
  std::vector<uint8_t> Bytes() const {
    const auto* p = reinterpret_cast<const uint8_t*>(dti);
    return {p, p + sizeof *dti};
  }
};

int ReadMpg(const TempDir& dir, const std::string& text, PcdDtiData* dti, std::string* said) {
  WriteFileText(dir.file("m.mpg"), text);
  testing::internal::CaptureStderr();
  const int result = ReadMpgDescriptionFile(dir.file("m.mpg").c_str(), dti);
  *said = testing::internal::GetCapturedStderr();
  return result;
}

void ExpectNear(const PcdVector3D& got, float x, float y, float z) {
  EXPECT_NEAR(got.x, x, 1e-6f);
  EXPECT_NEAR(got.y, y, 1e-6f);
  EXPECT_NEAR(got.z, z, 1e-6f);
}

// u = (2, 2, 1) / 3 and v = (-2, 1, 2) / 3 are orthonormal; w = u x v = (1, -2, 2) / 3.
// g = (1, 2, 3) becomes (g.u, g.v, g.w) = (3, 2, 1); each axis lands in its own component.
TEST(MpgRotation, EachDirectionBecomesItsProjectionsOnUVW) {
  Record r(8);
  const float t = 1.0f / 3.0f;
  const PcdVector3D u{2 * t, 2 * t, t}, v{-2 * t, t, 2 * t};
  r.dti->mpgVectors[1] = PcdVector3D{1, 2, 3};
  r.dti->mpgVectors[2] = PcdVector3D{1, 0, 0};
  r.dti->mpgVectors[3] = PcdVector3D{0, 0, 1};
  r.dti->mpgVectors[8] = PcdVector3D{5, 6, 7};  // beyond the record's channels
  testing::internal::CaptureStderr();
  RotateMpgVectors(r.dti, &v, &u);
  const std::string said = testing::internal::GetCapturedStderr();
  ExpectNear(r.dti->mpgVectors[0], 0, 0, 0);  // the So direction stays zero
  ExpectNear(r.dti->mpgVectors[1], 3, 2, 1);
  ExpectNear(r.dti->mpgVectors[2], 2 * t, -2 * t, t);  // x . (u, v, w)
  ExpectNear(r.dti->mpgVectors[3], t, 2 * t, 2 * t);   // z . (u, v, w)
  EXPECT_EQ(r.dti->mpgVectors[8].x, 5.0f);
  EXPECT_EQ(said,
            "MPG vectors rotated by:\n"
            "\tu=(0.666667,0.666667,0.333333)\n"
            "\tv=(-0.666667,0.333333,0.666667)\n"
            "\tw=(0.333333,-0.666667,0.666667)\n");
}

// The file gives u on its second line and v on its third.
TEST(MpgRotation, FileAxesAreUThenV) {
  TempDir dir;
  Record r(8);
  std::string lines = "0 0 0 0\n1000 1 2 3\n";
  for (int i = 0; i < 6; ++i) lines += "1000 0 0 1\n";
  std::string said;
  // u = (0, 0.6, 0.8), v = (0, -0.8, 0.6), w = u x v = (1, 0, 0):
  // (1, 2, 3) -> (3.6, 0.2, 1) and (0, 0, 1) -> (0.8, 0.6, 0)
  ASSERT_EQ(ReadMpg(dir, kMagic + "0 0.6 0.8\n0 -0.8 0.6\n8\n1\n" + lines, r.dti, &said), 1);
  ExpectNear(r.dti->mpgVectors[1], 3.6f, 0.2f, 1.0f);
  ExpectNear(r.dti->mpgVectors[2], 0.8f, 0.6f, 0.0f);
  EXPECT_EQ(r.dti->bValues[1], 1000.0f);
  EXPECT_EQ(said.rfind("MPG vectors rotated by:\n\tu=(0.000000,0.600000,0.800000)\n", 0), 0u) << said;
}

// Only u exactly (1, 0, 0) with v exactly (0, 1, 0) is left alone; any one component
// off makes it a rotation.
TEST(MpgRotation, IdentityMeansEverySixComponentsExactly) {
  Record r(8);
  const PcdVector3D g{0.36f, 0.48f, 0.8f};
  for (int k = 0; k <= 6; ++k) {
    SCOPED_TRACE(k);
    float axes[6] = {1, 0, 0, 0, 1, 0};
    if (k < 6) axes[k] += 0.25f;
    const PcdVector3D u{axes[0], axes[1], axes[2]}, v{axes[3], axes[4], axes[5]};
    for (int c = 1; c < 8; ++c) r.dti->mpgVectors[c] = g;
    testing::internal::CaptureStderr();
    RotateMpgVectors(r.dti, &v, &u);
    const std::string said = testing::internal::GetCapturedStderr();
    if (k == 6) {
      EXPECT_EQ(said, "");
      EXPECT_EQ(std::memcmp(&r.dti->mpgVectors[5], &g, sizeof g), 0);
    } else {
      EXPECT_EQ(said.rfind("MPG vectors rotated by:\n", 0), 0u) << said;
      EXPECT_NE(std::memcmp(&r.dti->mpgVectors[5], &g, sizeof g), 0);
    }
  }
}

// Earlier layout: n directions give n + 1 channels. n is compared with the volume's
// channel count, so n equal to it passes (one channel more than the volume holds) and
// n one larger does not; at least 6 directions.
TEST(MpgFileLimits, EarlierLayoutBoundaries) {
  TempDir dir;
  auto earlier = [](int n) {
    std::string text = std::to_string(n) + "\n700\n";
    for (int i = 1; i <= n; ++i) text += "0 " + std::to_string(i) + " 1\n";
    return text;
  };
  std::string said;
  {
    Record r(7);
    ASSERT_EQ(ReadMpg(dir, earlier(6), r.dti, &said), 1);
    EXPECT_EQ(r.dti->isReady, 1);
    EXPECT_EQ(r.dti->channelCount, 7);
    EXPECT_EQ(r.dti->soCount, 1);
    EXPECT_EQ(r.dti->bValues[0], 0.0f);
    ExpectNear(r.dti->mpgVectors[0], 0, 0, 0);
    for (int c = 1; c <= 6; ++c) {
      EXPECT_EQ(r.dti->bValues[c], 700.0f);
      ExpectNear(r.dti->mpgVectors[c], 0, static_cast<float>(c), 1);
    }
    EXPECT_EQ(said, "");
  }
  {
    Record r(7);
    ASSERT_EQ(ReadMpg(dir, earlier(7), r.dti, &said), 1);  // kept as it always was
    EXPECT_EQ(r.dti->isReady, 1);
    EXPECT_EQ(r.dti->channelCount, 8);
    ExpectNear(r.dti->mpgVectors[7], 0, 7, 1);
    EXPECT_EQ(said.rfind("Warning: ", 0), 0u) << said;
  }
  for (int n : {8, 5}) {
    SCOPED_TRACE(n);
    Record r(n == 8 ? 7 : 9);
    const std::vector<uint8_t> before = r.Bytes();
    EXPECT_EQ(ReadMpg(dir, earlier(n), r.dti, &said), 0);
    EXPECT_EQ(said, "Error: Invalid MPG axes.  Setting unchanged.\n");
    EXPECT_EQ(r.Bytes(), before);
  }
}

// Current layout: n channels up to the volume's count, m So channels, n - m at least 6.
TEST(MpgFileLimits, CurrentLayoutBoundaries) {
  TempDir dir;
  auto current = [](int n, int m) {
    std::string text = kMagic + "1.0 0.0 0.0\n0.0 1.0 0.0\n" + std::to_string(n) + "\n" +
                       std::to_string(m) + "\n";
    for (int i = 0; i < n; ++i) text += i < m ? "0 0 0 0\n" : "900 0 0 1\n";
    return text;
  };
  std::string said;
  {
    Record r(9);
    ASSERT_EQ(ReadMpg(dir, current(9, 3), r.dti, &said), 1);
    EXPECT_EQ(r.dti->channelCount, 9);
    EXPECT_EQ(r.dti->soCount, 3);
    EXPECT_EQ(r.dti->bValues[3], 900.0f);
    EXPECT_EQ(r.dti->isReady, 1);
  }
  for (const auto& [n, m] : {std::pair{10, 3}, std::pair{9, 4}}) {
    SCOPED_TRACE(n * 100 + m);
    Record r(9);
    const std::vector<uint8_t> before = r.Bytes();
    EXPECT_EQ(ReadMpg(dir, current(n, m), r.dti, &said), 0);
    EXPECT_EQ(said, "Error: Invalid MPG axes.  Setting unchanged.\n");
    EXPECT_EQ(r.Bytes(), before);
  }
}

}  // namespace
