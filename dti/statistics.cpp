#include "dti/statistics.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "dti/dti_check.h"
#include "dti/tensor.h"
#include "vol/binary_volume.h"

namespace {

struct RecordDeleter {
  void operator()(PcdDiffusionTensorData* r) const { PCDdti_DeleteDiffusionTensorData(r); }
};
using OwnedRecord = std::unique_ptr<PcdDiffusionTensorData, RecordDeleter>;

// The six quantities of a diagonalised record, widened to double, in the record's order.
struct Quantities {
  double v[6];
};

Quantities QuantitiesOf(const PcdDiffusionTensorData* r) {
  return {{PCDdti_GetSo(r), PCDdti_GetFA(r), PCDdti_GetADC(r), PCDdti_GetLambda1(r),
           PCDdti_GetLambda2(r), PCDdti_GetLambda3(r)}};
}

// The four fields of quantity k: min, max, mean (the sum while accumulating) and SD (the
// sum of squares).
std::array<double*, 4> FieldsOf(PcdDiffusionTensorStatistics* s, int k) {
  switch (k) {
    case 0: return {&s->SoMin, &s->SoMax, &s->SoMean, &s->SoSD};
    case 1: return {&s->FAmin, &s->FAmax, &s->FAmean, &s->FAsd};
    case 2: return {&s->ADCmin, &s->ADCmax, &s->ADCmean, &s->ADCsd};
    case 3: return {&s->L1min, &s->L1max, &s->L1mean, &s->L1sd};
    case 4: return {&s->L2min, &s->L2max, &s->L2mean, &s->L2sd};
    default: return {&s->L3min, &s->L3max, &s->L3mean, &s->L3sd};
  }
}

// Takes one mask voxel whose tensor the record holds (valid or not).
void AddVoxel(PcdDiffusionTensorStatistics* s, const PcdDiffusionTensorData* r) {
  if (PCDdti_CheckDiffusionTensorIsValid(r) == 1) {
    const Quantities q = QuantitiesOf(r);
    for (int k = 0; k < 6; ++k) {
      const std::array<double*, 4> f = FieldsOf(s, k);
      const double value = q.v[k];
      if (s->validCount == 0) {
        *f[0] = *f[1] = value;
      } else if (value > *f[1]) {
        *f[1] = value;
      } else if (value < *f[0]) {
        *f[0] = value;
      }
      *f[2] += value;
      *f[3] += value * value;
    }
    ++s->validCount;
  }
  ++s->voxelCount;
}

void Finish(PcdDiffusionTensorStatistics* s) {
  if (s->validCount == 0) return;
  const double k = 1.0 / s->validCount;
  for (int q = 0; q < 6; ++q) {
    const std::array<double*, 4> f = FieldsOf(s, q);
    *f[2] = *f[2] * k;
    *f[3] = std::sqrt(*f[3] * k - *f[2] * *f[2]);
  }
}

void PrintProgress(int32_t z, int32_t sizeZ) {
  const float percent = static_cast<float>(z) / static_cast<float>(sizeZ) * 100.0f;
  std::fprintf(stderr, "\rComputation %d%% completed ...", static_cast<int>(percent));
}

// The checks and allocations both paths share: null (with its line) when anything fails.
PcdDiffusionTensorStatistics* Begin(const PcdDtiData* dti, const PcdRawVolumeData* mask,
                                    OwnedRecord* record) {
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_AT_VOXELS)) return nullptr;
  const std::string problem = PCD_FindMaskProblem(mask, *dti->volume->matrixSize);
  if (!problem.empty()) {
    std::fputs(problem.c_str(), stderr);
    return nullptr;
  }
  record->reset(PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount));
  auto* s = static_cast<PcdDiffusionTensorStatistics*>(
      std::calloc(1, sizeof(PcdDiffusionTensorStatistics)));
  if (!*record || s == nullptr) {
    std::fputs("insufficient memory\n", stderr);
    std::free(s);
    return nullptr;
  }
  return s;
}

// One row's mask voxels, side by side in batches; each goes into the record and the
// statistics in x order, as the voxel-by-voxel path takes them.
void AddRowByBatch(const PcdDtiData* dti, const uint8_t* maskRow, size_t rowStart, int32_t sizeX,
                   PcdDiffusionTensorData* record, PcdTensorBatch* batch,
                   PcdDiffusionTensorStatistics* s) {
  PCDdti_FitRowInTensorBatches(
      dti, record, batch, rowStart, sizeX, [&](int32_t x) { return maskRow[x] == 1; },
      [&](int32_t) { AddVoxel(s, record); });
}

void AddRowByVoxel(const PcdDtiData* dti, const uint8_t* maskRow, int32_t y, int32_t z,
                   int32_t sizeX, PcdDiffusionTensorData* record,
                   PcdDiffusionTensorStatistics* s) {
  for (int32_t x = 0; x < sizeX; ++x) {
    if (maskRow[x] != 1) continue;
    const PcdIntVector3D voxel{x, y, z};
    // a failed estimate leaves the previous voxel's tensor, which is judged in its place
    PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, record, &voxel);
    AddVoxel(s, record);
  }
}

PcdDiffusionTensorStatistics* Statistics(const PcdDtiData* dti, const PcdRawVolumeData* mask,
                                         bool allowBatches) {
  OwnedRecord record;
  PcdDiffusionTensorStatistics* s = Begin(dti, mask, &record);
  if (s == nullptr) return nullptr;
  // Side by side only with the pseudo-inverse at hand: without it every estimate fails
  // and reports, voxel by voxel.
  const bool batched = allowBatches && PCDdti_PreparePseudoInverse(dti, record.get());
  PcdTensorBatch batch;
  if (batched) PCDdti_ResizeTensorBatch(dti, &batch);
  const PcdIntSize4D& size = *dti->volume->matrixSize;
  const auto* maskData = static_cast<const uint8_t*>(mask->data[0]);
  for (int32_t z = 0; z < size.z; ++z) {
    for (int32_t y = 0; y < size.y; ++y) {
      const size_t rowStart =
          (static_cast<size_t>(z) * static_cast<size_t>(size.y) + static_cast<size_t>(y)) *
          static_cast<size_t>(size.x);
      if (batched)
        AddRowByBatch(dti, maskData + rowStart, rowStart, size.x, record.get(), &batch, s);
      else
        AddRowByVoxel(dti, maskData + rowStart, y, z, size.x, record.get(), s);
    }
    PrintProgress(z, size.z);
  }
  std::fputs("\rDone.                             \n", stderr);
  Finish(s);
  return s;
}

}  // namespace

PcdDiffusionTensorStatistics* PCDdti_GetDiffusionTensorStatistics(const PcdDtiData* dti,
                                                                  const PcdRawVolumeData* mask,
                                                                  int, char*) {
  return Statistics(dti, mask, true);
}

PcdDiffusionTensorStatistics* PCDdti_GetDiffusionTensorStatisticsVoxelByVoxel(
    const PcdDtiData* dti, const PcdRawVolumeData* mask) {
  return Statistics(dti, mask, false);
}

std::string PCDdti_FormatDiffusionTensorStatistics(const PcdDiffusionTensorStatistics* s) {
  char line[256];
  std::string text;
  std::snprintf(line, sizeof line, "Tensors: %d\n", s->voxelCount);
  text += line;
  std::snprintf(line, sizeof line, "Valid Tensors: %d\n", static_cast<int>(s->validCount));
  text += line;
  if (s->validCount == 0) return text + "No valid voxels.\n";
  text += "Statistics: min. - max. (mean/stdev.)\n";
  const char* formats[6] = {
      "  So: %3.2f - %3.2f (%3.2f/%3.2f)\n",        "  FA:  %3.2f - %3.2f (%3.2f/%3.2f)\n",
      "  ADC(x1k): %3.2f - %3.2f (%3.2f/%3.2f)\n",  "  L1(x1k):    %3.2f - %3.2f (%3.2f/%3.2f)\n",
      "  L2(x1k):    %3.2f - %3.2f (%3.2f/%3.2f)\n", "  L3(x1k):    %3.2f - %3.2f (%3.2f/%3.2f)\n",
  };
  auto* fields = const_cast<PcdDiffusionTensorStatistics*>(s);  // read only
  for (int k = 0; k < 6; ++k) {
    const std::array<double*, 4> f = FieldsOf(fields, k);
    const double scale = k >= 2 ? 1000.0 : 1.0;  // ADC and eigenvalues in 10^-3 mm^2/s
    std::snprintf(line, sizeof line, formats[k], *f[0] * scale, *f[1] * scale, *f[2] * scale,
                  *f[3] * scale);
    text += line;
  }
  return text;
}
