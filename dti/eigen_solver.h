// The eigen solver of the tensor (Householder reduction, QL iteration, sorting), written
// once as templates for any matrix that indexes like a[i][k] and any size type: the public
// tred2/tqli/sort2 run it on float** with a run-time n; the tensor code runs it on a local
// 3 x 3 with n fixed at compile time, where the compiler unrolls the loops and keeps the
// values out of memory that might alias. The operations and their order are the same in
// both, so the bits are.
#pragma once

#include <cmath>
#include <type_traits>
#include <utility>


namespace pcd_eigen {

using Three = std::integral_constant<int, 3>;

// sqrt(a^2 + b^2) without destructive overflow: the root taken in double.
inline float Pythag(float a, float b) {
  const float absa = std::fabs(a), absb = std::fabs(b);
  if (absa > absb) {
    const float ratio = absb / absa;
    return static_cast<float>(absa * std::sqrt(1.0 + ratio * ratio));
  }
  if (absb == 0.0f) return 0.0f;
  const float ratio = absa / absb;
  return static_cast<float>(absb * std::sqrt(1.0 + ratio * ratio));
}

// Householder reduction of the symmetric a[1..n][1..n] to tridiagonal form: diagonal in
// d, off-diagonal in e[2..n] (e[1] = 0), a replaced by the accumulated orthogonal
// transformation.
template <typename Matrix, typename Size>
void Tred2Body(Matrix a, Size n, float* d, float* e) {
  for (int i = n; i >= 2; --i) {
    const int l = i - 1;
    float h = 0.0f;
    if (l > 1) {
      float scale = 0.0f;
      for (int k = 1; k <= l; ++k) scale += std::fabs(a[i][k]);
      if (scale == 0.0f) {
        e[i] = a[i][l];
      } else {
        for (int k = 1; k <= l; ++k) {
          a[i][k] /= scale;
          h += a[i][k] * a[i][k];
        }
        float f = a[i][l];
        float g = f >= 0.0f ? -std::sqrt(h) : std::sqrt(h);
        e[i] = scale * g;
        h -= f * g;
        a[i][l] = f - g;
        f = 0.0f;
        for (int j = 1; j <= l; ++j) {
          a[j][i] = a[i][j] / h;
          g = 0.0f;
          for (int k = 1; k <= j; ++k) g += a[j][k] * a[i][k];
          for (int k = j + 1; k <= l; ++k) g += a[k][j] * a[i][k];
          e[j] = g / h;
          f += e[j] * a[i][j];
        }
        const float hh = f / (h + h);
        for (int j = 1; j <= l; ++j) {
          f = a[i][j];
          e[j] = g = e[j] - hh * f;
          for (int k = 1; k <= j; ++k) a[j][k] -= (f * e[k] + g * a[i][k]);
        }
      }
    } else {
      e[i] = a[i][l];
    }
    d[i] = h;
  }
  d[1] = 0.0f;
  e[1] = 0.0f;
  for (int i = 1; i <= n; ++i) {
    const int l = i - 1;
    if (d[i] != 0.0f) {
      for (int j = 1; j <= l; ++j) {
        float g = 0.0f;
        for (int k = 1; k <= l; ++k) g += a[i][k] * a[k][j];
        for (int k = 1; k <= l; ++k) a[k][j] -= g * a[k][i];
      }
    }
    d[i] = a[i][i];
    a[i][i] = 1.0f;
    for (int j = 1; j <= l; ++j) a[j][i] = a[i][j] = 0.0f;
  }
}

// The give-up state of the QL iteration, written for 3 x 3 only: identity axes and
// eigenvalues of 1e-14, an isotropic tensor.
template <typename Matrix>
void ResetEigenSystem(float* d, float* e, Matrix z) {
  for (int i = 1; i <= 3; ++i) {
    for (int j = 1; j <= 3; ++j) z[i][j] = i == j ? 1.0f : 0.0f;
    d[i] = 1.0e-14f;
    e[i] = 1.0e-14f;
  }
}

template <typename Matrix, typename Size>
int TqliBody(float* d, float* e, Size n, Matrix z) {
  for (int i = 2; i <= n; ++i) e[i - 1] = e[i];
  e[n] = 0.0f;
  for (int l = 1; l <= n; ++l) {
    int sweeps = 0;
    int m;
    do {
      for (m = l; m <= n - 1; ++m) {
        const float dd = std::fabs(d[m]) + std::fabs(d[m + 1]);
        if (std::fabs(e[m]) + dd == dd) break;
      }
      if (m == l) break;
      if (sweeps++ == 30) {
        ResetEigenSystem(d, e, z);
        return 0;
      }
      float g = (d[l + 1] - d[l]) / (2.0f * e[l]);
      float r = Pythag(g, 1.0f);
      g = d[m] - d[l] + e[l] / (g + (g >= 0.0f ? std::fabs(r) : -std::fabs(r)));
      float s = 1.0f, c = 1.0f, p = 0.0f;
      int i;
      for (i = m - 1; i >= l; --i) {
        float f = s * e[i];
        const float b = c * e[i];
        e[i + 1] = (r = Pythag(f, g));
        if (r == 0.0f) {
          d[i + 1] -= p;
          e[m] = 0.0f;
          break;
        }
        s = f / r;
        c = g / r;
        g = d[i + 1] - p;
        r = (d[i] - g) * s + 2.0f * c * b;
        d[i + 1] = g + (p = s * r);
        g = c * r - b;
        for (int k = 1; k <= n; ++k) {
          f = z[k][i + 1];
          z[k][i + 1] = s * z[k][i] + c * f;
          z[k][i] = c * z[k][i] - s * f;
        }
      }
      if (r == 0.0f && i >= l) continue;
      d[l] -= p;
      e[l] = g;
      e[m] = 0.0f;
    } while (m != l);
  }
  return 1;
}

// Sorts arr[1..n] ascending and moves brr[1..n] along. Straight insertion below 7
// elements (equal keys keep their order), quicksort with a stack of 50 above.
template <typename Size>
void Sort2Body(Size n, float* arr, float* brr) {
  constexpr int kInsertionLimit = 7;
  int stack[51];
  int top = 0, lo = 1, hi = n;
  for (;;) {
    if (hi - lo < kInsertionLimit) {
      for (int j = lo + 1; j <= hi; ++j) {
        const float a = arr[j], b = brr[j];
        int i = j - 1;
        for (; i >= lo && arr[i] > a; --i) {
          arr[i + 1] = arr[i];
          brr[i + 1] = brr[i];
        }
        arr[i + 1] = a;
        brr[i + 1] = b;
      }
      if (top == 0) return;
      hi = stack[top--];
      lo = stack[top--];
      continue;
    }
    const int k = (lo + hi) >> 1;
    std::swap(arr[k], arr[lo + 1]);
    std::swap(brr[k], brr[lo + 1]);
    auto order = [&](int x, int y) {
      if (arr[x] > arr[y]) {
        std::swap(arr[x], arr[y]);
        std::swap(brr[x], brr[y]);
      }
    };
    order(lo, hi);
    order(lo + 1, hi);
    order(lo, lo + 1);
    int i = lo + 1, j = hi;
    const float a = arr[lo + 1], b = brr[lo + 1];
    for (;;) {
      do ++i; while (arr[i] < a);
      do --j; while (arr[j] > a);
      if (j < i) break;
      std::swap(arr[i], arr[j]);
      std::swap(brr[i], brr[j]);
    }
    arr[lo + 1] = arr[j];
    arr[j] = a;
    brr[lo + 1] = brr[j];
    brr[j] = b;
    if (top + 2 > 50) return;  // cannot happen for the sizes used here
    if (hi - i + 1 >= j - lo) {
      stack[++top] = i;
      stack[++top] = hi;
      hi = j - 1;
    } else {
      stack[++top] = lo;
      stack[++top] = j - 1;
      lo = i;
    }
  }
}

// Unit eigenvectors, then eigenvalues and eigenvectors in ascending order.
inline void FinishEigenSystem(float (*a)[4], float* d, float* e) {
  for (int j = 1; j <= 3; ++j) {
    const float length = std::sqrt(a[1][j] * a[1][j] + a[2][j] * a[2][j] + a[3][j] * a[3][j]);
    const float inverse = 1.0f / length;
    for (int i = 1; i <= 3; ++i) a[i][j] *= inverse;
  }
  // Sorting each row with a fresh copy of the eigenvalues applies one permutation to
  // all three rows, so whole columns (the eigenvectors) move with their eigenvalues.
  for (int row = 1; row <= 3; ++row) {
    for (int i = 1; i <= 3; ++i) e[i] = d[i];
    Sort2Body(Three{}, e, a[row]);
  }
  for (int i = 1; i <= 3; ++i) e[i] = d[i];
  Sort2Body(Three{}, e, d);
}

// Eigen-system of the tensor in a, eigenvalues ascending in d, e left holding them too.
inline void Diagonalize3(float (*a)[4], float* d, float* e) {
  Tred2Body(a, Three{}, d, e);
  TqliBody(d, e, Three{}, a);
  FinishEigenSystem(a, d, e);
}

// The symmetric matrix of six components, as StoreComponents leaves it.
inline void ComponentsToMatrix(const float* x, float (*a)[4]) {
  a[1][1] = x[0];
  a[2][2] = x[1];
  a[3][3] = x[2];
  a[2][1] = a[1][2] = x[3];
  a[3][2] = a[2][3] = x[4];
  a[1][3] = a[3][1] = x[5];
}

}  // namespace pcd_eigen
