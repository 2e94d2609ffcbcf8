// The half-line loop that fiber tracking and fiber modeling share: from every seed,
// forward and backward in fixed steps, the tensor found at every node, the next direction
// from the direction rule, until a stop criterion fires. The two differ only in where a
// node's tensor comes from (the source, a template parameter, so that the hot loop calls
// it directly) and the direction rule (a function pointer chosen once per run).
//
// A source provides
//   static constexpr int kLanes;                       half-lines under way side by side
//   void At(const PcdVector3D& p, PcdDiffusionTensorData* t);   the diagonalised tensor at p
//   template <class Take> void AtLanes(const PcdVector3D* points, int count,
//                                      PcdDiffusionTensorData* t, const Take& take);
// where AtLanes leaves in t the tensor of each point v in turn, exactly as At would, and
// calls take(v, t) before the next.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "dti/dti_data.h"
#include "dti/tensor.h"
#include "fiber/stop_rules.h"
#include "fiber/trakline.h"

using PcdStopTest = int (*)(const PcdDiffusionTensorData*, const PcdDiffusionTensorLimits*);
using PcdDirectionRule = void (*)(PcdDiffusionTensorData*, float px, float py, float pz, float* x,
                                  float* y, float* z);

// What the loop reads of a run's context.
struct PcdHalfLineRule {
  const PcdDtiData* dti = nullptr;
  const PcdDiffusionTensorLimits* limits = nullptr;
  float step = 0.7f;
  int32_t nodeLimit = 160;
  const PcdVector3D* seedPoints = nullptr;
  PcdStopTest stopTest = nullptr;
  PcdDirectionRule directionRule = nullptr;
};

// One worker's seeds (indices first .. last, inclusive), where their pairs go and the
// progress it reports.
struct PcdHalfLineShare {
  PcdFibeTrakBuffer* buffer = nullptr;
  int32_t first = 0, last = -1;
  std::atomic<int32_t>* done = nullptr;
};

namespace pcd_half_lines {

// Node 0 of a half-line: the seed with the eigenvalues found there.
inline void StartLine(PcdTrakLineBuffer* line, const PcdVector3D& p, const float* seedL) {
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
inline void StorePair(const PcdHalfLineShare& share, int32_t seed, PcdTrakLinePair* pair) {
  if (pair->forward == nullptr || pair->backward == nullptr) {
    std::fputs("Insufficient memory: threaded_fiber_tracking()\n", stderr);
    delete_trakline_pair(pair);
    return;
  }
  share.buffer->pairs[seed] = pair;
}

// The tensor at a seed and whether lines start there: the So precheck, the tensor, a
// turning cosine of 1 (so the angle test cannot fire) and the stop test.
template <class Source>
bool SeedTensor(const PcdHalfLineRule& rule, Source& source, PcdDiffusionTensorData* tensor,
                const PcdVector3D& p) {
  if (precheck_by_So(rule.dti, rule.limits, &p)) return false;
  source.At(p, tensor);
  tensor->turningAngle = 1.0f;
  return rule.stopTest(tensor, rule.limits) == 0;
}

// A node's tensor taken: its eigenvalues into the line, the next direction, the stop
// test; true when the line goes on.
inline bool TakeNode(const PcdHalfLineRule& rule, PcdDiffusionTensorData* tensor,
                     PcdTrakLineBuffer* line, int n, float* dx, float* dy, float* dz) {
  line->L1[n] = tensor->eigenvalues[3];
  line->L2[n] = tensor->eigenvalues[2];
  line->L3[n] = tensor->eigenvalues[1];
  rule.directionRule(tensor, *dx, *dy, *dz, dx, dy, dz);
  return rule.stopTest(tensor, rule.limits) != 1;
}

// The next node's position written into the line; false when it leaves the volume or
// fails the So tests.
inline bool StepTo(const PcdHalfLineRule& rule, PcdTrakLineBuffer* line, int n, PcdVector3D* c,
                   float dx, float dy, float dz) {
  const float h = rule.step;
  *c = {dx * h + c->x, dy * h + c->y, dz * h + c->z};
  line->x[n] = c->x;
  line->y[n] = c->y;
  line->z[n] = c->z;
  return precheck_by_pos_and_So(rule.dti, rule.limits, c) == 0;
}

}  // namespace pcd_half_lines

// One half-line from node 0 of the work line, node after node; the packed copy, or null.
template <class Source>
PcdTrakLineBuffer* PCDfiber_TraceHalfLine(const PcdHalfLineRule& rule, Source& source,
                                          PcdDiffusionTensorData* tensor, PcdTrakLineBuffer* work,
                                          float dx, float dy, float dz) {
  PcdVector3D c{work->x[0], work->y[0], work->z[0]};
  int n = 1;
  while (n < work->capacity) {
    if (!pcd_half_lines::StepTo(rule, work, n, &c, dx, dy, dz)) break;
    source.At(c, tensor);
    if (!pcd_half_lines::TakeNode(rule, tensor, work, n, &dx, &dy, &dz)) break;
    ++n;
  }
  work->nodeCount = static_cast<int16_t>(n);  // the node that stopped the line is not counted
  return get_packed_trakline_buffer_of(work);
}

// Seed after seed, each half-line node after node, in one work line.
template <class Source>
void PCDfiber_TraceSeedsOneByOne(const PcdHalfLineRule& rule, const PcdHalfLineShare& share,
                                 Source& source, PcdTrakLineBuffer* line,
                                 PcdDiffusionTensorData* tensor) {
  for (int32_t i = share.first; i <= share.last; ++i) {
    const PcdVector3D p = rule.seedPoints[i];
    share.done->store(i - share.first, std::memory_order_relaxed);
    if (!pcd_half_lines::SeedTensor(rule, source, tensor, p)) continue;
    PcdTrakLinePair* pair = new_trakline_pair(&p);
    if (pair == nullptr) continue;
    const float d[3] = {tensor->tensor[1][3], tensor->tensor[2][3], tensor->tensor[3][3]};
    const float seedL[3] = {tensor->eigenvalues[3], tensor->eigenvalues[2], tensor->eigenvalues[1]};
    pcd_half_lines::StartLine(line, p, seedL);
    pair->forward = PCDfiber_TraceHalfLine(rule, source, tensor, line, d[0], d[1], d[2]);
    pcd_half_lines::StartLine(line, p, seedL);
    pair->backward = PCDfiber_TraceHalfLine(rule, source, tensor, line, -d[0], -d[1], -d[2]);
    pcd_half_lines::StorePair(share, i, pair);
  }
}

// Source::kLanes half-lines at once, one node each per round, so that the source computes
// a round's tensors side by side. Every node is computed exactly as PCDfiber_TraceHalfLine
// computes it; lines end in any order and each seed's pair is stored once both halves end.
template <class Source>
class PcdLaneTracer {
 public:
  PcdLaneTracer(const PcdHalfLineRule& rule, const PcdHalfLineShare& share, Source& source,
                PcdDiffusionTensorData* tensor)
      : rule_(rule), share_(share), source_(source), tensor_(tensor), next_(share.first),
        halvesLeft_(static_cast<size_t>(share.last - share.first + 1), 0) {}
  ~PcdLaneTracer() {
    for (Lane& h : lanes_) delete_trakline_buffer(h.line);
  }
  PcdLaneTracer(const PcdLaneTracer&) = delete;
  PcdLaneTracer& operator=(const PcdLaneTracer&) = delete;

  bool Allocate() {
    for (Lane& h : lanes_)
      if ((h.line = new_trakline_buffer(rule_.nodeLimit)) == nullptr) return false;
    return true;
  }

  void Run() {
    for (;;) {
      Refill();
      if (!Round()) break;
    }
  }

 private:
  static constexpr int kLanes = Source::kLanes;

  // A half-line under way in one lane.
  struct Lane {
    int32_t seed = -1;  // -1: the lane is free
    bool backward = false;
    PcdTrakLinePair* pair = nullptr;
    PcdTrakLineBuffer* line = nullptr;  // the lane's own work line
    PcdVector3D c{};
    float dx = 0, dy = 0, dz = 0;
    int n = 1;
  };
  struct Pending {
    int32_t seed;
    bool backward;
    PcdTrakLinePair* pair;
    float d[3];
    float seedL[3];
  };

  // Free lanes take waiting halves, then the halves of further seeds.
  void Refill() {
    for (Lane& h : lanes_) {
      if (h.seed >= 0) continue;
      while (pending_.empty() && next_ <= share_.last) StartSeed(next_++);
      if (pending_.empty()) return;
      const Pending p = pending_.back();
      pending_.pop_back();
      const PcdVector3D& seed = rule_.seedPoints[p.seed];
      pcd_half_lines::StartLine(h.line, seed, p.seedL);
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
    const PcdVector3D p = rule_.seedPoints[i];
    PcdTrakLinePair* pair =
        pcd_half_lines::SeedTensor(rule_, source_, tensor_, p) ? new_trakline_pair(&p) : nullptr;
    if (pair == nullptr) {
      SeedDone();
      return;
    }
    Pending half{i, false, pair, {tensor_->tensor[1][3], tensor_->tensor[2][3], tensor_->tensor[3][3]},
                 {tensor_->eigenvalues[3], tensor_->eigenvalues[2], tensor_->eigenvalues[1]}};
    halvesLeft_[static_cast<size_t>(i - share_.first)] = 2;
    pending_.push_back(half);
    half.backward = true;
    pending_.push_back(half);
  }

  void SeedDone() { share_.done->store(++seedsDone_, std::memory_order_relaxed); }

  // The work line of a lane ends with n nodes (the node that stopped it not counted).
  void Finish(Lane& h) {
    h.line->nodeCount = static_cast<int16_t>(h.n);
    (h.backward ? h.pair->backward : h.pair->forward) = get_packed_trakline_buffer_of(h.line);
    if (--halvesLeft_[static_cast<size_t>(h.seed - share_.first)] == 0) {
      pcd_half_lines::StorePair(share_, h.seed, h.pair);
      SeedDone();
    }
    h.seed = -1;
  }

  // One node for every lane under way; false when no lane is.
  bool Round() {
    int lanesOfBatch[kLanes];
    PcdVector3D points[kLanes];
    int count = 0;
    bool any = false;
    for (int k = 0; k < kLanes; ++k) {
      Lane& h = lanes_[k];
      if (h.seed < 0) continue;
      any = true;
      if (h.n >= h.line->capacity || !pcd_half_lines::StepTo(rule_, h.line, h.n, &h.c, h.dx, h.dy, h.dz)) {
        Finish(h);
        continue;
      }
      points[count] = h.c;
      lanesOfBatch[count++] = k;
    }
    if (count == 0) return any;
    source_.AtLanes(points, count, tensor_, [&](int v, PcdDiffusionTensorData* t) {
      Lane& h = lanes_[lanesOfBatch[v]];
      if (pcd_half_lines::TakeNode(rule_, t, h.line, h.n, &h.dx, &h.dy, &h.dz))
        ++h.n;
      else
        Finish(h);
    });
    return true;
  }

  const PcdHalfLineRule& rule_;
  const PcdHalfLineShare& share_;
  Source& source_;
  PcdDiffusionTensorData* tensor_;
  int32_t next_;
  int32_t seedsDone_ = 0;
  std::vector<uint8_t> halvesLeft_;
  std::vector<Pending> pending_;
  Lane lanes_[kLanes];
};

// A worker's seeds: side by side when sideBySide and the lanes' work lines can be had,
// seed after seed otherwise. False when even the one work line cannot be had.
template <class Source>
bool PCDfiber_TraceSeeds(const PcdHalfLineRule& rule, const PcdHalfLineShare& share, Source& source,
                         PcdDiffusionTensorData* tensor, bool sideBySide) {
  if (sideBySide) {
    PcdLaneTracer<Source> lanes(rule, share, source, tensor);
    if (lanes.Allocate()) {
      lanes.Run();
      return true;
    }
  }
  PcdTrakLineBuffer* line = new_trakline_buffer(rule.nodeLimit);
  if (line == nullptr) return false;
  PCDfiber_TraceSeedsOneByOne(rule, share, source, line, tensor);
  delete_trakline_buffer(line);
  return true;
}
