// The distance between two voxel groups: two 60-voxel cubes (216,000 voxels each) 11
// apart along x, which all pairs would take 4.7e10 comparisons for.
#include <benchmark/benchmark.h>

#include "study/voxel_distance.h"

namespace {

std::unique_ptr<PcdVoxelGroup> FullCube(PcdIntVector3D origin) {
  const PcdIntSize3D size{60, 60, 60};
  auto g = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupBitPacked);
  for (int z = 0; z < 60; ++z)
    for (int y = 0; y < 60; ++y)
      for (int x = 0; x < 60; ++x) PCD_SetVoxelOfVoxelGroup(g.get(), x, y, z, 1);
  return g;
}

void BM_VoxelGroupDistanceOfLargeBlocks(benchmark::State& state) {
  const auto a = FullCube({0, 0, 0});
  const auto b = FullCube({70, 30, 50});
  for (auto _ : state) benchmark::DoNotOptimize(PCD_GetVoxelGroupSquaredDistance(a.get(), b.get()));
}
BENCHMARK(BM_VoxelGroupDistanceOfLargeBlocks)->Unit(benchmark::kMillisecond);

}  // namespace
