// The stop criteria of fiber tracking and fiber modeling: the tensor tests that end a line
// at a node, and the position and So tests made before a node's tensor is found.
#pragma once

#include <cstdint>

#include "dti/dti_data.h"
#include "dti/tensor.h"

// The stop criteria: each enabled only when its enable word is exactly 1.
struct PcdDiffusionTensorLimits {
  int32_t useFAmin = 1;
  float FAmin = 0.18f;
  int32_t unusedEnable1 = 0;  // two further pairs that tracking neither sets nor reads
  float unusedValue1 = 0.0f;
  int32_t unusedEnable2 = 0;
  float unusedValue2 = 0.0f;
  int32_t useADCmax = 0;
  float ADCmax = 0.003f;
  int32_t useSoMin = 1;
  float SoMin = 0.0f;
  int32_t useSoMax = 0;
  float SoMax = 900.0f;
  int32_t useAngleMax = 0;
  float AngleMax = 30.0f;
  float cosAngleMax = 0.0f;  // set by the run
};

// Stop tests: 1 = stop.
int check_if_stop_by_values(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l);
int check_if_stop_by_none(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l);
int check_if_stop_by_FA_min(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l);
int check_if_stop_by_ADC_max(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l);
int check_if_stop_by_Angle_max(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l);
// Position tests: 1 = outside / stop.
int check_if_within_volume(const PcdVector3D* c, const PcdIntSize4D* size);
int check_if_stop_by_So_min(float so, const PcdDiffusionTensorLimits* l);
int check_if_stop_by_So_max(float so, const PcdDiffusionTensorLimits* l);
int precheck_by_So(const PcdDtiData* dti, const PcdDiffusionTensorLimits* l, const PcdVector3D* c);
int precheck_by_pos_and_So(const PcdDtiData* dti, const PcdDiffusionTensorLimits* l,
                           const PcdVector3D* c);
