#include "dti/channels.h"

#include "dti/dti_check.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

int16_t PCDdti_MapValueToSINT16(float value) {
  const double v = value;
  if (!(v > -2147483649.0 && v < 2147483648.0)) return 0;  // 0x80000000 keeps 0 below
  return static_cast<int16_t>(static_cast<uint32_t>(static_cast<int32_t>(v)) & 0xFFFFu);
}

bool PCD_StartThread(std::vector<std::thread>* threads, void* (*entry)(void*), void* argument) {
  try {
    threads->emplace_back(entry, argument);
    return true;
  } catch (const std::system_error& error) {
    std::fprintf(stderr, "Warning: thread creation err (%d)\n", error.code().value());
    return false;
  }
}

int32_t distribute_objects_to_threads_optimally(int32_t n, int32_t t, int32_t* counts) {
  for (int32_t i = 0; i < t; ++i) counts[i] = 0;
  if (n <= t) {
    for (int32_t i = 0; i < n; ++i) counts[i] = 1;
    return n;
  }
  int32_t q = n / t;
  if (q * t == n) {
    for (int32_t i = 0; i < t; ++i) counts[i] = q;
    return t;
  }
  ++q;  // the chunk size, ceil(n / t)
  if (n % q == 0) {
    const int32_t k = n / q;
    for (int32_t i = 0; i < k; ++i) counts[i] = q;
    return k;
  }
  const int32_t k = n / q + 1;
  int32_t surplus = q * k - n;
  for (int32_t i = k - 1; i >= 0; --i) {
    counts[i] = surplus > 0 ? q - 1 : q;
    if (surplus > 0) --surplus;
  }
  return k;
}

namespace {

// Truncation of a double to an unsigned 32-bit value as the processor does it through
// a 64-bit conversion: NaN gives 0.
uint32_t TruncateToUnsigned(double v) {
  if (!(v > -1.0 && v < 4294967296.0)) return 0;
  return static_cast<uint32_t>(v);
}

}  // namespace

void get_directional_color(const PcdDiffusionTensorData* record, uint32_t* red,
                           uint32_t* green, uint32_t* blue, uint32_t* alpha) {
  float w = (PCDdti_GetFA(record) - 0.15f) * 2.0f;
  if (w > 1.0f) w = 1.0f;
  else if (w < 0.0f) w = 0.0f;
  PcdVector3D v{record->tensor[1][3], record->tensor[2][3], record->tensor[3][3]};
  PCD_NormalizeVector3D(&v);
  *red = TruncateToUnsigned(std::fabs(v.x) * static_cast<double>(w) * 255.0);
  *green = TruncateToUnsigned(std::fabs(v.y) * static_cast<double>(w) * 255.0);
  *blue = TruncateToUnsigned(std::fabs(v.z) * static_cast<double>(w) * 255.0);
  *alpha = TruncateToUnsigned(w * 255.0f);
}

namespace {

// The four values of one voxel from its diagonalised tensor.
void WriteVoxelMaps(PcdChannelWork* work, const PcdDiffusionTensorData* record, size_t at,
                    int16_t s) {
  const float adc = PCDdti_GetADC(record);
  const float fa = PCDdti_GetFA(record);
  uint32_t r, g, b, a;
  get_directional_color(record, &r, &g, &b, &a);
  work->colorOut[at] = r * 16777216u + g * 65536u + b * 256u + a;
  work->faOut[at] = PCDdti_MapValueToSINT16(fa * 1000.0f);
  work->adcOut[at] = PCDdti_MapValueToSINT16(adc * 1000000.0f);
  work->isotropicOut[at] =
      PCDdti_MapValueToSINT16(std::exp(-adc * work->bValue) * static_cast<float>(s));
}

void ClearVoxelMaps(PcdChannelWork* work, size_t at) {
  work->colorOut[at] = 0;
  work->faOut[at] = work->adcOut[at] = work->isotropicOut[at] = 0;
}

// One row voxel by voxel, each estimate on its own (and reporting its own failure).
void ComputeRowByVoxel(PcdChannelWork* work, PcdDiffusionTensorData* record, int32_t y,
                       int32_t z, size_t at) {
  for (int32_t x = 0; x < work->sizeX; ++x, ++at) {
    const int16_t s = work->soSignal[at];
    const PcdIntVector3D voxel{x, y, z};
    if (s <= work->threshold ||
        PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(work->dti, record, &voxel) == 0)
      ClearVoxelMaps(work, at);
    else
      WriteVoxelMaps(work, record, at, s);
  }
}

// One row in batches of the voxels above the threshold: the same values as voxel by
// voxel, with the signals read row-wise from each channel block.
void ComputeRowByBatch(PcdChannelWork* work, PcdDiffusionTensorData* record,
                       PcdTensorBatch* batch, size_t rowStart) {
  auto select = [&](int32_t x) {
    const size_t at = rowStart + static_cast<size_t>(x);
    if (work->soSignal[at] > work->threshold) return true;
    ClearVoxelMaps(work, at);
    return false;
  };
  auto take = [&](int32_t x) {
    const size_t at = rowStart + static_cast<size_t>(x);
    WriteVoxelMaps(work, record, at, work->soSignal[at]);
  };
  PCDdti_FitRowInTensorBatches(work->dti, record, batch, rowStart, work->sizeX, select, take);
}

}  // namespace

void* threaded_channel_computation(void* argument) {
  auto* work = static_cast<PcdChannelWork*>(argument);
  const PcdDtiData* dti = work->dti;
  PcdDiffusionTensorData* record =
      PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  if (record == nullptr) {
    std::fputs("insufficient memory\n", stderr);
    // the slab stays zero; it counts as done so that the progress line can end
    work->slicesDone.store(work->lastSlice - work->firstSlice + 1, std::memory_order_relaxed);
    return nullptr;
  }
  // the batches need the pseudo-inverse up front; without one every voxel reports
  const bool batched = PCDdti_PreparePseudoInverse(dti, record);
  PcdTensorBatch batch;
  if (batched) PCDdti_ResizeTensorBatch(dti, &batch);
  const size_t plane = static_cast<size_t>(work->sizeX) * work->sizeY;
  for (int32_t z = work->firstSlice; z <= work->lastSlice; ++z) {
    for (int32_t y = 0; y < work->sizeY; ++y) {
      const size_t rowStart = static_cast<size_t>(z) * plane + static_cast<size_t>(y) * work->sizeX;
      if (batched)
        ComputeRowByBatch(work, record, &batch, rowStart);
      else
        ComputeRowByVoxel(work, record, y, z, rowStart);
    }
    work->slicesDone.store(z - work->firstSlice + 1, std::memory_order_relaxed);
  }
  PCDdti_DeleteDiffusionTensorData(record);
  return nullptr;
}

void* check_completion_for_channel_computation(void* argument) {
  auto* works = static_cast<PcdChannelWork*>(argument);
  const int32_t total = works[0].totalSlices;
  if (total <= 0) return nullptr;
  for (;;) {
    int32_t done = 0;
    for (int32_t i = 0; i < works[0].threadCount; ++i)
      done += works[i].slicesDone.load(std::memory_order_relaxed);
    const float percent = static_cast<float>(done) / static_cast<float>(total) * 100.0f;
    std::fprintf(stderr, "\rAdditional channels computation %d%% completed",
                 static_cast<int>(percent));
    if (done >= total) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return nullptr;
}

namespace {

struct VolumeDeleter {
  void operator()(PcdRawVolumeData* v) const { PCD_DeleteRawVolumeData(v); }
};
using OwnedVolume = std::unique_ptr<PcdRawVolumeData, VolumeDeleter>;

}  // namespace

int PCDdti_AddComputationalChannels(PcdDtiData* dti, int16_t threshold, int32_t maxThreads) {
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_AT_VOXELS)) return 0;
  PcdRawVolumeData* volume = dti->volume;
  const PcdIntSize3D size{volume->matrixSize->x, volume->matrixSize->y, volume->matrixSize->z};
  OwnedVolume outputs[4] = {
      OwnedVolume(PCD_NewSingleChannelRawVolumeData(&size, UINT32, PCD_RGBA_PACKED)),
      OwnedVolume(PCD_NewSingleChannelRawVolumeData(&size, SINT16, PCD_MONOCHROME)),
      OwnedVolume(PCD_NewSingleChannelRawVolumeData(&size, SINT16, PCD_MONOCHROME)),
      OwnedVolume(PCD_NewSingleChannelRawVolumeData(&size, SINT16, PCD_MONOCHROME))};
  for (const OwnedVolume& v : outputs)
    if (!v) return 0;

  if (maxThreads < 1) maxThreads = 1;
  std::vector<int32_t> counts(static_cast<size_t>(maxThreads));
  const int32_t threads = distribute_objects_to_threads_optimally(size.z, maxThreads, counts.data());
  std::unique_ptr<PcdChannelWork[]> works(new PcdChannelWork[static_cast<size_t>(std::max(threads, 1))]);
  std::vector<std::thread> running;
  int32_t first = 0;
  for (int32_t i = 0; i < threads; ++i) {
    PcdChannelWork& w = works[i];
    w.dti = dti;
    w.sizeX = size.x;
    w.sizeY = size.y;
    w.sizeZ = size.z;
    w.soSignal = static_cast<const int16_t*>(volume->data[0]);
    w.colorOut = static_cast<uint32_t*>(outputs[0]->data[0]);
    w.faOut = static_cast<int16_t*>(outputs[1]->data[0]);
    w.adcOut = static_cast<int16_t*>(outputs[2]->data[0]);
    w.isotropicOut = static_cast<int16_t*>(outputs[3]->data[0]);
    w.firstSlice = first;
    w.lastSlice = first + counts[static_cast<size_t>(i)] - 1;
    w.threadCount = threads;
    w.totalSlices = size.z;
    w.threshold = threshold;
    w.bValue = PCDdti_GetUniformBvalueOfDTI(dti);
    first += counts[static_cast<size_t>(i)];
  }
  bool allStarted = true;
  for (int32_t i = 0; i < threads; ++i)
    allStarted = PCD_StartThread(&running, threaded_channel_computation, &works[i]) && allStarted;
  // a slab whose thread never ran would keep the progress line waiting for ever
  if (threads > 1 && allStarted) PCD_StartThread(&running, check_completion_for_channel_computation, works.get());
  for (std::thread& t : running) t.join();
  std::fputs("\n", stderr);

  for (OwnedVolume& v : outputs) PCD_AddNewChannelOfRawVolumeData(volume, v.get(), 0);
  return 4;
}
