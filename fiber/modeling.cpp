#include "fiber/modeling.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "dti/channels.h"
#include "dti/dti_check.h"
#include "fiber/half_lines.h"
#include "io/raw_volume_file.h"

namespace {

constexpr const char* kComponentNames[6] = {"Dxx", "Dyy", "Dzz", "Dxy", "Dyz", "Dzx"};

PcdRbfSolution3D** component(TensorInterPolator* t, int k) {
  PcdRbfSolution3D** all[6] = {&t->Dxx, &t->Dyy, &t->Dzz, &t->Dxy, &t->Dyz, &t->Dzx};
  return all[k];
}

const PcdRbfSolution3D* component(const TensorInterPolator* t, int k) {
  const PcdRbfSolution3D* all[6] = {t->Dxx, t->Dyy, t->Dzz, t->Dxy, t->Dyz, t->Dzx};
  return all[k];
}

// Foreground of the control-location volume: byte value 1.
bool is_control_voxel(const PcdRawVolumeData* controls, int x, int y, int z) {
  const PcdIntSize4D& s = *controls->matrixSize;
  const auto* bytes = static_cast<const uint8_t*>(controls->data[0]);
  return bytes[(static_cast<size_t>(z) * static_cast<size_t>(s.y) + static_cast<size_t>(y)) *
                   static_cast<size_t>(s.x) + static_cast<size_t>(x)] == 1;
}

// Memory the system may still take, from the kernel's estimate.
int64_t available_memory_bytes() {
  if (FILE* f = std::fopen("/proc/meminfo", "r")) {
    char line[256];
    long long kb = -1;
    while (std::fgets(line, sizeof line, f) != nullptr)
      if (std::sscanf(line, "MemAvailable: %lld kB", &kb) == 1) break;
    std::fclose(f);
    if (kb >= 0) return static_cast<int64_t>(kb) * 1024;
  }
  const long pages = sysconf(_SC_AVPHYS_PAGES), size = sysconf(_SC_PAGESIZE);
  return pages > 0 && size > 0 ? static_cast<int64_t>(pages) * size : INT64_MAX;
}

// Three (n + 4)^2-float matrices are filled at once: the shared system, the
// decomposition's copy and the inverse (the other five systems are allocated but never
// written); forming the inverse takes about 2 (n + 4)^3 operations.
// Refused before anything is allocated when that is more than the machine's memory (or
// the QUORIX_MEMORY_LIMIT_MB share) or the time budget allows.
bool systems_fit_the_machine(int32_t n) {
  const PcdModelingCost cost = PCDdti_EstimateModelingCost(n);
  const double have = static_cast<double>(
      std::min<int64_t>(available_memory_bytes(), static_cast<int64_t>(std::min<size_t>(PCD_MaxAllocationBytes(), INT64_MAX))));
  if (cost.bytes <= have && cost.seconds <= kPcdModelingSecondsBudget) return true;
  std::fprintf(stderr,
               "Err: %d control tensors need about %.2f GB and %.0f s to solve, more than the %.2f GB and "
               "%.0f s allowed here; narrow the control region (a smaller seed or target region, or a "
               "control mask or ROI of the tissue the fibers run through)\n",
               n, cost.bytes / 1e9, cost.seconds, have / 1e9, kPcdModelingSecondsBudget);
  return false;
}

// The system of phi(r) = r with its affine part is singular when the control points do
// not span space: all on one plane (or one line, or fewer than four points).
bool controls_span_space(const std::vector<PcdIntVector3D>& p) {
  if (p.size() < 4) return false;
  auto sub = [](const PcdIntVector3D& a, const PcdIntVector3D& b) {
    return std::array<int64_t, 3>{int64_t{a.x} - b.x, int64_t{a.y} - b.y, int64_t{a.z} - b.z};
  };
  size_t i = 1;
  while (i < p.size() && sub(p[i], p[0]) == std::array<int64_t, 3>{0, 0, 0}) ++i;
  if (i == p.size()) return false;
  const auto u = sub(p[i], p[0]);
  std::array<int64_t, 3> normal{0, 0, 0};
  size_t j = i + 1;
  for (; j < p.size(); ++j) {
    const auto v = sub(p[j], p[0]);
    normal = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    if (normal != std::array<int64_t, 3>{0, 0, 0}) break;
  }
  for (size_t k = j + 1; k < p.size(); ++k) {
    const auto w = sub(p[k], p[0]);
    if (normal[0] * w[0] + normal[1] * w[1] + normal[2] * w[2] != 0) return true;
  }
  return false;
}

// The control volume must cover the data set voxel for voxel with one byte per voxel.
bool controls_fit(const PcdDtiData* dti, const PcdRawVolumeData* controls) {
  if (controls == nullptr || controls->matrixSize == nullptr || controls->dataType == nullptr ||
      controls->matrixSize->channels < 1 || controls->data == nullptr || controls->data[0] == nullptr) {
    std::fputs("Err: no control-location volume\n", stderr);
    return false;
  }
  const PcdIntSize4D& c = *controls->matrixSize;
  const PcdIntSize4D& v = *dti->volume->matrixSize;
  if (c.x != v.x || c.y != v.y || c.z != v.z) {
    std::fprintf(stderr, "Err: the control-location volume is %d x %d x %d, the data set %d x %d x %d\n",
                 c.x, c.y, c.z, v.x, v.y, v.z);
    return false;
  }
  if (PCD_SizeOfDataType(controls->dataType[0]) != 1) {
    std::fputs("Err: the control-location volume must hold one byte per voxel\n", stderr);
    return false;
  }
  return true;
}

// Reconstruction of all six: their systems are the same matrix, so it is filled once (in
// Dxx: the other five never need theirs, whose pages are then never touched), inverted
// once (columns over the threads) and each component multiplies its own values in a
// thread of its own.
bool reconstruct_interpolator(TensorInterPolator* t, int threads) {
  PCDrbf_FillRbfSystem3D(t->Dxx);
  for (int k = 1; k < 6; ++k)
    std::memcpy((*component(t, k))->values->data + t->n, t->Dxx->values->data + t->n, 4 * sizeof(float));
  // more threads than cores only add start-up costs (the bytes never depend on the count)
  const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  PcdMatrix* inverse = PCDnumerical_GetInversedMatrixLUThreaded(t->Dxx->matrix, std::min(threads, cores));
  PcdReconstructionWork works[6];
  std::vector<std::thread> running;
  for (int k = 0; k < 6; ++k) {
    works[k].solution = *component(t, k);
    works[k].inverse = inverse;
    if (inverse != nullptr) PCD_StartThread(&running, threaded_reconstruction_of_interpolator, &works[k]);
  }
  for (std::thread& r : running) r.join();
  PCD_DeleteMatrix(inverse);
  bool ok = inverse != nullptr;
  for (const PcdReconstructionWork& w : works) ok = ok && w.result == 0;
  return ok;
}

}  // namespace

float SQR(float x) { return x == 0.0f ? 0.0f : x * x; }

PcdModelingCost PCDdti_EstimateModelingCost(int32_t n) {
  const double side = static_cast<double>(n) + 4.0;
  return {3.0 * side * side * sizeof(float), 2.0 * side * side * side / kPcdModelingOperationsPerSecond};
}

int PCDdti_ModelingPitch(int32_t width) {
  if (width <= 64) return 1;
  if (width <= 128) return 2;
  if (width <= 256) return 4;
  return 6;  // deliberately 6, not 8
}

PcdRbfSolution3D* make_location_clone_interpolator(const PcdRbfSolution3D* source) {
  PcdRbfSolution3D* clone = PCDrbf_NewRbfSolution3D(source->n, source->kind);
  if (clone == nullptr) return nullptr;
  for (int32_t i = 0; i < source->n; ++i) *clone->points[i] = *source->points[i];
  clone->c = source->c;
  return clone;
}

void* threaded_reconstruction_of_interpolator(void* argument) {
  auto* w = static_cast<PcdReconstructionWork*>(argument);
  w->result = w->inverse != nullptr ? PCDrbf_SolveRbfWithInverse3D(w->solution, w->inverse)
                                    : PCDrbf_RbfReconstruction3D(w->solution);
  return nullptr;
}

void delete_tensor_interpolator(TensorInterPolator* t) {
  if (t == nullptr) return;
  for (int k = 0; k < 6; ++k) PCDrbf_DeleteRbfSolution3D(*component(t, k));
  delete t;
}

TensorInterPolator* new_tensor_interpolator(const PcdDtiData* dti, const PcdRawVolumeData* controls,
                                            int pitch, int threads) {
  const PcdIntSize4D& s = *controls->matrixSize;
  int64_t foreground = 0;
  for (int z = 0; z < s.z; ++z)
    for (int y = 0; y < s.y; ++y)
      for (int x = 0; x < s.x; ++x) foreground += is_control_voxel(controls, x, y, z);
  std::fprintf(stderr, "Originally %d places\n", static_cast<int>(foreground));
  int32_t n = 0;
  for (int z = 0; z < s.z; z += pitch)
    for (int y = 0; y < s.y; y += pitch)
      for (int x = 0; x < s.x; x += pitch) n += is_control_voxel(controls, x, y, z);
  std::fprintf(stderr, "Control tensor loc. volume: %d x %d x %d (x %d)\n", s.x, s.y, s.z, s.channels);
  std::fprintf(stderr, ">>>>>>>>>>>> %d control tensors (pitch:%d)<<<<<<<<<<<<<\n", n, pitch);
  if (n == 0) {
    std::fputs("Control voxel NOT found\n", stderr);
    return nullptr;
  }
  std::vector<PcdIntVector3D> grid;
  grid.reserve(static_cast<size_t>(n));
  for (int z = 0; z < s.z; z += pitch)
    for (int y = 0; y < s.y; y += pitch)
      for (int x = 0; x < s.x; x += pitch)
        if (is_control_voxel(controls, x, y, z)) grid.push_back({x, y, z});
  if (!controls_span_space(grid)) {
    std::fprintf(stderr,
                 "Err: the %d control tensors lie in one plane, which gives no tensor field; the control "
                 "region must be more than one slice thick\n",
                 n);
    return nullptr;
  }
  if (!systems_fit_the_machine(n)) return nullptr;

  auto* t = new (std::nothrow) TensorInterPolator;
  if (t == nullptr) return nullptr;
  t->n = n;
  t->Dxx = PCDrbf_NewRbfSolution3D(n, kPcdRbfTensorKind);
  if (t->Dxx == nullptr) {
    std::fprintf(stderr, "Can NOT allocate memory for Dxx interpolator (nLoc=%d).\n", n);
    delete_tensor_interpolator(t);
    return nullptr;
  }
  t->Dxx->c = 0.0f;
  for (int k = 1; k < 6; ++k) {
    *component(t, k) = make_location_clone_interpolator(t->Dxx);
    if (*component(t, k) == nullptr) {
      std::fprintf(stderr, "Can NOT allocate memory for %s interpolator (nLoc=%d).\n", kComponentNames[k], n);
      delete_tensor_interpolator(t);
      return nullptr;
    }
  }
  std::fputs("Component-wise Interpolators OK\n", stderr);

  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  if (record == nullptr) {
    std::fputs("insufficient memory\n", stderr);
    delete_tensor_interpolator(t);
    return nullptr;
  }
  std::fputs("tmpDT data OK\n", stderr);
  int32_t at = 0;
  for (int z = 0; z < s.z && at < n; z += pitch)
    for (int y = 0; y < s.y && at < n; y += pitch)
      for (int x = 0; x < s.x && at < n; x += pitch) {
        if (!is_control_voxel(controls, x, y, z)) continue;
        const PcdVector3D p{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
        const PcdIntVector3D voxel{x, y, z};
        PCDdti_CalcDiffusionTensorAtVoxel(dti, record, &voxel);
        const float values[6] = {record->Dxx, record->Dyy, record->Dzz, record->Dxy, record->Dyz, record->Dxz};
        for (int k = 0; k < 6; ++k) {
          PcdRbfSolution3D* solution = *component(t, k);
          *solution->points[at] = p;
          solution->values->data[at] = values[k];
        }
        ++at;
      }
  std::fputs("Control loc & val OK\n", stderr);
  const bool solved = reconstruct_interpolator(t, threads);
  PCDdti_DeleteDiffusionTensorData(record);
  if (!solved) {
    delete_tensor_interpolator(t);
    return nullptr;
  }
  std::fputs("Reconstruction OK\n", stderr);
  const PcdRbfSolution3D* all[6] = {t->Dxx, t->Dyy, t->Dzz, t->Dxy, t->Dyz, t->Dzx};
  PCDrbf_PrepareSharedField(all, 6, &t->field);
  return t;
}

// ---- the tensor at a point ----------------------------------------------------------------

int get_interpolated_diffusion_tensor(const TensorInterPolator* t, const PcdVector3D* p,
                                      PcdDiffusionTensorData* record) {
  float d[6];
  for (int k = 0; k < 6; ++k) d[k] = PCDrbf_RbfInterpolation3D(component(t, k), p);
  PCDdti_SetDiffusionTensorData(record, d[0], d[1], d[2], d[3], d[4], d[5]);
  return PCDdti_DiagonalizeDiffusionTensorData(record);
}

float get_ADC_value_of_rotated_tensor(const PcdDiffusionTensorData* record, const PcdVector3D* g) {
  float adc = 0.0f;
  for (int k = 1; k <= 3; ++k) {
    const float along = record->tensor[1][k] * g->x + record->tensor[2][k] * g->y + record->tensor[3][k] * g->z;
    adc = adc + record->eigenvalues[k] * SQR(along);
  }
  return adc;
}

namespace {

// Up to eight points at once: each lane's record as get_interpolated_diffusion_tensor
// leaves it is produced by `take(v, record)` in lane order.
template <typename Take>
void interpolate_lanes(const TensorInterPolator* t, const PcdVector3D* points, int lanes,
                       PcdDiffusionTensorData* record, const Take& take) {
  if (t->field.count != 6) {
    for (int v = 0; v < lanes; ++v) {
      get_interpolated_diffusion_tensor(t, &points[v], record);
      take(v, record);
    }
    return;
  }
  float d[6 * kPcdRbfLanes];
  PCDrbf_InterpolateSharedField(&t->field, points, lanes, d);
  for (int v = 0; v < lanes; ++v) {
    PCDdti_SetDiffusionTensorData(record, d[v], d[kPcdRbfLanes + v], d[2 * kPcdRbfLanes + v],
                                  d[3 * kPcdRbfLanes + v], d[4 * kPcdRbfLanes + v], d[5 * kPcdRbfLanes + v]);
    PCDdti_DiagonalizeDiffusionTensorData(record);
    take(v, record);
  }
}

constexpr PcdVector3D kDumpDirections[7] = {
    {0, 0, 0},          {0.707f, 0, 0.707f},  {-0.707f, 0, 0.707f}, {0, 0.707f, 0.707f},
    {0, 0.707f, -0.707f}, {0.707f, 0.707f, 0}, {-0.707f, 0.707f, 0}};

// Rows y0 .. y1 of slice z of the synthetic acquisition.
void dump_rows(const PcdDtiData* dti, const TensorInterPolator* t, PcdRawVolumeData* out, int z, int y0,
               int y1, PcdDiffusionTensorData* record) {
  const PcdIntSize4D& s = *out->matrixSize;
  const auto* so = static_cast<const int16_t*>(dti->volume->data[0]);
  for (int y = y0; y <= y1; ++y)
    for (int x0 = 0; x0 < s.x; x0 += kPcdRbfLanes) {
      const int lanes = std::min(kPcdRbfLanes, s.x - x0);
      PcdVector3D p[kPcdRbfLanes];
      for (int v = 0; v < lanes; ++v)
        p[v] = {static_cast<float>(x0 + v), static_cast<float>(y), static_cast<float>(z)};
      interpolate_lanes(t, p, lanes, record, [&](int v, const PcdDiffusionTensorData* r) {
        const size_t at = (static_cast<size_t>(z) * static_cast<size_t>(s.y) + static_cast<size_t>(y)) *
                              static_cast<size_t>(s.x) + static_cast<size_t>(x0 + v);
        const float s0 = static_cast<float>(so[at]);
        for (int c = 0; c < 7; ++c) {
          const float adc = get_ADC_value_of_rotated_tensor(r, &kDumpDirections[c]);
          const float decay = static_cast<float>(std::exp(static_cast<double>(-1000.0f * adc)));
          static_cast<int16_t*>(out->data[c])[at] = PCDdti_MapValueToSINT16(s0 * decay);
        }
      });
    }
}

}  // namespace

int dump_interpolator_as_volumedata(const PcdDtiData* dti, const TensorInterPolator* t, const char* fileName,
                                    int threads) {
  const PcdIntSize4D& v = *dti->volume->matrixSize;
  const PcdIntSize4D size{v.x, v.y, v.z, 7};
  const int32_t types[7] = {SINT16, SINT16, SINT16, SINT16, SINT16, SINT16, SINT16};
  const int32_t formats[7] = {};
  std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)> out(
      PCD_NewRawVolumeData(&size, types, formats), PCD_DeleteRawVolumeData);
  threads = std::max(1, std::min(threads, v.y));
  std::vector<PcdDiffusionTensorData*> records(static_cast<size_t>(threads), nullptr);
  bool ok = out != nullptr;
  for (PcdDiffusionTensorData*& r : records)
    ok = ok && (r = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount)) != nullptr;
  if (!ok) {
    std::fputs("insufficient memory\n", stderr);
  } else {
    for (int z = 0; z < v.z; ++z) {
      std::vector<std::thread> running;
      int y0 = 0;
      for (int k = 0; k < threads; ++k) {
        const int rows = v.y / threads + (k < v.y % threads ? 1 : 0);
        const int y1 = y0 + rows - 1;
        auto rowsOfSlice = [&, z, y0, y1, k] { dump_rows(dti, t, out.get(), z, y0, y1, records[static_cast<size_t>(k)]); };
        if (k == threads - 1) {
          rowsOfSlice();
        } else {
          try {
            running.emplace_back(rowsOfSlice);
          } catch (...) {
            rowsOfSlice();
          }
        }
        y0 = y1 + 1;
      }
      for (std::thread& r : running) r.join();
      std::fprintf(stderr, "\r %f %% done.", static_cast<double>(z + 1) / v.z * 100.0);
    }
    std::fputs("\n", stderr);
  }
  for (PcdDiffusionTensorData* r : records) PCDdti_DeleteDiffusionTensorData(r);
  if (!ok) return -1;
  if (PCD_ExportRawVolumeData(fileName, out.get()) > 0) return 0;
  std::fprintf(stderr, "Err: cannot write %s\n", fileName);
  return -1;
}

// ---- modeling ------------------------------------------------------------------------------

namespace {

// Modeling's tensor source: the tensor rebuilt from the six interpolated components; side
// by side, a round's points share their distances to the control points.
struct InterpolatedTensors {
  static constexpr int kLanes = kPcdRbfLanes;
  const TensorInterPolator* interpolator;

  void At(const PcdVector3D& p, PcdDiffusionTensorData* t) {
    get_interpolated_diffusion_tensor(interpolator, &p, t);
  }
  template <class Take>
  void AtLanes(const PcdVector3D* points, int count, PcdDiffusionTensorData* t, const Take& take) {
    interpolate_lanes(interpolator, points, count, t, take);
  }
};

// Modeling always follows e1.
PcdHalfLineRule RuleOf(const PcdDtiData* dti, const PcdFibeModelContext& context) {
  return {dti, &context.limits, context.step, context.nodeLimit, context.seedPoints,
          context.stopTest, get_tracking_direction_by_e1};
}

}  // namespace

PcdTrakLineBuffer* do_fiber_modeling(const TensorInterPolator* t, const PcdDtiData* dti,
                                     const PcdFibeModelContext* context, PcdDiffusionTensorData* tensor,
                                     PcdTrakLineBuffer* work, float dx, float dy, float dz) {
  InterpolatedTensors source{t};
  return PCDfiber_TraceHalfLine(RuleOf(dti, *context), source, tensor, work, dx, dy, dz);
}

namespace {

bool model_seeds(PcdModelingWork* w, PcdDiffusionTensorData* tensor) {
  InterpolatedTensors source{w->interpolator};
  const PcdHalfLineRule rule = RuleOf(w->dti, *w->context);
  const PcdHalfLineShare share{w->buffer, w->first, w->last, &w->done};
  return PCDfiber_TraceSeeds(rule, share, source, tensor, w->sideBySide);
}

}  // namespace

void* threaded_fiber_modeling(void* argument) {
  auto* w = static_cast<PcdModelingWork*>(argument);
  PcdDiffusionTensorData* tensor = PCDdti_NewDiffusionTensorData(w->dti->channelCount, w->dti->soCount);
  if (tensor == nullptr || !model_seeds(w, tensor)) std::fputs("insufficient memory\n", stderr);
  PCDdti_DeleteDiffusionTensorData(tensor);
  w->done.store(w->last - w->first + 1, std::memory_order_relaxed);  // lets progress end
  return nullptr;
}

void* check_completion_for_fiber_modeling(void* argument) {
  auto* works = static_cast<PcdModelingWork*>(argument);
  const int32_t total = works[0].total;
  if (total <= 0) return nullptr;
  for (;;) {
    int32_t done = 0;
    for (int32_t i = 0; i < works[0].threadCount; ++i) done += works[i].done.load(std::memory_order_relaxed);
    std::fprintf(stderr, "\rFiber tracking %d%% completed",
                 static_cast<int>(static_cast<float>(done) / static_cast<float>(total) * 100.0f));
    if (done >= total) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return nullptr;
}

void PCDdti_ModelFibersThroughInterpolator(const PcdDtiData* dti, const PcdFibeModelContext* context,
                                           const TensorInterPolator* interpolator,
                                           PcdFibeTrakBuffer* buffer, int threads, bool sideBySide) {
  std::vector<int32_t> counts(static_cast<size_t>(std::max(threads, 1)));
  const int32_t used = distribute_objects_to_threads_optimally(context->seedCount, threads, counts.data());
  std::unique_ptr<PcdModelingWork[]> works(new PcdModelingWork[static_cast<size_t>(used > 0 ? used : 1)]);
  std::vector<std::thread> running;
  bool allStarted = true;
  int32_t first = 0;
  for (int32_t k = 0; k < used; ++k) {
    PcdModelingWork& w = works[k];
    w.dti = dti;
    w.interpolator = interpolator;
    w.buffer = buffer;
    w.context = context;
    w.first = first;
    w.last = first + counts[static_cast<size_t>(k)] - 1;
    w.threadCount = used;
    w.total = context->seedCount;
    w.sideBySide = sideBySide;
    first = w.last + 1;
    allStarted = PCD_StartThread(&running, threaded_fiber_modeling, &w) && allStarted;
  }
  // a range whose thread never ran would keep the progress line waiting for ever
  if (used > 1 && allStarted) PCD_StartThread(&running, check_completion_for_fiber_modeling, works.get());
  for (std::thread& r : running) r.join();
  std::fputs("\n", stderr);
  add_marks_to_fibetrak_buffer(buffer);
  pack_fibetrak_buffer(buffer);
}

PcdFibeTrakBuffer* PCDdti_FiberModeling(const PcdDtiData* dti, PcdFibeModelContext* context,
                                        const PcdRawVolumeData* controls, int threads, const char* dumpName,
                                        void*) {
  std::fputs("Modeling start\n", stderr);
  if (dti == nullptr || dti->isReady != 1) {
    std::fputs("DTI data NOT ready\n", stderr);
    return nullptr;
  }
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_INTERPOLATED)) return nullptr;
  if (!controls_fit(dti, controls)) return nullptr;
  if (context->seedCount < 0 || (context->seedCount > 0 && context->seedPoints == nullptr)) {
    std::fputs("Err: the seed list is missing\n", stderr);
    return nullptr;
  }
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(context->seedCount, context->seedPoints, context->nodeLimit);
  if (buffer == nullptr) {
    std::fputs("insufficient memory\n", stderr);
    return nullptr;
  }
  std::fprintf(stderr, "Buffer OK (%d seeds)\n", context->seedCount);
  threads = std::clamp(threads, 1, 512);
  PcdDiffusionTensorLimits& l = context->limits;
  l.cosAngleMax = static_cast<float>(std::cos(l.AngleMax * 0.01745328888888889));
  const bool none = l.useFAmin == 0 && l.useADCmax == 0 && l.useSoMin == 0 && l.useSoMax == 0 && l.useAngleMax == 0;
  context->stopTest = none ? check_if_stop_by_none : check_if_stop_by_values;

  std::fputs("Interpolator Initializing\n", stderr);
  TensorInterPolator* interpolator =
      new_tensor_interpolator(dti, controls, PCDdti_ModelingPitch(dti->volume->matrixSize->x), threads);
  if (interpolator == nullptr) {
    std::fputs("WARNING: Tensor field is NOT created\n", stderr);
    delete_fibetrak_buffer(buffer);
    return nullptr;
  }
  std::fputs("Interpolator OK\n", stderr);
  if (dumpName != nullptr) {
    std::fputs("volume data dumping...", stderr);
    dump_interpolator_as_volumedata(dti, interpolator, dumpName, threads);
    std::fputs("done\n", stderr);
  }
  std::fputs("Tracking start\n", stderr);
  PCDdti_ModelFibersThroughInterpolator(dti, context, interpolator, buffer, threads, true);
  std::fputs("Tracking OK\n", stderr);
  delete_tensor_interpolator(interpolator);
  std::fputs("Interpolator deleted\n", stderr);
  return buffer;
}
