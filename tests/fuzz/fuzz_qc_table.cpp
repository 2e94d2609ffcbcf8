// The QC table of the group report: any bytes are parsed, and a table that parses has its
// numeric columns and outliers found, reading nothing outside its rows.
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "report/group_report.h"
#include "report/subject_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PcdQcTable table;
  std::string problem;
  if (!PCDreport_ParseQcTable(std::string(reinterpret_cast<const char*>(data), size), &table, &problem)) return 0;
  const std::vector<bool> numeric = PCDreport_NumericColumns(table);
  const std::vector<std::vector<bool>> outliers = PCDreport_QcOutliers(table);
  if (numeric.size() != table.header.size() || outliers.size() != table.rows.size()) __builtin_trap();
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  // a table as a cohort run writes it: the measures of the subject record
  std::string text = "subject\tsession";
  PcdSubjectReport report;
  report.residual = {0.01, 0.02};
  for (const auto& [name, value] : PCDreport_QcColumns(report)) text += "\t" + name;
  text += "\n";
  for (const char* subject : {"sub-01", "sub-02", "sub-03"}) {
    text += std::string(subject) + "\tses-1";
    for (const auto& [name, value] : PCDreport_QcColumns(report)) text += "\t" + value;
    text += "\n";
  }
  PCDfuzz_WriteFile(dir, "cohort.tsv", std::vector<uint8_t>(text.begin(), text.end()));
  const std::string small = "subject\tfa\r\na\t0.4\nb\tn/a\nc\t1e3\n";
  PCDfuzz_WriteFile(dir, "small.tsv", std::vector<uint8_t>(small.begin(), small.end()));
}
