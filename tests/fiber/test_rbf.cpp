// Radial basis function solutions against a dense solve in double, and the fast paths of
// the LU inverse and of the side-by-side evaluation against their plain forms.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "fiber/rbf.h"
#include "vol/simd.h"

namespace {

// Gaussian elimination with partial pivoting in double: the oracle for the weights.
std::vector<double> SolveDense(std::vector<std::vector<double>> a, std::vector<double> b) {
  const size_t n = b.size();
  for (size_t k = 0; k < n; ++k) {
    size_t p = k;
    for (size_t i = k + 1; i < n; ++i)
      if (std::fabs(a[i][k]) > std::fabs(a[p][k])) p = i;
    std::swap(a[k], a[p]);
    std::swap(b[k], b[p]);
    for (size_t i = k + 1; i < n; ++i) {
      const double f = a[i][k] / a[k][k];
      for (size_t j = k; j < n; ++j) a[i][j] -= f * a[k][j];
      b[i] -= f * b[k];
    }
  }
  std::vector<double> x(n);
  for (size_t i = n; i-- > 0;) {
    double s = b[i];
    for (size_t j = i + 1; j < n; ++j) s -= a[i][j] * x[j];
    x[i] = s / a[i][i];
  }
  return x;
}

// The system of a 3D or 2D solution written out in double from its definition: phi of
// the distances off the diagonal, zeros on it, 1 and the coordinates in the border.
template <typename Phi>
std::vector<double> OracleWeights(const std::vector<std::array<double, 3>>& p, int d,
                                  const std::vector<double>& values, const Phi& phi) {
  const size_t n = p.size(), m = n + static_cast<size_t>(d) + 1;
  std::vector<std::vector<double>> a(m, std::vector<double>(m, 0.0));
  for (size_t i = 0; i < n; ++i) {
    for (size_t j = 0; j < n; ++j) {
      if (i == j) continue;
      double r2 = 0;
      for (int k = 0; k < d; ++k) r2 += (p[i][k] - p[j][k]) * (p[i][k] - p[j][k]);
      a[i][j] = phi(std::sqrt(r2));
    }
    a[i][n] = a[n][i] = 1.0;
    for (int k = 0; k < d; ++k) a[i][n + 1 + k] = a[n + 1 + k][i] = p[i][k];
  }
  std::vector<double> b(values);
  b.resize(m, 0.0);
  return SolveDense(a, b);
}

// The interpolant written out in double with given weights, at q.
template <typename Phi>
double OracleValue(const std::vector<double>& w, const std::vector<std::array<double, 3>>& p, int d,
                   const std::array<double, 3>& q, const Phi& phi) {
  const size_t n = p.size();
  double s = w[n];
  for (int k = 0; k < d; ++k) s += w[n + 1 + static_cast<size_t>(k)] * q[static_cast<size_t>(k)];
  for (size_t i = 0; i < n; ++i) {
    double r2 = 0;
    for (int k = 0; k < d; ++k) r2 += (q[static_cast<size_t>(k)] - p[i][k]) * (q[static_cast<size_t>(k)] - p[i][k]);
    s += w[i] * phi(std::sqrt(r2));
  }
  return s;
}

const std::vector<std::array<double, 3>> kPoints3 = {
    {0, 0, 0}, {2, 0, 0}, {0, 3, 0}, {0, 0, 1.5}, {1, 1, 1}, {2.5, 0.5, 2}, {0.5, 2, 1}};
const std::vector<double> kValues3 = {1.0, -2.0, 0.5, 3.0, 0.25, -1.0, 2.0};

PcdRbfSolution3D* Make3D(int kind, float c) {
  PcdRbfSolution3D* s = PCDrbf_NewRbfSolution3D(static_cast<int>(kPoints3.size()), kind);
  for (size_t i = 0; i < kPoints3.size(); ++i) {
    *s->points[i] = {static_cast<float>(kPoints3[i][0]), static_cast<float>(kPoints3[i][1]),
                     static_cast<float>(kPoints3[i][2])};
    s->values->data[i] = static_cast<float>(kValues3[i]);
  }
  s->c = c;
  return s;
}

TEST(RbfBasis, FunctionsAndDerivativesHaveTheirDefiningValues) {
  EXPECT_FLOAT_EQ(multi_quadric_function(3, 4), 5.0f);
  EXPECT_FLOAT_EQ(multi_quadric_derivative(3, 4), 0.2f);
  EXPECT_FLOAT_EQ(thin_plate_spline_function(std::exp(1.0f), 0), std::exp(2.0f));
  EXPECT_EQ(thin_plate_spline_function(0, 0), 0.0f);
  EXPECT_EQ(thin_plate_spline_derivative(0, 0), 0.0f);
  EXPECT_FLOAT_EQ(thin_plate_spline_derivative(1, 0), 1.0f);
  EXPECT_EQ(tri_harmonic_function(2, 0), 8.0f);
  EXPECT_EQ(tri_harmonic_derivative(2, 0), 6.0f);
  EXPECT_FLOAT_EQ(gaussian_function(1, std::log(2.0f)), 0.5f);
  EXPECT_FLOAT_EQ(gaussian_derivative(1, std::log(2.0f)), -std::log(2.0f));
  EXPECT_EQ(gaussian_function(0, 5), 1.0f);
  EXPECT_EQ(bi_harmonic_function(2.5f, 9), 2.5f);
  EXPECT_EQ(bi_harmonic_derivative(4, 0), 0.25f);
}

TEST(RbfSolution, CreationChoosesTheKindAndRefusesEmptySets) {
  const std::pair<int, PcdRbfFunction> kinds[] = {
      {378, multi_quadric_function}, {195, thin_plate_spline_function}, {454, tri_harmonic_function},
      {941, gaussian_function},      {364, bi_harmonic_function},       {0, bi_harmonic_function},
      {-7, bi_harmonic_function}};
  for (const auto& [kind, phi] : kinds) {
    PcdRbfSolution3D* s = PCDrbf_NewRbfSolution3D(3, kind);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->phi, phi) << kind;
    EXPECT_EQ(s->kind, kind);
    EXPECT_EQ(s->values->n, 7);
    EXPECT_EQ(s->matrix->rows, 7);
    EXPECT_EQ(s->weights, nullptr);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(s->points[i]->x == 0 && s->points[i]->y == 0 && s->points[i]->z == 0);
    PCDrbf_DeleteRbfSolution3D(s);
    PcdRbfSolution2D* t = PCDrbf_NewRbfSolution2D(3, kind);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->phi, phi);
    EXPECT_EQ(t->values->n, 6);
    EXPECT_EQ(t->matrix->cols, 6);
    PCDrbf_DeleteRbfSolution2D(t);
  }
  EXPECT_EQ(PCDrbf_NewRbfSolution3D(0, 364), nullptr);
  EXPECT_EQ(PCDrbf_NewRbfSolution2D(-1, 364), nullptr);
  PCDrbf_DeleteRbfSolution3D(nullptr);
  PCDrbf_DeleteRbfSolution2D(nullptr);
}

// Kind 364 and any other unlisted code: phi(r) = r in the system, bit-identical weights.
TEST(RbfSolution, Code364IsTheLinearKindLikeAnyUnlistedCode) {
  PcdRbfSolution3D* a = Make3D(364, 0.0f);
  PcdRbfSolution3D* b = Make3D(12345, 0.0f);
  ASSERT_EQ(PCDrbf_RbfReconstruction3D(a), 0);
  ASSERT_EQ(PCDrbf_RbfReconstruction3D(b), 0);
  EXPECT_FLOAT_EQ(a->matrix->m[1][0], 2.0f);                // |(2,0,0)|
  EXPECT_FLOAT_EQ(a->matrix->m[2][1], std::sqrt(13.0f));    // |(2,-3,0)|
  EXPECT_FLOAT_EQ(a->matrix->m[4][3], 1.5f);                // |(1,1,-0.5)|
  EXPECT_EQ(std::memcmp(a->weights->data, b->weights->data, sizeof(float) * 11), 0);
  const std::vector<double> w = OracleWeights(kPoints3, 3, kValues3, [](double r) { return r; });
  for (size_t i = 0; i < w.size(); ++i) EXPECT_NEAR(a->weights->data[i], w[i], 1e-4 * (1 + std::fabs(w[i])));
  PCDrbf_DeleteRbfSolution3D(a);
  PCDrbf_DeleteRbfSolution3D(b);
}

// The solution passes through the given values and, between them, follows the formula
// with the oracle's weights; the border rows, the zero block and zero diagonal hold.
TEST(RbfSolution, ThreeDimensionalKindsInterpolateTheirValues) {
  struct Case {
    int kind;
    float c;
    double (*phi)(double, double);
  } cases[] = {
      {364, 0, [](double r, double) { return r; }},
      {454, 0, [](double r, double) { return r * r * r; }},
      {195, 0, [](double r, double) { return r == 0 ? 0 : r * r * std::log(r); }},
      {378, 0.5f, [](double r, double c) { return std::sqrt(r * r + c * c); }},
      {941, 0.3f, [](double r, double c) { return std::exp(-c * r * r); }},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.kind);
    PcdRbfSolution3D* s = Make3D(k.kind, k.c);
    s->values->data[7] = s->values->data[9] = 99.0f;  // reconstruction clears the tail
    ASSERT_EQ(PCDrbf_RbfReconstruction3D(s), 0);
    const int n = 7;
    for (int i = 0; i < n; ++i) {
      EXPECT_EQ(s->matrix->m[i][i], 0.0f);
      EXPECT_EQ(s->matrix->m[i][n], 1.0f);
      EXPECT_EQ(s->matrix->m[n + 3][i], static_cast<float>(kPoints3[static_cast<size_t>(i)][2]));
    }
    for (int r = n; r < n + 4; ++r)
      for (int c = n; c < n + 4; ++c) EXPECT_EQ(s->matrix->m[r][c], 0.0f);
    for (int r = n; r < n + 4; ++r) EXPECT_EQ(s->values->data[r], 0.0f);
    const double c = k.c;
    auto phi = [&](double r) { return k.phi(r, c); };
    const std::vector<double> w = OracleWeights(kPoints3, 3, kValues3, phi);
    // at a control point the own term adds w_i phi(0): nothing where phi(0) = 0
    for (size_t i = 0; i < kPoints3.size(); ++i) {
      const float got = PCDrbf_RbfInterpolation3D(s, s->points[i]);
      EXPECT_NEAR(got, OracleValue(w, kPoints3, 3, kPoints3[i], phi), 5e-4);
      if (k.phi(0, c) == 0) {
        EXPECT_NEAR(got, kValues3[i], 2e-4);
      }
    }
    const PcdVector3D q{0.7f, 1.3f, 0.4f};
    EXPECT_NEAR(PCDrbf_RbfInterpolation3D(s, &q), OracleValue(w, kPoints3, 3, {0.7, 1.3, 0.4}, phi), 5e-4);
    PCDrbf_DeleteRbfSolution3D(s);
  }
}

// With phi(0) = 1 the Gaussian system would carry ones on its diagonal; it carries zeros,
// and the control values come back only through weights solved for that system.
TEST(RbfSolution, GaussianKeepsTheZeroDiagonal) {
  PcdRbfSolution3D* s = Make3D(941, 0.3f);
  ASSERT_EQ(PCDrbf_RbfReconstruction3D(s), 0);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(s->matrix->m[i][i], 0.0f);
  const std::vector<double> zero = OracleWeights(kPoints3, 3, kValues3, [](double r) {
    return r == 0 ? 0.0 : std::exp(-0.3 * r * r);
  });
  for (size_t i = 0; i < 11; ++i) EXPECT_NEAR(s->weights->data[i], zero[i], 1e-3 * (1 + std::fabs(zero[i])));
  // the same points with ones on the diagonal solve to clearly different weights
  double different = 0;
  {
    const size_t n = kPoints3.size(), m = n + 4;
    std::vector<std::vector<double>> a(m, std::vector<double>(m, 0.0));
    for (size_t i = 0; i < n; ++i) {
      for (size_t j = 0; j < n; ++j) {
        double r2 = 0;
        for (int k = 0; k < 3; ++k) r2 += (kPoints3[i][k] - kPoints3[j][k]) * (kPoints3[i][k] - kPoints3[j][k]);
        a[i][j] = std::exp(-0.3 * r2);
      }
      a[i][n] = a[n][i] = 1;
      for (int k = 0; k < 3; ++k) a[i][n + 1 + k] = a[n + 1 + k][i] = kPoints3[i][k];
    }
    std::vector<double> b(kValues3);
    b.resize(m, 0.0);
    const std::vector<double> w1 = SolveDense(a, b);
    for (size_t i = 0; i < m; ++i) different = std::max(different, std::fabs(w1[i] - s->weights->data[i]));
  }
  EXPECT_GT(different, 0.1);
  // the zero-diagonal weights reproduce the values in the system; evaluating at a control
  // point adds the own term w_i phi(0) = w_i on top
  for (size_t i = 0; i < kPoints3.size(); ++i) {
    double row = zero[7] + zero[8] * kPoints3[i][0] + zero[9] * kPoints3[i][1] + zero[10] * kPoints3[i][2];
    for (size_t j = 0; j < kPoints3.size(); ++j) row += j == i ? 0.0 : zero[j] * s->matrix->m[i][j];
    EXPECT_NEAR(row, kValues3[i], 1e-3);
    EXPECT_NEAR(PCDrbf_RbfInterpolation3D(s, s->points[i]), kValues3[i] + s->weights->data[i], 1e-3);
  }
  PCDrbf_DeleteRbfSolution3D(s);
}

TEST(RbfSolution, TwoDimensionalSolutionInterpolatesItsValues) {
  const std::vector<std::array<double, 3>> p = {{0, 0, 0}, {1, 0, 0}, {0, 2, 0}, {1.5, 1.5, 0}, {0.5, 0.8, 0}};
  const std::vector<double> v = {0.0, 1.0, -1.0, 2.5, 0.3};
  PcdRbfSolution2D* s = PCDrbf_NewRbfSolution2D(5, 195);
  for (size_t i = 0; i < p.size(); ++i) {
    *s->points[i] = {static_cast<float>(p[i][0]), static_cast<float>(p[i][1])};
    s->values->data[i] = static_cast<float>(v[i]);
  }
  s->c = 0;
  ASSERT_EQ(PCDrbf_RbfReconstruction2D(s), 0);
  EXPECT_FLOAT_EQ(s->matrix->m[2][0], 4.0f * std::log(2.0f));  // r = 2: r^2 ln r
  for (int r = 5; r < 8; ++r)
    for (int c = 5; c < 8; ++c) EXPECT_EQ(s->matrix->m[r][c], 0.0f);
  const std::vector<double> w = OracleWeights(p, 2, v, [](double r) { return r == 0 ? 0 : r * r * std::log(r); });
  for (size_t i = 0; i < w.size(); ++i) EXPECT_NEAR(s->weights->data[i], w[i], 1e-4 * (1 + std::fabs(w[i])));
  for (size_t i = 0; i < p.size(); ++i) EXPECT_NEAR(PCDrbf_RbfInterpolation2D(s, s->points[i]), v[i], 1e-4);
  const PcdVector2D q{0.25f, 1.0f};
  double expected = w[5] + w[6] * 0.25 + w[7] * 1.0;
  for (size_t i = 0; i < p.size(); ++i) {
    const double r = std::hypot(0.25 - p[i][0], 1.0 - p[i][1]);
    expected += w[i] * r * r * std::log(r);
  }
  EXPECT_NEAR(PCDrbf_RbfInterpolation2D(s, &q), expected, 1e-4);
  // a second reconstruction replaces the weights with the same ones
  ASSERT_EQ(PCDrbf_RbfReconstruction2D(s), 0);
  EXPECT_NEAR(s->weights->data[0], w[0], 1e-4 * (1 + std::fabs(w[0])));
  PCDrbf_DeleteRbfSolution2D(s);
}

// ---- the fast paths ------------------------------------------------------------------------

// A single-precision square root equals the double one rounded back (the side-by-side
// evaluation relies on it), checked on every exponent and many mantissas.
TEST(RbfSharedField, FloatSquareRootEqualsTheDoubleOneRoundedBack) {
  std::mt19937 g(7);
  for (uint32_t e = 0; e < 255; ++e)
    for (int k = 0; k < 4000; ++k) {
      const uint32_t bits = (e << 23) | (g() & 0x7FFFFFu);
      float x;
      std::memcpy(&x, &bits, sizeof x);
      const float viaDouble = static_cast<float>(std::sqrt(static_cast<double>(x)));
      const float single = std::sqrt(x);
      ASSERT_EQ(std::memcmp(&viaDouble, &single, sizeof x), 0) << bits;
    }
}

// Several solutions over the same points evaluated side by side give, lane by lane, the
// bytes of PCDrbf_RbfInterpolation3D, for the linear kind (wide path) and another kind.
TEST(RbfSharedField, SideBySideEvaluationEqualsThePlainOneBitForBit) {
  std::mt19937 g(3);
  std::uniform_real_distribution<float> u(0.0f, 20.0f);
  for (int kind : {364, 941}) {
    SCOPED_TRACE(kind);
    const int n = 37;
    PcdRbfSolution3D* s[6];
    for (int k = 0; k < 6; ++k) {
      s[k] = PCDrbf_NewRbfSolution3D(n, kind);
      s[k]->c = 0.01f;
    }
    for (int i = 0; i < n; ++i) {
      const PcdVector3D p{std::floor(u(g)), std::floor(u(g)), std::floor(u(g)) + 0.5f * static_cast<float>(i)};
      for (int k = 0; k < 6; ++k) {
        *s[k]->points[i] = p;
        s[k]->values->data[i] = u(g) * 1e-4f;
      }
    }
    for (int k = 0; k < 6; ++k) ASSERT_EQ(PCDrbf_RbfReconstruction3D(s[k]), 0);
    PcdRbfSharedField field;
    ASSERT_TRUE(PCDrbf_PrepareSharedField(s, 6, &field));
    for (int lanes = 1; lanes <= kPcdRbfLanes; ++lanes) {
      PcdVector3D q[kPcdRbfLanes];
      for (int v = 0; v < lanes; ++v) q[v] = {u(g), u(g), u(g)};
      float out[6 * kPcdRbfLanes];
      PCDrbf_InterpolateSharedField(&field, q, lanes, out);
      for (int k = 0; k < 6; ++k)
        for (int v = 0; v < lanes; ++v) {
          const float plain = PCDrbf_RbfInterpolation3D(s[k], &q[v]);
          ASSERT_EQ(std::memcmp(&plain, &out[k * kPcdRbfLanes + v], sizeof(float)), 0) << k << " " << v;
        }
    }
    // a solution over other points cannot join the set
    s[5]->points[3]->x += 1.0f;
    PcdRbfSharedField other;
    EXPECT_FALSE(PCDrbf_PrepareSharedField(s, 6, &other));
    EXPECT_EQ(other.count, 0);
    for (PcdRbfSolution3D* x : s) PCDrbf_DeleteRbfSolution3D(x);
  }
}

// ---- the LU inverse ---------------------------------------------------------------------

struct Scratch {
  int n;
  std::vector<float> block;
  std::vector<float*> rows;
  std::vector<int> index;
  std::vector<float> scale;
  explicit Scratch(const std::vector<float>& a, int size)
      : n(size), block(static_cast<size_t>((n + 1) * (n + 1))), rows(static_cast<size_t>(n + 1)),
        index(static_cast<size_t>(n + 1)), scale(static_cast<size_t>(n + 1)) {
    for (int i = 0; i <= n; ++i) rows[static_cast<size_t>(i)] = &block[static_cast<size_t>(i * (n + 1))];
    for (int i = 1; i <= n; ++i)
      for (int j = 1; j <= n; ++j) rows[static_cast<size_t>(i)][j] = a[static_cast<size_t>((i - 1) * n + j - 1)];
  }
  bool SameAs(const Scratch& o) const {
    for (int i = 1; i <= n; ++i)
      if (index[static_cast<size_t>(i)] != o.index[static_cast<size_t>(i)] ||
          std::memcmp(&rows[static_cast<size_t>(i)][1], &o.rows[static_cast<size_t>(i)][1], sizeof(float) * static_cast<size_t>(n)) != 0)
        return false;
    return true;
  }
};

// Random matrices, with every fourth row scaled down so that pivoting reorders them and a
// zero-free border like the RBF systems'.
std::vector<float> RandomMatrix(int n, uint32_t seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::vector<float> a(static_cast<size_t>(n * n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a[static_cast<size_t>(i * n + j)] = u(g) * (i % 4 == 0 ? 1e-3f : 1.0f);
  return a;
}

bool SameMatrix(const PcdMatrix* a, const PcdMatrix* b) {
  for (int i = 0; i < a->rows; ++i)
    if (std::memcmp(a->m[i], b->m[i], sizeof(float) * static_cast<size_t>(a->cols)) != 0) return false;
  return true;
}

// The blocked decomposition and the column-block inverse against Crout's loops and the
// one-column solve, across panel and block boundaries, thread counts and every vector
// width the processor has.
TEST(LuFastPaths, BlockedDecompositionAndColumnBlocksGiveTheTextbookBytes) {
  for (PcdSimdLevel level : {PCD_SIMD_BASELINE, PCD_SIMD_AVX2, PCD_SIMD_AVX512})
  for (int n : {1, 2, 17, 47, 48, 49, 97, 130}) {
    SCOPED_TRACE(testing::Message() << "n " << n << ", level " << level);
    PCD_SetSimdLevelLimit(level);
    const std::vector<float> a = RandomMatrix(n, static_cast<uint32_t>(n));
    Scratch crout(a, n);
    lu_decompose_crout(crout.rows.data(), n, crout.index.data(), crout.scale.data());
    PcdMatrix* plain = PCD_NewMatrix(n, n);
    lu_inverse_by_columns(crout.rows.data(), n, crout.index.data(), plain);
    for (int threads : {1, 3}) {
      Scratch blocked(a, n);
      lu_decompose_blocked(blocked.rows.data(), n, blocked.index.data(), blocked.scale.data(), threads);
      EXPECT_TRUE(blocked.SameAs(crout)) << threads;
    }
    for (int threads : {1, 2, 7}) {
      PcdMatrix* fast = PCD_NewMatrix(n, n);
      lu_inverse_by_blocks(crout.rows.data(), n, crout.index.data(), fast, threads);
      EXPECT_TRUE(SameMatrix(fast, plain)) << threads;
      PCD_DeleteMatrix(fast);
    }
    PCD_DeleteMatrix(plain);
  }
  PCD_SetSimdLevelLimit(PCD_SIMD_AVX512);
}

// An infinite entry makes NaN out of zero terms: the column blocks must then give way to
// the one-column solve, which skips them.
TEST(LuFastPaths, NonFiniteFactorsFallBackToTheOneColumnSolve) {
  const int n = 70;
  std::vector<float> a = RandomMatrix(n, 11);
  a[static_cast<size_t>(65 * n + 3)] = INFINITY;
  Scratch f(a, n);
  lu_decompose_crout(f.rows.data(), n, f.index.data(), f.scale.data());
  PcdMatrix* plain = PCD_NewMatrix(n, n);
  PcdMatrix* fast = PCD_NewMatrix(n, n);
  lu_inverse_by_columns(f.rows.data(), n, f.index.data(), plain);
  lu_inverse_by_blocks(f.rows.data(), n, f.index.data(), fast, 2);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const bool bothNan = std::isnan(plain->m[i][j]) && std::isnan(fast->m[i][j]);
      ASSERT_TRUE(bothNan || std::memcmp(&plain->m[i][j], &fast->m[i][j], sizeof(float)) == 0) << i << " " << j;
    }
  PCD_DeleteMatrix(plain);
  PCD_DeleteMatrix(fast);
}

// The public inverse on several threads: the same bytes, and a true inverse.
TEST(LuFastPaths, ThreadedInverseEqualsTheOneThreadInverse) {
  const int n = 150;
  const std::vector<float> values = RandomMatrix(n, 5);
  PcdMatrix* a = PCD_NewMatrix(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a->m[i][j] = values[static_cast<size_t>(i * n + j)] + (i == j ? 2.0f : 0.0f);
  PcdMatrix* one = PCDnumerical_GetInversedMatrixLU(a);
  PcdMatrix* three = PCDnumerical_GetInversedMatrixLUThreaded(a, 3);
  EXPECT_TRUE(SameMatrix(one, three));
  PcdMatrix* product = PCD_MultiplyMatrices(a, one);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) ASSERT_NEAR(product->m[i][j], i == j ? 1.0 : 0.0, 2e-3);
  for (PcdMatrix* m : {a, one, three, product}) PCD_DeleteMatrix(m);
}

}  // namespace
