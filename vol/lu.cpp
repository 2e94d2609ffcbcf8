// Square systems through a Crout LU decomposition and its inverse, blocked and threaded.
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

namespace {

// ---- 1-based scratch arrays of the LU solver -------------------------------------------
// These keep the classical behaviour: any failure ends the program.

[[noreturn]] void numerical_error(const char* text) {
  std::fputs("Numerical Recipes run-time error...\n", stderr);
  std::fprintf(stderr, "%s\n", text);
  std::fputs("...now exiting to system...\n", stderr);
  std::exit(1);
}

float* lu_vector(int n) {
  auto* v = static_cast<float*>(std::malloc((static_cast<size_t>(n) + 1) * sizeof(float)));
  if (v == nullptr) numerical_error("allocation failure in vector()");
  return v;
}

int* lu_ivector(int n) {
  auto* v = static_cast<int*>(std::malloc((static_cast<size_t>(n) + 1) * sizeof(int)));
  if (v == nullptr) numerical_error("allocation failure in ivector()");
  return v;
}

float** lu_matrix(int n) {
  const size_t r = static_cast<size_t>(n) + 1;
  auto** p = static_cast<float**>(std::malloc(r * sizeof(float*)));
  if (p == nullptr) numerical_error("allocation failure 1 in matrix()");
  float* block = nullptr;
  if (r <= SIZE_MAX / sizeof(float) / r)
    block = static_cast<float*>(std::malloc(r * r * sizeof(float)));
  if (block == nullptr) numerical_error("allocation failure 2 in matrix()");
  PCD_AdviseHugePages(block, r * r * sizeof(float));
  for (size_t i = 0; i < r; ++i) p[i] = block + i * r;
  return p;
}

// ---- LU decomposition -------------------------------------------------------------------

// Hot loops over many independent entries are written once over sixteen-float vectors and
// built three times: baseline, AVX2 (two registers per vector) and AVX-512 (one). The
// processor's level picks one at run time (vol/simd.h). No fused multiply-add is used
// (-ffp-contract=off): every lane rounds exactly as the scalar code does.
#if defined(__x86_64__) && defined(__GNUC__)
#define PCD_HAVE_WIDE_CLONES 1
#endif

// The vector helpers are always inlined: a call would pass the vector differently in the
// wide builds and in the baseline (what the psABI note warns about), so none is ever made.
#pragma GCC diagnostic ignored "-Wpsabi"

// Sixteen floats: one AVX-512 register, two AVX2 registers.
using Lanes16 = float __attribute__((vector_size(64)));

[[gnu::always_inline]] inline Lanes16 load16(const float* p) {
  Lanes16 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

[[gnu::always_inline]] inline void store16(float* p, Lanes16 v) { std::memcpy(p, &v, sizeof v); }

constexpr float kTiny = 1.0e-20f;  // stands in for an exactly zero pivot
constexpr int kPanel = 48;         // columns factored together before the rest is updated

// Implicit scaling: 1 / the largest magnitude of every row; a row of zeros ends the program.
void lu_scale_rows(float* const* a, int n, float* scale) {
  for (int i = 1; i <= n; ++i) {
    float largest = 0.0f;
    for (int j = 1; j <= n; ++j) largest = std::max(largest, std::fabs(a[i][j]));
    if (largest == 0.0f) numerical_error("Singular matrix in routine ludcmp");
    scale[i] = 1.0f / largest;
  }
}

// Column j, whose entries from row j down are complete: choose the pivot, interchange,
// and divide the entries below the diagonal by it.
void lu_pivot_column(float** a, int n, int j, int* index, float* scale) {
  float largest = 0.0f;
  int pivot = j;
  for (int i = j; i <= n; ++i) {
    const float merit = scale[i] * std::fabs(a[i][j]);
    if (merit >= largest) {
      largest = merit;
      pivot = i;
    }
  }
  if (pivot != j) {
    std::swap(a[pivot], a[j]);  // rows share one block; swapping pointers swaps rows
    scale[pivot] = scale[j];
  }
  index[j] = pivot;
  if (a[j][j] == 0.0f) a[j][j] = kTiny;
  if (j != n) {
    const float inverse = 1.0f / a[j][j];
    for (int i = j + 1; i <= n; ++i) a[i][j] *= inverse;
  }
}

// a[i][c] -= a[i][k] * a[k][c] for k = k0 .. k1 in that order, for the rows first .. last
// and the columns c0 .. n. Entries are independent of each other, so four rows times
// sixteen columns stay in registers while the panel's rows stream past.
[[gnu::always_inline]] inline void lu_update_rows_body(float* const* a, int n, int first, int last, int k0,
                                                       int k1, int c0) {
  int c = c0;
  for (; c + 16 <= n + 1; c += 16) {
    int i = first;
    for (; i + 4 <= last + 1; i += 4) {
      float* r[4] = {a[i], a[i + 1], a[i + 2], a[i + 3]};
      Lanes16 acc[4];
#pragma GCC unroll 4
      for (int q = 0; q < 4; ++q) acc[q] = load16(r[q] + c);
      for (int k = k0; k <= k1; ++k) {
        const Lanes16 u = load16(a[k] + c);
#pragma GCC unroll 4
        for (int q = 0; q < 4; ++q) acc[q] = acc[q] - r[q][k] * u;
      }
#pragma GCC unroll 4
      for (int q = 0; q < 4; ++q) store16(r[q] + c, acc[q]);
    }
    for (; i <= last; ++i) {
      float* row = a[i];
      Lanes16 acc = load16(row + c);
      for (int k = k0; k <= k1; ++k) acc = acc - row[k] * load16(a[k] + c);
      store16(row + c, acc);
    }
  }
  for (int i = first; i <= last; ++i)
    for (int cc = c; cc <= n; ++cc) {
      float sum = a[i][cc];
      for (int k = k0; k <= k1; ++k) sum -= a[i][k] * a[k][cc];
      a[i][cc] = sum;
    }
}

// Runs body(first, last) over 1 .. count split into at most `threads` consecutive ranges.
template <typename Body>
void lu_split_rows(int first, int last, int threads, int minimum, const Body& body) {
  const int count = last - first + 1;
  int parts = std::min(threads, count / std::max(minimum, 1));
  if (parts <= 1) {
    if (count > 0) body(first, last);
    return;
  }
  std::vector<std::thread> running;
  int from = first;
  for (int t = 0; t < parts; ++t) {
    const int to = from + count / parts + (t < count % parts ? 1 : 0) - 1;
    if (t == parts - 1) {
      body(from, to);  // the calling thread takes the last range
    } else {
      try {
        running.emplace_back([&body, from, to] { body(from, to); });
      } catch (...) {
        body(from, to);  // no thread to be had: the range is done here instead
      }
    }
    from = to + 1;
  }
  for (std::thread& t : running) t.join();
}

// Solves LU x = b in place (b[1..n]) with the factors and interchanges of the
// decomposition.
void lu_back_substitute(float* const* a, int n, const int* index, float* b) {
  int first = 0;  // first non-zero entry of b, so leading zeros cost nothing
  for (int i = 1; i <= n; ++i) {
    const int p = index[i];
    float sum = b[p];
    b[p] = b[i];
    if (first != 0) {
      for (int j = first; j < i; ++j) sum -= a[i][j] * b[j];
    } else if (sum != 0.0f) {
      first = i;
    }
    b[i] = sum;
  }
  for (int i = n; i >= 1; --i) {
    float sum = b[i];
    for (int j = i + 1; j <= n; ++j) sum -= a[i][j] * b[j];
    b[i] = sum / a[i][i];
  }
}

// Whether every factor is finite: only then do exact zeros stay exact zeros when they are
// multiplied, which the column-block solve relies on.
bool lu_factors_are_finite(float* const* a, int n) {
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j)
      if (!std::isfinite(a[i][j])) return false;
  return true;
}

// Column q of the permuted identity is the unit vector of column label[q].
std::vector<int> lu_column_labels(int n, const int* index) {
  std::vector<int> label(static_cast<size_t>(n) + 1);
  for (int i = 0; i <= n; ++i) label[static_cast<size_t>(i)] = i;
  for (int i = 1; i <= n; ++i) std::swap(label[static_cast<size_t>(i)], label[static_cast<size_t>(index[i])]);
  return label;
}

constexpr int kBlockColumns = 64;  // columns of the inverse solved side by side
constexpr int kBlockVectors = kBlockColumns / 16;

// The columns whose units land at q0 .. q0 + 63 after the interchanges, solved side by
// side in x (row i at x + 64 i): forward substitution from row q0 (above it every entry
// is zero) and back substitution. Each column receives exactly the terms of
// lu_back_substitute in the same order; the terms it skips there multiply an exact zero
// here and change nothing.
[[gnu::always_inline]] inline void lu_solve_column_block_body(float* const* a, int n, int q0,
                                                               const int* label, PcdMatrix* out,
                                                               std::vector<float>* scratch) {
  float* x = scratch->data();
  auto row_of = [x](int i) { return x + static_cast<size_t>(i) * kBlockColumns; };
  std::fill(scratch->begin(), scratch->end(), 0.0f);
  for (int c = 0; c < kBlockColumns && q0 + c <= n; ++c) row_of(q0 + c)[c] = 1.0f;
  for (int i = q0 + 1; i <= n; ++i) {
    Lanes16 acc[kBlockVectors];
    #pragma GCC unroll 4
    for (int v = 0; v < kBlockVectors; ++v) acc[v] = load16(row_of(i) + 16 * v);
    const float* row = a[i];
    for (int j = q0; j < i; ++j) {
      const float l = row[j];
      const float* xj = row_of(j);
      #pragma GCC unroll 4
      for (int v = 0; v < kBlockVectors; ++v) acc[v] = acc[v] - l * load16(xj + 16 * v);
    }
    #pragma GCC unroll 4
    for (int v = 0; v < kBlockVectors; ++v) store16(row_of(i) + 16 * v, acc[v]);
  }
  for (int i = n; i >= 1; --i) {
    Lanes16 acc[kBlockVectors];
    #pragma GCC unroll 4
    for (int v = 0; v < kBlockVectors; ++v) acc[v] = load16(row_of(i) + 16 * v);
    const float* row = a[i];
    for (int j = i + 1; j <= n; ++j) {
      const float u = row[j];
      const float* xj = row_of(j);
      #pragma GCC unroll 4
      for (int v = 0; v < kBlockVectors; ++v) acc[v] = acc[v] - u * load16(xj + 16 * v);
    }
    const float d = row[i];
    #pragma GCC unroll 4
    for (int v = 0; v < kBlockVectors; ++v) store16(row_of(i) + 16 * v, acc[v] / d);
  }
  for (int c = 0; c < kBlockColumns && q0 + c <= n; ++c) {
    const int column = label[static_cast<size_t>(q0 + c)] - 1;
    for (int i = 1; i <= n; ++i) out->m[i - 1][column] = row_of(i)[c];
  }
}

#ifdef PCD_HAVE_WIDE_CLONES
[[gnu::target("avx512f")]] void lu_update_rows_avx512(float* const* a, int n, int first, int last, int k0, int k1,
                                                      int c0) {
  lu_update_rows_body(a, n, first, last, k0, k1, c0);
}
[[gnu::target("avx2")]] void lu_update_rows_avx2(float* const* a, int n, int first, int last, int k0, int k1,
                                                 int c0) {
  lu_update_rows_body(a, n, first, last, k0, k1, c0);
}
[[gnu::target("avx512f")]] void lu_solve_column_block_avx512(float* const* a, int n, int q0, const int* label,
                                                             PcdMatrix* out, std::vector<float>* scratch) {
  lu_solve_column_block_body(a, n, q0, label, out, scratch);
}
[[gnu::target("avx2")]] void lu_solve_column_block_avx2(float* const* a, int n, int q0, const int* label,
                                                        PcdMatrix* out, std::vector<float>* scratch) {
  lu_solve_column_block_body(a, n, q0, label, out, scratch);
}
#endif

void lu_update_rows(float* const* a, int n, int first, int last, int k0, int k1, int c0) {
#ifdef PCD_HAVE_WIDE_CLONES
  switch (PCD_GetSimdLevel()) {
    case PCD_SIMD_AVX512: return lu_update_rows_avx512(a, n, first, last, k0, k1, c0);
    case PCD_SIMD_AVX2: return lu_update_rows_avx2(a, n, first, last, k0, k1, c0);
    default: break;
  }
#endif
  lu_update_rows_body(a, n, first, last, k0, k1, c0);
}

void lu_solve_column_block(float* const* a, int n, int q0, const int* label, PcdMatrix* out,
                           std::vector<float>* scratch) {
#ifdef PCD_HAVE_WIDE_CLONES
  switch (PCD_GetSimdLevel()) {
    case PCD_SIMD_AVX512: return lu_solve_column_block_avx512(a, n, q0, label, out, scratch);
    case PCD_SIMD_AVX2: return lu_solve_column_block_avx2(a, n, q0, label, out, scratch);
    default: break;
  }
#endif
  lu_solve_column_block_body(a, n, q0, label, out, scratch);
}

}  // namespace

// ---- the decomposition and the inverse's columns (exposed for the tests) -----------------

void lu_decompose_crout(float** a, int n, int* index, float* scale) {
  lu_scale_rows(a, n, scale);
  for (int j = 1; j <= n; ++j) {
    for (int i = 1; i < j; ++i) {
      float sum = a[i][j];
      for (int k = 1; k < i; ++k) sum -= a[i][k] * a[k][j];
      a[i][j] = sum;
    }
    for (int i = j; i <= n; ++i) {
      float sum = a[i][j];
      for (int k = 1; k < j; ++k) sum -= a[i][k] * a[k][j];
      a[i][j] = sum;
    }
    lu_pivot_column(a, n, j, index, scale);
  }
}

// Crout's method computes every entry as its start value minus the terms k = 1, 2, ... in
// increasing order. Here each entry gets the same terms in the same order, but a panel of
// columns is factored first and the rest of the matrix then receives the panel's terms
// row by row, so the textbook walk down the columns of row-major storage disappears.
void lu_decompose_blocked(float** a, int n, int* index, float* scale, int threads) {
  lu_scale_rows(a, n, scale);
  for (int k0 = 1; k0 <= n; k0 += kPanel) {
    const int k1 = std::min(k0 + kPanel - 1, n);
    for (int j = k0; j <= k1; ++j) {
      lu_pivot_column(a, n, j, index, scale);
      for (int i = j + 1; i <= n; ++i) {
        float* row = a[i];
        const float l = row[j];
        for (int c = j + 1; c <= k1; ++c) row[c] -= l * a[j][c];
      }
    }
    if (k1 == n) break;
    // the panel's own rows right of it: each needs the panel rows above it first
    for (int r = k0 + 1; r <= k1; ++r)
      for (int k = k0; k < r; ++k) {
        float* row = a[r];
        const float l = row[k];
        const float* u = a[k];
        for (int c = k1 + 1; c <= n; ++c) row[c] -= l * u[c];
      }
    lu_split_rows(k1 + 1, n, threads, 64, [&](int first, int last) {
      lu_update_rows(a, n, first, last, k0, k1, k1 + 1);
    });
  }
}

void lu_inverse_by_columns(float* const* a, int n, const int* index, PcdMatrix* out) {
  float* column = lu_vector(n);
  for (int j = 1; j <= n; ++j) {
    std::fill(column + 1, column + n + 1, 0.0f);
    column[j] = 1.0f;
    lu_back_substitute(a, n, index, column);
    for (int i = 1; i <= n; ++i) out->m[i - 1][j - 1] = column[i];
  }
  std::free(column);
}

void lu_inverse_by_blocks(float* const* a, int n, const int* index, PcdMatrix* out, int threads) {
  if (!lu_factors_are_finite(a, n)) {
    lu_inverse_by_columns(a, n, index, out);
    return;
  }
  const std::vector<int> label = lu_column_labels(n, index);
  const int blocks = (n + kBlockColumns - 1) / kBlockColumns;
  std::atomic<int> next{0};
  // blocks further down need less forward work: taking them in turn balances the threads
  auto worker = [&](int, int) {
    std::vector<float> scratch((static_cast<size_t>(n) + 1) * kBlockColumns);
    for (int b = next.fetch_add(1); b < blocks; b = next.fetch_add(1))
      lu_solve_column_block(a, n, 1 + b * kBlockColumns, label.data(), out, &scratch);
  };
  lu_split_rows(1, std::min(threads, blocks), threads, 1, worker);
}

// ---- LU inverse ---------------------------------------------------------------------------

PcdMatrix* PCDnumerical_GetInversedMatrixLU(const PcdMatrix* a) {
  return PCDnumerical_GetInversedMatrixLUThreaded(a, 1);
}

PcdMatrix* PCDnumerical_GetInversedMatrixLUThreaded(const PcdMatrix* a, int threads) {
  if (!is_usable(a) || a->rows != a->cols) return nullptr;
  const int n = a->rows;
  PcdMatrix* inverse = PCD_NewMatrix(n, n);
  if (inverse == nullptr) return nullptr;

  float** lu = lu_matrix(n);
  int* index = lu_ivector(n);
  float* scale = lu_vector(n);
  float* block = lu[0];  // the pivoting swaps row pointers; keep the block to free it

  for (int i = 0; i < n; ++i) std::memcpy(&lu[i + 1][1], a->m[i], sizeof(float) * n);
  threads = std::max(threads, 1);
  lu_decompose_blocked(lu, n, index, scale, threads);
  lu_inverse_by_blocks(lu, n, index, inverse, threads);

  std::free(scale);
  std::free(index);
  std::free(block);
  std::free(lu);
  return inverse;
}

PcdVector* PCDnumerical_SolveLinearEquationsLU(const PcdMatrix* a, const PcdVector* y) {
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrixLU(a);
  if (inverse == nullptr) return nullptr;
  PcdVector* x = PCD_MultiplyMatrixVector(inverse, y);
  PCD_DeleteMatrix(inverse);
  return x;
}
