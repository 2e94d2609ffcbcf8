// Dense single-precision matrices and vectors, their products, and two linear solvers:
// least squares through an SVD pseudo-inverse and square systems through an LU inverse.
//
// Every operation returns a new record that the caller deletes. Nothing here keeps
// state between calls, so all functions may run on several threads at once as long as
// each thread works on its own records.
//
// Products accumulate in a fixed way that is part of the result: each result entry
// starts at 0.0f and, for the inner index increasing, receives (double)a * (double)b
// added in double precision and rounded back to float after every addition.
#pragma once

#include <cstdint>

struct PcdVector {
  int32_t n = 0;
  float* data = nullptr;  // n entries, a one-dimensional FLOAT32 array
};

struct PcdMatrix {
  int32_t rows = 0;
  int32_t cols = 0;
  float** m = nullptr;  // FLOAT32 2D array (row pointers), m[row][col]
};

// Entries are not cleared. Null for n/rows/cols < 1 or when memory runs out.
PcdVector* PCD_NewVector(int32_t n);
void PCD_DeleteVector(PcdVector* vector);
PcdMatrix* PCD_NewMatrix(int32_t rows, int32_t cols);
void PCD_DeleteMatrix(PcdMatrix* matrix);

PcdMatrix* PCD_GetTransposedMatrix(const PcdMatrix* a);
// Null on a null argument (silently) or a mismatch of the inner dimension
// ("Dimension mismatched\n" on stderr) or when memory runs out.
PcdMatrix* PCD_MultiplyMatrices(const PcdMatrix* a, const PcdMatrix* b);
PcdMatrix* PCD_Multiply3Matrices(const PcdMatrix* a, const PcdMatrix* b, const PcdMatrix* c);
PcdVector* PCD_MultiplyMatrixVector(const PcdMatrix* a, const PcdVector* x);

// The same product as PCD_MultiplyMatrixVector, bit for bit, written into a vector the
// caller already holds (result->n must equal a->rows, result must not be x). For hot
// loops that apply one precomputed pseudo-inverse to many right-hand sides. 0, or -1 on
// a null or shared argument or a mismatch ("Dimension mismatched\n").
int PCD_MultiplyMatrixVectorInto(const PcdMatrix* a, const PcdVector* x, PcdVector* result);

// n x m pseudo-inverse of an m x n matrix by singular value decomposition; only exactly
// vanishing singular values are dropped ("<!> 0 element in W of SVD\n" for each).
// The result depends only on A: computing it once and reusing it for many right-hand
// sides gives the same bytes as PCDnumerical_SolveLinearEquations on each of them.
PcdMatrix* PCDnumerical_GetInversedMatrix(const PcdMatrix* a);
// x = pseudo-inverse(A) * y; null (with "invA = NULL?\n") if the inverse fails.
PcdVector* PCDnumerical_SolveLinearEquations(const PcdMatrix* a, const PcdVector* y);

// Inverse of a square matrix by Crout LU decomposition with partial pivoting. A
// non-square matrix gives null silently. A singular matrix (a row of zeros) or a failed
// scratch allocation ENDS THE PROGRAM with status 1 after a message on stderr.
PcdMatrix* PCDnumerical_GetInversedMatrixLU(const PcdMatrix* a);
// The same inverse, byte for byte, with the decomposition's updates and the inverse's
// columns shared out over up to `threads` threads.
PcdMatrix* PCDnumerical_GetInversedMatrixLUThreaded(const PcdMatrix* a, int threads);
PcdVector* PCDnumerical_SolveLinearEquationsLU(const PcdMatrix* a, const PcdVector* y);

// ---- the decomposition itself, exposed for the tests ---------------------------------
// Golub-Reinsch SVD of a[1..m][1..n] (1-based float arrays): on return a holds U
// (m x n), w[1..n] the singular values (non-negative, unsorted) and v[1..n][1..n] V, so
// that A = U * diag(w) * V^T. At most 1000 QR sweeps per singular value; when they run
// out the routine quietly goes on with the next one. rv1 is scratch of n + 1 floats.
void svd_decompose(float** a, int m, int n, float* w, float** v, float* rv1);

// The LU decomposition on 1-based a[1..n][1..n] (row pointers; pivoting swaps them), the
// interchanges into index[1..n], scale scratch of n + 1 floats. Crout's textbook loop
// order, and the order the inverse uses: the same factors bit for bit.
void lu_decompose_crout(float** a, int n, int* index, float* scale);
void lu_decompose_blocked(float** a, int n, int* index, float* scale, int threads);
// The inverse from the factors into out (n x n, 0-based): one column of the identity at a
// time, and 64 columns side by side on up to `threads` threads; the same bytes.
void lu_inverse_by_columns(float* const* a, int n, const int* index, PcdMatrix* out);
void lu_inverse_by_blocks(float* const* a, int n, const int* index, PcdMatrix* out, int threads);
