// Tensor fitting and the computed channels on a phantom, in process.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "dti/channels.h"
#include "dti/tensor.h"
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

PcdPhantomOptions Options(int x, int y, int z) {
  PcdPhantomOptions o;
  o.sizeX = x;
  o.sizeY = y;
  o.sizeZ = z;
  o.noise = 0.02f;
  return o;
}

// One voxel: estimate and diagonalise with a record that keeps its pseudo-inverse.
void BM_TensorAtVoxel(benchmark::State& state) {
  DataSet set(Options(16, 16, 4));
  PcdDiffusionTensorData* r =
      PCDdti_NewDiffusionTensorData(set.dti->channelCount, set.dti->soCount);
  const PcdIntVector3D v{8, 8, 2};
  for (auto _ : state) {
    PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(set.dti, r, &v);
    benchmark::DoNotOptimize(r->eigenvalues[3]);
  }
  PCDdti_DeleteDiffusionTensorData(r);
}
BENCHMARK(BM_TensorAtVoxel);

// The four maps of a 128 x 128 x 60 phantom with 1 So + 30 DWIs.
void BM_ComputationalChannels(benchmark::State& state) {
  DataSet set(Options(128, 128, 60));
  const int32_t channels = set.dti->volume->matrixSize->channels;
  for (auto _ : state) {
    state.PauseTiming();
    PcdRawVolumeData* original = set.dti->volume;
    PcdRawVolumeData* copy = PCD_DuplicateRawVolumeData(original);
    set.dti->volume = copy;
    state.ResumeTiming();
    PCDdti_AddComputationalChannels(set.dti, 0, static_cast<int32_t>(state.range(0)));
    state.PauseTiming();
    set.dti->volume = original;
    PCD_DeleteRawVolumeData(copy);
    state.ResumeTiming();
  }
  state.counters["channels"] = channels;
}
BENCHMARK(BM_ComputationalChannels)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
