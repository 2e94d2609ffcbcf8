#include "fiber/rbf.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define PCD_RBF_HAVE_AVX2_PATH 1
#endif

// ---- basis functions ---------------------------------------------------------------------

float multi_quadric_function(float r, float c) {
  return static_cast<float>(std::sqrt(static_cast<double>(r * r + c * c)));
}
float multi_quadric_derivative(float r, float c) { return 1.0f / multi_quadric_function(r, c); }

float thin_plate_spline_function(float r, float) {
  if (r == 0.0f) return 0.0f;
  return r * r * static_cast<float>(std::log(static_cast<double>(r)));
}
float thin_plate_spline_derivative(float r, float) {
  if (r == 0.0f) return 0.0f;
  return 2.0f * static_cast<float>(std::log(static_cast<double>(r))) + 1.0f;
}

float tri_harmonic_function(float r, float) { return r * r * r; }
float tri_harmonic_derivative(float r, float) { return 3.0f * r; }

float gaussian_function(float r, float c) {
  return static_cast<float>(std::exp(static_cast<double>(-c * (r * r))));
}
float gaussian_derivative(float r, float c) { return -2.0f * c * gaussian_function(r, c); }

float bi_harmonic_function(float r, float) { return r; }
float bi_harmonic_derivative(float r, float) { return 1.0f / r; }

namespace {

void choose_basis(int kind, PcdRbfFunction* phi, PcdRbfFunction* derivative) {
  switch (kind) {
    case PCD_RBF_MULTI_QUADRIC:
      *phi = multi_quadric_function, *derivative = multi_quadric_derivative;
      break;
    case PCD_RBF_THIN_PLATE_SPLINE:
      *phi = thin_plate_spline_function, *derivative = thin_plate_spline_derivative;
      break;
    case PCD_RBF_TRI_HARMONIC:
      *phi = tri_harmonic_function, *derivative = tri_harmonic_derivative;
      break;
    case PCD_RBF_GAUSSIAN:
      *phi = gaussian_function, *derivative = gaussian_derivative;
      break;
    default:
      *phi = bi_harmonic_function, *derivative = bi_harmonic_derivative;
      break;
  }
}

// The distance of two points: the float sum of squared differences, its square root in
// double rounded back to float.
inline float distance3(float ax, float ay, float az, float bx, float by, float bz) {
  const float dx = ax - bx, dy = ay - by, dz = az - bz;
  return static_cast<float>(std::sqrt(static_cast<double>(dx * dx + dy * dy + dz * dz)));
}

inline float distance2(float ax, float ay, float bx, float by) {
  const float dx = ax - bx, dy = ay - by;
  return static_cast<float>(std::sqrt(static_cast<double>(dx * dx + dy * dy)));
}

// The n point records of a solution, each at the origin; null when one cannot be had.
template <typename Point>
Point** new_points(int n) {
  auto** points = static_cast<Point**>(std::calloc(static_cast<size_t>(n), sizeof(Point*)));
  if (points == nullptr) return nullptr;
  for (int i = 0; i < n; ++i) {
    points[i] = static_cast<Point*>(std::calloc(1, sizeof(Point)));
    if (points[i] == nullptr) return nullptr;
  }
  return points;
}

template <typename Point>
void delete_points(Point** points, int n) {
  if (points == nullptr) return;
  for (int i = 0; i < n; ++i) std::free(points[i]);
  std::free(points);
}

// Creation shared by both dimensions; d is 2 or 3.
template <typename Solution, typename Point>
Solution* new_solution(int n, int kind, int d) {
  if (n < 1 || n > 46000) return nullptr;  // beyond that (n + 4)^2 overflows the matrix size
  auto* s = static_cast<Solution*>(std::calloc(1, sizeof(Solution)));
  if (s == nullptr) return nullptr;
  s->n = n;
  s->kind = kind;
  choose_basis(kind, &s->phi, &s->phiDerivative);
  s->points = new_points<Point>(n);
  if (s->points == nullptr) return nullptr;
  s->values = PCD_NewVector(n + d + 1);
  if (s->values == nullptr) return nullptr;
  s->matrix = PCD_NewMatrix(n + d + 1, n + d + 1);
  if (s->matrix == nullptr) return nullptr;
  return s;
}

template <typename Solution>
void delete_solution(Solution* s) {
  if (s == nullptr) return;
  delete_points(s->points, s->n);
  PCD_DeleteVector(s->values);
  PCD_DeleteMatrix(s->matrix);
  PCD_DeleteVector(s->weights);
  std::free(s);
}

// Steps common to both dimensions once the distances are in: the polynomial rows and
// columns, the zero diagonal, the zero lower-right block and the zero right-hand tail.
template <typename Solution, typename Coordinates>
void fill_polynomial(Solution* s, int d, const Coordinates& coordinate) {
  const int n = s->n;
  float** a = s->matrix->m;
  for (int k = 0; k <= d; ++k) s->values->data[n + k] = 0.0f;
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k <= d; ++k) {
      const float v = k == 0 ? 1.0f : coordinate(i, k - 1);
      a[i][n + k] = v;
      a[n + k][i] = v;
    }
    a[i][i] = 0.0f;  // deliberately, whatever phi(0) would be
  }
  for (int r = n; r <= n + d; ++r)
    for (int k = n; k <= n + d; ++k) a[r][k] = 0.0f;
}

template <typename Solution>
int solve(Solution* s, const PcdMatrix* inverse) {
  PCD_DeleteVector(s->weights);
  s->weights = inverse == nullptr ? nullptr : PCD_MultiplyMatrixVector(inverse, s->values);
  return s->weights == nullptr ? -1 : 0;
}

}  // namespace

// ---- creation and deletion -----------------------------------------------------------------

PcdRbfSolution3D* PCDrbf_NewRbfSolution3D(int n, int kind) {
  return new_solution<PcdRbfSolution3D, PcdVector3D>(n, kind, 3);
}

PcdRbfSolution2D* PCDrbf_NewRbfSolution2D(int n, int kind) {
  return new_solution<PcdRbfSolution2D, PcdVector2D>(n, kind, 2);
}

void PCDrbf_DeleteRbfSolution3D(PcdRbfSolution3D* solution) { delete_solution(solution); }
void PCDrbf_DeleteRbfSolution2D(PcdRbfSolution2D* solution) { delete_solution(solution); }

// ---- reconstruction ------------------------------------------------------------------------

void PCDrbf_FillRbfSystem3D(PcdRbfSolution3D* s) {
  const int n = s->n;
  float** a = s->matrix->m;
  const PcdVector3D* const* p = s->points;
  fill_polynomial(s, 3, [p](int i, int axis) {
    return axis == 0 ? p[i]->x : axis == 1 ? p[i]->y : p[i]->z;
  });
  for (int j = 1; j < n; ++j)
    for (int i = 0; i < j; ++i) {
      const float v = s->phi(distance3(p[j]->x, p[j]->y, p[j]->z, p[i]->x, p[i]->y, p[i]->z), s->c);
      a[j][i] = v;
      a[i][j] = v;
    }
}

int PCDrbf_SolveRbfWithInverse3D(PcdRbfSolution3D* s, const PcdMatrix* inverse) {
  return solve(s, inverse);
}

int PCDrbf_RbfReconstruction3D(PcdRbfSolution3D* s) {
  PCDrbf_FillRbfSystem3D(s);
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrixLU(s->matrix);
  const int result = solve(s, inverse);
  PCD_DeleteMatrix(inverse);
  return result;
}

int PCDrbf_RbfReconstruction2D(PcdRbfSolution2D* s) {
  const int n = s->n;
  float** a = s->matrix->m;
  const PcdVector2D* const* p = s->points;
  fill_polynomial(s, 2, [p](int i, int axis) { return axis == 0 ? p[i]->x : p[i]->y; });
  for (int j = 1; j < n; ++j)
    for (int i = 0; i < j; ++i) {
      const float v = s->phi(distance2(p[j]->x, p[j]->y, p[i]->x, p[i]->y), s->c);
      a[j][i] = v;
      a[i][j] = v;
    }
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrixLU(s->matrix);
  const int result = solve(s, inverse);
  PCD_DeleteMatrix(inverse);
  return result;
}

int PCDrbf_HaveSameSystem3D(const PcdRbfSolution3D* a, const PcdRbfSolution3D* b) {
  if (a->n != b->n || a->kind != b->kind || std::memcmp(&a->c, &b->c, sizeof(float)) != 0) return 0;
  for (int i = 0; i < a->n; ++i)
    if (std::memcmp(a->points[i], b->points[i], sizeof(PcdVector3D)) != 0) return 0;
  return 1;
}

// ---- interpolation ---------------------------------------------------------------------------

float PCDrbf_RbfInterpolation3D(const PcdRbfSolution3D* s, const PcdVector3D* p) {
  const int n = s->n;
  const float* w = s->weights->data;
  float sum = w[n] + w[n + 1] * p->x + w[n + 2] * p->y + w[n + 3] * p->z;
  for (int i = 0; i < n; ++i) {
    const PcdVector3D* q = s->points[i];
    sum = sum + w[i] * s->phi(distance3(p->x, p->y, p->z, q->x, q->y, q->z), s->c);
  }
  return sum;
}

float PCDrbf_RbfInterpolation2D(const PcdRbfSolution2D* s, const PcdVector2D* p) {
  const int n = s->n;
  const float* w = s->weights->data;
  float sum = w[n] + w[n + 1] * p->x + w[n + 2] * p->y;
  for (int i = 0; i < n; ++i) {
    const PcdVector2D* q = s->points[i];
    sum = sum + w[i] * s->phi(distance2(p->x, p->y, q->x, q->y), s->c);
  }
  return sum;
}

// ---- several solutions side by side ------------------------------------------------------

bool PCDrbf_PrepareSharedField(const PcdRbfSolution3D* const* solutions, int count,
                               PcdRbfSharedField* field) {
  if (count < 1 || count > kPcdRbfMaxShared) return false;
  for (int s = 0; s < count; ++s)
    if (solutions[s]->weights == nullptr || !PCDrbf_HaveSameSystem3D(solutions[0], solutions[s]))
      return false;
  const PcdRbfSolution3D* first = solutions[0];
  const size_t n = static_cast<size_t>(first->n);
  field->n = first->n;
  field->count = count;
  field->kind = first->kind;
  field->c = first->c;
  field->phi = first->phi;
  field->px.resize(n);
  field->py.resize(n);
  field->pz.resize(n);
  for (size_t i = 0; i < n; ++i) {
    field->px[i] = first->points[i]->x;
    field->py[i] = first->points[i]->y;
    field->pz[i] = first->points[i]->z;
  }
  field->w.resize(static_cast<size_t>(count) * (n + 4));
  for (int s = 0; s < count; ++s)
    std::memcpy(&field->w[static_cast<size_t>(s) * (n + 4)], solutions[s]->weights->data,
                (n + 4) * sizeof(float));
  return true;
}

namespace {

// Lane by lane, in the order of PCDrbf_RbfInterpolation3D; the distance of a lane to a
// control point is found once and serves every solution.
void interpolate_lanes_plain(const PcdRbfSharedField* f, const PcdVector3D* p, float* out) {
  const int n = f->n;
  const size_t stride = static_cast<size_t>(n) + 4;
  for (int v = 0; v < kPcdRbfLanes; ++v) {
    float sum[kPcdRbfMaxShared];
    for (int s = 0; s < f->count; ++s) {
      const float* w = &f->w[s * stride];
      sum[s] = w[n] + w[n + 1] * p[v].x + w[n + 2] * p[v].y + w[n + 3] * p[v].z;
    }
    for (int i = 0; i < n; ++i) {
      const float phi = f->phi(distance3(p[v].x, p[v].y, p[v].z, f->px[static_cast<size_t>(i)],
                                         f->py[static_cast<size_t>(i)], f->pz[static_cast<size_t>(i)]),
                               f->c);
      for (int s = 0; s < f->count; ++s) sum[s] = sum[s] + f->w[s * stride + static_cast<size_t>(i)] * phi;
    }
    for (int s = 0; s < f->count; ++s) out[s * kPcdRbfLanes + v] = sum[s];
  }
}

#ifdef PCD_RBF_HAVE_AVX2_PATH
// phi(r) = r for eight points at once. The square root of a float rounded once in single
// precision equals the one taken in double and rounded back (double carries more than
// twice the bits), so sqrtps gives the bytes of the scalar path.
template <int kCount>
[[gnu::target("avx2")]] void interpolate_lanes_linear_avx2(const PcdRbfSharedField* f,
                                                             const PcdVector3D* p, float* out) {
  const int n = f->n;
  const size_t stride = static_cast<size_t>(n) + 4;
  alignas(32) float xs[8], ys[8], zs[8];
  for (int v = 0; v < 8; ++v) xs[v] = p[v].x, ys[v] = p[v].y, zs[v] = p[v].z;
  const __m256 x = _mm256_load_ps(xs), y = _mm256_load_ps(ys), z = _mm256_load_ps(zs);
  __m256 sum[kCount];
  const float* w[kCount];
  for (int s = 0; s < kCount; ++s) {
    w[s] = &f->w[s * stride];
    __m256 t = _mm256_add_ps(_mm256_set1_ps(w[s][n]), _mm256_mul_ps(_mm256_set1_ps(w[s][n + 1]), x));
    t = _mm256_add_ps(t, _mm256_mul_ps(_mm256_set1_ps(w[s][n + 2]), y));
    sum[s] = _mm256_add_ps(t, _mm256_mul_ps(_mm256_set1_ps(w[s][n + 3]), z));
  }
  const float* px = f->px.data();
  const float* py = f->py.data();
  const float* pz = f->pz.data();
  for (int i = 0; i < n; ++i) {
    const __m256 dx = _mm256_sub_ps(x, _mm256_set1_ps(px[i]));
    const __m256 dy = _mm256_sub_ps(y, _mm256_set1_ps(py[i]));
    const __m256 dz = _mm256_sub_ps(z, _mm256_set1_ps(pz[i]));
    const __m256 d2 = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)),
                                    _mm256_mul_ps(dz, dz));
    const __m256 r = _mm256_sqrt_ps(d2);
    for (int s = 0; s < kCount; ++s)
      sum[s] = _mm256_add_ps(sum[s], _mm256_mul_ps(_mm256_set1_ps(w[s][i]), r));
  }
  for (int s = 0; s < kCount; ++s) _mm256_storeu_ps(out + s * kPcdRbfLanes, sum[s]);
}

bool have_avx2() {
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return avx2;
}
#endif

}  // namespace

void PCDrbf_InterpolateSharedField(const PcdRbfSharedField* f, const PcdVector3D* points, int lanes,
                                   float* out) {
  // unused lanes repeat the last point; their results are dropped
  PcdVector3D p[kPcdRbfLanes];
  for (int v = 0; v < kPcdRbfLanes; ++v) p[v] = points[v < lanes ? v : lanes - 1];
  float all[kPcdRbfMaxShared * kPcdRbfLanes];
  float* target = lanes == kPcdRbfLanes ? out : all;
#ifdef PCD_RBF_HAVE_AVX2_PATH
  if (f->phi == bi_harmonic_function && f->count == 6 && have_avx2()) {
    interpolate_lanes_linear_avx2<6>(f, p, target);
  } else if (f->phi == bi_harmonic_function && f->count == 1 && have_avx2()) {
    interpolate_lanes_linear_avx2<1>(f, p, target);
  } else {
    interpolate_lanes_plain(f, p, target);
  }
#else
  interpolate_lanes_plain(f, p, target);
#endif
  if (target == all)
    for (int s = 0; s < f->count; ++s)
      for (int v = 0; v < lanes; ++v) out[s * kPcdRbfLanes + v] = all[s * kPcdRbfLanes + v];
}
