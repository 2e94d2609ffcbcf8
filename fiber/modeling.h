// Fiber modeling: tracking as fiber/tracking does it, but through a smooth tensor field.
// The six tensor components measured at a sparse grid of control voxels are each
// interpolated by a radial basis function solution (phi(r) = r), and the tensor at every
// node is rebuilt from the six interpolated components. The interpolated field can be
// written out as a synthetic seven-channel b = 1000 acquisition.
#pragma once

#include <atomic>
#include <cstdint>

#include "dti/dti_data.h"
#include "dti/tensor.h"
#include "fiber/rbf.h"
#include "fiber/tracking.h"
#include "fiber/trakline.h"

// The stop criteria of tracking, then the run's own fields. Modeling always follows e1.
struct PcdFibeModelContext {
  PcdDiffusionTensorLimits limits;
  int32_t nodeLimit = 160;
  float step = 0.7f;
  int32_t seedCount = 0;
  PcdVector3D* seedPoints = nullptr;
  int (*stopTest)(const PcdDiffusionTensorData*, const PcdDiffusionTensorLimits*) = nullptr;
};

// Six component solutions over the same control points (kind 364: phi(r) = r).
struct TensorInterPolator {
  int32_t n = 0;
  PcdRbfSolution3D* Dxx = nullptr;
  PcdRbfSolution3D* Dyy = nullptr;
  PcdRbfSolution3D* Dzz = nullptr;
  PcdRbfSolution3D* Dxy = nullptr;
  PcdRbfSolution3D* Dyz = nullptr;
  PcdRbfSolution3D* Dzx = nullptr;
  // The six side by side, so that a node's distances are found once for all of them.
  PcdRbfSharedField field;
};

// Runs the modeling: null (with its message) when the data set is not ready or not fit
// for analysis, the control-location volume (8-bit, 1 = may carry a control tensor) does
// not match the data set, memory runs out or no tensor field can be made. The dump, when
// named, is the interpolated field as a raw body of 7 SINT16 channels. The sixth argument
// is accepted and ignored.
PcdFibeTrakBuffer* PCDdti_FiberModeling(const PcdDtiData* dti, PcdFibeModelContext* context,
                                        const PcdRawVolumeData* controls, int threads,
                                        const char* dumpName, void* unused = nullptr);

// What solving the systems of n control tensors takes: bytes of memory and seconds at
// kPcdModelingOperationsPerSecond. Beyond kPcdModelingSecondsBudget (or the memory the
// machine has) a run is refused with one "Err: " line naming the count, before anything
// is allocated, rather than left to run for hours.
struct PcdModelingCost {
  double bytes = 0.0;
  double seconds = 0.0;
};
// the explicit single-precision inverse runs at about 40e9 operations per CPU-second
// here (bench/README.md); half of that allows for older processors and a loaded machine
constexpr double kPcdModelingOperationsPerSecond = 2.0e10;
constexpr double kPcdModelingSecondsBudget = 180.0;
PcdModelingCost PCDdti_EstimateModelingCost(int32_t n);

// The control grid's spacing for a volume w voxels wide: 1, 2, 4, and 6 beyond 256.
int PCDdti_ModelingPitch(int32_t width);

// ---- the interpolator --------------------------------------------------------------------

// The control voxels are the foreground voxels whose coordinates are all multiples of
// pitch. Reconstruction forms one LU inverse for the six identical systems, its columns
// on up to `threads` threads. Null, with its message, when no control voxel exists, the
// control voxels lie in one plane (a singular system), the systems cost more than the
// machine allows (PCDdti_EstimateModelingCost) or an allocation fails.
TensorInterPolator* new_tensor_interpolator(const PcdDtiData* dti, const PcdRawVolumeData* controls,
                                            int pitch, int threads);
void delete_tensor_interpolator(TensorInterPolator* interpolator);
// A new solution of the same size and kind with a copy of the source's points (and c).
PcdRbfSolution3D* make_location_clone_interpolator(const PcdRbfSolution3D* source);

struct PcdReconstructionWork {
  PcdRbfSolution3D* solution = nullptr;
  const PcdMatrix* inverse = nullptr;  // shared by all six; null: the solution solves alone
  int result = -1;
};
void* threaded_reconstruction_of_interpolator(void* work);

// The tensor at a point from the six solutions, set into the record and diagonalised;
// the diagonalisation's result.
int get_interpolated_diffusion_tensor(const TensorInterPolator* interpolator, const PcdVector3D* point,
                                      PcdDiffusionTensorData* record);
// The diffusion coefficient of a diagonalised tensor along g: sum over its eigenpairs of
// lambda_k (e_k . g)^2, k = 1, 2, 3.
float get_ADC_value_of_rotated_tensor(const PcdDiffusionTensorData* record, const PcdVector3D* g);
// x * x, and exactly 0 for 0.
float SQR(float x);

// Writes the interpolated field: width x height x depth x 7 SINT16, channel c =
// int16(int(S0 exp(-1000 ADC(T, g_c)))), the slices shared out over `threads` threads.
// 0, or -1 when nothing could be written.
int dump_interpolator_as_volumedata(const PcdDtiData* dti, const TensorInterPolator* interpolator,
                                    const char* fileName, int threads);

// ---- the modeling workers ------------------------------------------------------------------

struct PcdModelingWork {
  const PcdDtiData* dti = nullptr;
  const TensorInterPolator* interpolator = nullptr;
  PcdFibeTrakBuffer* buffer = nullptr;
  const PcdFibeModelContext* context = nullptr;
  int32_t first = 0, last = -1;  // seed indices, inclusive
  std::atomic<int32_t> done{0};
  int32_t threadCount = 0, total = 0;
  bool sideBySide = true;  // several half-lines per evaluation; false: node after node
};
void* threaded_fiber_modeling(void* work);
void* check_completion_for_fiber_modeling(void* works);
// One half-line from node 0 of the work line; the packed copy, or null.
PcdTrakLineBuffer* do_fiber_modeling(const TensorInterPolator* interpolator, const PcdDtiData* dti,
                                     const PcdFibeModelContext* context, PcdDiffusionTensorData* tensor,
                                     PcdTrakLineBuffer* work, float dx, float dy, float dz);

// The tracking half of a run, for an interpolator already made: seeds split over the
// threads, joined, marked and packed into buffer. sideBySide chooses the worker's path
// (the same lines either way).
void PCDdti_ModelFibersThroughInterpolator(const PcdDtiData* dti, const PcdFibeModelContext* context,
                                           const TensorInterPolator* interpolator,
                                           PcdFibeTrakBuffer* buffer, int threads, bool sideBySide);
