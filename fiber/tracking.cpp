#include "fiber/tracking.h"

#include "dti/dti_check.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "dti/channels.h"

// ---- stop tests ------------------------------------------------------------------------

int check_if_stop_by_FA_min(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  return PCDdti_GetFA(t) < l->FAmin ? 1 : 0;
}

int check_if_stop_by_ADC_max(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  return PCDdti_GetADC(t) > l->ADCmax ? 1 : 0;
}

int check_if_stop_by_Angle_max(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  return t->turningAngle < l->cosAngleMax ? 1 : 0;
}

int check_if_stop_by_values(const PcdDiffusionTensorData* t, const PcdDiffusionTensorLimits* l) {
  if (l->useFAmin == 1 && check_if_stop_by_FA_min(t, l)) return 1;
  if (l->useADCmax == 1 && check_if_stop_by_ADC_max(t, l)) return 1;
  if (l->useAngleMax == 1 && check_if_stop_by_Angle_max(t, l)) return 1;
  return 0;
}

int check_if_stop_by_none(const PcdDiffusionTensorData*, const PcdDiffusionTensorLimits*) { return 0; }

// ---- position tests --------------------------------------------------------------------

// Truncation toward zero makes a coordinate in (-1, 0) count as inside.
int check_if_within_volume(const PcdVector3D* c, const PcdIntSize4D* size) {
  auto inside = [](float v, int32_t n) {
    return v > -1.0f && v < static_cast<float>(n) && static_cast<int32_t>(v) < n;
  };
  return inside(c->x, size->x) && inside(c->y, size->y) && inside(c->z, size->z) ? 0 : 1;
}

int check_if_stop_by_So_min(float so, const PcdDiffusionTensorLimits* l) {
  return l->useSoMin == 1 && so < l->SoMin ? 1 : 0;
}

int check_if_stop_by_So_max(float so, const PcdDiffusionTensorLimits* l) {
  return l->useSoMax == 1 && so > l->SoMax ? 1 : 0;
}

int precheck_by_So(const PcdDtiData* dti, const PcdDiffusionTensorLimits* l, const PcdVector3D* c) {
  if (l->useSoMin != 1 && l->useSoMax != 1) return 0;
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const auto so = static_cast<float>(
      PCD_GetValueOf3DArraySINT16i(dti->volume->array3D[0], s.x, s.y, s.z, c->x, c->y, c->z));
  return check_if_stop_by_So_min(so, l) || check_if_stop_by_So_max(so, l) ? 1 : 0;
}

int precheck_by_pos_and_So(const PcdDtiData* dti, const PcdDiffusionTensorLimits* l,
                           const PcdVector3D* c) {
  if (check_if_within_volume(c, dti->volume->matrixSize)) return 1;
  return precheck_by_So(dti, l, c);
}

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


PcdTrakLineBuffer* do_fiber_tracking(const PcdDtiData* dti, const PcdFibeTrakContext* context,
                                     PcdDiffusionTensorData* tensor, PcdTrakLineBuffer* work,
                                     float dx, float dy, float dz) {
  const float h = context->step;
  PcdVector3D c{work->x[0], work->y[0], work->z[0]};
  int n = 1;
  while (n < work->capacity) {
    c = {dx * h + c.x, dy * h + c.y, dz * h + c.z};
    work->x[n] = c.x;
    work->y[n] = c.y;
    work->z[n] = c.z;
    if (precheck_by_pos_and_So(dti, &context->limits, &c)) break;
    PCDdti_CalcAndDiagnalizeDiffusionTensor(dti, tensor, &c);
    work->L1[n] = tensor->eigenvalues[3];
    work->L2[n] = tensor->eigenvalues[2];
    work->L3[n] = tensor->eigenvalues[1];
    context->directionRule(tensor, dx, dy, dz, &dx, &dy, &dz);
    if (context->stopTest(tensor, &context->limits) == 1) break;
    ++n;
  }
  work->nodeCount = static_cast<int16_t>(n);  // the node that stopped the line is not counted
  return get_packed_trakline_buffer_of(work);
}

namespace {

// The tensor at a seed, and whether lines start there at all.
bool SeedTensor(const PcdTrackingWork* w, PcdDiffusionTensorData* tensor, const PcdVector3D& p) {
  const PcdFibeTrakContext* context = w->context;
  if (precheck_by_So(w->dti, &context->limits, &p)) return false;
  PCDdti_CalcAndDiagnalizeDiffusionTensor(w->dti, tensor, &p);
  tensor->turningAngle = 1.0f;
  return context->stopTest(tensor, &context->limits) == 0;
}

// Node 0 of a half-line: the seed with the eigenvalues found there.
void StartLine(PcdTrakLineBuffer* line, const PcdVector3D& p, const float* seedL) {
  line->x[0] = p.x;
  line->y[0] = p.y;
  line->z[0] = p.z;
  line->L1[0] = seedL[0];
  line->L2[0] = seedL[1];
  line->L3[0] = seedL[2];
  line->nodeCount = 1;
}

// Both halves in place: the pair joins the buffer; a half that could not be packed
// costs the whole pair.
void StorePair(PcdTrackingWork* w, int32_t seed, PcdTrakLinePair* pair) {
  if (pair->forward == nullptr || pair->backward == nullptr) {
    std::fputs("Insufficient memory: threaded_fiber_tracking()\n", stderr);
    delete_trakline_pair(pair);
    return;
  }
  w->buffer->pairs[seed] = pair;
}

// Seed after seed, each half-line node after node: the path taken when the pseudo-inverse
// cannot be formed up front (every node then reports the failure itself).
void TrackSeedsOneByOne(PcdTrackingWork* w, PcdTrakLineBuffer* line,
                        PcdDiffusionTensorData* tensor) {
  const PcdFibeTrakContext* context = w->context;
  for (int32_t i = w->first; i <= w->last; ++i) {
    const PcdVector3D p = context->seedPoints[i];
    w->done.store(i - w->first, std::memory_order_relaxed);
    if (!SeedTensor(w, tensor, p)) continue;
    PcdTrakLinePair* pair = new_trakline_pair(&p);
    if (pair == nullptr) continue;
    const float d[3] = {tensor->tensor[1][3], tensor->tensor[2][3], tensor->tensor[3][3]};
    const float seedL[3] = {tensor->eigenvalues[3], tensor->eigenvalues[2], tensor->eigenvalues[1]};
    StartLine(line, p, seedL);
    pair->forward = do_fiber_tracking(w->dti, context, tensor, line, d[0], d[1], d[2]);
    StartLine(line, p, seedL);
    pair->backward = do_fiber_tracking(w->dti, context, tensor, line, -d[0], -d[1], -d[2]);
    StorePair(w, i, pair);
  }
}

// A half-line under way in one lane of the batch.
struct HalfLine {
  int32_t seed = -1;  // -1: the lane is free
  bool backward = false;
  PcdTrakLinePair* pair = nullptr;
  PcdTrakLineBuffer* line = nullptr;  // the lane's own work line
  PcdVector3D c{};
  float dx = 0, dy = 0, dz = 0;
  int n = 1;
};

// Many half-lines at once, one node each per round: every node is computed exactly as
// do_fiber_tracking computes it, but the fits and eigen-systems of a round's nodes run
// side by side. Lines end in any order; each seed's pair is stored once both halves end.
class LaneTracker {
 public:
  LaneTracker(PcdTrackingWork* w, PcdDiffusionTensorData* tensor)
      : w_(w), context_(w->context), tensor_(tensor), next_(w->first),
        halvesLeft_(static_cast<size_t>(w->last - w->first + 1), 0) {
    PCDdti_ResizeTensorBatch(w->dti, &batch_);
  }
  ~LaneTracker() {
    for (HalfLine& h : lanes_) delete_trakline_buffer(h.line);
  }

  bool Allocate() {
    for (HalfLine& h : lanes_) {
      h.line = new_trakline_buffer(context_->nodeLimit);
      if (h.line == nullptr) return false;
    }
    return true;
  }

  void Run() {
    for (;;) {
      Refill();
      if (!Round()) break;
    }
  }

 private:
  struct Pending {
    int32_t seed;
    bool backward;
    PcdTrakLinePair* pair;
    float d[3];
    float seedL[3];
  };

  // Free lanes take waiting halves, then the halves of further seeds.
  void Refill() {
    for (HalfLine& h : lanes_) {
      if (h.seed >= 0) continue;
      while (pending_.empty() && next_ <= w_->last) StartSeed(next_++);
      if (pending_.empty()) return;
      const Pending p = pending_.back();
      pending_.pop_back();
      const PcdVector3D& seed = context_->seedPoints[p.seed];
      StartLine(h.line, seed, p.seedL);
      h.seed = p.seed;
      h.backward = p.backward;
      h.pair = p.pair;
      h.c = seed;
      h.dx = p.backward ? -p.d[0] : p.d[0];
      h.dy = p.backward ? -p.d[1] : p.d[1];
      h.dz = p.backward ? -p.d[2] : p.d[2];
      h.n = 1;
    }
  }

  void StartSeed(int32_t i) {
    const PcdVector3D p = context_->seedPoints[i];
    PcdTrakLinePair* pair = SeedTensor(w_, tensor_, p) ? new_trakline_pair(&p) : nullptr;
    if (pair == nullptr) {
      SeedDone();
      return;
    }
    Pending half{i, false, pair, {tensor_->tensor[1][3], tensor_->tensor[2][3], tensor_->tensor[3][3]},
                 {tensor_->eigenvalues[3], tensor_->eigenvalues[2], tensor_->eigenvalues[1]}};
    halvesLeft_[static_cast<size_t>(i - w_->first)] = 2;
    pending_.push_back(half);
    half.backward = true;
    pending_.push_back(half);
  }

  void SeedDone() { w_->done.store(++seedsDone_, std::memory_order_relaxed); }

  // The work line of a lane ends with n nodes (the node that stopped it not counted).
  void Finish(HalfLine& h) {
    h.line->nodeCount = static_cast<int16_t>(h.n);
    PcdTrakLineBuffer* packed = get_packed_trakline_buffer_of(h.line);
    (h.backward ? h.pair->backward : h.pair->forward) = packed;
    if (--halvesLeft_[static_cast<size_t>(h.seed - w_->first)] == 0) {
      StorePair(w_, h.seed, h.pair);
      SeedDone();
    }
    h.seed = -1;
  }

  // One node for every lane under way; false when no lane is.
  bool Round() {
    int32_t lanesOfBatch[kPcdTensorLanes];
    batch_.count = 0;
    bool any = false;
    const float step = context_->step;
    for (int32_t k = 0; k < kPcdTensorLanes; ++k) {
      HalfLine& h = lanes_[k];
      if (h.seed < 0) continue;
      any = true;
      if (h.n >= h.line->capacity) {
        Finish(h);
        continue;
      }
      h.c = {h.dx * step + h.c.x, h.dy * step + h.c.y, h.dz * step + h.c.z};
      h.line->x[h.n] = h.c.x;
      h.line->y[h.n] = h.c.y;
      h.line->z[h.n] = h.c.z;
      if (precheck_by_pos_and_So(w_->dti, &context_->limits, &h.c)) {
        Finish(h);
        continue;
      }
      PCDdti_InterpolateIntoTensorBatch(w_->dti, w_->voxelMajor, &h.c, &batch_, batch_.count);
      lanesOfBatch[batch_.count++] = k;
    }
    if (batch_.count > 0) {
      PCDdti_EstimateTensorBatch(w_->dti, tensor_, &batch_);
      PCDdti_DiagonalizeTensorBatch(&batch_);
    }
    for (int32_t v = 0; v < batch_.count; ++v) {
      HalfLine& h = lanes_[lanesOfBatch[v]];
      PCDdti_TakeDiagonalizedFromTensorBatch(&batch_, v, tensor_);
      h.line->L1[h.n] = tensor_->eigenvalues[3];
      h.line->L2[h.n] = tensor_->eigenvalues[2];
      h.line->L3[h.n] = tensor_->eigenvalues[1];
      context_->directionRule(tensor_, h.dx, h.dy, h.dz, &h.dx, &h.dy, &h.dz);
      if (context_->stopTest(tensor_, &context_->limits) == 1)
        Finish(h);
      else
        ++h.n;
    }
    return any;
  }

  PcdTrackingWork* w_;
  const PcdFibeTrakContext* context_;
  PcdDiffusionTensorData* tensor_;
  int32_t next_;
  int32_t seedsDone_ = 0;
  std::vector<uint8_t> halvesLeft_;
  std::vector<Pending> pending_;
  HalfLine lanes_[kPcdTensorLanes];
  PcdTensorBatch batch_;
};

}  // namespace

namespace {

// The work's seeds with the record: side by side when the pseudo-inverse can be formed up
// front and the lanes' work lines allocated, seed after seed otherwise. False when even
// the one work line cannot be had.
bool TrackSeeds(PcdTrackingWork* w, PcdDiffusionTensorData* tensor) {
  if (PCDdti_PreparePseudoInverse(w->dti, tensor)) {
    LaneTracker lanes(w, tensor);
    if (lanes.Allocate()) {
      lanes.Run();
      return true;
    }
  }
  PcdTrakLineBuffer* line = new_trakline_buffer(w->context->nodeLimit);
  if (line == nullptr) return false;
  TrackSeedsOneByOne(w, line, tensor);
  delete_trakline_buffer(line);
  return true;
}

}  // namespace

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
