#include "cohort/bids_layout.h"

#include <nifti1_io.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "io/c_locale.h"

namespace fs = std::filesystem;

std::string BidsUnit::Name() const {
  return "sub-" + subject + (session.empty() ? "" : "_ses-" + session);
}

std::string BidsUnit::Folder() const {
  return "sub-" + subject + (session.empty() ? "" : "/ses-" + session);
}

std::string BidsCleanLabel(const std::string& text, const char* prefix) {
  std::string label = text;
  const std::string p = prefix;
  if (label.compare(0, p.size(), p) == 0) label.erase(0, p.size());
  if (label.empty() || label.size() > 64) return {};
  for (char c : label)
    if (!std::isalnum(static_cast<unsigned char>(c))) return {};
  return label;
}

namespace {

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Sub-folders of dir named prefix + label, sorted by label; unreadable folders give none.
std::vector<std::string> LabelledFolders(const fs::path& dir, const char* prefix) {
  std::vector<std::string> labels;
  std::error_code error;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    std::error_code e2;
    if (!it->is_directory(e2)) continue;
    const std::string label = BidsCleanLabel(name, prefix);
    if (!label.empty() && name.rfind(prefix, 0) == 0) labels.push_back(label);
  }
  std::sort(labels.begin(), labels.end());
  return labels;
}

// The runs of one dwi/ folder, sorted by file name.
std::vector<BidsDwiRun> RunsIn(const fs::path& dwiDir, const std::string& relativeDir,
                               const std::string& subject, const std::string& session) {
  std::vector<BidsDwiRun> runs;
  std::error_code error;
  for (fs::directory_iterator it(dwiDir, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    std::string stem;
    if (EndsWith(name, "_dwi.nii.gz")) stem = name.substr(0, name.size() - 11);
    else if (EndsWith(name, "_dwi.nii")) stem = name.substr(0, name.size() - 8);
    else continue;
    BidsDwiRun run;
    run.subject = subject;
    run.session = session;
    run.image = it->path().string();
    run.relative = relativeDir + "/" + name;
    run.prefix = stem;
    run.bval = (dwiDir / (stem + "_dwi.bval")).string();
    run.bvec = (dwiDir / (stem + "_dwi.bvec")).string();
    runs.push_back(std::move(run));
  }
  std::sort(runs.begin(), runs.end(),
            [](const BidsDwiRun& a, const BidsDwiRun& b) { return a.image < b.image; });
  return runs;
}

bool Wanted(const std::vector<std::string>& list, const std::string& label) {
  return list.empty() || std::find(list.begin(), list.end(), label) != list.end();
}

std::optional<std::string> ReadSmallText(const std::string& path, size_t limit) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text;
  char buffer[4096];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<size_t>(in.gcount()));
    if (text.size() > limit) return std::nullopt;
  }
  return text;
}

}  // namespace

std::optional<std::vector<std::vector<double>>> ParseBidsGradientText(const std::string& text,
                                                                      std::string* problem) {
  const PcdScopedCLocale cLocale;
  std::vector<std::vector<double>> rows;
  size_t total = 0;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<double> row;
    size_t at = 0;
    while (at < line.size()) {
      while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
      size_t end = at;
      while (end < line.size() && !std::isspace(static_cast<unsigned char>(line[end]))) ++end;
      if (end == at) break;
      const std::string token = line.substr(at, end - at);
      at = end;
      char* stop = nullptr;
      const double value = std::strtod(token.c_str(), &stop);
      if (stop == token.c_str() || *stop != '\0' || !std::isfinite(value)) {
        *problem = "\"" + token.substr(0, 32) + "\" is not a number";
        return std::nullopt;
      }
      if (++total > kBidsMaxNumbers) {
        *problem = "more than " + std::to_string(kBidsMaxNumbers) + " numbers";
        return std::nullopt;
      }
      row.push_back(value);
    }
    if (!row.empty()) rows.push_back(std::move(row));
  }
  return rows;
}

std::string CheckBidsDwiRun(const BidsDwiRun& run) {
  std::error_code error;
  for (const std::string* side : {&run.bval, &run.bvec})
    if (!fs::is_regular_file(*side, error)) return "missing sidecar " + *side;
  nifti_set_debug_level(0);
  nifti_image* header = nifti_image_read(run.image.c_str(), 0);
  if (header == nullptr) return run.image + " is not a readable NIfTI-1 file";
  const int64_t volumes = header->ndim >= 4 ? static_cast<int64_t>(header->nt) : 1;
  const bool sizesOk = header->nx > 1 && header->ny > 1 && header->nz >= 1 && volumes >= 1 &&
                       header->ndim <= 4;
  nifti_image_free(header);
  if (!sizesOk) return run.image + " is not a 4D image of at least 2 x 2 x 1 voxels";
  constexpr size_t kTextLimit = 16u << 20;
  std::string problem;
  const auto bvalText = ReadSmallText(run.bval, kTextLimit);
  if (!bvalText) return "cannot read " + run.bval;
  const auto bvals = ParseBidsGradientText(*bvalText, &problem);
  if (!bvals) return run.bval + ": " + problem;
  size_t count = 0;
  for (const auto& row : *bvals) count += row.size();
  if (static_cast<int64_t>(count) != volumes)
    return run.bval + " holds " + std::to_string(count) + " b values, " + run.image + " has " +
           std::to_string(volumes) + " volumes";
  const auto bvecText = ReadSmallText(run.bvec, kTextLimit);
  if (!bvecText) return "cannot read " + run.bvec;
  const auto bvecs = ParseBidsGradientText(*bvecText, &problem);
  if (!bvecs) return run.bvec + ": " + problem;
  bool rowsOk = bvecs->size() == 3;
  for (const auto& row : *bvecs) rowsOk = rowsOk && static_cast<int64_t>(row.size()) == volumes;
  if (!rowsOk)
    return run.bvec + " must hold 3 rows of " + std::to_string(volumes) + " numbers (" +
           run.image + " has " + std::to_string(volumes) + " volumes)";
  return {};
}

std::optional<std::vector<BidsUnit>> FindBidsUnits(const std::string& root,
                                                   const BidsSelection& selection,
                                                   std::vector<std::string>* missing,
                                                   BidsDatasetProblem* problem) {
  std::error_code error;
  if (!fs::is_directory(root, error)) {
    problem->message = root + " is not a directory";
    return std::nullopt;
  }
  const std::vector<std::string> subjects = LabelledFolders(root, "sub-");
  if (subjects.empty()) {
    problem->message = root + " holds no sub-* folders: not a BIDS dataset";
    return std::nullopt;
  }
  for (const std::string& wanted : selection.participants)
    if (std::find(subjects.begin(), subjects.end(), wanted) == subjects.end())
      missing->push_back(wanted);
  std::vector<BidsUnit> units;
  for (const std::string& subject : subjects) {
    if (!Wanted(selection.participants, subject)) continue;
    const fs::path subjectDir = fs::path(root) / ("sub-" + subject);
    std::vector<std::string> sessions = LabelledFolders(subjectDir, "ses-");
    if (sessions.empty()) sessions.push_back("");
    for (const std::string& session : sessions) {
      if (!session.empty() && !Wanted(selection.sessions, session)) continue;
      if (session.empty() && !selection.sessions.empty()) continue;
      BidsUnit unit{subject, session, {}};
      const fs::path dir = session.empty() ? subjectDir : subjectDir / ("ses-" + session);
      unit.runs = RunsIn(dir / "dwi", unit.Folder() + "/dwi", subject, session);
      for (BidsDwiRun& run : unit.runs) run.problem = CheckBidsDwiRun(run);
      if (unit.runs.empty()) {
        BidsDwiRun none;
        none.subject = subject;
        none.session = session;
        none.problem = "no dwi/*_dwi.nii[.gz] in " + dir.string();
        unit.runs.push_back(std::move(none));
      }
      units.push_back(std::move(unit));
    }
  }
  return units;
}
