// Small vector and size records and 3-vector arithmetic.
#include <cmath>
#include <cstdlib>

#include "vol/raw_volume.h"

namespace {
template <typename T, typename... Args>
T* NewRecord(Args... values) {
  auto* r = static_cast<T*>(std::malloc(sizeof(T)));
  if (r != nullptr) *r = T{values...};
  return r;
}
}  // namespace

PcdVector2D* PCD_NewVector2D(float x, float y) { return NewRecord<PcdVector2D>(x, y); }
PcdVector3D* PCD_NewVector3D(float x, float y, float z) {
  return NewRecord<PcdVector3D>(x, y, z);
}
PcdIntSize3D* PCD_NewIntSize3D(int32_t x, int32_t y, int32_t z) {
  return NewRecord<PcdIntSize3D>(x, y, z);
}
PcdIntVector3D* PCD_NewIntVector3D(int32_t x, int32_t y, int32_t z) {
  return NewRecord<PcdIntVector3D>(x, y, z);
}
PcdIntSize4D* PCD_NewIntSize4D(int32_t x, int32_t y, int32_t z, int32_t channels) {
  return NewRecord<PcdIntSize4D>(x, y, z, channels);
}
void PCD_DeleteVector2D(PcdVector2D* v) { std::free(v); }
void PCD_DeleteVector3D(PcdVector3D* v) { std::free(v); }
void PCD_DeleteIntSize3D(PcdIntSize3D* v) { std::free(v); }
void PCD_DeleteIntVector3D(PcdIntVector3D* v) { std::free(v); }
void PCD_DeleteIntSize4D(PcdIntSize4D* v) { std::free(v); }

double PCD_InnerProduct3D(const PcdVector3D* a, const PcdVector3D* b) {
  return static_cast<double>(a->x) * b->x + static_cast<double>(a->y) * b->y +
         static_cast<double>(a->z) * b->z;
}

void PCD_OuterProduct3D(const PcdVector3D* a, const PcdVector3D* b, PcdVector3D* result) {
  const PcdVector3D r{a->y * b->z - a->z * b->y, a->z * b->x - a->x * b->z,
                      a->x * b->y - a->y * b->x};
  *result = r;  // result may be a or b
}

double PCD_VectorLength3D(const PcdVector3D* v) {
  return std::sqrt(static_cast<double>(v->x) * v->x + static_cast<double>(v->y) * v->y +
                   static_cast<double>(v->z) * v->z);
}

double PCD_NormalizeVector3D(PcdVector3D* v) {
  const double length = PCD_VectorLength3D(v);
  if (length == 0.0) return length;
  const double inv = 1.0 / length;
  v->x = static_cast<float>(v->x * inv);
  v->y = static_cast<float>(v->y * inv);
  v->z = static_cast<float>(v->z * inv);
  return length;
}
