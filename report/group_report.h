// The group report from a cohort's QC table (tab-separated: a header line naming the
// columns, "subject" among them and "session" optionally, then one line per subject run):
// one HTML row per line with the subject's thumbnail and every measure, the outliers of
// each numeric column marked.
#pragma once

#include <string>
#include <vector>

struct PcdQcTable {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> rows;  // each as long as the header
};

// Parses the text of a QC table. False with the problem (one line, no "Err: ") when there
// is no header, no "subject" column, a row of another length, or more than 100000 rows
// or 1000 columns. Empty lines and a final "\r" on each line are ignored.
bool PCDreport_ParseQcTable(const std::string& text, PcdQcTable* table, std::string* problem);

// Whether a column is a measure: not subject or session, and every cell a number or
// empty / "n/a" (at least one number).
std::vector<bool> PCDreport_NumericColumns(const PcdQcTable& table);
// outliers[row][column]: the value lies more than 3.5 robust standard deviations (from
// the median absolute deviation; the mean absolute deviation when that is zero) from the
// column's median.
std::vector<std::vector<bool>> PCDreport_QcOutliers(const PcdQcTable& table);

struct PcdGroupReportOptions {
  std::string title = "Quorix group QC report";
  // where the subject reports lie: <reports>/<subject>/<session>/ or <reports>/<subject>/,
  // each with thumb.png and index.html; a row without one gets no thumbnail
  std::string reportsDir;
};

// Writes dir/index.html and dir/thumbs/*.png (copies of the subjects' thumbnails). False
// with an "Err: " line when a file cannot be written.
bool PCDreport_WriteGroupReport(const PcdQcTable& table, const PcdGroupReportOptions& options,
                                const std::string& dir);
