#include "dti/gradient_check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <thread>

#include "dti/channels.h"
#include "dti/dti_check.h"
#include "dti/tensor.h"
#include "fiber/tracking.h"

namespace {

// FA (0..1) of every voxel of slices [first, last], 0 where the fit fails or no signal is.
void FitSlices(const PcdDtiData* dti, int32_t first, int32_t last, std::vector<float>* fa) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  if (record == nullptr) return;
  const auto* so = static_cast<const int16_t*>(dti->volume->data[0]);
  for (int32_t z = first; z <= last; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x) {
        const size_t at = static_cast<size_t>(x) + static_cast<size_t>(s.x) * (static_cast<size_t>(y) + static_cast<size_t>(s.y) * static_cast<size_t>(z));
        if (so[at] <= 0) continue;
        const PcdIntVector3D voxel{x, y, z};
        if (PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, record, &voxel) == 1 &&
            PCDdti_CheckDiffusionTensorIsValid(record) == 1) {
          const float value = PCDdti_GetFA(record);
          (*fa)[at] = std::isfinite(value) ? value : 0.0f;
        }
      }
  PCDdti_DeleteDiffusionTensorData(record);
}

std::vector<float> FitFa(const PcdDtiData* dti, int32_t threads) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  std::vector<float> fa(static_cast<size_t>(s.x) * static_cast<size_t>(s.y) * static_cast<size_t>(s.z), 0.0f);
  const int32_t used = std::clamp(threads, 1, s.z);
  std::vector<std::thread> workers;
  for (int32_t t = 0; t < used; ++t) {
    const int32_t first = static_cast<int32_t>(static_cast<int64_t>(s.z) * t / used);
    const int32_t last = static_cast<int32_t>(static_cast<int64_t>(s.z) * (t + 1) / used) - 1;
    workers.emplace_back(FitSlices, dti, first, last, &fa);
  }
  for (std::thread& w : workers) w.join();
  return fa;
}

// The seed voxels' centres: high FA, inside the mask, thinned evenly to at most maxSeeds.
std::vector<PcdVector3D> SeedGrid(const PcdIntSize4D& s, const std::vector<float>& fa,
                                  const PcdGradientCheckOptions& o) {
  std::vector<PcdIntVector3D> voxels;
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at)
        if (fa[at] >= o.seedFaMin && (o.mask == nullptr || (*o.mask)[at] != 0)) voxels.push_back({x, y, z});
  const size_t limit = static_cast<size_t>(std::max(1, o.maxSeeds));
  const size_t every = (voxels.size() + limit - 1) / limit;
  std::vector<PcdVector3D> seeds;
  for (size_t i = 0; i < voxels.size(); i += std::max<size_t>(every, 1))
    seeds.push_back(PCDdti_SeedInVoxel(voxels[i].x, voxels[i].y, voxels[i].z, 0));
  return seeds;
}

double HalfLength(const PcdTrakLineBuffer* line) {
  double sum = 0.0;
  if (line == nullptr) return sum;
  for (int i = 1; i < line->nodeCount; ++i) {
    const double dx = line->x[i] - line->x[i - 1], dy = line->y[i] - line->y[i - 1],
                 dz = line->z[i] - line->z[i - 1];
    sum += std::sqrt(dx * dx + dy * dy + dz * dz);
  }
  return sum;
}

// Mean fiber length (voxel units) of one tracking run over every seed, quietly: the run's
// own progress lines would repeat once per candidate.
double MeanLength(const PcdDtiData* dti, PcdFibeTrakContext* context, PcdVoxelMajorSignals* signals,
                  int32_t threads) {
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(context->seedCount, context->seedPoints, context->nodeLimit);
  if (buffer == nullptr) return -1.0;
  std::vector<int32_t> counts(static_cast<size_t>(threads));
  const int32_t used = distribute_objects_to_threads_optimally(context->seedCount, threads, counts.data());
  std::unique_ptr<PcdTrackingWork[]> works(new PcdTrackingWork[static_cast<size_t>(std::max(used, 1))]);
  std::vector<std::thread> running;
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
    w.voxelMajor = signals;
    first = w.last + 1;
    PCD_StartThread(&running, threaded_fiber_tracking, &w);
  }
  for (std::thread& t : running) t.join();
  double sum = 0.0;
  for (int32_t i = 0; i < buffer->seedCount; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair != nullptr) sum += HalfLength(pair->forward) + HalfLength(pair->backward);
  }
  delete_fibetrak_buffer(buffer);
  return context->seedCount > 0 ? sum / context->seedCount : 0.0;
}

const char kAxisName[3] = {'x', 'y', 'z'};

std::string Describe(const PcdGradientCandidate& c, int negate) {
  std::string text;
  for (int i = 0; i < 3; ++i) {
    if (i > 0) text += ' ';
    if (c.sign[i] * negate < 0) text += '-';
    text += kAxisName[c.axis[i]];
  }
  return text;
}

}  // namespace

std::vector<PcdGradientCandidate> PCDdti_GradientCandidates() {
  static const int8_t kPermutations[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2},
                                             {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
  // no flip, then one axis flipped: with their negations these are all eight sign patterns
  static const int8_t kSigns[4][3] = {{1, 1, 1}, {-1, 1, 1}, {1, -1, 1}, {1, 1, -1}};
  std::vector<PcdGradientCandidate> out;
  for (const auto& p : kPermutations)
    for (const auto& s : kSigns) {
      PcdGradientCandidate c;
      for (int i = 0; i < 3; ++i) c.axis[i] = p[i], c.sign[i] = s[i];
      out.push_back(c);
    }
  return out;
}

void PCDdti_ApplyGradientCandidate(const PcdGradientCandidate& c, PcdDtiData* dti) {
  const int32_t n = std::clamp(dti->channelCount, 0, kPcdDtiMaxChannels);
  for (int32_t k = 0; k < n; ++k) {
    const PcdVector3D g = dti->mpgVectors[k];
    const float old[3] = {g.x, g.y, g.z};
    // + 0.0f: a flipped zero becomes +0, not -0, in the files written from the setting
    dti->mpgVectors[k] = {c.sign[0] * old[c.axis[0]] + 0.0f, c.sign[1] * old[c.axis[1]] + 0.0f,
                          c.sign[2] * old[c.axis[2]] + 0.0f};
  }
}

std::string PCDdti_DescribeGradientCandidate(const PcdGradientCandidate& c) { return Describe(c, 1); }
std::string PCDdti_DescribeEquivalentCandidate(const PcdGradientCandidate& c) { return Describe(c, -1); }

bool PCDdti_CheckGradientTable(const PcdDtiData* dti, const PcdGradientCheckOptions& o,
                               PcdGradientCheck* result) {
  if (dti == nullptr || dti->isReady != 1) {
    std::fputs("Err: the MPG setting is not ready\n", stderr);
    return false;
  }
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_INTERPOLATED)) return false;
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const size_t voxels = static_cast<size_t>(s.x) * static_cast<size_t>(s.y) * static_cast<size_t>(s.z);
  if ((o.mask != nullptr && o.mask->size() != voxels) || (o.fa != nullptr && o.fa->size() != voxels)) {
    std::fputs("Err: the mask does not match the data set\n", stderr);
    return false;
  }
  const int32_t threads = std::clamp(o.threads, 1, 256);
  const std::vector<float> fitted = o.fa != nullptr ? std::vector<float>() : FitFa(dti, threads);
  std::vector<PcdVector3D> seeds = SeedGrid(s, o.fa != nullptr ? *o.fa : fitted, o);
  if (seeds.empty()) {
    std::fprintf(stderr, "Err: no voxel with FA of at least %.2f to seed from\n", static_cast<double>(o.seedFaMin));
    return false;
  }
  PcdFibeTrakContext context;
  context.limits.useFAmin = 1;
  context.limits.FAmin = o.trackFaMin;
  context.limits.useAngleMax = 1;
  context.limits.AngleMax = o.angleMax;
  context.limits.cosAngleMax = static_cast<float>(std::cos(o.angleMax * 0.01745328888888889));
  context.nodeLimit = std::clamp(o.nodeLimit, 2, 32767);
  context.step = o.step;
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();
  context.stopTest = check_if_stop_by_values;
  context.directionRule = get_tracking_direction_by_e1;
  // the signals do not depend on the table: one side-by-side copy serves every candidate
  PcdVoxelMajorSignals signals;
  const bool sideBySide = PCDdti_PrepareVoxelMajorSignals(dti, &signals);
  const float voxelMm = dti->reserved > 0 && std::isfinite(dti->reserved) ? dti->reserved : 1.0f;

  result->candidates = PCDdti_GradientCandidates();
  result->seedCount = context.seedCount;
  auto trial = std::make_unique<PcdDtiData>(*dti);
  for (PcdGradientCandidate& c : result->candidates) {
    *trial = *dti;
    PCDdti_ApplyGradientCandidate(c, trial.get());
    const double mean = MeanLength(trial.get(), &context, sideBySide ? &signals : nullptr, threads);
    if (mean < 0) {
      std::fputs("Err: not enough memory for the tracking\n", stderr);
      return false;
    }
    c.meanLength = mean * voxelMm;
  }
  // the first of the highest scores wins, and the table as given wins any near tie
  int32_t best = 0;
  for (int32_t i = 1; i < static_cast<int32_t>(result->candidates.size()); ++i)
    if (result->candidates[i].meanLength > result->candidates[best].meanLength) best = i;
  result->tableIsBest = result->candidates[0].meanLength >=
                        result->candidates[best].meanLength * (1.0 - kPcdGradientTie);
  result->best = result->tableIsBest ? 0 : best;
  return true;
}

std::string PCDdti_GradientVerdict(const PcdGradientCheck& check) {
  if (check.tableIsBest || check.candidates.empty()) return "as given";
  return PCDdti_DescribeGradientCandidate(check.candidates[static_cast<size_t>(check.best)]);
}

void PCDdti_PrintGradientCheck(const PcdGradientCheck& check, std::FILE* out) {
  std::vector<size_t> order(check.candidates.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return check.candidates[a].meanLength > check.candidates[b].meanLength;
  });
  std::fprintf(out, "candidate  same as    mean fiber length (mm)\n");
  for (size_t i : order) {
    const PcdGradientCandidate& c = check.candidates[i];
    std::fprintf(out, "%-10s %-10s %8.2f%s%s\n", PCDdti_DescribeGradientCandidate(c).c_str(),
                 PCDdti_DescribeEquivalentCandidate(c).c_str(), c.meanLength,
                 i == 0 ? "  as given" : "", static_cast<int32_t>(i) == check.best ? "  best" : "");
  }
}
