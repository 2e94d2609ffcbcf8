// Least squares through the pseudo-inverse of a singular value decomposition.
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

// ---- 1-based scratch arrays of the SVD ------------------------------------------------
// These fail softly: the pseudo-inverse reports which one and returns null.

// [0..rows][0..cols] in one block; row 0 and column 0 are padding for 1-based indexing.
float** new_scratch_matrix(int rows, int cols) {
  const size_t r = static_cast<size_t>(rows) + 1;
  const size_t c = static_cast<size_t>(cols) + 1;
  if (c != 0 && r > SIZE_MAX / sizeof(float) / c) return nullptr;
  auto** p = static_cast<float**>(std::malloc(r * sizeof(float*)));
  if (p == nullptr) return nullptr;
  auto* block = static_cast<float*>(std::malloc(r * c * sizeof(float)));
  if (block == nullptr) {
    std::free(p);
    return nullptr;
  }
  for (size_t i = 0; i < r; ++i) p[i] = block + i * c;
  return p;
}

void free_scratch_matrix(float** p) {
  if (p == nullptr) return;
  std::free(p[0]);
  std::free(p);
}

float* new_scratch_vector(int n, int copies = 1) {
  return static_cast<float*>(
      std::malloc((static_cast<size_t>(n) + 1) * static_cast<size_t>(copies) * sizeof(float)));
}
// ---- singular value decomposition ----------------------------------------------------

constexpr int kMaxSweeps = 1000;

inline float with_sign_of(float magnitude, float sign) {
  return sign >= 0.0f ? std::fabs(magnitude) : -std::fabs(magnitude);
}

// sqrt(a^2 + b^2) without overflow or destructive underflow of the squares.
inline float hypotenuse(float a, float b) {
  const double x = std::fabs(static_cast<double>(a));
  const double y = std::fabs(static_cast<double>(b));
  if (x > y) {
    const double r = y / x;
    return static_cast<float>(x * std::sqrt(1.0 + r * r));
  }
  if (y == 0.0) return 0.0f;
  const double r = x / y;
  return static_cast<float>(y * std::sqrt(1.0 + r * r));
}

// A value is negligible when adding it to the matrix norm does not change the norm in
// single precision. The sum is kept in float on purpose: in double the test would almost
// never succeed.
inline bool negligible(float value, float norm) {
  const float sum = std::fabs(value) + norm;
  return sum == norm;
}

// Householder reduction of a[1..m][1..n] to upper bidiagonal form: the diagonal goes to
// w, the superdiagonal to e (e[i] couples columns i-1 and i, e[1] = 0). The reflections
// stay in a (columns below the diagonal, rows right of the superdiagonal) for the
// accumulation steps. Returns the norm estimate used by the convergence tests.
float bidiagonalise(float** a, int m, int n, float* w, float* e) {
  float g = 0.0f;
  float scale = 0.0f;
  float norm = 0.0f;
  for (int i = 1; i <= n; ++i) {
    const int l = i + 1;
    e[i] = scale * g;
    g = 0.0f;
    scale = 0.0f;
    float s = 0.0f;
    // Reflection from the left: zero column i below the diagonal.
    if (i <= m) {
      for (int k = i; k <= m; ++k) scale += std::fabs(a[k][i]);
      if (scale != 0.0f) {
        for (int k = i; k <= m; ++k) {
          a[k][i] /= scale;
          s += a[k][i] * a[k][i];
        }
        const float f = a[i][i];
        g = -with_sign_of(std::sqrt(s), f);
        const float h = f * g - s;
        a[i][i] = f - g;
        for (int j = l; j <= n; ++j) {
          float dot = 0.0f;
          for (int k = i; k <= m; ++k) dot += a[k][i] * a[k][j];
          const float factor = dot / h;
          for (int k = i; k <= m; ++k) a[k][j] += factor * a[k][i];
        }
        for (int k = i; k <= m; ++k) a[k][i] *= scale;
      }
    }
    w[i] = scale * g;
    // Reflection from the right: zero row i right of the superdiagonal.
    g = 0.0f;
    scale = 0.0f;
    s = 0.0f;
    if (i <= m && i != n) {
      for (int k = l; k <= n; ++k) scale += std::fabs(a[i][k]);
      if (scale != 0.0f) {
        for (int k = l; k <= n; ++k) {
          a[i][k] /= scale;
          s += a[i][k] * a[i][k];
        }
        const float f = a[i][l];
        g = -with_sign_of(std::sqrt(s), f);
        const float h = f * g - s;
        a[i][l] = f - g;
        for (int k = l; k <= n; ++k) e[k] = a[i][k] / h;  // e[l..n] borrowed as scratch
        for (int j = l; j <= m; ++j) {
          float dot = 0.0f;
          for (int k = l; k <= n; ++k) dot += a[j][k] * a[i][k];
          for (int k = l; k <= n; ++k) a[j][k] += dot * e[k];
        }
        for (int k = l; k <= n; ++k) a[i][k] *= scale;
      }
    }
    norm = std::max(norm, std::fabs(w[i]) + std::fabs(e[i]));
  }
  return norm;
}

// Builds V[1..n][1..n] from the right reflections stored in the rows of a.
void accumulate_right(float** a, int n, float** v, const float* e) {
  float g = 0.0f;
  int l = n + 1;
  for (int i = n; i >= 1; --i) {
    if (i < n) {
      if (g != 0.0f) {
        // Two divisions instead of one product avoid an underflow in a[i][l] * g.
        for (int j = l; j <= n; ++j) v[j][i] = (a[i][j] / a[i][l]) / g;
        for (int j = l; j <= n; ++j) {
          float dot = 0.0f;
          for (int k = l; k <= n; ++k) dot += a[i][k] * v[k][j];
          for (int k = l; k <= n; ++k) v[k][j] += dot * v[k][i];
        }
      }
      for (int j = l; j <= n; ++j) {
        v[i][j] = 0.0f;
        v[j][i] = 0.0f;
      }
    }
    v[i][i] = 1.0f;
    g = e[i];
    l = i;
  }
}

// Turns the left reflections stored in the columns of a into U[1..m][1..n], in place.
void accumulate_left(float** a, int m, int n, const float* w) {
  for (int i = std::min(m, n); i >= 1; --i) {
    const int l = i + 1;
    float g = w[i];
    for (int j = l; j <= n; ++j) a[i][j] = 0.0f;
    if (g != 0.0f) {
      g = 1.0f / g;
      for (int j = l; j <= n; ++j) {
        float dot = 0.0f;
        for (int k = l; k <= m; ++k) dot += a[k][i] * a[k][j];
        const float factor = (dot / a[i][i]) * g;
        for (int k = i; k <= m; ++k) a[k][j] += factor * a[k][i];
      }
      for (int j = i; j <= m; ++j) a[j][i] *= g;
    } else {
      for (int j = i; j <= m; ++j) a[j][i] = 0.0f;
    }
    a[i][i] += 1.0f;
  }
}

// Applies the plane rotation (c, s) to columns p and q of x[1..rows][..].
inline void rotate_columns(float** x, int rows, int p, int q, float c, float s) {
  for (int r = 1; r <= rows; ++r) {
    const float xp = x[r][p];
    const float xq = x[r][q];
    x[r][p] = xp * c + xq * s;
    x[r][q] = xq * c - xp * s;
  }
}

// Implicit-shift QR on the bidiagonal (w, e) until every superdiagonal element has
// vanished, updating U (u[1..m][1..n]) and V (v[1..n][1..n]) along the way.
void diagonalise(float** u, int m, int n, float* w, float* e, float** v, float norm) {
  for (int k = n; k >= 1; --k) {
    for (int sweep = 1; sweep <= kMaxSweeps; ++sweep) {
      // Find the top l of the unreduced block ending at k. Either e[l] is negligible
      // (the block splits there) or w[l-1] is, and then e[l] must be chased out first.
      // e[1] is always 0, so the search ends at l = 1 at the latest.
      bool chase = true;
      int l = k;
      for (; l >= 1; --l) {
        if (negligible(e[l], norm)) {
          chase = false;
          break;
        }
        if (negligible(w[l - 1], norm)) break;
      }
      if (chase) {
        // w[l-1] is (nearly) zero: rotate e[l] .. e[k] away with rotations from the left.
        const int nm = l - 1;
        float c = 0.0f;
        float s = 1.0f;
        for (int i = l; i <= k; ++i) {
          const float f = s * e[i];
          e[i] = c * e[i];
          if (negligible(f, norm)) break;
          const float g = w[i];
          float h = hypotenuse(f, g);
          w[i] = h;
          h = 1.0f / h;
          c = g * h;
          s = -f * h;
          rotate_columns(u, m, nm, i, c, s);
        }
      }
      float z = w[k];
      if (l == k) {
        // Converged: make the singular value non-negative.
        if (z < 0.0f) {
          w[k] = -z;
          for (int j = 1; j <= n; ++j) v[j][k] = -v[j][k];
        }
        break;
      }
      if (sweep == kMaxSweeps) break;  // give up on this one quietly and go on

      // Shift from the trailing 2 x 2 block.
      float x = w[l];
      const int nm = k - 1;
      float y = w[nm];
      float g = e[nm];
      float h = e[k];
      float f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0f * h * y);
      g = hypotenuse(f, 1.0f);
      f = ((x - z) * (x + z) + h * ((y / (f + with_sign_of(g, f))) - h)) / x;

      // One QR sweep by Givens rotations, chasing the bulge down the block.
      float c = 1.0f;
      float s = 1.0f;
      for (int j = l; j <= nm; ++j) {
        const int i = j + 1;
        g = e[i];
        y = w[i];
        h = s * g;
        g = c * g;
        z = hypotenuse(f, h);
        e[j] = z;
        c = f / z;
        s = h / z;
        f = x * c + g * s;
        g = g * c - x * s;
        h = y * s;
        y *= c;
        rotate_columns(v, n, j, i, c, s);
        z = hypotenuse(f, h);
        w[j] = z;
        if (z != 0.0f) {
          z = 1.0f / z;
          c = f * z;
          s = h * z;
        }
        f = c * g + s * y;
        x = c * y - s * g;
        rotate_columns(u, m, j, i, c, s);
      }
      e[l] = 0.0f;
      e[k] = f;
      w[k] = x;
    }
  }
}

}  // namespace

// ---- pseudo-inverse -----------------------------------------------------------------------

PcdMatrix* PCDnumerical_GetInversedMatrix(const PcdMatrix* a) {
  if (!is_usable(a)) {
    std::fputs("PCDnumerical_GetInversedMatrix: matrix == NULL?\n", stderr);
    return nullptr;
  }
  const int m = a->rows;
  const int n = a->cols;

  float** u = new_scratch_matrix(m, n);
  if (u == nullptr) {
    std::fputs("PCDnumerical_GetInversedMatrix: U == NULL?\n", stderr);
    return nullptr;
  }
  float** v = new_scratch_matrix(n, n);
  if (v == nullptr) {
    std::fputs("PCDnumerical_GetInversedMatrix: V == NULL?\n", stderr);
    free_scratch_matrix(u);
    return nullptr;
  }
  // W and the decomposition's superdiagonal share one block.
  float* w = new_scratch_vector(n, 2);
  if (w == nullptr) {
    std::fputs("PCDnumerical_GetInversedMatrix: W == NULL?\n", stderr);
    free_scratch_matrix(v);
    free_scratch_matrix(u);
    return nullptr;
  }
  float* superdiagonal = w + n + 1;
  float* winv = new_scratch_vector(n);
  if (winv == nullptr) {
    std::fputs("PCDnumerical_GetInversedMatrix: Winv == NULL?\n", stderr);
    std::free(w);
    free_scratch_matrix(v);
    free_scratch_matrix(u);
    return nullptr;
  }

  for (int i = 0; i < m; ++i) std::memcpy(&u[i + 1][1], a->m[i], sizeof(float) * n);
  svd_decompose(u, m, n, w, v, superdiagonal);

  for (int j = 1; j <= n; ++j) {
    if (w[j] == 0.0f || std::isnan(w[j])) {
      std::fputs("<!> 0 element in W of SVD\n", stderr);
      winv[j] = 0.0f;
    } else {
      winv[j] = 1.0f / w[j];
    }
  }
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) v[i][j] *= winv[j];
  std::free(winv);
  std::free(w);

  PcdMatrix* ut = PCD_NewMatrix(n, m);
  PcdMatrix* vw = PCD_NewMatrix(n, n);
  if (ut != nullptr && vw != nullptr) {
    for (int i = 0; i < m; ++i)
      for (int j = 0; j < n; ++j) ut->m[j][i] = u[i + 1][j + 1];
    for (int i = 0; i < n; ++i) std::memcpy(vw->m[i], &v[i + 1][1], sizeof(float) * n);
  }
  free_scratch_matrix(v);
  free_scratch_matrix(u);

  PcdMatrix* inverse = PCD_MultiplyMatrices(vw, ut);
  PCD_DeleteMatrix(vw);
  PCD_DeleteMatrix(ut);
  return inverse;
}

PcdVector* PCDnumerical_SolveLinearEquations(const PcdMatrix* a, const PcdVector* y) {
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrix(a);
  if (inverse == nullptr) {
    std::fputs("invA = NULL?\n", stderr);
    return nullptr;
  }
  PcdVector* x = PCD_MultiplyMatrixVector(inverse, y);
  PCD_DeleteMatrix(inverse);
  return x;
}

void svd_decompose(float** a, int m, int n, float* w, float** v, float* rv1) {
  const float norm = bidiagonalise(a, m, n, w, rv1);
  accumulate_right(a, n, v, rv1);
  accumulate_left(a, m, n, w);
  diagonalise(a, m, n, w, rv1, v, norm);
}
