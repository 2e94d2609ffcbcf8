// Trilinear reads on a volume with an axis of one voxel: that axis is constant, the read
// stays inside the block, and the other axes blend as usual.
#include <gtest/gtest.h>

#include <vector>

#include "vol/raw_volume.h"

namespace {

// 3 x 1 x 2 voxels, y of one voxel; value[z][x] = {10, 20, 40} and {100, 200, 400}.
struct FlatVolume {
  PcdRawVolumeData* volume;
  explicit FlatVolume(int32_t type) {
    const PcdIntSize4D size{3, 1, 2, 1};
    const int32_t formats[1] = {PCD_MONOCHROME};
    volume = PCD_NewRawVolumeData(&size, &type, formats);
    const double values[6] = {10, 20, 40, 100, 200, 400};
    for (int i = 0; i < 6; ++i) {
      if (type == SINT16) static_cast<int16_t*>(volume->data[0])[i] = static_cast<int16_t>(values[i]);
      else static_cast<float*>(volume->data[0])[i] = static_cast<float>(values[i]);
    }
  }
  ~FlatVolume() { PCD_DeleteRawVolumeData(volume); }
};

TEST(OneSampleAxis, TrilinearReadBlendsTheOtherAxesOnly) {
  FlatVolume s(SINT16), f(FLOAT32);
  Pcd3DArray a16 = s.volume->array3D[0];
  Pcd3DArray a32 = f.volume->array3D[0];
  // x = 1.5 halfway between 20 and 40 (z = 0) and 200 and 400 (z = 1): 30 and 300;
  // z = 0.25: 30 * 0.75 + 300 * 0.25 = 97.5, whatever y is
  for (float y : {0.0f, 0.3f, 0.99f, 1.0f, 5.0f, -2.0f}) {
    SCOPED_TRACE(y);
    EXPECT_EQ(PCD_GetValueOf3DArrayFLOAT32i(a32, 3, 1, 2, 1.5f, y, 0.25f), 97.5f);
    EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(a16, 3, 1, 2, 1.5f, y, 0.25f), 97);  // truncated
    EXPECT_EQ(PCD_GetInterpolatedValueOf3DArray(a32, FLOAT32, 3, 1, 2, 1.5f, y, 0.25f), 97.5);
    // past the last x the edge voxel holds: 40 * 0.75 + 400 * 0.25 = 130
    EXPECT_EQ(PCD_GetValueOf3DArrayFLOAT32i(a32, 3, 1, 2, 2.7f, y, 0.25f), 130.0f);
  }
}

TEST(OneSampleAxis, StencilStaysInsideTheBlockAndGivesTheSameValue) {
  FlatVolume s(SINT16);
  const void* block = s.volume->data[0];
  for (float y : {0.0f, 0.5f, 3.0f}) {
    const PcdTrilinearStencil st = PCD_GetTrilinearStencil(3, 1, 2, 0.5f, y, 0.5f);
    for (size_t o : st.offset) EXPECT_LT(o, 6u);
    // (10 + 20) / 2 = 15 and (100 + 200) / 2 = 150, then halfway: 82.5, truncated
    EXPECT_EQ(PCD_GetValueOfSINT16BlockByStencil(block, st), 82);
  }
}

// A single voxel is the value everywhere, for every sample type.
TEST(OneSampleAxis, SingleVoxelIsConstantEverywhere) {
  const PcdIntSize4D size{1, 1, 1, 2};
  const int32_t types[2] = {SINT16, FLOAT64};
  const int32_t formats[2] = {PCD_MONOCHROME, PCD_MONOCHROME};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  static_cast<int16_t*>(v->data[0])[0] = -1234;
  static_cast<double*>(v->data[1])[0] = 2.5;
  for (const PcdVector3D p : {PcdVector3D{0, 0, 0}, PcdVector3D{0.5f, 0.5f, 0.5f},
                              PcdVector3D{7.25f, -3.0f, 0.9f}}) {
    EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(v->array3D[0], 1, 1, 1, p.x, p.y, p.z), -1234);
    EXPECT_EQ(PCD_GetValueOf3DArrayFLOAT64i(v->array3D[1], 1, 1, 1, p.x, p.y, p.z), 2.5f);
    const PcdTrilinearStencil st = PCD_GetTrilinearStencil(1, 1, 1, p.x, p.y, p.z);
    for (size_t o : st.offset) EXPECT_EQ(o, 0u);
  }
  PCD_DeleteRawVolumeData(v);
}

}  // namespace
