// Fiber tracking on a phantom, in process: seeds in a 3 x 3 x 3 voxel block of the straight
// bundle, FA cutoff 0.18, step 0.7, 160 nodes, scheme 123. Reports nodes written per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "fiber/tracking.h"
#include "tools/phantom/phantom.h"

namespace {

struct DataSet {
  PcdDtiData* dti;
  explicit DataSet(const PcdPhantomOptions& o) : dti(PCD_MakeDwiPhantom(o, nullptr)) {}
  ~DataSet() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
};

// perVoxel seeds in each voxel of the block x 20..22, y 62..64, z 28..30, spread by a
// low-discrepancy sequence (the same rule as quorix-batch track).
std::vector<PcdVector3D> BlockSeeds(int perVoxel) {
  constexpr double kAlpha[3] = {0.8191725133961645, 0.6710436067037893, 0.5497004779019703};
  auto frac = [](double v) { return v - std::floor(v); };
  std::vector<PcdVector3D> seeds;
  for (int z = 28; z < 31; ++z)
    for (int y = 62; y < 65; ++y)
      for (int x = 20; x < 23; ++x)
        for (int k = 0; k < perVoxel; ++k)
          seeds.push_back({static_cast<float>(x + frac(0.5 + k * kAlpha[0])),
                           static_cast<float>(y + frac(0.5 + k * kAlpha[1])),
                           static_cast<float>(z + frac(0.5 + k * kAlpha[2]))});
  return seeds;
}

int64_t NodesOf(const PcdFibeTrakBuffer* b) {
  int64_t nodes = 0;
  for (int32_t i = 0; i < b->lineCount; ++i)
    nodes += b->pairs[i]->forward->nodeCount + b->pairs[i]->backward->nodeCount;
  return nodes;
}

// Arguments: seeds per voxel, threads.
void BM_FiberTracking(benchmark::State& state) {
  PcdPhantomOptions o;
  o.sizeX = 128;
  o.sizeY = 128;
  o.sizeZ = 60;
  o.noise = 0.02f;
  DataSet set(o);
  std::vector<PcdVector3D> seeds = BlockSeeds(static_cast<int>(state.range(0)));
  PcdFibeTrakContext context;
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();
  int64_t nodes = 0;
  for (auto _ : state) {
    PcdFibeTrakBuffer* b = PCDdti_FiberTracking(set.dti, &context, static_cast<int>(state.range(1)));
    nodes += NodesOf(b);
    PCDdti_DeleteFibeTrakBuffer(b);
  }
  state.counters["seeds"] = static_cast<double>(seeds.size());
  state.counters["nodes/s"] = benchmark::Counter(static_cast<double>(nodes), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FiberTracking)->Args({37, 1})->Args({37, 2})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
