// The LU inverse of RBF systems as the tensor interpolator forms it, against the number of
// control points: the system of n points on a grid in a box (phi(r) = r), filled, decomposed
// and inverted. Reports the achieved rate counting 2 n^3 floating-point operations (n^3 / 3
// multiply-subtract pairs in the decomposition, n^3 / 6 + n^3 / 2 in the forward and back
// substitutions of the n columns).
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "fiber/rbf.h"

namespace {

PcdRbfSolution3D* GridSolution(int n) {
  PcdRbfSolution3D* s = PCDrbf_NewRbfSolution3D(n, kPcdRbfTensorKind);
  const int side = static_cast<int>(std::ceil(std::cbrt(static_cast<double>(n))));
  for (int i = 0; i < n; ++i) {
    *s->points[i] = {static_cast<float>(2 * (i % side)), static_cast<float>(2 * (i / side % side)),
                     static_cast<float>(2 * (i / side / side))};
    s->values->data[i] = 1e-3f * static_cast<float>(i % 7);
  }
  s->c = 0;
  return s;
}

// Arguments: control points, threads.
void BM_RbfInverse(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  PcdRbfSolution3D* s = GridSolution(n);
  PCDrbf_FillRbfSystem3D(s);
  for (auto _ : state) {
    PcdMatrix* inverse = PCDnumerical_GetInversedMatrixLUThreaded(s->matrix, static_cast<int>(state.range(1)));
    benchmark::DoNotOptimize(inverse->m[0][0]);
    PCD_DeleteMatrix(inverse);
  }
  const double m = n + 4.0;
  state.counters["GFLOP/s"] = benchmark::Counter(2.0 * m * m * m * 1e-9 * static_cast<double>(state.iterations()),
                                                 benchmark::Counter::kIsRate);
  PCDrbf_DeleteRbfSolution3D(s);
}
BENCHMARK(BM_RbfInverse)
    ->Args({500, 1})->Args({1000, 1})->Args({2000, 1})->Args({4000, 1})
    ->Args({500, 2})->Args({1000, 2})->Args({2000, 2})->Args({4000, 2})
    ->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// The textbook order (Crout's loops, one column of the inverse at a time) for comparison.
void BM_RbfInverseTextbook(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  PcdRbfSolution3D* s = GridSolution(n);
  PCDrbf_FillRbfSystem3D(s);
  const int m = n + 4;
  PcdMatrix* lu = PCD_NewMatrix(m + 1, m + 1);
  PcdMatrix* inverse = PCD_NewMatrix(m, m);
  std::vector<int> index(static_cast<size_t>(m) + 1);
  std::vector<float> scale(static_cast<size_t>(m) + 1);
  for (auto _ : state) {
    for (int i = 0; i < m; ++i)
      for (int j = 0; j < m; ++j) lu->m[i + 1][j + 1] = s->matrix->m[i][j];
    std::vector<float*> rows(lu->m, lu->m + m + 1);
    lu_decompose_crout(rows.data(), m, index.data(), scale.data());
    lu_inverse_by_columns(rows.data(), m, index.data(), inverse);
    benchmark::DoNotOptimize(inverse->m[0][0]);
  }
  const double mm = m;
  state.counters["GFLOP/s"] = benchmark::Counter(2.0 * mm * mm * mm * 1e-9 * static_cast<double>(state.iterations()),
                                                 benchmark::Counter::kIsRate);
  PCD_DeleteMatrix(lu);
  PCD_DeleteMatrix(inverse);
  PCDrbf_DeleteRbfSolution3D(s);
}
BENCHMARK(BM_RbfInverseTextbook)->Arg(500)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace
