// The four computed channels of voxels whose diffusion is known: isotropic water measured
// at a b value other than the default, and the So threshold at its boundary.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "dti/channels.h"
#include "dti/gradient_vectors.h"
#include "support/test_support.h"

namespace {

// 2 x 2 x 2 voxels, 1 So + 6 DWIs at b = 700. Every voxel is isotropic with D = 1e-3 mm^2/s,
// so each DWI holds So * exp(-0.7) rounded; the So of voxel i is given.
struct IsotropicCube {
  PcdRawVolumeData* volume = nullptr;
  PcdDtiData* dti = nullptr;
  explicit IsotropicCube(const int16_t (&so)[8]) {
    const PcdIntSize4D size{2, 2, 2, 7};
    int32_t types[7], formats[7];
    for (int c = 0; c < 7; ++c) types[c] = SINT16, formats[c] = PCD_MONOCHROME;
    volume = PCD_NewRawVolumeData(&size, types, formats);
    for (int c = 0; c < 7; ++c)
      for (int i = 0; i < 8; ++i)
        static_cast<int16_t*>(volume->data[c])[i] =
            c == 0 ? so[i] : static_cast<int16_t>(std::lround(so[i] * std::exp(-0.7)));
    float b[7];
    PcdVector3D g[7];
    b[0] = 0.0f, g[0] = {0, 0, 0};
    for (int c = 1; c < 7; ++c) {
      b[c] = 700.0f;
      g[c] = {gradient_vectors[0][c - 1][0], gradient_vectors[0][c - 1][1], gradient_vectors[0][c - 1][2]};
    }
    dti = PCDdti_NewDiffusionTensorImageData(volume, 7);
    PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, 7, 1, b, g);
  }
  ~IsotropicCube() {
    PCD_DeleteRawVolumeData(volume);
    std::free(dti);
  }
  int16_t At(int channel, int voxel) const {
    return static_cast<const int16_t*>(volume->data[channel])[voxel];
  }
};

TEST(ComputedChannels, IsotropicWaterAtAnotherBValue) {
  const int16_t so[8] = {1000, 1000, 1000, 1000, 1000, 1000, 1000, 1000};
  IsotropicCube cube(so);
  ASSERT_EQ(cube.dti->isReady, 1);
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCDdti_AddComputationalChannels(cube.dti, 0, 2), 4);
  const std::string said = testing::internal::GetCapturedStderr();
  ASSERT_EQ(cube.volume->matrixSize->channels, 11);
  EXPECT_EQ(cube.volume->dataType[7], UINT32);
  EXPECT_EQ(cube.volume->colorFormat[7], PCD_RGBA_PACKED);

  // the signal 497 = round(1000 exp(-0.7)) gives ADC = ln(1000 / 497) / 700 = 0.99881e-3
  const double adc = std::log(1000.0 / 497.0) / 700.0;
  for (int i = 0; i < 8; ++i) {
    EXPECT_LE(cube.At(8, i), 2) << "FA x 1000 of isotropic water, voxel " << i;
    EXPECT_NEAR(cube.At(9, i), adc * 1e6, 1.0) << "ADC x 10^6, voxel " << i;
    // the isotropic image is So exp(-ADC b) at the data's own b: the DWI signal again
    EXPECT_NEAR(cube.At(10, i), 497, 1) << "isotropic DWI, voxel " << i;
  }
  // two workers: one progress line with its percentage, closed by one line break
  EXPECT_TRUE(quorix_test::HasLine(said, "\rAdditional channels computation 100% completed")) << said;
  EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
}

TEST(ComputedChannels, VoxelsAtOrBelowTheThresholdHoldZeroInAllFour) {
  const int16_t so[8] = {300, 301, 1000, 299, 1000, 1000, 1000, 1000};
  IsotropicCube cube(so);
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCDdti_AddComputationalChannels(cube.dti, 300, 1), 4);
  testing::internal::GetCapturedStderr();
  for (int voxel : {0, 3}) {
    EXPECT_EQ(static_cast<const uint32_t*>(cube.volume->data[7])[voxel], 0u) << voxel;
    for (int c = 8; c < 11; ++c) EXPECT_EQ(cube.At(c, voxel), 0) << c << " " << voxel;
  }
  for (int voxel : {1, 2}) {
    EXPECT_NE(cube.At(9, voxel), 0) << voxel;
    EXPECT_NE(cube.At(10, voxel), 0) << voxel;
  }
  // 301 exp(-0.7) = 149.47 -> 149 stored; the isotropic value comes back near it
  EXPECT_NEAR(cube.At(10, 1), 149, 1);
}

}  // namespace
