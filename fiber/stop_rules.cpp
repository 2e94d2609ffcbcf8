#include "fiber/stop_rules.h"

// ---- stop tests ------------------------------------------------------------------------

int check_if_stop_by_FA_min(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  return PCDdti_GetFA(t) < l->FAmin ? 1 : 0;
}

int check_if_stop_by_ADC_max(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  return PCDdti_GetADC(t) > l->ADCmax ? 1 : 0;
}

int check_if_stop_by_Angle_max(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  return t->turningAngle < l->cosAngleMax ? 1 : 0;
}

int check_if_stop_by_values(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  if (l->useFAmin == 1 && check_if_stop_by_FA_min(t, l)) return 1;
  if (l->useADCmax == 1 && check_if_stop_by_ADC_max(t, l)) return 1;
  if (l->useAngleMax == 1 && check_if_stop_by_Angle_max(t, l)) return 1;
  return 0;
}

int check_if_stop_by_none(const PcdDiffusionTensorData*, const PcdDiffusionTensorLimits*) { return 0; }

// ---- position tests --------------------------------------------------------------------

// Truncation toward zero makes a coordinate in (-1, 0) count as inside.
int check_if_within_volume(const PcdVector3D* c, const PcdIntSize4D* size) {
  auto inside = [](float v, int32_t n) {
    return v > -1.0f && v < static_cast<float>(n) && static_cast<int32_t>(v) < n;
  };
  return inside(c->x, size->x) && inside(c->y, size->y) && inside(c->z, size->z) ? 0 : 1;
}

int check_if_stop_by_So_min(float so, const PcdDiffusionTensorLimits* l) {
  return l->useSoMin == 1 && so < l->SoMin ? 1 : 0;
}

int check_if_stop_by_So_max(float so, const PcdDiffusionTensorLimits* l) {
  return l->useSoMax == 1 && so > l->SoMax ? 1 : 0;
}

int precheck_by_So(const PcdDtiData* dti, const PcdDiffusionTensorLimits* l, const PcdVector3D* c) {
  if (l->useSoMin != 1 && l->useSoMax != 1) return 0;
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const auto so = static_cast<float>(
      PCD_GetValueOf3DArraySINT16i(dti->volume->array3D[0], s.x, s.y, s.z, c->x, c->y, c->z));
  return check_if_stop_by_So_min(so, l) || check_if_stop_by_So_max(so, l) ? 1 : 0;
}

int precheck_by_pos_and_So(const PcdDtiData* dti, const PcdDiffusionTensorLimits* l,
                           const PcdVector3D* c) {
  if (check_if_within_volume(c, dti->volume->matrixSize)) return 1;
  return precheck_by_So(dti, l, c);
}
