#include "report/subject_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "dti/channels.h"
#include "dti/dti_check.h"
#include "dti/tensor.h"
#include "fiber/tracking.h"
#include "report/figures.h"
#include "study/study_settings.h"

namespace {

// Numbers in the "C" locale whatever the process's locale is.
std::string Format(double value, int decimals) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out.setf(std::ios::fixed);
  out.precision(decimals);
  out << value;
  return out.str();
}

const int16_t* Channel(const PcdDtiData* dti, int32_t c) { return static_cast<const int16_t*>(dti->volume->data[c]); }

// So above a tenth of the 99th percentile of its positive values (and above the fit's
// threshold): the head without the background, as far as a b = 0 image tells.
std::vector<uint8_t> BrainMask(const PcdDtiData* dti, size_t voxels, int16_t threshold) {
  const int16_t* so = Channel(dti, 0);
  std::vector<int64_t> counts(32768, 0);
  int64_t positive = 0;
  for (size_t i = 0; i < voxels; ++i)
    if (so[i] > 0) ++counts[static_cast<size_t>(so[i])], ++positive;
  int32_t p99 = 0;
  for (int64_t seen = 0; p99 < 32767 && seen + counts[static_cast<size_t>(p99)] < positive * 99 / 100; ++p99)
    seen += counts[static_cast<size_t>(p99)];
  const int32_t cut = std::max<int32_t>(threshold, p99 / 10);
  std::vector<uint8_t> mask(voxels, 0);
  for (size_t i = 0; i < voxels; ++i) mask[i] = so[i] > cut ? 1 : 0;
  return mask;
}

// Per channel, the RMS over up to 20000 mask voxels (evenly strided) of the difference
// between the signal and the fitted tensor's prediction, relative to So.
std::vector<double> Residuals(const PcdDtiData* dti, const std::vector<uint8_t>& mask) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const int32_t n = dti->channelCount;
  std::vector<double> sum(static_cast<size_t>(n), 0.0);
  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(n, dti->soCount);
  if (record == nullptr) return sum;
  const int64_t inside = std::count(mask.begin(), mask.end(), uint8_t{1});
  const int64_t every = std::max<int64_t>(1, inside / 20000);
  int64_t seen = 0, used = 0;
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at) {
        if (!mask[at] || seen++ % every != 0) continue;
        const PcdIntVector3D voxel{x, y, z};
        if (PCDdti_CalcDiffusionTensorAtVoxel(dti, record, &voxel) != 1 || !(record->So > 0)) continue;
        ++used;
        for (int32_t c = 0; c < n; ++c) {
          const PcdVector3D g = dti->mpgVectors[c];
          const double q = g.x * g.x * record->Dxx + g.y * g.y * record->Dyy + g.z * g.z * record->Dzz +
                           2.0 * (g.x * g.y * record->Dxy + g.y * g.z * record->Dyz + g.z * g.x * record->Dxz);
          const double predicted = c < dti->soCount ? record->So : record->So * std::exp(-dti->bValues[c] * q);
          const double r = (Channel(dti, c)[at] - predicted) / record->So;
          sum[static_cast<size_t>(c)] += r * r;
        }
      }
  PCDdti_DeleteDiffusionTensorData(record);
  for (double& v : sum) v = used > 0 ? std::sqrt(v / static_cast<double>(used)) : 0.0;
  return sum;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::nth_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// DWI channels whose residual stands far above the others'.
std::vector<int32_t> ResidualOutliers(const std::vector<double>& residual, int32_t soCount) {
  std::vector<double> dwi(residual.begin() + std::min<ptrdiff_t>(soCount, static_cast<ptrdiff_t>(residual.size())), residual.end());
  const double m = Median(dwi);
  std::vector<double> deviation;
  for (double v : dwi) deviation.push_back(std::fabs(v - m));
  const double limit = std::max({m + 5.0 * 1.4826 * Median(deviation), 1.5 * m, m + 0.01});
  std::vector<int32_t> out;
  for (size_t c = static_cast<size_t>(std::max(soCount, 0)); c < residual.size(); ++c)
    if (residual[c] > limit) out.push_back(static_cast<int32_t>(c));
  return out;
}

// A short tracking run from the high-FA voxels of the mask, as the picture's layer.
std::unique_ptr<PcdFiberLayer> Tracts(const PcdDtiData* dti, const std::vector<float>& fa,
                                      const std::vector<uint8_t>& mask, const PcdSubjectReportOptions& o,
                                      PcdSubjectReport* report) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  std::vector<PcdIntVector3D> voxels;
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at)
        if (mask[at] && fa[at] >= 0.3f) voxels.push_back({x, y, z});
  const size_t limit = static_cast<size_t>(std::max(o.trackSeeds, 1));
  const size_t every = std::max<size_t>(1, (voxels.size() + limit - 1) / limit);
  std::vector<PcdVector3D> seeds;
  for (size_t i = 0; i < voxels.size(); i += every) seeds.push_back(PCDdti_SeedInVoxel(voxels[i].x, voxels[i].y, voxels[i].z, 0));
  if (seeds.empty()) return std::make_unique<PcdFiberLayer>();
  PcdFibeTrakContext context;
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();
  context.nodeLimit = std::clamp(o.trackNodes, 2, 32767);
  PcdFibeTrakBuffer* buffer = PCDdti_FiberTracking(dti, &context, o.threads);
  if (buffer == nullptr) return nullptr;
  double length = 0;
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    PcdTrakLinePair* pair = buffer->pairs[i];
    pair->selection = 1;
    for (const PcdTrakLineBuffer* line : {pair->forward, pair->backward})
      for (int k = 1; line != nullptr && k < line->nodeCount; ++k)
        length += std::sqrt(std::pow(double(line->x[k] - line->x[k - 1]) * report->voxelMm.x, 2) +
                            std::pow(double(line->y[k] - line->y[k - 1]) * report->voxelMm.y, 2) +
                            std::pow(double(line->z[k] - line->z[k - 1]) * report->voxelMm.z, 2));
  }
  report->fibers = buffer->lineCount;
  report->meanFiberMm = buffer->lineCount > 0 ? length / buffer->lineCount : 0.0;
  std::unique_ptr<PcdFiberLayer> layer = PCDview_MakeFiberLayer(buffer, kPcdColorDirection, kPcdPrimitiveHairline);
  PCDdti_DeleteFibeTrakBuffer(buffer);
  return layer;
}

bool Write(const PcdSurface& surface, const std::string& dir, const std::string& name) {
  if (surface && PCDreport_WritePng(surface.get(), dir + "/" + name) == 0) return true;
  std::fprintf(stderr, "Err: cannot write %s/%s\n", dir.c_str(), name.c_str());
  return false;
}

void Figure(std::ostream& html, const std::string& file, const std::string& caption) {
  html << "<figure><img src=\"" << file << "\" alt=\"" << PCDreport_EscapeHtml(caption) << "\"><figcaption>"
       << PCDreport_EscapeHtml(caption) << "</figcaption></figure>\n";
}

std::string Distinct(const std::vector<float>& values) {
  std::set<float> seen(values.begin(), values.end());
  std::string text;
  for (float v : seen) text += (text.empty() ? "" : ", ") + Format(v, 0);
  return text;
}

void WriteHtml(std::ostream& html, const PcdSubjectReport& r, const PcdSubjectReportOptions& o) {
  const auto row = [&html](const std::string& name, const std::string& value) {
    html << "<tr><th>" << PCDreport_EscapeHtml(name) << "</th><td>" << PCDreport_EscapeHtml(value) << "</td></tr>\n";
  };
  html << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" << PCDreport_EscapeHtml(o.title)
       << "</title>\n<style>body{font-family:sans-serif;margin:1.5em;background:#fafafa;color:#222}"
          "img{max-width:100%;border:1px solid #ccc}figure{margin:0 0 1em 0}"
          "table{border-collapse:collapse}th,td{border:1px solid #ccc;padding:3px 8px;text-align:left}"
          ".bad{color:#b00;font-weight:bold}.good{color:#070;font-weight:bold}</style></head><body>\n";
  html << "<h1>" << PCDreport_EscapeHtml(o.title) << "</h1>\n";
  html << "<section id=\"numbers\"><h2>Numbers</h2><table>\n";
  row("Matrix", std::to_string(r.matrix.x) + " x " + std::to_string(r.matrix.y) + " x " + std::to_string(r.matrix.z));
  row("Voxel size (mm)", Format(r.voxelMm.x, 2) + " x " + Format(r.voxelMm.y, 2) + " x " + Format(r.voxelMm.z, 2));
  row("Volumes", std::to_string(r.soCount + r.dwiCount) + " (" + std::to_string(r.soCount) + " b = 0, " +
                     std::to_string(r.dwiCount) + " diffusion-weighted)");
  row("b values (s/mm^2)", Distinct(r.bValues));
  row("Mask voxels", std::to_string(r.maskVoxels));
  row("Valid-tensor fraction", Format(r.validFraction, 4));
  row("Median FA in the mask", Format(r.medianFa, 3));
  row("Voxels whose fit failed", std::to_string(r.failedVoxels));
  row("Gradient check", r.gradientChecked ? PCDdti_GradientVerdict(r.gradientCheck) : "not run");
  row("Fibers (tract picture)", std::to_string(r.fibers) + ", mean length " + Format(r.meanFiberMm, 1) + " mm");
  row("Warnings", r.warnings.empty() ? "none" : std::to_string(r.warnings.size()));
  html << "</table>\n";
  if (!r.warnings.empty()) {
    html << "<ul class=\"warnings\">\n";
    for (const std::string& w : r.warnings) html << "<li class=\"bad\">" << PCDreport_EscapeHtml(w) << "</li>\n";
    html << "</ul>\n";
  }
  html << "</section>\n<section id=\"mosaics\"><h2>b = 0, FA and directional colour</h2>\n"
          "<p>The brain mask is outlined in yellow. Colour: red along x, green along y, blue along z.</p>\n";
  for (const char* map : {"b0", "fa", "colour"})
    for (const char* kind : {"axial", "coronal", "sagittal"})
      Figure(html, std::string(map) + "_" + kind + ".png", std::string(map == std::string("b0") ? "b = 0" : map == std::string("fa") ? "FA" : "directional colour") + ", " + kind);
  html << "</section>\n<section id=\"gradients\"><h2>MPG directions and b values</h2>\n";
  Figure(html, "sphere.png", "MPG directions on the sphere, both hemispheres (hollow: the opposite direction)");
  Figure(html, "bvalues.png", "b value per volume");
  html << "</section>\n<section id=\"fit\"><h2>Tensor fit</h2>\n";
  Figure(html, "residual.png", "RMS residual per volume, relative to So (red: stands out)");
  Figure(html, "failed.png", "voxels whose fit failed, in red");
  html << "</section>\n<section id=\"gradcheck\"><h2>Gradient table check</h2>\n";
  if (!r.gradientChecked) {
    html << "<p>Not run.</p>\n";
  } else {
    const PcdGradientCheck& c = r.gradientCheck;
    if (c.tableIsBest)
      html << "<p class=\"good verdict\">The table as given is best.</p>\n";
    else
      html << "<p class=\"bad verdict\">The table needs correcting: " << PCDdti_GradientVerdict(c) << " (same as "
           << PCDdti_DescribeEquivalentCandidate(c.candidates[static_cast<size_t>(c.best)]) << ").</p>\n";
    html << "<p>" << c.seedCount << " seeds; the six best of 24 candidates by mean fiber length:</p>\n"
         << "<table><tr><th>candidate</th><th>same as</th><th>mean fiber length (mm)</th><th></th></tr>\n";
    std::vector<size_t> order(c.candidates.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return c.candidates[a].meanLength > c.candidates[b].meanLength; });
    for (size_t k = 0; k < std::min<size_t>(6, order.size()); ++k) {
      const PcdGradientCandidate& g = c.candidates[order[k]];
      html << "<tr><td>" << PCDdti_DescribeGradientCandidate(g) << "</td><td>" << PCDdti_DescribeEquivalentCandidate(g)
           << "</td><td>" << Format(g.meanLength, 2) << "</td><td>" << (order[k] == 0 ? "as given" : "") << "</td></tr>\n";
    }
    html << "</table>\n";
  }
  html << "</section>\n<section id=\"tracts\"><h2>Tracts</h2>\n";
  Figure(html, "tracts.png", "fibers of a short tracking run from the high-FA voxels, flattened onto the middle sections");
  html << "</section>\n</body></html>\n";
}

}  // namespace

std::string PCDreport_EscapeHtml(const std::string& text) {
  std::string out;
  for (char ch : text) {
    switch (ch) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += ch;
    }
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> PCDreport_QcColumns(const PcdSubjectReport& r) {
  int32_t worst = -1;
  for (size_t c = static_cast<size_t>(std::max(r.soCount, 0)); c < r.residual.size(); ++c)
    if (worst < 0 || r.residual[c] > r.residual[static_cast<size_t>(worst)]) worst = static_cast<int32_t>(c);
  return {{"valid_fraction", Format(r.validFraction, 4)},
          {"median_fa", Format(r.medianFa, 4)},
          {"failed_voxels", std::to_string(r.failedVoxels)},
          {"max_residual", Format(worst >= 0 ? r.residual[static_cast<size_t>(worst)] : 0.0, 4)},
          {"residual_outliers", std::to_string(r.residualOutliers.size())},
          {"mean_fiber_mm", Format(r.meanFiberMm, 2)},
          {"gradcheck", r.gradientChecked ? PCDdti_GradientVerdict(r.gradientCheck) : "not run"}};
}

bool PCDreport_WriteSubjectReport(PcdDtiData* dti, const PcdSubjectReportOptions& o, const std::string& dir,
                                  PcdSubjectReport* r) {
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_INTERPOLATED)) return false;
  std::error_code error;
  std::filesystem::create_directories(dir, error);
  if (error) {
    std::fprintf(stderr, "Err: cannot make the directory %s\n", dir.c_str());
    return false;
  }
  const PcdIntSize4D s = *dti->volume->matrixSize;
  const size_t voxels = static_cast<size_t>(s.x) * static_cast<size_t>(s.y) * static_cast<size_t>(s.z);
  const int32_t first = s.channels;
  const int32_t threads = std::clamp(o.threads, 1, 256);
  if (PCDdti_AddComputationalChannels(dti, o.threshold, threads) != 4) {
    std::fputs("Err: not enough memory for the computed channels\n", stderr);
    return false;
  }
  *r = PcdSubjectReport();
  r->matrix = s;
  const float own = dti->reserved > 0 && std::isfinite(dti->reserved) ? dti->reserved : 1.0f;
  r->voxelMm = o.voxelMm.x > 0 && o.voxelMm.y > 0 && o.voxelMm.z > 0 ? o.voxelMm : PcdVector3D{own, own, own};
  r->soCount = dti->soCount;
  r->dwiCount = dti->channelCount - dti->soCount;
  r->bValues.assign(dti->bValues, dti->bValues + dti->channelCount);

  const std::vector<uint8_t> mask = BrainMask(dti, voxels, o.threshold);
  const int16_t* faMap = Channel(dti, first + 1);
  const int16_t* adcMap = Channel(dti, first + 2);
  std::vector<uint8_t> failed(voxels, 0);
  std::vector<float> fa(voxels, 0.0f);
  std::vector<double> validFa;
  for (size_t i = 0; i < voxels; ++i) {
    if (!mask[i]) continue;
    ++r->maskVoxels;
    if (adcMap[i] <= 0 || faMap[i] < 0 || faMap[i] > 1000) {
      failed[i] = 1;
      ++r->failedVoxels;
    } else {
      fa[i] = faMap[i] / 1000.0f;
      validFa.push_back(fa[i]);
    }
  }
  if (r->maskVoxels == 0) {
    std::fputs("Err: the b = 0 image has no voxel above the background\n", stderr);
    return false;
  }
  r->validFraction = static_cast<double>(validFa.size()) / static_cast<double>(r->maskVoxels);
  r->medianFa = Median(validFa);
  r->residual = Residuals(dti, mask);
  r->residualOutliers = ResidualOutliers(r->residual, dti->soCount);
  std::vector<bool> marked(r->residual.size(), false);
  for (int32_t c : r->residualOutliers) {
    marked[static_cast<size_t>(c)] = true;
    r->warnings.push_back("volume " + std::to_string(c) + " stands out in the fit's residual (" + Format(r->residual[static_cast<size_t>(c)], 3) + ")");
  }
  if (r->validFraction < 0.95)
    r->warnings.push_back("only " + Format(100.0 * r->validFraction, 1) + "% of the mask's voxels gave a tensor");
  if (o.gradientCheck) {
    PcdGradientCheckOptions check;
    check.threads = threads;
    check.fa = &fa;
    check.mask = &mask;
    // fewer and shorter runs than the command's defaults: the report must stay quick, and
    // a wrong table already loses most of its length within 20 voxels
    check.maxSeeds = 300;
    check.nodeLimit = 40;
    r->gradientChecked = PCDdti_CheckGradientTable(dti, check, &r->gradientCheck);
    if (!r->gradientChecked) r->warnings.push_back("the gradient table could not be checked");
    else if (!r->gradientCheck.tableIsBest)
      r->warnings.push_back("the gradient table looks wrong: " + PCDdti_GradientVerdict(r->gradientCheck) + " scores best");
  }
  std::unique_ptr<PcdFiberLayer> layer = Tracts(dti, fa, mask, o, r);
  if (!layer) return false;

  PcdMosaicLayout layout;
  layout.volume = dti->volume;
  layout.voxelMm = r->voxelMm;
  layout.outline = &mask;
  bool ok = true;
  const std::pair<const char*, int32_t> kinds[3] = {{"axial", PCD_PANE_AXIAL}, {"coronal", PCD_PANE_CORONAL}, {"sagittal", PCD_PANE_SAGITTAL}};
  float low = 0, high = 1;
  if (!PCDview_FitGreyMapping(dti->volume, 0, &low, &high)) low = 0, high = 1;
  const struct { const char* name; int32_t channel; float low, high; } maps[3] = {
      {"b0", 0, low, high}, {"fa", first + 1, 0.0f, 1000.0f}, {"colour", first, 0.0f, 1.0f}};
  for (const auto& m : maps) {
    layout.channel = m.channel, layout.greyLow = m.low, layout.greyHigh = m.high;
    layout.blankOutside = m.channel != 0;  // FA and colour of the background are noise
    for (const auto& [name, kind] : kinds)
      ok = Write(PCDreport_Mosaic(layout, kind), dir, std::string(m.name) + "_" + name + ".png") && ok;
  }
  layout.channel = 0, layout.greyLow = low, layout.greyHigh = high, layout.painted = &failed, layout.blankOutside = false;
  ok = ok && Write(PCDreport_Mosaic(layout, PCD_PANE_AXIAL), dir, "failed.png");
  layout.painted = nullptr;
  layout.channel = first + 1, layout.greyLow = 0, layout.greyHigh = 1000, layout.tileSize = 320, layout.blankOutside = true;
  ok = ok && Write(PCDreport_TractPicture(layout, *layer), dir, "tracts.png");
  layout.channel = first, layout.tiles = 1, layout.tileSize = 120, layout.blankOutside = true;
  ok = ok && Write(PCDreport_Mosaic(layout, PCD_PANE_AXIAL), dir, "thumb.png");
  ok = ok && Write(PCDreport_GradientSphere(dti), dir, "sphere.png");
  std::vector<double> b(r->bValues.begin(), r->bValues.end());
  ok = ok && Write(PCDreport_BarPlot(b, {}, "b value per volume (s/mm^2)"), dir, "bvalues.png");
  ok = ok && Write(PCDreport_BarPlot(r->residual, marked, "RMS residual per volume / So"), dir, "residual.png");
  if (!ok) return false;
  std::ofstream html(dir + "/index.html");
  WriteHtml(html, *r, o);
  html.close();
  if (!html) {
    std::fprintf(stderr, "Err: cannot write %s/index.html\n", dir.c_str());
    return false;
  }
  return true;
}
