#include "cohort/dwi_analysis.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "cohort/cohort_files.h"
#include "dti/channels.h"
#include "dti/dti_check.h"
#include "dti/gradient_check.h"
#include "dti/statistics.h"
#include "dti/tensor.h"
#include "fiber/tracking.h"
#include "io/c_locale.h"
#include "io/nifti_file.h"
#include "io/tract_file.h"
#include "study/study_runner.h"

const char kCohortQcHeader[] =
    "dwi\tvolumes\tb_values\tmask_voxels\tvalid_tensor_fraction\tmedian_fa\tgradcheck\twarnings";
const char kCohortRoiStatsHeader[] =
    "label\tvoxels\tvalid_tensors\tfa_mean\tfa_sd\tfa_min\tfa_max\tmd_mean\tmd_sd\tmd_min\tmd_max";

std::string CohortAnalyses::Text() const {
  std::string text;
  for (auto [on, name] : {std::pair{maps, "maps"}, std::pair{track, "track"}, std::pair{stats, "stats"}})
    if (on) text += (text.empty() ? "" : ",") + std::string(name);
  return text;
}

bool ParseCohortAnalyses(const std::string& text, CohortAnalyses* out) {
  CohortAnalyses chosen{false, false, false};
  std::istringstream in(text);
  std::string name;
  bool any = false;
  while (std::getline(in, name, ',')) {
    if (name == "maps") chosen.maps = true;
    else if (name == "track") chosen.track = true;
    else if (name == "stats") chosen.stats = true;
    else return false;
    any = true;
  }
  if (!any) return false;
  *out = chosen;
  return true;
}

CohortAtlas::~CohortAtlas() { PCD_DeleteRawVolumeData(labels); }

bool LoadCohortAtlas(const std::string& path, CohortAtlas* atlas) {
  std::string information;
  PcdWorldGeometry geometry{};
  atlas->labels = ReadNiftiVolumeFile(path.c_str(), &geometry, &information);
  if (atlas->labels == nullptr) return false;
  if (atlas->labels->matrixSize->channels != 1) {
    std::fprintf(stderr, "Err: the atlas %s must hold one volume, not %d\n", path.c_str(),
                 atlas->labels->matrixSize->channels);
    return false;
  }
  atlas->path = path;
  std::string stem = PCD_NiftiStem(path.substr(path.find_last_of('/') + 1));
  for (char c : stem)
    if (std::isalnum(static_cast<unsigned char>(c))) atlas->name += c;
  if (atlas->name.empty()) atlas->name = "atlas";
  const PcdIntSize4D& s = *atlas->labels->matrixSize;
  const auto* label = static_cast<const int16_t*>(atlas->labels->data[0]);
  std::set<int32_t> values;
  for (int64_t i = 0; i < static_cast<int64_t>(s.x) * s.y * s.z; ++i)
    if (label[i] != 0) values.insert(label[i]);
  atlas->values.assign(values.begin(), values.end());
  return true;
}

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct DtiOwner {
  PcdDtiData* dti = nullptr;
  ~DtiOwner() {
    if (dti != nullptr) {
      PCD_DeleteRawVolumeData(dti->volume);
      std::free(dti);
    }
  }
};

struct VolumeOwner {
  PcdRawVolumeData* volume = nullptr;
  ~VolumeOwner() { PCD_DeleteRawVolumeData(volume); }
};

// The brain mask of the QC numbers and the fit: voxels whose first So signal is above a
// tenth of its largest value (the air around a head holds noise well below that).
int16_t BrainThreshold(const PcdRawVolumeData* volume) {
  const PcdIntSize4D& s = *volume->matrixSize;
  const auto* so = static_cast<const int16_t*>(volume->data[0]);
  int16_t top = 0;
  for (int64_t i = 0; i < static_cast<int64_t>(s.x) * s.y * s.z; ++i) top = std::max(top, so[i]);
  return static_cast<int16_t>(top / 10);
}

// Axial and radial diffusivity (x 10^6, as the ADC map) of every voxel above the threshold,
// with the FA of each valid tensor for the QC median. Slabs of slices run on threads; each
// owns its tensor record and its slice range of the outputs.
struct EigenPass {
  std::vector<int16_t> axial, radial;
  std::vector<float> validFa;  // in voxel order
  int64_t maskVoxels = 0;
};

void EigenSlab(const PcdDtiData* dti, int16_t threshold, int32_t z0, int32_t z1, EigenPass* out,
               std::vector<float>* validFa, int64_t* maskVoxels) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const auto* so = static_cast<const int16_t*>(dti->volume->data[0]);
  std::unique_ptr<PcdDiffusionTensorData, void (*)(PcdDiffusionTensorData*)> record(
      PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount), &PCDdti_DeleteDiffusionTensorData);
  if (!record) return;
  for (int32_t z = z0; z < z1; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x) {
        const size_t at = static_cast<size_t>(x) + static_cast<size_t>(s.x) * (y + static_cast<size_t>(s.y) * z);
        if (so[at] <= threshold) continue;
        ++*maskVoxels;
        const PcdIntVector3D voxel{x, y, z};
        if (PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, record.get(), &voxel) != 1 ||
            PCDdti_CheckDiffusionTensorIsValid(record.get()) != 1)
          continue;
        const float l1 = PCDdti_GetLambda1(record.get());
        const float radial = (PCDdti_GetLambda2(record.get()) + PCDdti_GetLambda3(record.get())) * 0.5f;
        out->axial[at] = PCDdti_MapValueToSINT16(l1 * 1000000.0f);
        out->radial[at] = PCDdti_MapValueToSINT16(radial * 1000000.0f);
        validFa->push_back(PCDdti_GetFA(record.get()));
      }
}

void RunEigenPass(const PcdDtiData* dti, int16_t threshold, int threads, EigenPass* out) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const size_t voxels = static_cast<size_t>(s.x) * s.y * s.z;
  out->axial.assign(voxels, 0);
  out->radial.assign(voxels, 0);
  const int32_t count = std::clamp<int32_t>(threads, 1, std::max(1, s.z));
  std::vector<std::vector<float>> fas(count);
  std::vector<int64_t> masks(count, 0);
  std::vector<std::thread> workers;
  for (int32_t t = 0; t < count; ++t) {
    const int32_t z0 = static_cast<int32_t>(static_cast<int64_t>(s.z) * t / count);
    const int32_t z1 = static_cast<int32_t>(static_cast<int64_t>(s.z) * (t + 1) / count);
    workers.emplace_back(EigenSlab, dti, threshold, z0, z1, out, &fas[t], &masks[t]);
  }
  for (std::thread& w : workers) w.join();
  for (int32_t t = 0; t < count; ++t) {
    out->validFa.insert(out->validFa.end(), fas[t].begin(), fas[t].end());
    out->maskVoxels += masks[t];
  }
}

double Median(std::vector<float> values) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (static_cast<double>(values[n / 2 - 1]) + values[n / 2]) / 2.0;
}

std::string DistinctBValues(const PcdDtiData* dti) {
  std::set<long> values;
  for (int32_t c = 0; c < dti->channelCount; ++c) values.insert(std::lround(dti->bValues[c]));
  std::string text;
  for (long b : values) text += (text.empty() ? "" : ",") + std::to_string(b);
  return text;
}

bool WriteMaps(const PcdDtiData* dti, const PcdWorldGeometry& geometry, int32_t first,
               const EigenPass& eigen, const std::string& dir, const std::string& prefix,
               std::vector<std::string>* written) {
  const std::string stem = prefix + "_model-tensor_param-";
  const int32_t color = first, fa = first + 1, md = first + 2;
  struct Map {
    const char* param;
    int32_t channel;
    float slope;
  };
  for (const Map& m : {Map{"fa", fa, 0.001f}, Map{"md", md, 1e-6f}, Map{"rgb", color, 0.0f}}) {
    const std::string name = stem + m.param + "_dwimap.nii.gz";
    if (WriteNiftiChannels(dti->volume, &m.channel, 1, &geometry, (dir + "/" + name).c_str(), m.slope) != 0)
      return false;
    written->push_back(name);
  }
  // axial and radial diffusivity: a two-channel volume of their own, one map each
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdIntSize3D size3{s.x, s.y, s.z};
  for (auto [param, values] : {std::pair{"ad", &eigen.axial}, std::pair{"rd", &eigen.radial}}) {
    VolumeOwner map{PCD_NewSingleChannelRawVolumeData(&size3, SINT16, PCD_MONOCHROME)};
    if (map.volume == nullptr) {
      std::fputs("Err: not enough memory for the diffusivity maps\n", stderr);
      return false;
    }
    std::copy(values->begin(), values->end(), static_cast<int16_t*>(map.volume->data[0]));
    const int32_t channel = 0;
    const std::string name = stem + param + "_dwimap.nii.gz";
    if (WriteNiftiChannels(map.volume, &channel, 1, &geometry, (dir + "/" + name).c_str(), 1e-6f) != 0)
      return false;
    written->push_back(name);
  }
  return true;
}

bool WriteSidecar(const BidsDwiRun& run, const PcdDtiData* dti, int16_t threshold,
                  const std::string& dir, std::vector<std::string>* written) {
  const std::string name = run.prefix + "_model-tensor_dwimap.json";
  const PcdScopedCLocale cLocale;
  char numbers[160];
  std::snprintf(numbers, sizeof numbers, "\"So_threshold\": %d,\n    \"So_volumes\": %d,\n    \"DWI_volumes\": %d",
                threshold, dti->soCount, dti->channelCount - dti->soCount);
  const std::string text =
      "{\n  \"Model\": {\n    \"Description\": \"diffusion tensor, linear least squares of the log "
      "signal ratios\",\n    \"URL\": \"\",\n    \"Parameters\": {\n    " +
      std::string(numbers) + ",\n    \"b_values\": " + CohortJsonString(DistinctBValues(dti)) +
      "\n    }\n  },\n  \"Units\": {\"fa\": \"\", \"md\": \"mm^2/s\", \"ad\": \"mm^2/s\", \"rd\": \"mm^2/s\", "
      "\"rgb\": \"|e1| x FA as RGB\"},\n  \"Sources\": [" +
      CohortJsonString("bids::" + run.relative) +
      "],\n  \"GeneratedBy\": [{\"Name\": \"quorix-batch bids\", \"Version\": " +
      CohortJsonString(CohortVersion()) + "}]\n}\n";
  if (!CohortWriteFileAtomically(dir + "/" + name, text)) {
    std::fprintf(stderr, "Err: cannot write %s\n", name.c_str());
    return false;
  }
  written->push_back(name);
  return true;
}

bool Track(const PcdDtiData* dti, const PcdWorldGeometry& geometry, int32_t faChannel, int threads,
           const std::string& dir, const std::string& prefix, std::vector<std::string>* written) {
  // one seed in the centre of every voxel whose FA is above 0.3
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const auto* fa = static_cast<const int16_t*>(dti->volume->data[faChannel]);
  std::vector<PcdVector3D> seeds;
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at)
        if (fa[at] > 300) seeds.push_back(PCDdti_SeedInVoxel(x, y, z, 0));
  PcdFibeTrakContext context;
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();
  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(dti, &context, threads);
  if (result == nullptr) return false;
  const PcdIntSize3D size3{s.x, s.y, s.z};
  const bool selected = PCD_SelectFibersByMasks(result, {}, {}, &size3, threads) >= 0;
  const std::string name = prefix + "_model-tensor_alg-det_streamlines.tck";
  const bool ok = selected && WriteTckFile(result, &geometry, (dir + "/" + name).c_str()) == 0;
  PCDdti_DeleteFibeTrakBuffer(result);
  if (ok) written->push_back(name);
  return ok;
}

std::string StatsRow(int32_t label, const PcdDiffusionTensorStatistics& s) {
  char line[512];
  if (s.validCount == 0) {
    std::snprintf(line, sizeof line, "%d\t%d\t0\tn/a\tn/a\tn/a\tn/a\tn/a\tn/a\tn/a\tn/a\n", label, s.voxelCount);
    return line;
  }
  // an SD of NaN (rounding below zero under the root) is written as n/a
  auto sd = [](double v) { return v == v ? v : -1.0; };
  std::snprintf(line, sizeof line, "%d\t%d\t%u\t%.8g\t%.8g\t%.8g\t%.8g\t%.8g\t%.8g\t%.8g\t%.8g\n", label,
                s.voxelCount, s.validCount, s.FAmean, sd(s.FAsd), s.FAmin, s.FAmax, s.ADCmean, sd(s.ADCsd),
                s.ADCmin, s.ADCmax);
  return line;
}

// Statistics per label over the label's voxels inside the brain mask (the voxels the maps
// hold), so that the air around the head does not count.
bool AtlasStats(const PcdDtiData* dti, const CohortAtlas& atlas, int16_t threshold, const std::string& dir,
                const std::string& prefix, std::vector<std::string>* written) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdIntSize4D& a = *atlas.labels->matrixSize;
  if (a.x != s.x || a.y != s.y || a.z != s.z) {
    std::fprintf(stderr, "Err: the atlas %s is %d x %d x %d, the data set %d x %d x %d\n",
                 atlas.path.c_str(), a.x, a.y, a.z, s.x, s.y, s.z);
    return false;
  }
  const PcdIntSize3D size3{s.x, s.y, s.z};
  VolumeOwner mask{PCD_NewSingleChannelRawVolumeData(&size3, UINT8, PCD_MONOCHROME)};
  if (mask.volume == nullptr) {
    std::fputs("Err: not enough memory for the atlas masks\n", stderr);
    return false;
  }
  const PcdScopedCLocale cLocale;
  std::string table = std::string(kCohortRoiStatsHeader) + "\n";
  const auto* labels = static_cast<const int16_t*>(atlas.labels->data[0]);
  const auto* so = static_cast<const int16_t*>(dti->volume->data[0]);
  auto* bytes = static_cast<uint8_t*>(mask.volume->data[0]);
  const size_t voxels = static_cast<size_t>(s.x) * s.y * s.z;
  for (int32_t label : atlas.values) {
    for (size_t i = 0; i < voxels; ++i) bytes[i] = labels[i] == label && so[i] > threshold ? 1 : 0;
    PcdDiffusionTensorStatistics* stats = PCDdti_GetDiffusionTensorStatistics(dti, mask.volume);
    if (stats == nullptr) return false;
    std::string row = StatsRow(label, *stats);
    std::free(stats);
    // "-1" stands for an undefined SD only; write it as n/a
    for (size_t at; (at = row.find("\t-1\t")) != std::string::npos;) row.replace(at, 4, "\tn/a\t");
    table += row;
  }
  const std::string name = prefix + "_atlas-" + atlas.name + "_roistats.tsv";
  if (!CohortWriteFileAtomically(dir + "/" + name, table)) {
    std::fprintf(stderr, "Err: cannot write %s\n", name.c_str());
    return false;
  }
  written->push_back(name);
  return true;
}

}  // namespace

std::string RunCohortExtraSteps(const PcdDtiData* dti, const BidsDwiRun& run, const std::string& dir,
                                std::vector<std::string>* written) {
  // the gradient table's verdict (fiber coherence of its axis permutations and flips)
  PcdGradientCheck check;
  if (dti == nullptr || !PCDdti_CheckGradientTable(dti, PcdGradientCheckOptions{}, &check)) return "n/a";
  return PCDdti_GradientVerdict(check);
}

bool AnalyseCohortDwiRun(const BidsDwiRun& run, const CohortAnalyses& analyses,
                         const CohortAtlas* atlas, int threads, const std::string& dir,
                         std::vector<std::string>* written, CohortTimes* times) {
  Clock::time_point start = Clock::now();
  PcdWorldGeometry geometry{};
  std::string information;
  DtiOwner set{ReadNiftiDwiFile(run.image.c_str(), run.bval.c_str(), run.bvec.c_str(), &geometry,
                                &information)};
  if (set.dti == nullptr) return false;
  if (!PCDdti_CheckDataSetForAnalysis(set.dti, analyses.track ? PCD_DTI_INTERPOLATED : PCD_DTI_AT_VOXELS))
    return false;
  times->read += SecondsSince(start);

  start = Clock::now();
  const int16_t threshold = BrainThreshold(set.dti->volume);
  const int32_t first = set.dti->volume->matrixSize->channels;
  if (PCDdti_AddComputationalChannels(set.dti, threshold, threads) != 4) {
    std::fputs("Err: not enough memory for the computed channels\n", stderr);
    return false;
  }
  EigenPass eigen;
  RunEigenPass(set.dti, threshold, threads, &eigen);
  times->fit += SecondsSince(start);

  start = Clock::now();
  if (analyses.maps && (!WriteMaps(set.dti, geometry, first, eigen, dir, run.prefix, written) ||
                        !WriteSidecar(run, set.dti, threshold, dir, written)))
    return false;
  times->write += SecondsSince(start);

  if (analyses.track) {
    start = Clock::now();
    if (!Track(set.dti, geometry, first + 1, threads, dir, run.prefix, written)) return false;
    times->track += SecondsSince(start);
  }
  if (analyses.stats && atlas != nullptr) {
    start = Clock::now();
    if (!AtlasStats(set.dti, *atlas, threshold, dir, run.prefix, written)) return false;
    times->stats += SecondsSince(start);
  }

  const std::string gradcheck = RunCohortExtraSteps(set.dti, run, dir, written);
  std::string warnings;
  const double validFraction =
      eigen.maskVoxels > 0 ? static_cast<double>(eigen.validFa.size()) / static_cast<double>(eigen.maskVoxels) : 0.0;
  if (eigen.maskVoxels == 0) warnings = "empty brain mask";
  else if (validFraction < 0.9) warnings = "fewer than 90% valid tensors in the brain mask";
  const PcdScopedCLocale cLocale;
  char numbers[128];
  std::snprintf(numbers, sizeof numbers, "%lld\t%.6f\t%.6f", static_cast<long long>(eigen.maskVoxels),
                validFraction, Median(eigen.validFa));
  const std::string qc = std::string(kCohortQcHeader) + "\n" + run.prefix + "\t" +
                         std::to_string(set.dti->channelCount) + "\t" + DistinctBValues(set.dti) + "\t" +
                         numbers + "\t" + gradcheck + "\t" + (warnings.empty() ? "n/a" : warnings) + "\n";
  const std::string name = run.prefix + "_desc-qc_dwi.tsv";
  if (!CohortWriteFileAtomically(dir + "/" + name, qc)) {
    std::fprintf(stderr, "Err: cannot write %s\n", name.c_str());
    return false;
  }
  written->push_back(name);
  return true;
}
