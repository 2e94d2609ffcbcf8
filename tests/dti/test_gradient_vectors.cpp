// The default MPG direction table.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>

#include "dti/gradient_vectors.h"
#include "support/test_support.h"

namespace {

double Length(const float* v) {
  return std::sqrt(double(v[0]) * v[0] + double(v[1]) * v[1] + double(v[2]) * v[2]);
}

// Smallest angle in degrees between two directions of a row; v and -v are one direction.
double SmallestAngle(int n) {
  const auto& row = gradient_vectors[n - 6];
  double largest_cosine = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) {
      const double dot = double(row[i][0]) * row[j][0] + double(row[i][1]) * row[j][1] +
                         double(row[i][2]) * row[j][2];
      largest_cosine =
          std::max(largest_cosine, std::fabs(dot) / (Length(row[i]) * Length(row[j])));
    }
  return std::acos(std::min(1.0, largest_cosine)) * 180.0 / M_PI;
}

void ExpectRow(int n, const float (*expected)[3]) {
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c)
      EXPECT_EQ(gradient_vectors[n - 6][i][c], expected[i][c]) << n << " dirs, #" << i + 1;
}

}  // namespace

TEST(GradientVectors, EveryRowHoldsExactlyItsUnitVectors) {
  for (int n = 6; n <= 129; ++n) {
    for (int i = 0; i < kPcdGradientSlots; ++i) {
      const float* v = gradient_vectors[n - 6][i];
      if (i < n) {
        EXPECT_NEAR(Length(v), 1.0, 0.00016) << n << " dirs, #" << i + 1;
      } else {
        EXPECT_TRUE(v[0] == 0.0f && v[1] == 0.0f && v[2] == 0.0f) << n << " dirs, #" << i + 1;
      }
    }
  }
}

// Well spread: no two directions closer than 3/4 of the spacing of a hexagonal packing
// of 2n points (the n directions and their opposites) on the sphere. The vendor rows of
// 13 and 30 directions contain nearly opposite pairs and are checked by value instead.
TEST(GradientVectors, GeneratedRowsAreWellSpread) {
  for (int n = 6; n <= 129; ++n) {
    if (n == 13 || n == 30) continue;
    const double hexagonal = std::sqrt(2.0 * (4.0 * M_PI / (2.0 * n)) / std::sqrt(3.0));
    EXPECT_GE(SmallestAngle(n), 0.75 * hexagonal * 180.0 / M_PI) << n << " directions";
  }
}

TEST(GradientVectors, VendorRowsAreKeptAsPublished) {
  const float six[6][3] = {{0.707f, 0, 0.707f},  {-0.707f, 0, 0.707f}, {0, 0.707f, 0.707f},
                           {0, 0.707f, -0.707f}, {0.707f, 0.707f, 0},  {-0.707f, 0.707f, 0}};
  const float thirteen[13][3] = {
      {-0.754267f, 0.1735f, -0.633229f},   {0.330321f, -0.372227f, 0.867372f},
      {-0.533036f, -0.458932f, 0.710813f}, {-0.686808f, -0.708384f, -0.162748f},
      {-0.321357f, 0.941504f, -0.101486f}, {0.617869f, 0.786068f, -0.018273f},
      {0.019352f, 0.576223f, 0.817064f},   {0.311369f, -0.9489f, 0.051358f},
      {-0.882506f, 0.313695f, 0.350398f},  {-0.038449f, -0.536051f, -0.843309f},
      {0.184148f, 0.468947f, -0.863816f},  {0.936882f, 0.003852f, 0.349625f},
      {0.813568f, -0.236011f, -0.531419f}};
  const float thirty[30][3] = {
      {-0.006654f, 0.898918f, 0.438067f},   {0.910432f, 0.375861f, -0.172745f},
      {-0.739286f, 0.066128f, -0.670137f},  {-0.119882f, 0.594207f, -0.795328f},
      {-0.639563f, 0.726562f, 0.251131f},   {0.639563f, -0.726562f, -0.251131f},
      {-0.667876f, -0.544736f, 0.507154f},  {0.296407f, -0.43603f, -0.849718f},
      {0.016513f, -0.873455f, -0.486624f},  {-0.503801f, -0.553036f, -0.663578f},
      {-0.974931f, 0.216192f, -0.052637f},  {0.464845f, 0.775385f, -0.427431f},
      {0.624262f, -0.609878f, 0.488207f},   {0.174067f, -0.971582f, 0.160404f},
      {0.2883f, 0.446205f, 0.847221f},      {-0.623982f, 0.663039f, -0.413552f},
      {0.453897f, 0.268396f, -0.849671f},   {0.965072f, -0.241654f, 0.101194f},
      {-0.834456f, 0.067047f, 0.546981f},   {-0.902484f, -0.411365f, -0.127678f},
      {0.819761f, -0.157436f, -0.550642f},  {0.587501f, 0.769195f, 0.251359f},
      {-0.459447f, -0.888195f, -0.004339f}, {-0.274944f, -0.145673f, 0.950361f},
      {-0.369846f, 0.465979f, 0.80379f},    {-0.086213f, 0.978861f, -0.18547f},
      {0.818783f, 0.195207f, 0.539897f},    {-0.178395f, -0.03562f, -0.983314f},
      {0.381426f, -0.195029f, 0.903592f},   {-0.059071f, -0.716929f, 0.694639f}};
  ExpectRow(6, six);
  ExpectRow(13, thirteen);
  ExpectRow(30, thirty);
}

// The committed table is exactly what the generator writes.
TEST(GradientVectors, GeneratorReproducesTheCommittedRows) {
  const std::string program = quorix_test::BuiltProgram("quorix-gen-gradients");
  if (!std::filesystem::exists(program)) GTEST_SKIP() << program << " not built";
  std::string generated;
  ASSERT_EQ(quorix_test::RunCommand(program + " 6 24 2>/dev/null", &generated), 0);
  const std::string committed =
      quorix_test::ReadFileText(std::string(QUORIX_SOURCE_DIR) + "/dti/gradient_vectors.cpp");
  ASSERT_GT(generated.size(), 1000u);
  EXPECT_NE(committed.find(generated), std::string::npos);
}
