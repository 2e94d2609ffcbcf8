// Fiber tracking on a phantom, in process: seeds in a 3 x 3 x 3 voxel block of the straight
// bundle (20,007 seeds, as in track_compare.sh), FA cutoff 0.18, step 0.7, 160 nodes,
// scheme 123. Reports nodes written per second; the run includes making the voxel-major
// signal copy of the rows it visits. BM_OneSeedRun is the desktop program's case: tracking
// called again and again on the same data set (128 x 128 x 60, 1 So + 64 DWIs), one seed.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/bench_phantom.h"
#include "fiber/tracking.h"
#include "tools/phantom/phantom.h"

namespace {

// perVoxel seeds in each voxel of the block x 20..22, y 62..64, z 28..30, placed as
// quorix-batch track places them.
std::vector<PcdVector3D> BlockSeeds(int perVoxel) {
  std::vector<PcdVector3D> seeds;
  for (int z = 28; z < 31; ++z)
    for (int y = 62; y < 65; ++y)
      for (int x = 20; x < 23; ++x)
        for (int k = 0; k < perVoxel; ++k)
          seeds.push_back(PCDdti_SeedInVoxel(x, y, z, k));
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
  BenchPhantom set(o);
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
BENCHMARK(BM_FiberTracking)->Args({741, 1})->Args({741, 2})->Unit(benchmark::kMillisecond)->UseRealTime();

// One seed in the straight bundle, 4 threads as the study runners ask; every iteration is a
// whole run on a data set that an earlier run has already used.
void BM_OneSeedRun(benchmark::State& state) {
  PcdPhantomOptions o;
  o.sizeX = 128;
  o.sizeY = 128;
  o.sizeZ = 60;
  o.directions = 64;
  o.noise = 0.02f;
  BenchPhantom set(o);
  std::vector<PcdVector3D> seeds = BlockSeeds(1);
  seeds.resize(1);
  PcdFibeTrakContext context;
  context.seedCount = 1;
  context.seedPoints = seeds.data();
  PCDdti_DeleteFibeTrakBuffer(PCDdti_FiberTracking(set.dti, &context, 4));  // the first run
  int64_t nodes = 0;
  for (auto _ : state) {
    PcdFibeTrakBuffer* b = PCDdti_FiberTracking(set.dti, &context, 4);
    nodes += NodesOf(b);
    PCDdti_DeleteFibeTrakBuffer(b);
  }
  state.counters["nodes"] = static_cast<double>(nodes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_OneSeedRun)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
