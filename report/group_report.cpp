#include "report/group_report.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>

#include "report/subject_report.h"

namespace {

constexpr size_t kMaxRows = 100000, kMaxColumns = 1000;

std::vector<std::string> SplitTabs(const std::string& line) {
  std::vector<std::string> cells;
  size_t start = 0;
  for (;;) {
    const size_t tab = line.find('\t', start);
    cells.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
    if (tab == std::string::npos || cells.size() > kMaxColumns) return cells;
    start = tab + 1;
  }
}

bool IsEmptyCell(const std::string& cell) { return cell.empty() || cell == "n/a" || cell == "NA"; }

std::optional<double> Number(const std::string& cell) {
  double value = 0;
  const char* end = cell.data() + cell.size();
  const auto [at, error] = std::from_chars(cell.data(), end, value);
  if (error != std::errc() || at != end || !std::isfinite(value)) return std::nullopt;
  return value;
}

int ColumnOf(const PcdQcTable& table, const char* name) {
  for (size_t i = 0; i < table.header.size(); ++i)
    if (table.header[i] == name) return static_cast<int>(i);
  return -1;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n == 0 ? 0.0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

std::string SafeName(const std::string& text) {
  std::string out;
  for (char c : text) out += std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' ? c : '_';
  return out;
}

}  // namespace

bool PCDreport_ParseQcTable(const std::string& text, PcdQcTable* table, std::string* problem) {
  *table = PcdQcTable();
  size_t start = 0, lineNumber = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    std::vector<std::string> cells = SplitTabs(line);
    if (cells.size() > kMaxColumns) {
      *problem = "more than 1000 columns";
      return false;
    }
    if (table->header.empty()) {
      table->header = std::move(cells);
      if (ColumnOf(*table, "subject") < 0) {
        *problem = "the QC table has no subject column";
        return false;
      }
      continue;
    }
    if (cells.size() != table->header.size()) {
      *problem = "line " + std::to_string(lineNumber) + " has " + std::to_string(cells.size()) + " cells, the header " +
                 std::to_string(table->header.size());
      return false;
    }
    if (table->rows.size() >= kMaxRows) {
      *problem = "more than 100000 rows";
      return false;
    }
    table->rows.push_back(std::move(cells));
  }
  if (table->header.empty()) {
    *problem = "the QC table is empty";
    return false;
  }
  return true;
}

std::vector<bool> PCDreport_NumericColumns(const PcdQcTable& table) {
  std::vector<bool> numeric(table.header.size(), false);
  for (size_t c = 0; c < table.header.size(); ++c) {
    if (table.header[c] == "subject" || table.header[c] == "session") continue;
    bool all = true, any = false;
    for (const auto& row : table.rows) {
      if (IsEmptyCell(row[c])) continue;
      any = true;
      all = all && Number(row[c]).has_value();
    }
    numeric[c] = all && any;
  }
  return numeric;
}

std::vector<std::vector<bool>> PCDreport_QcOutliers(const PcdQcTable& table) {
  std::vector<std::vector<bool>> out(table.rows.size(), std::vector<bool>(table.header.size(), false));
  const std::vector<bool> numeric = PCDreport_NumericColumns(table);
  for (size_t c = 0; c < table.header.size(); ++c) {
    if (!numeric[c]) continue;
    std::vector<double> values;
    for (const auto& row : table.rows)
      if (auto v = Number(row[c])) values.push_back(*v);
    if (values.size() < 3) continue;
    const double m = Median(values);
    std::vector<double> deviation;
    double meanDeviation = 0;
    for (double v : values) deviation.push_back(std::fabs(v - m)), meanDeviation += std::fabs(v - m);
    meanDeviation /= static_cast<double>(values.size());
    const double mad = Median(deviation);
    // the spread of a normal sample from either deviation: 1.4826 MAD or 1.2533 mean deviation
    const double sigma = mad > 0 ? 1.4826 * mad : 1.2533 * meanDeviation;
    if (!(sigma > 0)) continue;
    for (size_t r = 0; r < table.rows.size(); ++r)
      if (auto v = Number(table.rows[r][c])) out[r][c] = std::fabs(*v - m) / sigma > 3.5;
  }
  return out;
}

bool PCDreport_WriteGroupReport(const PcdQcTable& table, const PcdGroupReportOptions& o, const std::string& dir) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::create_directories(fs::path(dir) / "thumbs", error);
  if (error) {
    std::fprintf(stderr, "Err: cannot make the directory %s\n", dir.c_str());
    return false;
  }
  const int subject = ColumnOf(table, "subject"), session = ColumnOf(table, "session");
  const std::vector<bool> numeric = PCDreport_NumericColumns(table);
  const std::vector<std::vector<bool>> outliers = PCDreport_QcOutliers(table);
  std::ofstream html(fs::path(dir) / "index.html");
  html << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" << PCDreport_EscapeHtml(o.title)
       << "</title>\n<style>body{font-family:sans-serif;margin:1.5em;background:#fafafa;color:#222}"
          "table{border-collapse:collapse}th,td{border:1px solid #ccc;padding:3px 8px;text-align:left}"
          "td.outlier{background:#f4b6b6;font-weight:bold}tr.flagged td:nth-child(2){color:#b00;font-weight:bold}img{display:block}</style></head><body>\n"
       << "<h1>" << PCDreport_EscapeHtml(o.title) << "</h1>\n<section id=\"group\"><h2>Subjects</h2>\n"
       << "<p>" << table.rows.size() << " rows. Cells in red lie more than 3.5 robust standard deviations from their column's median.</p>\n"
       << "<table>\n<tr><th>thumbnail</th>";
  for (const std::string& name : table.header) html << "<th>" << PCDreport_EscapeHtml(name) << "</th>";
  html << "<th>outliers</th></tr>\n";
  for (size_t r = 0; r < table.rows.size(); ++r) {
    const auto& row = table.rows[r];
    const std::string sub = row[static_cast<size_t>(subject)], ses = session >= 0 ? row[static_cast<size_t>(session)] : "";
    const int count = static_cast<int>(std::count(outliers[r].begin(), outliers[r].end(), true));
    html << "<tr" << (count > 0 ? " class=\"flagged\"" : "") << "><td>";
    // the subject's own report, when it is there: its thumbnail copied beside this page
    fs::path report;
    if (!o.reportsDir.empty() && !sub.empty() && sub.find("..") == std::string::npos && ses.find("..") == std::string::npos) {
      for (const fs::path& candidate : {fs::path(o.reportsDir) / sub / ses, fs::path(o.reportsDir) / sub})
        if (fs::is_regular_file(candidate / "thumb.png", error)) {
          report = candidate;
          break;
        }
    }
    if (!report.empty()) {
      const std::string name = "thumbs/" + SafeName(sub) + (ses.empty() ? "" : "_" + SafeName(ses)) + "_" + std::to_string(r) + ".png";
      fs::copy_file(report / "thumb.png", fs::path(dir) / name, fs::copy_options::overwrite_existing, error);
      if (error) {
        std::fprintf(stderr, "Err: cannot write %s/%s\n", dir.c_str(), name.c_str());
        return false;
      }
      const std::string link = fs::relative(fs::absolute(report / "index.html"), fs::absolute(dir), error).string();
      html << "<a href=\"" << PCDreport_EscapeHtml(link) << "\"><img src=\"" << name << "\" alt=\"" << PCDreport_EscapeHtml(sub) << "\"></a>";
    }
    html << "</td>";
    for (size_t c = 0; c < row.size(); ++c)
      html << "<td" << (outliers[r][c] ? " class=\"outlier\"" : numeric[c] ? " class=\"measure\"" : "") << ">"
           << PCDreport_EscapeHtml(row[c]) << "</td>";
    html << "<td>" << count << "</td></tr>\n";
  }
  html << "</table>\n</section>\n</body></html>\n";
  html.close();
  if (!html) {
    std::fprintf(stderr, "Err: cannot write %s/index.html\n", dir.c_str());
    return false;
  }
  return true;
}
