// Track-line buffers, marking and fiber tracking on synthetic data sets.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dti/gradient_vectors.h"
#include "fiber/tracking.h"
#include "study/fiber_dump.h"
#include "tools/phantom/phantom.h"

namespace {

struct Phantom {
  PcdPhantomOptions options;
  PcdPhantomTruth truth;
  PcdDtiData* dti = nullptr;
  Phantom(int x, int y, int z) {
    options.sizeX = x;
    options.sizeY = y;
    options.sizeZ = z;
    dti = PCD_MakeDwiPhantom(options, &truth);
  }
  ~Phantom() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
};

struct TrackingRun {
  std::vector<PcdVector3D> seeds;
  PcdFibeTrakContext context;
  PcdFibeTrakBuffer* result = nullptr;
  std::string said;
  void Track(const PcdDtiData* dti, int threads) {
    context.seedCount = static_cast<int32_t>(seeds.size());
    context.seedPoints = seeds.data();
    testing::internal::CaptureStderr();
    result = PCDdti_FiberTracking(dti, &context, threads);
    said = testing::internal::GetCapturedStderr();
  }
  ~TrackingRun() { PCDdti_DeleteFibeTrakBuffer(result); }
};

std::string Dump(const PcdFibeTrakBuffer* buffer) {
  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  for (int32_t i = 0; i < buffer->lineCount; ++i) buffer->pairs[i]->selection = 1;
  PCDdti_DumpFibeTrakBuffer(buffer, 2.0f, f);
  std::fclose(f);
  std::string out(text, size);
  std::free(text);
  return out;
}

// Mean |cos| between each fiber segment and the true direction at its start.
double MeanAlignment(const Phantom& p, const PcdFibeTrakBuffer* b, int* segments) {
  double sum = 0;
  *segments = 0;
  for (int32_t i = 0; i < b->lineCount; ++i)
    for (const PcdTrakLineBuffer* l : {b->pairs[i]->forward, b->pairs[i]->backward})
      for (int n = 1; n < l->nodeCount; ++n) {
        const int x = static_cast<int>(l->x[n - 1]), y = static_cast<int>(l->y[n - 1]),
                  z = static_cast<int>(l->z[n - 1]);
        const PcdVector3D t = p.truth.direction[static_cast<size_t>((z * p.options.sizeY + y) * p.options.sizeX + x)];
        if (t.x == 0 && t.y == 0 && t.z == 0) continue;  // isotropic or a crossing
        const double dx = l->x[n] - l->x[n - 1], dy = l->y[n] - l->y[n - 1], dz = l->z[n] - l->z[n - 1];
        sum += std::fabs(dx * t.x + dy * t.y + dz * t.z) / std::sqrt(dx * dx + dy * dy + dz * dz);
        ++*segments;
      }
  return *segments > 0 ? sum / *segments : 0;
}

std::atomic<int> CountSegmentTestCalls{0};  // called from the marking threads
int FiresAlways(PcdVector3D*, PcdVector3D*) {
  ++CountSegmentTestCalls;
  return 1;
}
int FiresBeyondX3(PcdVector3D* current, PcdVector3D*) { return current->x > 3.0f; }
int NeverFires(PcdVector3D*, PcdVector3D*) { return 0; }

PcdTrakLineBuffer* Line(std::initializer_list<float> xs) {
  PcdTrakLineBuffer* l = new_trakline_buffer(static_cast<int>(xs.size()));
  for (float x : xs) {
    l->x[l->nodeCount] = x;
    l->y[l->nodeCount] = l->z[l->nodeCount] = 0;
    l->L1[l->nodeCount] = l->L2[l->nodeCount] = l->L3[l->nodeCount] = 0;
    ++l->nodeCount;
  }
  return l;
}

TEST(TrakLineBuffers, PackingKeepsSeedOrderAndEmptyRunsPackToNothing) {
  std::vector<PcdVector3D> seeds(5, PcdVector3D{0, 0, 0});
  PcdFibeTrakBuffer* b = new_fibetrak_buffer(5, seeds.data(), 10);
  pack_fibetrak_buffer(b);
  EXPECT_EQ(b->lineCount, 0);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(b->pairs[i], nullptr);
  for (int i : {1, 3, 4}) {
    const PcdVector3D seed{static_cast<float>(i), 0, 0};
    b->pairs[i] = new_trakline_pair(&seed);
    b->pairs[i]->forward = Line({static_cast<float>(i)});
    b->pairs[i]->backward = Line({static_cast<float>(i), 9.0f});
  }
  add_marks_to_fibetrak_buffer(b);
  pack_fibetrak_buffer(b);
  ASSERT_EQ(b->lineCount, 3);
  EXPECT_EQ(b->pairs[0]->seed.x, 1.0f);
  EXPECT_EQ(b->pairs[2]->seed.x, 4.0f);
  EXPECT_EQ(b->pairs[3], nullptr);

  PcdTrakLineBuffer* work = Line({1, 2, 3});
  work->nodeCount = 1;
  PcdTrakLineBuffer* packed = get_packed_trakline_buffer_of(work);
  EXPECT_EQ(packed->capacity, 1);
  EXPECT_EQ(packed->x[0], 1.0f);
  delete_trakline_buffer(packed);
  delete_trakline_buffer(work);
  PCDdti_DeleteFibeTrakBuffer(b);
}

TEST(TrakLineBuffers, MarkingSetsEntryZeroOnlyAndKeepsEarlierBits) {
  std::vector<PcdVector3D> seeds(7, PcdVector3D{0, 0, 0});
  for (int threads : {1, 3}) {
    PcdFibeTrakBuffer* b = new_fibetrak_buffer(7, seeds.data(), 10);
    for (int i = 0; i < 7; ++i) {
      b->pairs[i] = new_trakline_pair(&seeds[0]);
      b->pairs[i]->forward = Line({0, 1, 2, 3, 4, static_cast<float>(i)});
      b->pairs[i]->backward = Line({0, -1});
    }
    b->pairs[6]->backward->nodeCount = 0;
    add_marks_to_fibetrak_buffer(b);
    pack_fibetrak_buffer(b);
    PCDdti_ClearMarkOfFibeTrakBuffer(b, 2);
    EXPECT_EQ(b->pairs[6]->backward->markFlags[2], 0);
    PCDdti_TrakLineNodeMarking(b, 2, 5, threads, FiresBeyondX3);
    PCDdti_TrakLineNodeMarking(b, 2, 0, threads, NeverFires);
    PCDdti_TrakLineNodeMarking(b, 2, 1, threads, FiresAlways);
    for (int i = 0; i < 7; ++i) {
      const PcdTrakLineBuffer* f = b->pairs[i]->forward;
      EXPECT_EQ(f->markFlags[2], (1 << 5) | (1 << 1)) << i;
      EXPECT_EQ(f->markArrays[2][0], (1 << 5) | (1 << 1));
      for (int n = 1; n < f->nodeCount; ++n) EXPECT_EQ(f->markArrays[2][n], 0);
      EXPECT_EQ(b->pairs[i]->backward->markFlags[2], i == 6 ? 0 : 2);
    }
    PCDdti_DeleteFibeTrakBuffer(b);
  }
  // a test that fires on the first call (seed against itself) marks the line
  PcdTrakLineBuffer* l = Line({7, 8});
  add_node_mark_to_trakline_buffer(l);
  l->markFlags[0] = 0;
  CountSegmentTestCalls = 0;
  trakline_nodes_marking(l, 0, 4, FiresAlways);
  EXPECT_EQ(CountSegmentTestCalls, 1);
  EXPECT_EQ(l->markFlags[0], 4);
  delete_trakline_buffer(l);
}

TEST(FiberTracking, StraightBundleFibersStayInsideAndFollowIt) {
  Phantom p(48, 48, 16);
  TrackingRun run;
  for (int k = 0; k < 20; ++k) run.seeds.push_back({12.5f + 0.1f * k, 23.5f, 7.5f + 0.05f * k});
  run.Track(p.dti, 2);
  ASSERT_NE(run.result, nullptr);
  ASSERT_EQ(run.result->lineCount, 20);
  EXPECT_EQ(run.said.find("Invalid"), std::string::npos);
  int segments;
  EXPECT_GT(MeanAlignment(p, run.result, &segments), 0.99);
  EXPECT_GT(segments, 500);
  // a fiber may turn into the crossing bundle where the two meet, never leave both
  const float half = 48 / 12.0f + 1.0f, cy = 23.5f, cx = 23.5f;
  for (int32_t i = 0; i < run.result->lineCount; ++i)
    for (const PcdTrakLineBuffer* l : {run.result->pairs[i]->forward, run.result->pairs[i]->backward}) {
      EXPECT_GT(l->nodeCount, 10);
      for (int n = 0; n < l->nodeCount; ++n)
        EXPECT_TRUE(std::fabs(l->y[n] - cy) < half || std::fabs(l->x[n] - cx) < half)
            << l->x[n] << "," << l->y[n];
    }
}

TEST(FiberTracking, BothSchemesFollowTheCurvedBundle) {
  Phantom p(48, 48, 16);
  // the arc: centre (cx - 12, cy - 12), radius 14.4, in the band above the crossing
  const float ox = 23.5f - 12.0f, oy = 23.5f - 12.0f, r = 48 * 0.3f;
  for (int scheme : {123, 345}) {
    TrackingRun run;
    run.context.scheme = scheme;
    for (int k = 0; k < 10; ++k) {
      const float a = 0.5f + 0.05f * k;
      run.seeds.push_back({ox + r * std::cos(a), oy + r * std::sin(a), 7.5f + 4.0f + 0.1f * k});
    }
    run.Track(p.dti, 1);
    ASSERT_NE(run.result, nullptr);
    int segments;
    EXPECT_GT(MeanAlignment(p, run.result, &segments), 0.95) << scheme;
    EXPECT_GT(segments, 100) << scheme;
  }
}

TEST(FiberTracking, DumpsAreIdenticalForAnyThreadCount) {
  Phantom p(32, 32, 12);
  std::string first;
  for (int threads : {1, 2, 7}) {
    TrackingRun run;
    for (int k = 0; k < 40; ++k) run.seeds.push_back({4.5f + 0.6f * k, 15.5f, 5.5f + 0.02f * k});
    run.Track(p.dti, threads);
    ASSERT_NE(run.result, nullptr);
    const std::string dump = Dump(run.result);
    if (first.empty()) first = dump;
    EXPECT_EQ(dump, first) << threads;
  }
}

TEST(FiberTracking, EdgeCasesOfTheStopRules) {
  Phantom p(32, 32, 12);
  {  // node limit 1: only the seeds
    TrackingRun run;
    run.context.nodeLimit = 1;
    run.seeds = {{10.5f, 15.5f, 5.5f}};
    run.Track(p.dti, 1);
    ASSERT_EQ(run.result->lineCount, 1);
    EXPECT_EQ(run.result->pairs[0]->forward->nodeCount, 1);
    EXPECT_EQ(run.result->pairs[0]->backward->nodeCount, 1);
  }
  {  // a seed below So min yields no pair; So max likewise
    TrackingRun run;
    run.context.limits.SoMin = 1e6f;
    run.seeds = {{10.5f, 15.5f, 5.5f}};
    run.Track(p.dti, 1);
    EXPECT_EQ(run.result->lineCount, 0);
    EXPECT_EQ(run.result->seedCount, 1);
  }
  {  // every criterion off: lines end only at the border or the node limit
    TrackingRun run;
    PcdDiffusionTensorLimits& l = run.context.limits;
    l.useFAmin = l.useSoMin = 0;
    run.context.scheme = 999;
    run.seeds = {{10.5f, 15.5f, 5.5f}, {1.2f, 15.5f, 5.5f}};
    run.Track(p.dti, 2);
    EXPECT_EQ(run.said.rfind("Invalid tracking scheme. Set to e1 track\n", 0), 0u);
    EXPECT_EQ(run.said.find("Invalid", 1), std::string::npos);  // once per run
    ASSERT_EQ(run.result->lineCount, 2);
    for (int i = 0; i < 2; ++i)
      for (const PcdTrakLineBuffer* line : {run.result->pairs[i]->forward, run.result->pairs[i]->backward}) {
        const int last = line->nodeCount - 1;
        const bool atLimit = line->nodeCount == 160;
        // the step that left the volume is written past the counted nodes
        const float nx = line->x[last] + (line->x[last] - (last > 0 ? line->x[last - 1] : line->x[last]));
        EXPECT_TRUE(atLimit || nx < 0.0f || nx >= 31.0f || line->y[last] < 1.0f ||
                    line->y[last] > 30.0f || line->z[last] < 1.0f || line->z[last] > 10.0f)
            << line->x[last] << " " << line->y[last] << " " << line->z[last];
      }
  }
}

// Two halves: tensors along x below x = 8, along y from there on. With the angle limit
// at 30 degrees a fiber coming along x stops where the field turns, and the node at which
// the angle test fired is not counted.
TEST(FiberTracking, AngleLimitStopsAtTheTurnWithoutCountingItsNode) {
  const PcdIntSize4D size{16, 8, 4, 7};
  std::vector<int32_t> types(7, SINT16), formats(7, 0);
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(v, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(dti, 7);
  for (int z = 0; z < 4; ++z)
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 16; ++x) {
        const size_t at = static_cast<size_t>((z * 8 + y) * 16 + x);
        static_cast<int16_t*>(v->data[0])[at] = 10000;
        for (int c = 1; c < 7; ++c) {
          const PcdVector3D g = dti->mpgVectors[c];
          const double along = x < 8 ? g.x : g.y;
          const double q = 0.3e-3 + 1.4e-3 * along * along;
          static_cast<int16_t*>(v->data[c])[at] = static_cast<int16_t>(std::lround(10000 * std::exp(-1000 * q)));
        }
      }
  TrackingRun run;
  run.context.limits.useAngleMax = 1;
  run.context.limits.useFAmin = 0;
  run.seeds = {{3.5f, 3.5f, 1.5f}};
  run.Track(dti, 1);
  ASSERT_EQ(run.result->lineCount, 1);
  const PcdTrakLineBuffer* f = run.result->pairs[0]->forward;
  const PcdTrakLineBuffer* b = run.result->pairs[0]->backward;
  const PcdTrakLineBuffer* toward = f->x[1] > f->x[0] ? f : b;
  const int last = toward->nodeCount - 1;
  // the next step reaches signals blended from the turned half: the line ends there, and
  // that node is not kept
  EXPECT_LT(toward->x[last], 8.0f);
  EXPECT_GE(toward->x[last], 6.0f);
  EXPECT_LT(toward->nodeCount, 10);
  PCDdti_DeleteFibeTrakBuffer(run.result);
  run.result = nullptr;
  std::free(dti);
  PCD_DeleteRawVolumeData(v);
}

TEST(FiberTracking, SharedSignalCopyGivesTheTensorOfThePerChannelReads) {
  Phantom p(20, 20, 8);
  PcdVoxelMajorSignals voxelMajor;
  ASSERT_TRUE(PCDdti_PrepareVoxelMajorSignals(p.dti, &voxelMajor));
  PcdDiffusionTensorData* a = PCDdti_NewDiffusionTensorData(p.dti->channelCount, p.dti->soCount);
  PcdDiffusionTensorData* b = PCDdti_NewDiffusionTensorData(p.dti->channelCount, p.dti->soCount);
  b->voxelMajor = &voxelMajor;
  for (const PcdVector3D pos : {PcdVector3D{3.3f, 4.7f, 2.2f}, PcdVector3D{-0.4f, 19.5f, 7.9f},
                                PcdVector3D{12.01f, 0.99f, 3.5f}, PcdVector3D{25.0f, -3.0f, 1.0f}}) {
    PCDdti_CalcAndDiagnalizeDiffusionTensor(p.dti, a, &pos);
    PCDdti_CalcAndDiagnalizeDiffusionTensor(p.dti, b, &pos);
    const float ca[7] = {a->Dxx, a->Dyy, a->Dzz, a->Dxy, a->Dyz, a->Dxz, a->So};
    const float cb[7] = {b->Dxx, b->Dyy, b->Dzz, b->Dxy, b->Dyz, b->Dxz, b->So};
    EXPECT_EQ(std::memcmp(ca, cb, sizeof ca), 0);
  }
  PCDdti_DeleteDiffusionTensorData(a);
  PCDdti_DeleteDiffusionTensorData(b);
}

// The half-lines of a seed traced node by node through do_fiber_tracking, as the run
// would give them without its side-by-side rounds.
struct NodeByNode {
  PcdTrakLineBuffer* forward = nullptr;
  PcdTrakLineBuffer* backward = nullptr;
  bool started = false;
  ~NodeByNode() {
    delete_trakline_buffer(forward);
    delete_trakline_buffer(backward);
  }
};

void TraceNodeByNode(const PcdDtiData* dti, const PcdFibeTrakContext& context,
                     const PcdVector3D& seed, NodeByNode* out) {
  PcdDiffusionTensorData* t = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  PcdTrakLineBuffer* work = new_trakline_buffer(context.nodeLimit);
  if (!precheck_by_So(dti, &context.limits, &seed)) {
    PCDdti_CalcAndDiagnalizeDiffusionTensor(dti, t, &seed);
    t->turningAngle = 1.0f;
    if (context.stopTest(t, &context.limits) == 0) {
      out->started = true;
      const float d[3] = {t->tensor[1][3], t->tensor[2][3], t->tensor[3][3]};
      const float L[3] = {t->eigenvalues[3], t->eigenvalues[2], t->eigenvalues[1]};
      for (const float sign : {1.0f, -1.0f}) {
        work->x[0] = seed.x;
        work->y[0] = seed.y;
        work->z[0] = seed.z;
        work->L1[0] = L[0];
        work->L2[0] = L[1];
        work->L3[0] = L[2];
        work->nodeCount = 1;
        (sign > 0 ? out->forward : out->backward) =
            do_fiber_tracking(dti, &context, t, work, sign * d[0], sign * d[1], sign * d[2]);
      }
    }
  }
  delete_trakline_buffer(work);
  PCDdti_DeleteDiffusionTensorData(t);
}

bool SameLine(const PcdTrakLineBuffer* a, const PcdTrakLineBuffer* b) {
  if (a->nodeCount != b->nodeCount) return false;
  const auto n = static_cast<size_t>(a->nodeCount) * sizeof(float);
  return std::memcmp(a->x, b->x, n) == 0 && std::memcmp(a->y, b->y, n) == 0 &&
         std::memcmp(a->z, b->z, n) == 0 && std::memcmp(a->L1, b->L1, n) == 0 &&
         std::memcmp(a->L2, b->L2, n) == 0 && std::memcmp(a->L3, b->L3, n) == 0;
}

// Lines that run side by side end at different rounds and free their lanes for others;
// every line must still be the one traced on its own, to the bit, in every mix of
// schemes, limits and seeds that never start.
TEST(FiberTracking, SideBySideRoundsGiveTheLinesOfNodeByNodeTracing) {
  PcdDtiData* dti =
      PCD_MakeDwiPhantom({.sizeX = 32, .sizeY = 32, .sizeZ = 12, .noise = 0.04f}, nullptr);
  struct Setting {
    int scheme, nodeLimit, useAngle;
    float soMin;
  };
  for (const Setting& set : {Setting{123, 160, 0, 0.0f}, Setting{345, 160, 0, 0.0f},
                             Setting{123, 7, 1, 0.0f}, Setting{345, 40, 1, 3000.0f},
                             Setting{123, 1, 0, 0.0f}}) {
    TrackingRun run;
    run.context.scheme = set.scheme;
    run.context.nodeLimit = set.nodeLimit;
    run.context.limits.useAngleMax = set.useAngle;
    run.context.limits.SoMin = set.soMin;
    // 90 seeds over the head, the bundles and outside it: more lines than lanes
    for (int k = 0; k < 90; ++k)
      run.seeds.push_back({-1.5f + 0.37f * k, 3.5f + 0.29f * k, 1.2f + 0.11f * k});
    run.Track(dti, 2);
    ASSERT_NE(run.result, nullptr);
    int32_t at = 0, started = 0;
    for (const PcdVector3D& seed : run.seeds) {
      NodeByNode want;
      TraceNodeByNode(dti, run.context, seed, &want);
      if (!want.started) continue;
      ++started;
      ASSERT_LT(at, run.result->lineCount);
      const PcdTrakLinePair* got = run.result->pairs[at++];
      EXPECT_EQ(std::memcmp(&got->seed, &seed, sizeof seed), 0);
      EXPECT_TRUE(SameLine(got->forward, want.forward)) << set.scheme << " seed " << at;
      EXPECT_TRUE(SameLine(got->backward, want.backward)) << set.scheme << " seed " << at;
    }
    EXPECT_EQ(at, run.result->lineCount);
    EXPECT_GT(started, 20) << set.scheme << " " << set.nodeLimit;
  }
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

TEST(FiberTracking, NotReadyDataSetIsRefused) {
  Phantom p(8, 8, 4);
  p.dti->isReady = 0;
  TrackingRun run;
  run.seeds = {{1, 1, 1}};
  run.Track(p.dti, 1);
  EXPECT_EQ(run.result, nullptr);
  EXPECT_EQ(run.said, "DTI data NOT ready\n");
}

TEST(FiberTracking, SeedsOfAVoxelStartAtItsCentreAndStayInsideIt) {
  const PcdVector3D centre = PCDdti_SeedInVoxel(3, 4, 5, 0);
  EXPECT_EQ(centre.x, 3.0f);  // the sample of voxel 3 lies at 3: the interpolated read gives it whole
  EXPECT_EQ(centre.y, 4.0f);
  EXPECT_EQ(centre.z, 5.0f);
  std::vector<PcdVector3D> seen;
  for (int k = 0; k < 50; ++k) {
    const PcdVector3D s = PCDdti_SeedInVoxel(3, 4, 5, k);
    EXPECT_TRUE(s.x >= 2.5f && s.x < 3.5f && s.y >= 3.5f && s.y < 4.5f && s.z >= 4.5f && s.z < 5.5f) << k;
    for (const PcdVector3D& t : seen) EXPECT_FALSE(t.x == s.x && t.y == s.y && t.z == s.z) << k;
    seen.push_back(s);
  }
}

}  // namespace
