#include "cohort/group_tables.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <vector>

#include "cohort/cohort_files.h"
#include "cohort/done_marker.h"
#include "cohort/dwi_analysis.h"
#include "cohort/subject_unit.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kTableLimit = 64u << 20;

// The finished units' folders ("sub-01" or "sub-01/ses-1") with their markers, sorted.
std::vector<std::pair<std::string, DoneMarker>> FinishedUnits(const std::string& root) {
  std::vector<std::pair<std::string, DoneMarker>> units;
  std::vector<std::string> folders;
  std::error_code error;
  for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
    const std::string subject = it->path().filename().string();
    if (subject.rfind("sub-", 0) != 0 || subject.find('.') != std::string::npos) continue;
    folders.push_back(subject);
    std::error_code e2;
    for (fs::directory_iterator s(it->path(), e2), send; !e2 && s != send; s.increment(e2)) {
      const std::string session = s->path().filename().string();
      if (session.rfind("ses-", 0) == 0 && session.find('.') == std::string::npos)
        folders.push_back(subject + "/" + session);
    }
  }
  std::sort(folders.begin(), folders.end());
  for (const std::string& folder : folders) {
    const std::string name = folder.find('/') == std::string::npos
                                 ? folder
                                 : folder.substr(0, folder.find('/')) + "_" + folder.substr(folder.find('/') + 1);
    const auto text = CohortReadFile(root + "/" + folder + "/" + name + "_done.json", 1 << 20);
    if (!text) continue;
    auto marker = ParseDoneMarker(*text);
    if (!marker) {
      std::fprintf(stderr, "Warning: %s/%s_done.json is not a marker; the unit is left out\n", folder.c_str(),
                   name.c_str());
      continue;
    }
    units.emplace_back(folder, std::move(*marker));
  }
  return units;
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The rows of a unit's table after its header line, or nullopt (with a warning) when the
// header is not the expected one.
std::optional<std::vector<std::string>> TableRows(const std::string& path, const std::string& header) {
  const auto text = CohortReadFile(path, kTableLimit);
  if (!text || text->rfind(header + "\n", 0) != 0) {
    std::fprintf(stderr, "Warning: %s is missing or not a table of this version; left out\n", path.c_str());
    return std::nullopt;
  }
  std::vector<std::string> rows;
  std::istringstream in(text->substr(header.size() + 1));
  std::string line;
  while (std::getline(in, line))
    if (!line.empty()) rows.push_back(line);
  return rows;
}

}  // namespace

bool WriteCohortGroupTables(const std::string& outputDir, CohortGroupSummary* summary) {
  const std::string root = CohortDerivativesDir(outputDir);
  const auto units = FinishedUnits(root);
  std::string qc = std::string("subject\tsession\t") + kCohortQcHeader + "\n";
  std::map<std::string, std::string> atlases;  // atlas name -> rows
  for (const auto& [folder, marker] : units) {
    const std::string session = marker.session.empty() ? "n/a" : marker.session;
    for (const auto& [name, sum] : marker.outputs) {
      const std::string path = root + "/" + folder + "/" + name;
      if (name.find("..") != std::string::npos) continue;
      if (EndsWith(name, "_desc-qc_dwi.tsv")) {
        if (auto rows = TableRows(path, kCohortQcHeader))
          for (const std::string& row : *rows) qc += marker.subject + "\t" + session + "\t" + row + "\n";
      } else if (EndsWith(name, "_roistats.tsv")) {
        const size_t at = name.rfind("_atlas-");
        if (at == std::string::npos) continue;
        const std::string atlas = name.substr(at + 7, name.size() - at - 7 - 13);
        const std::string file = name.substr(name.find_last_of('/') + 1);
        const std::string dwi = file.substr(0, file.rfind("_atlas-"));
        if (auto rows = TableRows(path, kCohortRoiStatsHeader))
          for (const std::string& row : *rows)
            atlases[atlas] += marker.subject + "\t" + session + "\t" + dwi + "\t" + row + "\n";
      }
    }
  }
  std::error_code error;
  fs::create_directories(root + "/group", error);
  summary->units = static_cast<int>(units.size());
  summary->tables = 0;
  auto write = [&](const std::string& name, const std::string& text) {
    if (!CohortWriteFileAtomically(root + "/group/" + name, text)) {
      std::fprintf(stderr, "Err: cannot write %s/group/%s\n", root.c_str(), name.c_str());
      return false;
    }
    ++summary->tables;
    return true;
  };
  if (!write("qc.tsv", qc)) return false;
  for (const auto& [atlas, rows] : atlases)
    if (!write("atlas-" + atlas + "_roistats.tsv",
               std::string("subject\tsession\tdwi\t") + kCohortRoiStatsHeader + "\n" + rows))
      return false;
  return true;
}
