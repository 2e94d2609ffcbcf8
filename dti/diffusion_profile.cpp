#include "dti/diffusion_profile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "dti/dti_check.h"

namespace {

struct RecordDeleter {
  void operator()(PcdDiffusionTensorData* r) const { PCDdti_DeleteDiffusionTensorData(r); }
};
using OwnedRecord = std::unique_ptr<PcdDiffusionTensorData, RecordDeleter>;

bool Applies(int32_t a, int32_t b) { return a == 1 && b == 1; }

// The running totals of one display.
struct Tally {
  int32_t rejected = 0;
  int32_t finite = 0;  // displayed points whose FA and ADC are numbers: the means' count
  float faSum = 0.0f, adcSum = 0.0f;
};

// Filters one point whose tensor the record holds, draws it when accepted.
void TakePoint(const PcdDifProfContext* c, const PcdVector3D* point,
               const PcdDiffusionTensorData* r, const PcdDifProfDrawFunction& draw, Tally* t) {
  const float fa = PCDdti_GetFA(r), adc = PCDdti_GetADC(r), so = PCDdti_GetSo(r);
  bool accept = true;
  if (Applies(c->FAcheckA, c->FAcheckB) && (fa < c->FAmin || fa > c->FAmax)) accept = false;
  if (Applies(c->ADCcheckA, c->ADCcheckB) && (adc < c->ADCmin || adc > c->ADCmax)) accept = false;
  if (Applies(c->SocheckA, c->SocheckB) && (so < c->SoMin || so > c->SoMax)) accept = false;
  if (accept) {
    draw(point, r);
    if (std::isfinite(fa) && std::isfinite(adc)) {
      t->faSum += fa;
      t->adcSum += adc;
      ++t->finite;
    }
  } else {
    ++t->rejected;
  }
}

void WriteSummary(int32_t count, const Tally& t, char* text, size_t textSize) {
  const int32_t displayed = count - t.rejected;
  float meanFa = 0.0f, meanAdc = 0.0f;
  if (t.finite != 0) {
    const float k = 1.0f / static_cast<float>(t.finite);
    meanFa = t.faSum * k;
    meanAdc = t.adcSum * k;
  }
  // 0 of 0 points is shown as 0 %: the float quotient is undefined there
  const int percent =
      count == 0 ? 0
                 : static_cast<int>(static_cast<float>(displayed) / static_cast<float>(count) * 100.0f);
  if (text != nullptr && textSize > 0)
    std::snprintf(text, textSize,
                  "Symbols: %d/%d (%d%% displayed)\n    mean FA: %3.4f\n    mean ADC(x1k): %4.4f",
                  displayed, count, percent, static_cast<double>(meanFa),
                  static_cast<double>(meanAdc * 1000.0f));
}

void PointByPoint(const PcdDtiData* dti, const PcdDifProfContext* c,
                  PcdDiffusionTensorData* record, const PcdDifProfDrawFunction& draw, Tally* t) {
  for (int32_t i = 0; i < c->pointCount; ++i) {
    // a failed estimate skips the point without rejecting it
    if (PCDdti_CalcAndDiagnalizeDiffusionTensor(dti, record, &c->points[i]) == 0) continue;
    TakePoint(c, &c->points[i], record, draw, t);
  }
}

// The points side by side in batches (the record holds the pseudo-inverse, so no
// estimate fails); each goes through the record in order, as point by point.
void InBatches(const PcdDtiData* dti, const PcdDifProfContext* c, PcdDiffusionTensorData* record,
               const PcdDifProfDrawFunction& draw, Tally* t) {
  PcdTensorBatch batch;
  PCDdti_ResizeTensorBatch(dti, &batch);
  for (int32_t first = 0; first < c->pointCount; first += kPcdTensorLanes) {
    batch.count = std::min(c->pointCount - first, kPcdTensorLanes);
    for (int32_t v = 0; v < batch.count; ++v)
      PCDdti_InterpolateIntoTensorBatch(dti, nullptr, &c->points[first + v], &batch, v);
    PCDdti_EstimateTensorBatch(dti, record, &batch);
    PCDdti_DiagonalizeTensorBatch(&batch);
    for (int32_t v = 0; v < batch.count; ++v) {
      PCDdti_TakeDiagonalizedFromTensorBatch(&batch, v, record);
      TakePoint(c, &c->points[first + v], record, draw, t);
    }
  }
}

void Display(const PcdDtiData* dti, const PcdDifProfContext* c, const PcdDifProfDrawFunction& draw,
             char* text, size_t textSize, bool batched) {
  if (dti == nullptr || dti->isReady != 1) {
    std::fputs("DTI data NOT ready\n", stderr);
    return;
  }
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_INTERPOLATED)) return;
  if (c == nullptr || c->pointCount < 0 || (c->pointCount > 0 && c->points == nullptr)) {
    std::fputs("Err: the diffusion profile has no valid list of points\n", stderr);
    return;
  }
  OwnedRecord record(PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount));
  if (!record) {
    std::fputs("insufficient memory\n", stderr);
    return;
  }
  if (!draw) {
    std::fputs("Func ptr for graphics NULL\n", stderr);
    return;
  }
  Tally t;
  if (batched && PCDdti_PreparePseudoInverse(dti, record.get()))
    InBatches(dti, c, record.get(), draw, &t);
  else
    PointByPoint(dti, c, record.get(), draw, &t);
  WriteSummary(c->pointCount, t, text, textSize);
}

}  // namespace

void PCDdti_DiffusionProfileDisplay(const PcdDtiData* dti, const PcdDifProfContext* context,
                                    const PcdDifProfDrawFunction& draw, char* text,
                                    size_t textSize) {
  Display(dti, context, draw, text, textSize, true);
}

void PCDdti_DiffusionProfileDisplayPointByPoint(const PcdDtiData* dti,
                                                const PcdDifProfContext* context,
                                                const PcdDifProfDrawFunction& draw, char* text,
                                                size_t textSize) {
  Display(dti, context, draw, text, textSize, false);
}

void PCDdti_KeepPointsInsideVolume(std::vector<PcdVector3D>* points, const PcdIntSize3D& size) {
  if (points == nullptr || size.x < 1 || size.y < 1 || size.z < 1) return;
  const float hx = static_cast<float>(size.x - 1), hy = static_cast<float>(size.y - 1),
              hz = static_cast<float>(size.z - 1);
  for (PcdVector3D& p : *points) p = {std::clamp(p.x, 0.0f, hx), std::clamp(p.y, 0.0f, hy), std::clamp(p.z, 0.0f, hz)};
}
