// Deterministic fiber tracking: from every seed, forward and backward along the
// principal diffusion direction in fixed steps, the tensor refitted from interpolated
// signals at every node, until a stop criterion fires.
#pragma once

#include <atomic>
#include <cstdint>

#include "dti/dti_data.h"
#include "dti/tensor.h"
#include "fiber/stop_rules.h"
#include "fiber/trakline.h"

enum PcdTrackingScheme : int32_t {
  PCD_TRACK_BY_E1 = 123,
  PCD_TRACK_BY_ANISOTROPIC_COMPOSITION = 345,
};

struct PcdFibeTrakContext {
  PcdDiffusionTensorLimits limits;
  int32_t nodeLimit = 160;
  float step = 0.7f;
  int32_t scheme = PCD_TRACK_BY_E1;
  int32_t seedCount = 0;
  PcdVector3D* seedPoints = nullptr;
  int (*stopTest)(const PcdDiffusionTensorData*, const PcdDiffusionTensorLimits*) = nullptr;
  void (*directionRule)(PcdDiffusionTensorData*, float px, float py, float pz, float* x,
                        float* y, float* z) = nullptr;
};

// Null with "DTI data NOT ready\n" when the MPG setting is not ready. The fourth argument
// is accepted and ignored.
PcdFibeTrakBuffer* PCDdti_FiberTracking(const PcdDtiData* dti, PcdFibeTrakContext* context,
                                        int threads, void* unused = nullptr);

// Direction rules (the previous direction in, the next one out; they set the record's
// turning cosine).
void get_tracking_direction_by_e1(PcdDiffusionTensorData* t, float px, float py, float pz,
                                  float* x, float* y, float* z);
void get_tracking_direction_by_anisotropic_composition(PcdDiffusionTensorData* t, float px,
                                                       float py, float pz, float* x, float* y,
                                                       float* z);
struct PcdTrackingWork {
  const PcdDtiData* dti = nullptr;
  PcdFibeTrakBuffer* buffer = nullptr;
  const PcdFibeTrakContext* context = nullptr;
  int32_t first = 0, last = -1;  // seed indices, inclusive
  std::atomic<int32_t> done{0};
  int32_t threadCount = 0, total = 0;
  PcdVoxelMajorSignals* voxelMajor = nullptr;  // the run's shared copy of the signals, or null
};
void* threaded_fiber_tracking(void* work);
void* check_completion_for_fiber_tracking(void* works);
// Fills the work line from node 0 on; the packed copy, or null when it cannot be made.
PcdTrakLineBuffer* do_fiber_tracking(const PcdDtiData* dti, const PcdFibeTrakContext* context,
                                     PcdDiffusionTensorData* tensor, PcdTrakLineBuffer* work,
                                     float dx, float dy, float dz);

// Seed k of voxel (x, y, z) for seeding K per voxel. The interpolated reads take voxel
// (x, y, z)'s sample at the point (x, y, z) itself, so that point is the voxel's centre and
// the voxel spans x - 0.5 .. x + 0.5 along each axis: per axis the seed lies at
// x + frac(0.5 + k * alpha) - 0.5 of a low-discrepancy sequence, so k = 0 is the centre
// and any K spreads evenly.
PcdVector3D PCDdti_SeedInVoxel(int x, int y, int z, int k);
// So a point p lies (p + this) voxels from the volume's corner, where voxel boxes start
// (what pictures and TrackVis millimetres count from).
constexpr float kPcdVoxelCentreFromCorner = 0.5f;
// The voxel a point belongs to, the one whose sample is nearest: its index in an x-fastest
// volume of the given size in *at; false for a point outside the volume (or not a number).
bool PCDdti_VoxelIndexOfPoint(float x, float y, float z, const PcdIntSize3D& size, size_t* at);
