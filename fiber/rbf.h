// Radial basis function solutions: scalar values given at n scattered control points in
// space (3D) or in the plane (2D), interpolated as
//   f(p) = w[n] + w[n+1] x + w[n+2] y (+ w[n+3] z) + sum_i w[i] phi(|p - P_i|, c).
//
// Arithmetic is single precision throughout; square roots and transcendental functions
// are taken in double and rounded back to float. The system is solved through the LU
// inverse of vol/numerical.
//
// Order of use: create, set the points, the first n values and c, reconstruct once,
// interpolate as often as needed, delete.
#pragma once

#include <cstdint>
#include <vector>

#include "vol/numerical.h"
#include "vol/raw_volume.h"

// Basis kinds. Any other code selects bi_harmonic_function (phi(r) = r): the tensor
// interpolator's code 364 is served that way.
enum PcdRbfKind : int32_t {
  PCD_RBF_MULTI_QUADRIC = 378,
  PCD_RBF_THIN_PLATE_SPLINE = 195,
  PCD_RBF_TRI_HARMONIC = 454,
  PCD_RBF_GAUSSIAN = 941,
};
constexpr int32_t kPcdRbfTensorKind = 364;

using PcdRbfFunction = float (*)(float r, float c);

struct PcdRbfSolution3D {
  int32_t n = 0;                       // control point count
  PcdVector3D** points = nullptr;      // n points, created at the origin
  PcdVector* values = nullptr;         // n + 4: the caller's n values, then 4 zeros
  PcdMatrix* matrix = nullptr;         // (n + 4) x (n + 4), filled by reconstruction
  PcdVector* weights = nullptr;        // the last reconstruction's solution, or null
  int32_t kind = 0;
  PcdRbfFunction phi = nullptr;        // phi(r, c)
  PcdRbfFunction phiDerivative = nullptr;  // phi'(r) / r, kept for gradients
  float c;                             // shape parameter, set by the caller
};

struct PcdRbfSolution2D {
  int32_t n = 0;
  PcdVector2D** points = nullptr;
  PcdVector* values = nullptr;  // n + 3
  PcdMatrix* matrix = nullptr;  // (n + 3) x (n + 3)
  PcdVector* weights = nullptr;
  int32_t kind = 0;
  PcdRbfFunction phi = nullptr;
  PcdRbfFunction phiDerivative = nullptr;
  float c;
};

float multi_quadric_function(float r, float c);
float multi_quadric_derivative(float r, float c);
float thin_plate_spline_function(float r, float c);
float thin_plate_spline_derivative(float r, float c);
float tri_harmonic_function(float r, float c);
float tri_harmonic_derivative(float r, float c);
float gaussian_function(float r, float c);
float gaussian_derivative(float r, float c);
float bi_harmonic_function(float r, float c);
float bi_harmonic_derivative(float r, float c);

// Null when n < 1 or memory runs out (pieces already allocated are not released).
PcdRbfSolution3D* PCDrbf_NewRbfSolution3D(int n, int kind);
PcdRbfSolution2D* PCDrbf_NewRbfSolution2D(int n, int kind);
void PCDrbf_DeleteRbfSolution3D(PcdRbfSolution3D* solution);
void PCDrbf_DeleteRbfSolution2D(PcdRbfSolution2D* solution);

// Fills the system (zero diagonal whatever phi(0) is, zero lower-right block) and solves
// it: 0, or -1 when the solver gave no solution. A singular system ends the program, as
// the LU solver does.
int PCDrbf_RbfReconstruction3D(PcdRbfSolution3D* solution);
int PCDrbf_RbfReconstruction2D(PcdRbfSolution2D* solution);

// The weights must exist (a successful reconstruction).
float PCDrbf_RbfInterpolation3D(const PcdRbfSolution3D* solution, const PcdVector3D* point);
float PCDrbf_RbfInterpolation2D(const PcdRbfSolution2D* solution, const PcdVector2D* point);

// ---- several solutions over the same control points -----------------------------------

// The two halves of a reconstruction, for callers that solve several solutions with the
// same points, kind and c: their systems are identical, so one inverse serves them all.
// Fill writes the values' last entries and the system matrix; Solve replaces the weights
// with inverse * values (null inverse: no weights) and gives 0 or -1.
void PCDrbf_FillRbfSystem3D(PcdRbfSolution3D* solution);
int PCDrbf_SolveRbfWithInverse3D(PcdRbfSolution3D* solution, const PcdMatrix* inverse);
// 1 when two solutions have the same count, kind, c and points, bit for bit.
int PCDrbf_HaveSameSystem3D(const PcdRbfSolution3D* a, const PcdRbfSolution3D* b);

// The first count solutions (1 .. kPcdRbfMaxShared) of a reconstructed set with shared
// points, ready to be evaluated side by side: the points in columns and the weights of
// each solution in a row, so that a distance is computed once for all of them.
constexpr int kPcdRbfMaxShared = 6;
constexpr int kPcdRbfLanes = 8;  // points evaluated side by side
struct PcdRbfSharedField {
  int32_t n = 0;
  int32_t count = 0;
  int32_t kind = 0;
  float c = 0;
  PcdRbfFunction phi = nullptr;
  std::vector<float> px, py, pz;  // control points
  std::vector<float> w;           // w[s * (n + 4) + i]: the weights of solution s
};
// False (and the field untouched) when a solution has no weights or the points differ.
bool PCDrbf_PrepareSharedField(const PcdRbfSolution3D* const* solutions, int count,
                               PcdRbfSharedField* field);
// out[s * kPcdRbfLanes + v] = PCDrbf_RbfInterpolation3D(solution s, points[v]) bit for
// bit, for v < lanes (at most kPcdRbfLanes).
void PCDrbf_InterpolateSharedField(const PcdRbfSharedField* field, const PcdVector3D* points,
                                   int lanes, float* out);
