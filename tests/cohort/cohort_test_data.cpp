#include "cohort_test_data.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "io/nifti_file.h"

namespace cohort_test {

void WriteSubject(const std::string& root, const std::string& dir, const std::string& prefix,
                  uint32_t seed, PcdPhantomTruth* truth, float noise) {
  PcdPhantomOptions options;
  options.sizeX = kX;
  options.sizeY = kY;
  options.sizeZ = kZ;
  options.directions = 12;
  options.noise = noise;
  options.seed = seed;
  PcdDtiData* dti = PCD_MakeDwiPhantom(options, truth);
  ASSERT_NE(dti, nullptr);
  PcdWorldGeometry geometry;
  PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
  std::filesystem::create_directories(root + "/" + dir);
  EXPECT_EQ(WriteNiftiDwiFile(dti, &geometry, (root + "/" + dir + "/" + prefix + "_dwi.nii.gz").c_str()), 0);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

int AtlasLabel(int x, int y, int z) { return z < kZ / 2 ? 1 + x * 3 / kX : 4 + y * 2 / kY; }

void WriteAtlas(const std::string& path) {
  const PcdIntSize3D size{kX, kY, kZ};
  PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&size, SINT16, PCD_MONOCHROME);
  ASSERT_NE(v, nullptr);
  auto* labels = static_cast<int16_t*>(v->data[0]);
  for (int z = 0; z < kZ; ++z)
    for (int y = 0; y < kY; ++y)
      for (int x = 0; x < kX; ++x) labels[(z * kY + y) * kX + x] = static_cast<int16_t>(AtlasLabel(x, y, z));
  PcdWorldGeometry geometry;
  PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
  const int32_t channel = 0;
  EXPECT_EQ(WriteNiftiChannels(v, &channel, 1, &geometry, path.c_str()), 0);
  PCD_DeleteRawVolumeData(v);
}

}  // namespace cohort_test
