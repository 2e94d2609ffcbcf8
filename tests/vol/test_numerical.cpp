// Matrices, products and the two solvers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "vol/numerical.h"

namespace {

PcdMatrix* Matrix(int32_t rows, int32_t cols, std::initializer_list<float> values) {
  PcdMatrix* a = PCD_NewMatrix(rows, cols);
  auto it = values.begin();
  for (int32_t i = 0; i < rows; ++i)
    for (int32_t j = 0; j < cols; ++j) a->m[i][j] = *it++;
  return a;
}

PcdVector* Vector(std::initializer_list<float> values) {
  PcdVector* v = PCD_NewVector(static_cast<int32_t>(values.size()));
  std::copy(values.begin(), values.end(), v->data);
  return v;
}

// The accumulation every product uses: start at 0.0f, add each double product and round
// back to float after every addition.
float Accumulate(std::initializer_list<std::pair<float, float>> terms) {
  float sum = 0.0f;
  for (const auto& [a, b] : terms)
    sum = static_cast<float>(static_cast<double>(sum) + static_cast<double>(a) * b);
  return sum;
}

TEST(Products, RoundToFloatAfterEveryAdditionOfADoubleProduct) {
  // terms chosen so that float products, or a double sum rounded once, differ
  const float a0 = 16777217.0f, a1 = 1.0000001f, a2 = 3.3333333f;
  const float b0 = 1.0f / 3.0f, b1 = 16777215.0f, b2 = -7.0000005f;
  PcdMatrix* a = Matrix(1, 3, {a0, a1, a2});
  PcdMatrix* b = Matrix(3, 1, {b0, b1, b2});
  PcdMatrix* ab = PCD_MultiplyMatrices(a, b);
  ASSERT_NE(ab, nullptr);
  const float expected = Accumulate({{a0, b0}, {a1, b1}, {a2, b2}});
  EXPECT_EQ(std::memcmp(&ab->m[0][0], &expected, 4), 0);
  const double once = static_cast<double>(a0) * b0 + static_cast<double>(a1) * b1 +
                      static_cast<double>(a2) * b2;
  EXPECT_NE(static_cast<float>(once), expected);  // the test would not see a wrong order

  PcdVector* x = Vector({b0, b1, b2});
  PcdVector* ax = PCD_MultiplyMatrixVector(a, x);
  EXPECT_EQ(std::memcmp(&ax->data[0], &expected, 4), 0);
  PcdVector* into = PCD_NewVector(1);
  ASSERT_EQ(PCD_MultiplyMatrixVectorInto(a, x, into), 0);
  EXPECT_EQ(std::memcmp(into->data, ax->data, 4), 0);
  EXPECT_EQ(PCD_MultiplyMatrixVectorInto(a, x, x), -1);

  PcdMatrix* t = PCD_GetTransposedMatrix(a);
  EXPECT_EQ(t->rows, 3);
  EXPECT_EQ(t->m[2][0], a2);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_MultiplyMatrices(a, a), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Dimension mismatched\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_MultiplyMatrices(nullptr, a), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_Multiply3Matrices(a, b, t), nullptr);  // (A B) is 1 x 1, T is 3 x 1
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Dimension mismatched\n");
  for (PcdMatrix* m : {a, b, ab, t}) PCD_DeleteMatrix(m);
  for (PcdVector* v : {x, ax, into}) PCD_DeleteVector(v);
}

TEST(PseudoInverse, SolvesSquareOverDeterminedAndRankDeficientSystems) {
  PcdMatrix* identity = PCD_NewMatrix(6, 6);
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j) identity->m[i][j] = i == j ? 1.0f : 0.0f;
  PcdVector* y = Vector({1, -2, 3, 0.5f, 7, -1});
  PcdVector* x = PCDnumerical_SolveLinearEquations(identity, y);
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(x->data[i], y->data[i], 1e-6);
  PCD_DeleteVector(x);

  // a 4 x 3 consistent system with a repeated equation
  PcdMatrix* a = Matrix(4, 3, {1, 2, 0, 0, 1, 1, 1, 0, 1, 1, 2, 0});
  PcdVector* rhs = Vector({5, 5, 4, 5});  // solution (1, 2, 3)
  x = PCDnumerical_SolveLinearEquations(a, rhs);
  ASSERT_NE(x, nullptr);
  EXPECT_NEAR(x->data[0], 1, 1e-5);
  EXPECT_NEAR(x->data[1], 2, 1e-5);
  EXPECT_NEAR(x->data[2], 3, 1e-5);
  // reusing the pseudo-inverse gives the same bytes as solving afresh
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrix(a);
  PcdVector* again = PCD_MultiplyMatrixVector(inverse, rhs);
  EXPECT_EQ(std::memcmp(again->data, x->data, 12), 0);
  PCD_DeleteVector(x);
  PCD_DeleteVector(again);
  PCD_DeleteMatrix(inverse);

  // a zero column: reported once, minimum-norm solution with 0 for that unknown
  PcdMatrix* z = Matrix(3, 3, {1, 0, 0, 0, 2, 0, 0, 0, 0});
  for (int i = 0; i < 3; ++i) z->m[i][2] = 0.0f;
  PcdVector* zy = Vector({1, 4, 0});
  testing::internal::CaptureStderr();
  x = PCDnumerical_SolveLinearEquations(z, zy);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "<!> 0 element in W of SVD\n");
  EXPECT_NEAR(x->data[0], 1, 1e-6);
  EXPECT_NEAR(x->data[1], 2, 1e-6);
  EXPECT_EQ(x->data[2], 0.0f);
  PCD_DeleteVector(x);

  // a nearly singular matrix keeps its tiny singular value: nothing is dropped
  PcdMatrix* tiny = Matrix(2, 2, {1, 0, 0, 1e-20f});
  testing::internal::CaptureStderr();
  inverse = PCDnumerical_GetInversedMatrix(tiny);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FLOAT_EQ(inverse->m[1][1], 1e20f);
  PCD_DeleteMatrix(inverse);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDnumerical_SolveLinearEquations(nullptr, y), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "PCDnumerical_GetInversedMatrix: matrix == NULL?\ninvA = NULL?\n");
  for (PcdMatrix* m : {identity, a, z, tiny}) PCD_DeleteMatrix(m);
  for (PcdVector* v : {y, rhs, zy}) PCD_DeleteVector(v);
}

TEST(PseudoInverse, ARepeatedEquationLeavesTheSolutionUnchanged) {
  // six equations of the tensor-fit shape, then the third one again
  const float rows[7][6] = {{1, 0, 0, 2, 0, 0}, {0, 1, 0, 0, 0, 1}, {0, 0, 1, 0, 1, 0},
                            {1, 1, 0, 1, 0, 0}, {0, 1, 1, 0, 0, 2}, {1, 0, 1, 0, 1, 1},
                            {0, 0, 1, 0, 1, 0}};
  const float solution[6] = {0.5f, -1, 2, 0.25f, 3, -0.75f};
  PcdMatrix* square = PCD_NewMatrix(6, 6);
  PcdMatrix* tall = PCD_NewMatrix(7, 6);
  PcdVector* y6 = PCD_NewVector(6);
  PcdVector* y7 = PCD_NewVector(7);
  for (int i = 0; i < 7; ++i) {
    double sum = 0;
    for (int j = 0; j < 6; ++j) {
      tall->m[i][j] = rows[i][j];
      if (i < 6) square->m[i][j] = rows[i][j];
      sum += static_cast<double>(rows[i][j]) * solution[j];
    }
    y7->data[i] = static_cast<float>(sum);
    if (i < 6) y6->data[i] = static_cast<float>(sum);
  }
  PcdVector* x6 = PCDnumerical_SolveLinearEquations(square, y6);
  PcdVector* x7 = PCDnumerical_SolveLinearEquations(tall, y7);
  ASSERT_NE(x6, nullptr);
  ASSERT_NE(x7, nullptr);
  for (int j = 0; j < 6; ++j) {
    EXPECT_NEAR(x6->data[j], solution[j], 1e-5);
    EXPECT_NEAR(x7->data[j], solution[j], 1e-5);
  }
  for (PcdMatrix* m : {square, tall}) PCD_DeleteMatrix(m);
  for (PcdVector* v : {y6, y7, x6, x7}) PCD_DeleteVector(v);
}

TEST(SvdDecomposition, ReproducesTheMatrix) {
  const float values[5][4] = {{2, -1, 0, 3}, {1, 4, 2, 0}, {0, 1, -3, 1}, {5, 0, 1, 1}, {1, 1, 1, 1}};
  std::vector<std::vector<float>> a(6, std::vector<float>(5)), v(5, std::vector<float>(5));
  std::vector<float*> ar(6), vr(5);
  for (int i = 0; i < 6; ++i) ar[i] = a[i].data();
  for (int i = 0; i < 5; ++i) vr[i] = v[i].data();
  for (int i = 1; i <= 5; ++i)
    for (int j = 1; j <= 4; ++j) a[i][j] = values[i - 1][j - 1];
  float w[5], rv1[5];
  svd_decompose(ar.data(), 5, 4, w, vr.data(), rv1);
  for (int i = 1; i <= 5; ++i)
    for (int j = 1; j <= 4; ++j) {
      double sum = 0;
      for (int k = 1; k <= 4; ++k) sum += static_cast<double>(a[i][k]) * w[k] * v[j][k];
      EXPECT_NEAR(sum, values[i - 1][j - 1], 1e-5);
    }
  for (int k = 1; k <= 4; ++k) EXPECT_GE(w[k], 0.0f);
}

TEST(LuInverse, InvertsSquareMatricesAndRefusesOthersSilently) {
  PcdMatrix* a = Matrix(3, 3, {0, 2, 1, 1, 1, 0, 3, 0, 1});  // needs pivoting
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrixLU(a);
  ASSERT_NE(inverse, nullptr);
  PcdMatrix* product = PCD_MultiplyMatrices(a, inverse);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(product->m[i][j], i == j ? 1.0 : 0.0, 1e-6);
  PcdVector* y = Vector({3, 2, 4});
  PcdVector* x = PCDnumerical_SolveLinearEquationsLU(a, y);
  EXPECT_NEAR(x->data[0], 1, 1e-6);
  EXPECT_NEAR(x->data[1], 1, 1e-6);
  EXPECT_NEAR(x->data[2], 1, 1e-6);
  PcdMatrix* wide = Matrix(2, 3, {1, 2, 3, 4, 5, 6});
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDnumerical_SolveLinearEquationsLU(wide, y), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  for (PcdMatrix* m : {a, inverse, product, wide}) PCD_DeleteMatrix(m);
  PCD_DeleteVector(y);
  PCD_DeleteVector(x);
}

TEST(LuInverseDeathTest, SingularMatrixEndsTheProgramWithStatusOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  PcdMatrix* a = Matrix(2, 2, {1, 2, 0, 0});
  EXPECT_EXIT(PCDnumerical_GetInversedMatrixLU(a), testing::ExitedWithCode(1),
              "Numerical Recipes run-time error...\nSingular matrix in routine ludcmp\n"
              "...now exiting to system...\n");
  PCD_DeleteMatrix(a);
}

}  // namespace
