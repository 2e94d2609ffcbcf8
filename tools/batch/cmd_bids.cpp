// quorix-batch bids: a BIDS App over a cohort, run serially or as a Slurm job array.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>

#include "cohort/bids_layout.h"
#include "cohort/cohort_files.h"
#include "cohort/group_tables.h"
#include "cohort/slurm_job.h"
#include "cohort/subject_unit.h"
#include "tools/batch/batch.h"
#include "tools/batch/batch_region.h"

namespace fs = std::filesystem;

namespace {

// Exit statuses beyond the common ones (kBatchFailed: a subject failed).
constexpr int kBidsBadDataset = 3;
constexpr int kBidsNothingSelected = 4;

struct BidsCommandLine {
  std::string bidsDir, outputDir, level;
  BidsSelection selection;
  CohortAnalyses analyses;
  std::optional<std::string> atlas, workDir;
  int threads = 1;
  bool slurm = false, dryRun = false;
  int arrayLimit = 0, memoryMb = 0, timeMinutes = 0;
  std::optional<int> recordSignal;
};

std::string Absolute(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

// Labels from --participant-file: one a line; a participants.tsv works too (its first
// column, header skipped).
bool ReadParticipantFile(const std::string& path, std::vector<std::string>* labels, BatchArgs& args) {
  const auto text = CohortReadFile(path, 16u << 20);
  if (!text) {
    args.Fail("cannot read the participant file " + path);
    return false;
  }
  std::istringstream lines(*text);
  std::string line;
  while (std::getline(lines, line)) {
    line = line.substr(0, line.find_first_of("\t\r"));
    if (line.empty() || line == "participant_id") continue;
    const std::string label = BidsCleanLabel(line, "sub-");
    if (label.empty()) {
      args.Fail(path + ": \"" + line.substr(0, 64) + "\" is not a participant label");
      return false;
    }
    labels->push_back(label);
  }
  return true;
}

bool TakeCommandLine(BatchArgs& args, BidsCommandLine* c) {
  std::vector<std::string> participants = args.TakeValues({"--participant-label", "--participant_label"});
  const auto participantFile = args.TakeValue({"--participant-file"});
  const std::vector<std::string> sessions = args.TakeValues({"--session-label", "--session_label"});
  const auto analyses = args.TakeValue({"--analyses"});
  c->atlas = args.TakeValue({"--atlas"});
  c->workDir = args.TakeValue({"--work-dir"});
  const auto threads = args.TakeInteger({"--threads"}, 1, 256);
  c->slurm = args.TakeFlag({"--slurm"});
  c->dryRun = args.TakeFlag({"--dry-run"});
  const auto limit = args.TakeInteger({"--slurm-array-limit"}, 1, 100000);
  const auto memory = args.TakeInteger({"--slurm-mem"}, 1, 100000000);
  const auto time = args.TakeInteger({"--slurm-time"}, 1, 100000000);
  const auto signal = args.TakeInteger({"--record-signal"}, 1, 64);
  for (const std::string& p : participants)
    if (BidsCleanLabel(p, "sub-").empty()) args.Fail("\"" + p + "\" is not a participant label");
    else c->selection.participants.push_back(BidsCleanLabel(p, "sub-"));
  for (const std::string& s : sessions)
    if (BidsCleanLabel(s, "ses-").empty()) args.Fail("\"" + s + "\" is not a session label");
    else c->selection.sessions.push_back(BidsCleanLabel(s, "ses-"));
  if (participantFile) ReadParticipantFile(*participantFile, &c->selection.participants, args);
  if (analyses && !ParseCohortAnalyses(*analyses, &c->analyses))
    args.Fail("--analyses takes a list of maps, track and stats, e.g. maps,track");
  if (!analyses && !c->atlas) c->analyses.stats = false;
  if (c->analyses.stats && !c->atlas) args.Fail("the stats analysis needs --atlas LABELS");
  if (c->dryRun && !c->slurm) args.Fail("--dry-run goes with --slurm");
  if (!c->slurm && (limit || memory || time)) args.Fail("the --slurm-* options go with --slurm");
  if (!args.Finish(3, 3)) return false;
  c->bidsDir = args.positional()[0];
  c->outputDir = args.positional()[1];
  c->level = args.positional()[2];
  if (c->level != "participant" && c->level != "group") {
    args.Fail("the analysis level must be participant or group, not \"" + c->level + "\"");
    return false;
  }
  if (c->level == "group" && (c->slurm || signal)) {
    args.Fail("--slurm and --record-signal belong to the participant level");
    return false;
  }
  c->threads = static_cast<int>(threads.value_or(BatchDefaultThreads()));
  c->arrayLimit = static_cast<int>(limit.value_or(0));
  c->memoryMb = static_cast<int>(memory.value_or(0));
  c->timeMinutes = static_cast<int>(time.value_or(0));
  if (signal) c->recordSignal = static_cast<int>(*signal);
  return args.ok();
}

// The derivatives dataset's description, written once by whichever run comes first.
void WriteDatasetDescription(const BidsCommandLine& c, const std::string& command) {
  const std::string path = CohortDerivativesDir(c.outputDir) + "/dataset_description.json";
  std::error_code error;
  if (fs::exists(path, error)) return;
  const std::string text =
      "{\n  \"Name\": \"Quorix.II diffusion tensor derivatives\",\n  \"BIDSVersion\": \"1.9.0\",\n"
      "  \"DatasetType\": \"derivative\",\n  \"GeneratedBy\": [\n    {\n      \"Name\": \"quorix-batch\",\n"
      "      \"Version\": " + CohortJsonString(CohortVersion()) + ",\n      \"Description\": " +
      CohortJsonString(command) + "\n    }\n  ],\n  \"SourceDatasets\": [{\"URL\": " +
      CohortJsonString("file://" + Absolute(c.bidsDir)) + "}]\n}\n";
  if (!CohortWriteFileAtomically(path, text))
    std::fprintf(stderr, "Warning: cannot write %s\n", path.c_str());
}

std::string ThisProgram() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? "quorix-batch" : self.string();
}

int SubmitArray(const BidsCommandLine& c, const std::vector<BidsUnit>& units, const CohortRunOptions& options) {
  // only subjects with work left become tasks; a resubmission runs just the missing ones
  std::set<std::string> open;
  for (const BidsUnit& unit : units)
    if (!CohortUnitIsDone(unit, options)) open.insert(unit.subject);
  if (open.empty()) {
    std::printf("Nothing to submit: every selected subject is done.\n");
    return kBatchOk;
  }
  CohortSlurmJob job;
  job.subjects.assign(open.begin(), open.end());
  job.command = {ThisProgram(), "bids", Absolute(c.bidsDir), Absolute(c.outputDir), "participant",
                 "--analyses", c.analyses.Text(), "--threads", std::to_string(c.threads)};
  if (c.atlas) job.command.insert(job.command.end(), {"--atlas", Absolute(*c.atlas)});
  if (c.workDir) job.command.insert(job.command.end(), {"--work-dir", Absolute(*c.workDir)});
  for (const std::string& s : c.selection.sessions) job.command.insert(job.command.end(), {"--session-label", s});
  job.logDir = Absolute(CohortDerivativesDir(c.outputDir) + "/logs");
  job.arrayLimit = c.arrayLimit;
  job.memoryMb = c.memoryMb;
  job.timeMinutes = c.timeMinutes;
  job.cpus = c.threads;
  const std::string script = FormatCohortSlurmScript(job);
  if (c.dryRun) {
    std::fputs(script.c_str(), stdout);
    return kBatchOk;
  }
  std::error_code error;
  fs::create_directories(job.logDir, error);
  const std::string path = job.logDir + "/quorix_array.sh";
  if (!CohortWriteFileAtomically(path, script)) {
    std::fprintf(stderr, "Err: cannot write %s\n", path.c_str());
    return kBatchFailed;
  }
  std::string problem;
  const std::string id = SubmitCohortSlurmScript(path, &problem);
  if (id.empty()) {
    std::fprintf(stderr, "Err: %s\n", problem.c_str());
    return kBatchFailed;
  }
  std::printf("Submitted job array %s: %zu subjects (script %s)\n", id.c_str(), job.subjects.size(), path.c_str());
  std::printf("Watch it:        squeue -j %s\n", id.c_str());
  std::printf("Subject status:  quorix-batch bids %s %s group   (then %s/status.tsv)\n",
              CohortShellQuote(c.bidsDir).c_str(), CohortShellQuote(c.outputDir).c_str(),
              CohortDerivativesDir(c.outputDir).c_str());
  std::printf("Group level:     quorix-batch bids %s %s group   (when the array has ended)\n",
              CohortShellQuote(c.bidsDir).c_str(), CohortShellQuote(c.outputDir).c_str());
  return kBatchOk;
}

int RunGroup(const BidsCommandLine& c) {
  CohortGroupSummary summary;
  if (!WriteCohortGroupTables(c.outputDir, &summary)) return kBatchFailed;
  WriteCohortStatusTable(c.outputDir);
  if (summary.units == 0) {
    std::fprintf(stderr, "Err: no finished participants in %s\n", CohortDerivativesDir(c.outputDir).c_str());
    return kBidsNothingSelected;
  }
  std::printf("Group tables: %d from %d finished subjects/sessions in %s/group\n", summary.tables,
              summary.units, CohortDerivativesDir(c.outputDir).c_str());
  return kBatchOk;
}

int run_bids(BatchArgs& args) {
  std::string command = "quorix-batch bids";
  BidsCommandLine c;
  if (!TakeCommandLine(args, &c)) return kBatchUsageError;
  if (c.level == "group") return RunGroup(c);

  std::vector<std::string> missing;
  BidsDatasetProblem problem;
  const auto units = FindBidsUnits(c.bidsDir, c.selection, &missing, &problem);
  if (!units) {
    std::fprintf(stderr, "Err: %s\n", problem.message.c_str());
    return kBidsBadDataset;
  }
  for (const std::string& label : missing)
    std::fprintf(stderr, "Err: participant %s is not in %s\n", label.c_str(), c.bidsDir.c_str());
  if (units->empty()) {
    std::fputs("Err: nothing selected: no subject (and session) matches\n", stderr);
    return kBidsNothingSelected;
  }
  CohortAtlas atlas;
  if (c.atlas && !c.recordSignal && !LoadCohortAtlas(*c.atlas, &atlas)) return kBidsBadDataset;
  CohortRunOptions options;
  options.outputDir = c.outputDir;
  options.analyses = c.analyses;
  options.atlas = c.atlas ? &atlas : nullptr;
  options.workDir = c.workDir.value_or("");
  options.threads = c.threads;
  if (c.slurm) return SubmitArray(c, *units, options);

  std::error_code error;
  fs::create_directories(CohortDerivativesDir(c.outputDir), error);
  if (error) {
    std::fprintf(stderr, "Err: cannot create %s\n", CohortDerivativesDir(c.outputDir).c_str());
    return kBatchFailed;
  }
  if (c.recordSignal) {
    for (const BidsUnit& unit : *units) RecordCohortUnitKilled(unit, c.outputDir, *c.recordSignal);
    WriteCohortStatusTable(c.outputDir);
    return kBatchOk;
  }
  WriteDatasetDescription(c, command + " " + CohortShellQuote(Absolute(c.bidsDir)) + " " +
                                 CohortShellQuote(Absolute(c.outputDir)) + " participant --analyses " +
                                 c.analyses.Text());
  bool failed = !missing.empty();
  for (const BidsUnit& unit : *units) {
    const CohortUnitResult result = RunCohortUnit(unit, options);
    std::printf("%s\t%s\t%s\n", unit.Name().c_str(), result.status.c_str(), result.reason.c_str());
    std::fflush(stdout);
    failed = failed || result.status == kCohortFailed;
  }
  if (!WriteCohortStatusTable(c.outputDir))
    std::fprintf(stderr, "Warning: cannot write %s/status.tsv\n", CohortDerivativesDir(c.outputDir).c_str());
  return failed ? kBatchFailed : kBatchOk;
}

}  // namespace

extern const BatchCommand kBatchBidsCommand = {
    "bids", "a BIDS App: tensor maps, tracks and atlas tables of a whole cohort",
    "Usage: quorix-batch bids BIDS_DIR OUTPUT_DIR participant|group [options]\n"
    "\n"
    "participant: for every subject (and session) of the BIDS dataset, fits the tensor to\n"
    "each dwi/*_dwi.nii[.gz] with its .bval/.bvec and writes a BIDS-Derivatives dataset in\n"
    "OUTPUT_DIR/quorix: FA, MD, AD, RD and colour maps (..._model-tensor_param-*_dwimap),\n"
    "their sidecar, tracks from one seed per voxel of FA > 0.3 (..._streamlines.tck), with\n"
    "--atlas a table per label (..._atlas-NAME_roistats.tsv) and a QC row. Each subject\n"
    "works in a folder of its own and moves its outputs into place only when all are\n"
    "written, with a sub-X[_ses-Y]_done.json of input checksums; a rerun skips subjects\n"
    "done with the same inputs and version. OUTPUT_DIR/quorix/status.tsv says per subject\n"
    "done, skipped or failed with the reason; logs/ holds each subject's log.\n"
    "group: gathers the finished subjects' tables into OUTPUT_DIR/quorix/group: qc.tsv and\n"
    "one atlas-NAME_roistats.tsv per atlas.\n"
    "\n"
    "Options:\n"
    "  --participant-label L  only subject L (with or without \"sub-\"); repeatable\n"
    "  --participant-file F   only the subjects listed in F, one a line (participants.tsv\n"
    "                         works)\n"
    "  --session-label S      only session S; repeatable\n"
    "  --analyses LIST        any of maps,track,stats (default maps,track and stats with\n"
    "                         --atlas); the maps are always fitted, written with maps\n"
    "  --atlas LABELS         label image in the subjects' space and matrix size\n"
    "  --work-dir D           where subjects work (default OUTPUT_DIR/quorix/.work)\n"
    "  --threads N            worker threads per subject (default: the number of cores)\n"
    "Slurm (participant level):\n"
    "  --slurm                submit a job array through sbatch, one subject per task,\n"
    "                         for the subjects not yet done; prints how to watch it\n"
    "  --slurm-array-limit K  at most K tasks at once\n"
    "  --slurm-mem MB         memory per task\n"
    "  --slurm-time MIN       time limit per task\n"
    "  --dry-run              print the job script instead of submitting it\n"
    "  --record-signal N      record the selected subjects as failed by signal N (the job\n"
    "                         script calls this when a task is killed)\n"
    "\n"
    "Exit status: 0 all selected subjects done or skipped, 1 a subject failed, 2 wrong\n"
    "command line, 3 BIDS_DIR (or the atlas) is not usable, 4 nothing selected (no\n"
    "matching subject; for group: no finished subject).\n",
    run_bids};
