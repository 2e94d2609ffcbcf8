// The voxel-major signal copy that tracking reads: made row by row on first use, from any
// number of threads at once, it must hold exactly the channel blocks' samples, and rows no
// read needed are never made.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "dti/tensor.h"
#include "tools/phantom/phantom.h"

namespace {

struct NoisyPhantom {
  PcdPhantomOptions options;
  PcdPhantomTruth truth;
  PcdDtiData* dti = nullptr;
  NoisyPhantom(int x, int y, int z) {
    options.sizeX = x;
    options.sizeY = y;
    options.sizeZ = z;
    options.noise = 0.05f;
    dti = PCD_MakeDwiPhantom(options, &truth);
  }
  ~NoisyPhantom() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
};

int MadeRows(const PcdVoxelMajorSignals& s) {
  int made = 0;
  for (int r = 0; r < s.sizeY * s.sizeZ; ++r) made += s.rowState[r].load() == 2;
  return made;
}

TEST(VoxelMajorSignals, RowsAreMadeOnFirstUseOnlyAndHoldTheChannelSamples) {
  NoisyPhantom p(40, 24, 10);
  const PcdIntSize4D& size = *p.dti->volume->matrixSize;
  PcdVoxelMajorSignals s;
  ASSERT_TRUE(PCDdti_PrepareVoxelMajorSignals(p.dti, &s));
  EXPECT_EQ(MadeRows(s), 0);

  // a point inside: x 5..6, y 7..8, z 3..4 are read, which are rows (7,3) (8,3) (7,4) (8,4)
  const PcdTrilinearStencil st = PCD_GetTrilinearStencil(size.x, size.y, size.z, 5.5f, 7.25f, 3.75f);
  const int16_t* copy = PCDdti_VoxelMajorSignalsFor(&s, st);
  EXPECT_EQ(MadeRows(s), 4);
  for (int y : {7, 8})
    for (int z : {3, 4}) EXPECT_EQ(s.rowState[y + size.y * z].load(), 2) << y << " " << z;
  // every sample of those rows, channel by channel, against the channel blocks
  const int channels = p.dti->channelCount;
  for (int y : {7, 8})
    for (int z : {3, 4})
      for (int x = 0; x < size.x; ++x)
        for (int c = 0; c < channels; ++c) {
          const size_t voxel = static_cast<size_t>(x + size.x * (y + size.y * z));
          ASSERT_EQ(copy[voxel * channels + c], static_cast<const int16_t*>(p.dti->volume->data[c])[voxel]);
        }
  // a point past the last voxel on every axis is clamped to the last two samples
  PCDdti_VoxelMajorSignalsFor(&s, PCD_GetTrilinearStencil(size.x, size.y, size.z, 99.0f, 99.0f, 99.0f));
  EXPECT_EQ(s.rowState[(size.y - 1) + size.y * (size.z - 1)].load(), 2);
  EXPECT_EQ(s.rowState[(size.y - 2) + size.y * (size.z - 2)].load(), 2);
  EXPECT_EQ(MadeRows(s), 8);
}

TEST(VoxelMajorSignals, ManyThreadsReadingAtOnceSeeEveryRowWhole) {
  NoisyPhantom p(32, 32, 12);
  const PcdIntSize4D& size = *p.dti->volume->matrixSize;
  const int channels = p.dti->channelCount;
  PcdVoxelMajorSignals s;
  ASSERT_TRUE(PCDdti_PrepareVoxelMajorSignals(p.dti, &s));
  std::vector<int> wrong(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      std::uniform_real_distribution<float> u(-1.0f, 33.0f);
      for (int i = 0; i < 3000; ++i) {
        const PcdTrilinearStencil st = PCD_GetTrilinearStencil(size.x, size.y, size.z, u(random), u(random),
                                                               u(random) * 12.0f / 32.0f);
        const int16_t* copy = PCDdti_VoxelMajorSignalsFor(&s, st);
        for (int k = 0; k < 8; ++k)
          for (int c = 0; c < channels; ++c)
            wrong[t] += copy[st.offset[k] * channels + c] !=
                        static_cast<const int16_t*>(p.dti->volume->data[c])[st.offset[k]];
      }
    });
  for (std::thread& t : threads) t.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(wrong[t], 0) << t;
}

}  // namespace
