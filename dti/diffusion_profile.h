// The computing half of the diffusion profile study: the tensor at each sample point of
// a region, filtered by optional FA, ADC and So ranges, handed to a drawing function, and
// a three-line summary.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "dti/dti_data.h"
#include "dti/tensor.h"

// A range is applied only when both of its flags are 1; one flag alone filters nothing.
// An applied range keeps values within its bounds, bounds included.
struct PcdDifProfContext {
  int32_t FAcheckA = 0;
  float FAmin = 0.0f;
  int32_t FAcheckB = 0;
  float FAmax = 0.0f;
  int32_t ADCcheckA = 0;
  float ADCmin = 0.0f;  // mm^2/s
  int32_t ADCcheckB = 0;
  float ADCmax = 0.0f;
  int32_t SocheckA = 0;
  float SoMin = 0.0f;
  int32_t SocheckB = 0;
  float SoMax = 0.0f;
  int32_t pointCount = 0;
  const PcdVector3D* points = nullptr;  // pointCount positions in voxel units
};

// Called once per accepted point, in the order of the points, on the calling thread; the
// record is diagonalised and valid only during the call.
using PcdDifProfDrawFunction =
    std::function<void(const PcdVector3D* point, const PcdDiffusionTensorData* tensor)>;

// Estimates and diagonalises the tensor at every point (signals interpolated), draws the
// points that pass the ranges and writes "Symbols: D/N (P% displayed)", "mean FA" and
// "mean ADC(x1k)" into text (at most textSize bytes, always terminated). A point whose
// estimate fails is neither drawn nor rejected, so it counts as displayed. Without a
// ready data set ("DTI data NOT ready"), a tensor record ("insufficient memory") or a
// drawing function ("Func ptr for graphics NULL") nothing is drawn and text is left as
// it was.
void PCDdti_DiffusionProfileDisplay(const PcdDtiData* dti, const PcdDifProfContext* context,
                                    const PcdDifProfDrawFunction& draw, char* text,
                                    size_t textSize);

// The same through the plain per-point estimate; kept to show that both give the same
// drawing calls and text.
void PCDdti_DiffusionProfileDisplayPointByPoint(const PcdDtiData* dti,
                                                const PcdDifProfContext* context,
                                                const PcdDifProfDrawFunction& draw, char* text,
                                                size_t textSize);

// Moves points that lie outside the volume's samples (a spread of points per voxel at its
// edges) onto the nearest sample plane: reads there interpolate instead of extrapolating.
void PCDdti_KeepPointsInsideVolume(std::vector<PcdVector3D>* points, const PcdIntSize3D& size);
