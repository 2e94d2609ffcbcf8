// Matrix and vector records and their products.
#include "vol/numerical.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vol/raw_volume.h"
#include "vol/simd.h"
#include "vol/numerical_detail.h"

using pcd_numerical_detail::is_usable;

bool pcd_numerical_detail::is_usable(const PcdMatrix* a) {
  return a != nullptr && a->m != nullptr && a->rows > 0 && a->cols > 0;
}

bool pcd_numerical_detail::is_usable(const PcdVector* x) { return x != nullptr && x->data != nullptr && x->n > 0; }

namespace {

// ---- product accumulation --------------------------------------------------------------

// One term of a product: the two entries multiply in double (exactly, since both are
// floats), the sum is formed in double and rounded back to the float entry.
inline float accumulate(float entry, float a, float b) {
  return static_cast<float>(static_cast<double>(entry) +
                            static_cast<double>(a) * static_cast<double>(b));
}

void report_mismatch() { std::fputs("Dimension mismatched\n", stderr); }

// Writes A * x into out[0 .. rows-1]; out must not alias x.
void multiply_matrix_vector(const PcdMatrix* a, const float* x, float* out) {
  for (int32_t i = 0; i < a->rows; ++i) {
    const float* row = a->m[i];
    float entry = 0.0f;
    for (int32_t k = 0; k < a->cols; ++k) entry = accumulate(entry, row[k], x[k]);
    out[i] = entry;
  }
}

}  // namespace

// ---- records ------------------------------------------------------------------------------

PcdVector* PCD_NewVector(int32_t n) {
  if (n < 1) return nullptr;
  auto* v = static_cast<PcdVector*>(std::malloc(sizeof(PcdVector)));
  if (v == nullptr) return nullptr;
  v->n = n;
  v->data = static_cast<float*>(std::malloc(static_cast<size_t>(n) * sizeof(float)));
  if (v->data == nullptr) {
    std::free(v);
    return nullptr;
  }
  return v;
}

void PCD_DeleteVector(PcdVector* vector) {
  if (vector == nullptr) return;
  std::free(vector->data);
  std::free(vector);
}

PcdMatrix* PCD_NewMatrix(int32_t rows, int32_t cols) {
  if (rows < 1 || cols < 1) return nullptr;
  auto* a = static_cast<PcdMatrix*>(std::malloc(sizeof(PcdMatrix)));
  if (a == nullptr) return nullptr;
  a->rows = rows;
  a->cols = cols;
  a->m = reinterpret_cast<float**>(PCD_New2DArray(cols, rows, FLOAT32));
  if (a->m == nullptr) {
    std::free(a);
    return nullptr;
  }
  return a;
}

void PCD_DeleteMatrix(PcdMatrix* matrix) {
  if (matrix == nullptr) return;
  PCD_Delete2DArray(reinterpret_cast<Pcd2DArray>(matrix->m), matrix->cols, matrix->rows,
                    FLOAT32);
  std::free(matrix);
}

// ---- products -----------------------------------------------------------------------------

PcdMatrix* PCD_GetTransposedMatrix(const PcdMatrix* a) {
  if (!is_usable(a)) return nullptr;
  PcdMatrix* t = PCD_NewMatrix(a->cols, a->rows);
  if (t == nullptr) return nullptr;
  for (int32_t i = 0; i < a->rows; ++i)
    for (int32_t j = 0; j < a->cols; ++j) t->m[j][i] = a->m[i][j];
  return t;
}

PcdMatrix* PCD_MultiplyMatrices(const PcdMatrix* a, const PcdMatrix* b) {
  if (!is_usable(a) || !is_usable(b)) return nullptr;
  if (a->cols != b->rows) {
    report_mismatch();
    return nullptr;
  }
  PcdMatrix* p = PCD_NewMatrix(a->rows, b->cols);
  if (p == nullptr) return nullptr;
  // Row by row with the inner index outside: every entry still receives its terms in
  // increasing inner index, but B is walked along its rows.
  for (int32_t i = 0; i < a->rows; ++i) {
    float* out = p->m[i];
    std::fill(out, out + b->cols, 0.0f);
    for (int32_t k = 0; k < a->cols; ++k) {
      const float aik = a->m[i][k];
      const float* bk = b->m[k];
      for (int32_t j = 0; j < b->cols; ++j) out[j] = accumulate(out[j], aik, bk[j]);
    }
  }
  return p;
}

PcdMatrix* PCD_Multiply3Matrices(const PcdMatrix* a, const PcdMatrix* b, const PcdMatrix* c) {
  PcdMatrix* ab = PCD_MultiplyMatrices(a, b);
  if (ab == nullptr) return nullptr;
  PcdMatrix* abc = PCD_MultiplyMatrices(ab, c);
  PCD_DeleteMatrix(ab);
  return abc;
}

PcdVector* PCD_MultiplyMatrixVector(const PcdMatrix* a, const PcdVector* x) {
  if (!is_usable(a) || !is_usable(x)) return nullptr;
  if (a->cols != x->n) {
    report_mismatch();
    return nullptr;
  }
  PcdVector* y = PCD_NewVector(a->rows);
  if (y == nullptr) return nullptr;
  multiply_matrix_vector(a, x->data, y->data);
  return y;
}

int PCD_MultiplyMatrixVectorInto(const PcdMatrix* a, const PcdVector* x, PcdVector* result) {
  if (!is_usable(a) || !is_usable(x) || !is_usable(result) || result->data == x->data)
    return -1;
  if (a->cols != x->n || a->rows != result->n) {
    report_mismatch();
    return -1;
  }
  multiply_matrix_vector(a, x->data, result->data);
  return 0;
}

