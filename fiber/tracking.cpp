#include "fiber/tracking.h"

#include "dti/dti_check.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "dti/channels.h"
#include "fiber/half_lines.h"

// ---- direction rules -------------------------------------------------------------------

void get_tracking_direction_by_e1(PcdDiffusionTensorData* t, float px, float py, float pz,
                                  float* x, float* y, float* z) {
  float ex = t->tensor[1][3], ey = t->tensor[2][3], ez = t->tensor[3][3];
  const float c = ex * px + ey * py + ez * pz;
  t->turningAngle = c;
  if (c < 0.0f) {
    ex = -ex;
    ey = -ey;
    ez = -ez;
    t->turningAngle = -c;
  }
  *x = ex;
  *y = ey;
  *z = ez;
}

void get_tracking_direction_by_anisotropic_composition(PcdDiffusionTensorData* t, float px,
                                                       float py, float pz, float* x, float* y,
                                                       float* z) {
  const float l1 = t->eigenvalues[1], l2 = t->eigenvalues[2], l3 = t->eigenvalues[3];
  const float ra = l1 / l3, rb = l2 / l3;
  float k;
  if (static_cast<double>(rb) > 0.8) k = 1.0f;
  else if (static_cast<double>(rb) < 0.2) k = 51.0f;
  else k = 51.0f - (rb - 0.2f) * 83.33333f;
  PcdVector3D u[4];
  float s[4];
  const PcdVector3D p{px, py, pz};
  for (int j = 1; j <= 3; ++j) {
    u[j] = {t->tensor[1][j], t->tensor[2][j], t->tensor[3][j]};
    s[j] = u[j].x * p.x + u[j].y * p.y + u[j].z * p.z;
    if (s[j] <= 0.0f) {
      u[j] = {-u[j].x, -u[j].y, -u[j].z};
      s[j] = -s[j];
    }
    PCD_NormalizeVector3D(&u[j]);
  }
  // the weights in double as the powers come, each sum rounded to float once
  const double pb = std::pow(static_cast<double>(rb), static_cast<double>(k));
  const double pa = std::pow(static_cast<double>(ra), static_cast<double>(k));
  auto component = [&](float u2, float u1, float u3) {
    return static_cast<float>(u2 * s[2] * pb + u1 * s[1] * pa + u3 * s[3]);
  };
  PcdVector3D w{component(u[2].x, u[1].x, u[3].x), component(u[2].y, u[1].y, u[3].y),
                component(u[2].z, u[1].z, u[3].z)};
  PCD_NormalizeVector3D(&w);
  // the angle test then measures the previous direction against u1, on purpose
  t->turningAngle = u[1].x * p.x + u[1].y * p.y + u[1].z * p.z;
  *x = w.x;
  *y = w.y;
  *z = w.z;
}

// ---- tracking --------------------------------------------------------------------------

namespace {

// Tracking's tensor source: the tensor refitted from the signals interpolated at a point;
// side by side, the lanes' signals are fitted and diagonalised as one batch.
struct SampledTensors {
  static constexpr int kLanes = kPcdTensorLanes;
  const PcdDtiData* dti;
  PcdVoxelMajorSignals* voxelMajor;
  PcdTensorBatch batch;

  void At(const PcdVector3D& p, PcdDiffusionTensorData* t) {
    PCDdti_CalcAndDiagnalizeDiffusionTensor(dti, t, &p);
  }
  template <class Take>
  void AtLanes(const PcdVector3D* points, int count, PcdDiffusionTensorData* t, const Take& take) {
    batch.count = 0;
    for (int v = 0; v < count; ++v)
      PCDdti_InterpolateIntoTensorBatch(dti, voxelMajor, &points[v], &batch, batch.count++);
    PCDdti_EstimateTensorBatch(dti, t, &batch);
    PCDdti_DiagonalizeTensorBatch(&batch);
    for (int v = 0; v < count; ++v) {
      PCDdti_TakeDiagonalizedFromTensorBatch(&batch, v, t);
      take(v, t);
    }
  }
};

PcdHalfLineRule RuleOf(const PcdDtiData* dti, const PcdFibeTrakContext& context) {
  return {dti, &context.limits, context.step, context.nodeLimit, context.seedPoints,
          context.stopTest, context.directionRule};
}

// The work's seeds with the record: side by side when the pseudo-inverse can be formed up
// front (otherwise every node reports the failure itself, node after node).
bool TrackSeeds(PcdTrackingWork* w, PcdDiffusionTensorData* tensor) {
  SampledTensors source{w->dti, w->voxelMajor, {}};
  const PcdHalfLineRule rule = RuleOf(w->dti, *w->context);
  const PcdHalfLineShare share{w->buffer, w->first, w->last, &w->done};
  const bool sideBySide = PCDdti_PreparePseudoInverse(w->dti, tensor);
  if (sideBySide) PCDdti_ResizeTensorBatch(w->dti, &source.batch);
  return PCDfiber_TraceSeeds(rule, share, source, tensor, sideBySide);
}

}  // namespace

PcdTrakLineBuffer* do_fiber_tracking(const PcdDtiData* dti, const PcdFibeTrakContext* context,
                                     PcdDiffusionTensorData* tensor, PcdTrakLineBuffer* work,
                                     float dx, float dy, float dz) {
  SampledTensors source{dti, nullptr, {}};
  return PCDfiber_TraceHalfLine(RuleOf(dti, *context), source, tensor, work, dx, dy, dz);
}

void* threaded_fiber_tracking(void* argument) {
  auto* w = static_cast<PcdTrackingWork*>(argument);
  PcdDiffusionTensorData* tensor = PCDdti_NewDiffusionTensorData(w->dti->channelCount, w->dti->soCount);
  if (tensor != nullptr) tensor->voxelMajor = w->voxelMajor;
  if (tensor == nullptr || !TrackSeeds(w, tensor)) std::fputs("insufficient memory\n", stderr);
  PCDdti_DeleteDiffusionTensorData(tensor);
  w->done.store(w->last - w->first + 1, std::memory_order_relaxed);  // lets progress end
  return nullptr;
}

void* check_completion_for_fiber_tracking(void* argument) {
  auto* works = static_cast<PcdTrackingWork*>(argument);
  const int32_t total = works[0].total;
  if (total <= 0) return nullptr;
  for (;;) {
    int32_t done = 0;
    for (int32_t i = 0; i < works[0].threadCount; ++i) done += works[i].done.load(std::memory_order_relaxed);
    std::fprintf(stderr, "\rFiber tracking %d%% completed",
                 static_cast<int>(static_cast<float>(done) / static_cast<float>(total) * 100.0f));
    if (done >= total) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return nullptr;
}

PcdFibeTrakBuffer* PCDdti_FiberTracking(const PcdDtiData* dti, PcdFibeTrakContext* context,
                                        int threads, void*) {
  if (dti == nullptr || dti->isReady != 1) {
    std::fputs("DTI data NOT ready\n", stderr);
    return nullptr;
  }
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_INTERPOLATED)) return nullptr;
  PcdFibeTrakBuffer* buffer =
      new_fibetrak_buffer(context->seedCount, context->seedPoints, context->nodeLimit);
  if (buffer == nullptr) {
    std::fputs("insufficient memory\n", stderr);
    return nullptr;
  }
  if (threads > 512) threads = 512;
  if (threads < 1) threads = 1;
  PcdDiffusionTensorLimits& l = context->limits;
  l.cosAngleMax = static_cast<float>(std::cos(l.AngleMax * 0.01745328888888889));
  const bool none = l.useFAmin == 0 && l.useADCmax == 0 && l.useSoMin == 0 && l.useSoMax == 0 &&
                    l.useAngleMax == 0;
  context->stopTest = none ? check_if_stop_by_none : check_if_stop_by_values;
  if (context->scheme == PCD_TRACK_BY_ANISOTROPIC_COMPOSITION) {
    context->directionRule = get_tracking_direction_by_anisotropic_composition;
  } else {
    if (context->scheme != PCD_TRACK_BY_E1) std::fputs("Invalid tracking scheme. Set to e1 track\n", stderr);
    context->directionRule = get_tracking_direction_by_e1;
  }

  // every node reads all channels at one point: side by side they cost one short read per
  // stencil corner (without memory for the copy, the channel blocks serve as they are)
  PcdVoxelMajorSignals voxelMajor;
  const bool sideBySide = PCDdti_PrepareVoxelMajorSignals(dti, &voxelMajor);
  std::vector<int32_t> counts(static_cast<size_t>(threads));
  const int32_t used = distribute_objects_to_threads_optimally(context->seedCount, threads, counts.data());
  std::unique_ptr<PcdTrackingWork[]> works(new PcdTrackingWork[static_cast<size_t>(used > 0 ? used : 1)]);
  std::vector<std::thread> running;
  bool allStarted = true;
  int32_t first = 0;
  for (int32_t t = 0; t < used; ++t) {
    PcdTrackingWork& w = works[t];
    w.dti = dti;
    w.buffer = buffer;
    w.context = context;
    w.first = first;
    w.last = first + counts[static_cast<size_t>(t)] - 1;
    w.threadCount = used;
    w.total = context->seedCount;
    w.voxelMajor = sideBySide ? &voxelMajor : nullptr;
    first = w.last + 1;
    allStarted = PCD_StartThread(&running, threaded_fiber_tracking, &w) && allStarted;
  }
  // a range whose thread never ran would keep the progress line waiting for ever
  if (used > 1 && allStarted) PCD_StartThread(&running, check_completion_for_fiber_tracking, works.get());
  for (std::thread& t : running) t.join();
  std::fputs("\n", stderr);
  add_marks_to_fibetrak_buffer(buffer);
  pack_fibetrak_buffer(buffer);
  return buffer;
}

PcdVector3D PCDdti_SeedInVoxel(int x, int y, int z, int k) {
  constexpr double kAlpha[3] = {0.8191725133961645, 0.6710436067037893, 0.5497004779019703};
  auto frac = [](double v) { return v - std::floor(v); };
  return {static_cast<float>(x + (frac(0.5 + k * kAlpha[0]) - 0.5)),
          static_cast<float>(y + (frac(0.5 + k * kAlpha[1]) - 0.5)),
          static_cast<float>(z + (frac(0.5 + k * kAlpha[2]) - 0.5))};
}

bool PCDdti_VoxelIndexOfPoint(float x, float y, float z, const PcdIntSize3D& size, size_t* at) {
  const float fx = std::floor(x + 0.5f), fy = std::floor(y + 0.5f), fz = std::floor(z + 0.5f);
  if (!(fx >= 0 && fy >= 0 && fz >= 0 && fx < size.x && fy < size.y && fz < size.z)) return false;
  *at = static_cast<size_t>(fx) +
        static_cast<size_t>(size.x) * (static_cast<size_t>(fy) + static_cast<size_t>(size.y) * static_cast<size_t>(fz));
  return true;
}
