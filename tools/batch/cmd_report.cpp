// quorix-batch report: the QC report of one data set, or the group report of a QC table.
#include <cstdio>
#include <memory>
#include <string>

#include "dti/dti_check.h"
#include "io/file_util.h"
#include "report/figures.h"
#include "report/group_report.h"
#include "report/subject_report.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

int GroupReport(const std::string& tsv, const std::string& out, const std::string& reports,
                const std::string& title) {
  FILE* file = std::fopen(tsv.c_str(), "rb");
  if (file == nullptr) {
    std::fprintf(stderr, "Err: cannot read %s\n", tsv.c_str());
    return kBatchFailed;
  }
  std::string text;
  char chunk[65536];
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;) {
    text.append(chunk, n);
    if (text.size() > (size_t{256} << 20)) break;  // no QC table is that large
  }
  std::fclose(file);
  PcdQcTable table;
  std::string problem;
  if (text.size() > (size_t{256} << 20) || !PCDreport_ParseQcTable(text, &table, &problem)) {
    std::fprintf(stderr, "Err: %s: %s\n", tsv.c_str(), problem.empty() ? "larger than 256 MB" : problem.c_str());
    return kBatchFailed;
  }
  PcdGroupReportOptions options;
  options.reportsDir = reports;
  if (!title.empty()) options.title = title;
  if (!PCDreport_WriteGroupReport(table, options, out)) return kBatchFailed;
  std::printf("Subjects: %zu\n", table.rows.size());
  return kBatchOk;
}

int RunReport(BatchArgs& args);

// Every way out of the command leaves the font caches of the figures' labels released.
int run_report(BatchArgs& args) {
  const int status = RunReport(args);
  PCDreport_ReleaseFontCaches();
  return status;
}

int RunReport(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const auto out = args.TakeValue({"-o", "--output"});
  const auto group = args.TakeValue({"--group"});
  const auto reports = args.TakeValue({"--reports"});
  const auto title = args.TakeValue({"--title"});
  const auto threshold = args.TakeInteger({"--threshold"}, -32768, 32767);
  const auto threads = args.TakeInteger({"--threads"}, 1, 256);
  const auto seeds = args.TakeInteger({"--seeds"}, 1, 1000000);
  const bool noCheck = args.TakeFlag({"--no-gradcheck"});
  if (group && !out) args.Fail("--group needs -o DIR");
  if (reports && !group) args.Fail("--reports goes with --group");
  if (!args.Finish(group ? 0 : 1, group ? 0 : 1)) return kBatchUsageError;
  if (group) {
    const std::string tsv = *group;
    const size_t slash = tsv.find_last_of('/');
    return GroupReport(tsv, *out, reports.value_or(slash == std::string::npos ? "." : tsv.substr(0, slash)),
                       title.value_or(""));
  }
  const std::string& input = args.positional()[0];
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(input, options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_INTERPOLATED)) return kBatchFailed;
  PcdSubjectReportOptions report;
  report.title = title.value_or("QC report: " + input.substr(input.find_last_of('/') + 1));
  report.voxelMm = {set->geometry.voxelSize[0], set->geometry.voxelSize[1], set->geometry.voxelSize[2]};
  report.threshold = static_cast<int16_t>(threshold.value_or(0));
  report.threads = static_cast<int32_t>(threads.value_or(BatchDefaultThreads()));
  report.gradientCheck = !noCheck;
  if (seeds) report.trackSeeds = static_cast<int32_t>(*seeds);
  std::string stem = PCD_NiftiStem(input);
  for (const char* tail : {".raw", ".dti"})
    if (BatchEndsWith(stem, tail)) stem.resize(stem.size() - 4);
  while (stem.size() > 1 && stem.back() == '/') stem.pop_back();  // a DICOM directory
  const std::string dir = out.value_or(stem + "_report");
  PcdSubjectReport result;
  if (!PCDreport_WriteSubjectReport(set->dti, report, dir, &result)) return kBatchFailed;
  for (const auto& [name, value] : PCDreport_QcColumns(result)) std::printf("%s\t%s\n", name.c_str(), value.c_str());
  for (const std::string& warning : result.warnings) std::fprintf(stderr, "Warning: %s\n", warning.c_str());
  std::printf("Report: %s/index.html\n", dir.c_str());
  return kBatchOk;
}

}  // namespace

extern const BatchCommand kBatchReportCommand = {
    "report", "write a QC report (HTML with figures) of a data set or of a QC table",
    "Usage: quorix-batch report INPUT [-o DIR] [options]\n"
    "       quorix-batch report --group QC.tsv -o DIR [--reports DIR]\n"
    "\n"
    "The first form fits the tensors and writes DIR/index.html (default\n"
    "<stem>_report) with PNG figures beside it: mosaics of b = 0, FA and directional\n"
    "colour in three orientations with the brain mask outlined, the MPG directions on\n"
    "a sphere and the b values, the fit's residual per volume and the voxels whose fit\n"
    "failed, the gradient-table check, fibers of a short tracking run, and a table of\n"
    "numbers. It prints the QC measures as name<TAB>value lines.\n"
    "The second form reads a tab-separated QC table (columns subject, optionally\n"
    "session, and any measures) and writes one row per line with the subject's\n"
    "thumbnail (from <reports>/<subject>[/<session>]/thumb.png, default: the table's\n"
    "folder) and its measures, outliers of each numeric column marked.\n"
    "\n"
    "Options:\n"
    "  -o DIR              the report's directory (default: <stem>_report beside INPUT)\n"
    "  --title TEXT        the page's title\n"
    "  --threshold N       So threshold of the tensor fit (default 0)\n"
    "  --seeds N           seeds of the tract picture (default 800)\n"
    "  --no-gradcheck      leave out the gradient-table check\n"
    "  --threads T         worker threads (default: the number of cores)\n"
    "  --mpg FILE          replace the MPG setting with an MPG description file\n"
    "  --bval FILE         b values of a NIfTI input (default: <stem>.bval beside it)\n"
    "  --bvec FILE         directions of a NIfTI input (default: <stem>.bvec beside it)\n"
    "  --voxel-size MM     voxel size for inputs that carry none\n",
    run_report};
