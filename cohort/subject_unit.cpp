#include "cohort/subject_unit.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <algorithm>
#include <fstream>
#include <new>
#include <sstream>

#include "cohort/cohort_files.h"
#include "cohort/done_marker.h"
#include "io/c_locale.h"

namespace fs = std::filesystem;

const char kCohortDone[] = "done";
const char kCohortSkipped[] = "skipped";
const char kCohortFailed[] = "failed";
const char kCohortRunning[] = "running";

namespace {

constexpr char kStatusHeader[] = "subject\tsession\tstatus\treason\n";
constexpr size_t kSmallFileLimit = 1 << 20;

std::string Clean(std::string text) {
  for (char& c : text)
    if (c == '\t' || c == '\n' || c == '\r') c = ' ';
  return text.empty() ? "n/a" : text;
}

std::string LogsDir(const std::string& outputDir) { return CohortDerivativesDir(outputDir) + "/logs"; }

std::string StatusFile(const std::string& outputDir, const std::string& name) {
  return LogsDir(outputDir) + "/" + name + "_status.tsv";
}

std::string LockFile(const std::string& outputDir, const std::string& name) {
  return CohortDerivativesDir(outputDir) + "/.locks/" + name + ".lock";
}

CohortUnitResult Record(const BidsUnit& unit, const std::string& outputDir, const std::string& status,
                        const std::string& reason) {
  const CohortUnitResult result{status, Clean(reason)};
  const std::string row = kStatusHeader + unit.subject + "\t" + (unit.session.empty() ? "n/a" : unit.session) +
                          "\t" + status + "\t" + result.reason + "\n";
  if (!CohortWriteFileAtomically(StatusFile(outputDir, unit.Name()), row))
    std::fprintf(stderr, "Warning: cannot write the status of %s\n", unit.Name().c_str());
  return result;
}

// Sends this process's standard error into a log file while it lives, then copies what was
// logged back to the real standard error, so that the unit's log keeps every line and the
// first "Err: " line can become the recorded reason.
class StderrToLog {
 public:
  explicit StderrToLog(const std::string& path) : path_(path) {
    std::fflush(stderr);
    saved_ = dup(2);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (saved_ >= 0 && fd >= 0) dup2(fd, 2);
    if (fd >= 0) close(fd);
  }
  ~StderrToLog() { Restore(); }
  // Restores standard error and returns the first "Err: " line logged (without "Err: ").
  std::string Restore() {
    if (saved_ < 0) return {};
    std::fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    std::string first;
    std::ifstream in(path_);
    std::string line;
    while (std::getline(in, line)) {
      // progress lines start with a carriage return and are not worth repeating
      const size_t cr = line.find_last_of('\r');
      const std::string shown = cr == std::string::npos ? line : line.substr(cr + 1);
      if (shown.empty()) continue;
      std::fprintf(stderr, "%s\n", shown.c_str());
      if (first.empty() && shown.rfind("Err: ", 0) == 0) first = shown.substr(5);
    }
    return first;
  }

 private:
  std::string path_;
  int saved_ = -1;
};

// The reason of a failed unit, by what the analyses said.
std::string FailureReason(const std::string& error) {
  if (error.empty()) return "error: see the log";
  if (error.find("memory") != std::string::npos) return "out of memory: " + error;
  if (error.find("cannot write") != std::string::npos) return "cannot write: " + error;
  return "bad input: " + error;
}

bool ChecksumInputs(const BidsUnit& unit, const CohortRunOptions& options, DoneMarker* marker,
                    std::string* problem) {
  for (const BidsDwiRun& run : unit.runs) {
    const std::string dir = run.relative.substr(0, run.relative.find_last_of('/') + 1);
    for (auto [path, name] : {std::pair{&run.image, run.relative},
                              std::pair{&run.bval, dir + run.prefix + "_dwi.bval"},
                              std::pair{&run.bvec, dir + run.prefix + "_dwi.bvec"}}) {
      const auto sum = CohortSha256OfFile(*path);
      if (!sum) {
        *problem = "cannot read " + *path;
        return false;
      }
      marker->inputs.emplace_back(name, *sum);
    }
  }
  if (options.analyses.stats && options.atlas != nullptr) {
    const auto sum = CohortSha256OfFile(options.atlas->path);
    if (!sum) {
      *problem = "cannot read " + options.atlas->path;
      return false;
    }
    marker->inputs.emplace_back("atlas-" + options.atlas->name, *sum);
  }
  return true;
}

// True when the unit's folder holds a marker of the same work whose outputs are all there
// with their recorded checksums.
bool AlreadyDone(const std::string& finalDir, const std::string& markerName, const DoneMarker& wanted) {
  const auto text = CohortReadFile(finalDir + "/" + markerName, kSmallFileLimit);
  if (!text) return false;
  const auto marker = ParseDoneMarker(*text);
  if (!marker || !DoneMarkersDescribeSameWork(*marker, wanted)) return false;
  for (const auto& [name, sum] : marker->outputs) {
    if (name.find("..") != std::string::npos) return false;
    const auto actual = CohortSha256OfFile(finalDir + "/" + name);
    if (!actual || *actual != sum) return false;
  }
  return true;
}

// Leftovers of units that were killed: work folders and replaced outputs of this unit.
// Only called while holding the unit's lock, so no live process owns them.
void RemoveLeftovers(const std::string& workRoot, const std::string& finalDir, const std::string& name) {
  std::error_code error;
  for (const auto& [dir, stem] : {std::pair{fs::path(workRoot), name + "."},
                                  std::pair{fs::path(finalDir).parent_path(),
                                            fs::path(finalDir).filename().string() + ".old."},
                                  std::pair{fs::path(finalDir).parent_path(),
                                            fs::path(finalDir).filename().string() + ".new."}}) {
    std::vector<fs::path> stale;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error))
      if (it->path().filename().string().rfind(stem, 0) == 0) stale.push_back(it->path());
    for (const fs::path& p : stale) fs::remove_all(p, error);
    error.clear();
  }
}

// Moves the finished folder to its place: the old outputs (if any) step aside first, and
// go only once the new ones are in. A work folder on another file system is copied beside
// the destination first, so that the last step is always one rename.
bool MoveIntoPlace(const fs::path& work, const fs::path& finalDir, std::string* problem) {
  std::error_code error;
  fs::create_directories(finalDir.parent_path(), error);
  const std::string pid = std::to_string(getpid());
  fs::path source = work;
  const fs::path near = finalDir.string() + ".new." + pid;
  fs::rename(work, near, error);
  if (error) {
    error.clear();
    fs::copy(work, near, fs::copy_options::recursive, error);
    if (error) {
      *problem = "cannot copy the outputs to " + near.string() + ": " + error.message();
      return false;
    }
  }
  source = near;
  const fs::path old = finalDir.string() + ".old." + pid;
  const bool hadOld = fs::exists(finalDir, error);
  if (hadOld) fs::rename(finalDir, old, error);
  if (!error) fs::rename(source, finalDir, error);
  if (error) {
    *problem = "cannot move the outputs to " + finalDir.string() + ": " + error.message();
    return false;
  }
  if (hadOld) fs::remove_all(old, error);
  return true;
}

std::string WhoRuns() {
  char host[256] = "?";
  gethostname(host, sizeof host - 1);
  std::string who = std::string("pid ") + std::to_string(getpid()) + " on " + host;
  const char* array = std::getenv("SLURM_ARRAY_JOB_ID");
  const char* task = std::getenv("SLURM_ARRAY_TASK_ID");
  const char* job = std::getenv("SLURM_JOB_ID");
  // the array task's name is the one its output file carries (slurm-<array>_<task>.out)
  if (array != nullptr && task != nullptr) who += ", Slurm job " + std::string(array) + "_" + task;
  else if (job != nullptr) who += ", Slurm job " + std::string(job);
  return who;
}

}  // namespace

std::string CohortDerivativesDir(const std::string& outputDir) { return outputDir + "/quorix"; }

bool CohortUnitIsDone(const BidsUnit& unit, const CohortRunOptions& options) {
  for (const BidsDwiRun& run : unit.runs)
    if (!run.problem.empty()) return false;
  DoneMarker marker{unit.subject, unit.session, CohortVersion(), options.analyses.Text(), {}, {}};
  std::string problem;
  if (!ChecksumInputs(unit, options, &marker, &problem)) return false;
  return AlreadyDone((fs::path(CohortDerivativesDir(options.outputDir)) / unit.Folder()).string(),
                     unit.Name() + "_done.json", marker);
}

CohortUnitResult RunCohortUnit(const BidsUnit& unit, const CohortRunOptions& options) {
  const std::string root = CohortDerivativesDir(options.outputDir);
  std::error_code error;
  for (const char* sub : {"/logs", "/.locks"}) fs::create_directories(root + sub, error);
  const std::string name = unit.Name();
  const CohortLock lock(LockFile(options.outputDir, name));
  if (!lock.locked()) return {kCohortSkipped, "running in another process"};

  for (const BidsDwiRun& run : unit.runs)
    if (!run.problem.empty()) {
      std::fprintf(stderr, "Err: %s: %s\n", name.c_str(), run.problem.c_str());
      return Record(unit, options.outputDir, kCohortFailed, "bad input: " + run.problem);
    }
  DoneMarker marker{unit.subject, unit.session, CohortVersion(), options.analyses.Text(), {}, {}};
  std::string problem;
  if (!ChecksumInputs(unit, options, &marker, &problem)) {
    std::fprintf(stderr, "Err: %s: %s\n", name.c_str(), problem.c_str());
    return Record(unit, options.outputDir, kCohortFailed, "bad input: " + problem);
  }
  const fs::path finalDir = fs::path(root) / unit.Folder();
  const std::string markerName = name + "_done.json";
  if (AlreadyDone(finalDir.string(), markerName, marker))
    return Record(unit, options.outputDir, kCohortSkipped, "done before with the same inputs and version");

  Record(unit, options.outputDir, kCohortRunning, WhoRuns());
  const std::string workRoot = options.workDir.empty() ? root + "/.work" : options.workDir;
  RemoveLeftovers(workRoot, finalDir.string(), name);
  const fs::path work = fs::path(workRoot) / (name + "." + std::to_string(getpid()));
  const fs::path workUnit = work / finalDir.filename();
  fs::create_directories(workUnit / "dwi", error);
  if (error) {
    std::fprintf(stderr, "Err: cannot create %s\n", (workUnit / "dwi").string().c_str());
    return Record(unit, options.outputDir, kCohortFailed, "cannot write: cannot create the work folder");
  }

  std::vector<std::string> written;
  CohortTimes times;
  bool ok = true;
  std::string firstError;
  {
    StderrToLog log(LogsDir(options.outputDir) + "/" + name + ".log");
    try {
      for (const BidsDwiRun& run : unit.runs)
        if (!(ok = AnalyseCohortDwiRun(run, options.analyses, options.atlas, options.threads,
                                       (workUnit / "dwi").string(), &written, &times)))
          break;
    } catch (const std::bad_alloc&) {
      std::fputs("Err: not enough memory\n", stderr);
      ok = false;
    }
    firstError = log.Restore();
  }
  if (ok) {
    for (const std::string& file : written) {
      const auto sum = CohortSha256OfFile((workUnit / "dwi" / file).string());
      if (!sum) {
        ok = false;
        firstError = "cannot write: " + file + " is unreadable";
        break;
      }
      marker.outputs.emplace_back("dwi/" + file, *sum);
    }
  }
  // the marker is written last inside the work folder: it moves into place with the outputs
  if (ok && !CohortWriteFileAtomically((workUnit / markerName).string(), FormatDoneMarker(marker))) {
    ok = false;
    firstError = "cannot write the marker";
  }
  if (ok && !MoveIntoPlace(workUnit, finalDir, &problem)) {
    std::fprintf(stderr, "Err: %s\n", problem.c_str());
    ok = false;
    firstError = problem;
  }
  fs::remove_all(work, error);
  if (!ok) return Record(unit, options.outputDir, kCohortFailed, FailureReason(firstError));

  const PcdScopedCLocale cLocale;
  char row[256];
  std::snprintf(row, sizeof row, "read\tfit\ttrack\tstats\twrite\n%.3f\t%.3f\t%.3f\t%.3f\t%.3f\n", times.read,
                times.fit, times.track, times.stats, times.write);
  CohortWriteFileAtomically(LogsDir(options.outputDir) + "/" + name + "_times.tsv", row);
  return Record(unit, options.outputDir, kCohortDone, "");
}

namespace {

// True when the memory controller of this process's control group (v1 or v2) has
// counted an out-of-memory kill.
bool ControlGroupSawOomKill() {
  std::ifstream groups("/proc/self/cgroup");
  std::string line;
  while (std::getline(groups, line)) {
    // "4:memory:/path" (v1) or "0::/path" (v2)
    const size_t first = line.find(':'), second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const std::string path = line.substr(second + 1);
    std::string file;
    if (controllers == "memory") file = "/sys/fs/cgroup/memory" + path + "/memory.oom_control";
    else if (controllers.empty()) file = "/sys/fs/cgroup" + path + "/memory.events";
    else continue;
    std::ifstream events(file);
    std::string key;
    long long count = 0;
    while (events >> key >> count)
      if (key == "oom_kill" && count > 0) return true;
  }
  return false;
}

// True when the output file of the Slurm task named in a "running" reason ("..., Slurm job
// 12_3") holds Slurm's word that the task went over its memory: the only trace left when
// Slurm's accounting poller kills the whole task, job script and all.
bool SlurmSawOutOfMemory(const std::string& outputDir, const std::string& reason) {
  const size_t at = reason.rfind("Slurm job ");
  if (at == std::string::npos) return false;
  const std::string job = reason.substr(at + 10);
  if (job.empty() || job.find_first_not_of("0123456789_") != std::string::npos) return false;
  const auto text = CohortReadFile(LogsDir(outputDir) + "/slurm-" + job + ".out", 16u << 20);
  return text && (text->find("exceeded memory limit") != std::string::npos ||
                  text->find("Exceeded job memory limit") != std::string::npos ||
                  text->find("oom-kill") != std::string::npos);
}

}  // namespace

CohortUnitResult RecordCohortUnitKilled(const BidsUnit& unit, const std::string& outputDir, int signal) {
  std::error_code error;
  fs::create_directories(LogsDir(outputDir), error);
  const char* name = strsignal(signal);
  std::string reason = "killed by signal " + std::to_string(signal) + " (" + (name ? name : "?") + ")";
  if (ControlGroupSawOomKill()) reason = "out of memory: " + reason;
  return Record(unit, outputDir, kCohortFailed, reason);
}

CohortUnitResult ReadCohortUnitStatus(const std::string& outputDir, const std::string& unitName) {
  const auto text = CohortReadFile(StatusFile(outputDir, unitName), kSmallFileLimit);
  if (!text || text->rfind(kStatusHeader, 0) != 0) return {};
  std::istringstream rows(text->substr(std::strlen(kStatusHeader)));
  std::string subject, session, status, reason;
  if (!std::getline(rows, subject, '\t') || !std::getline(rows, session, '\t') ||
      !std::getline(rows, status, '\t') || !std::getline(rows, reason))
    return {};
  if (status == kCohortRunning && !CohortLockIsHeld(LockFile(outputDir, unitName))) {
    const std::string stopped = "stopped before finishing (killed, out of memory or crashed; " + reason + ")";
    return {kCohortFailed, SlurmSawOutOfMemory(outputDir, reason) ? "out of memory: " + stopped : stopped};
  }
  return {status, reason};
}

bool WriteCohortStatusTable(const std::string& outputDir) {
  // parallel units may merge at the same time: one at a time, each reading all and
  // writing the whole table
  const CohortLock lock(CohortDerivativesDir(outputDir) + "/.locks/status.lock", true);
  std::vector<std::string> names;
  std::error_code error;
  const std::string suffix = "_status.tsv";
  for (fs::directory_iterator it(LogsDir(outputDir), error), end; !error && it != end; it.increment(error)) {
    const std::string file = it->path().filename().string();
    if (file.rfind("sub-", 0) == 0 && file.size() > suffix.size() && file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0)
      names.push_back(file.substr(0, file.size() - suffix.size()));
  }
  std::sort(names.begin(), names.end());
  std::string table = kStatusHeader;
  for (const std::string& name : names) {
    const CohortUnitResult result = ReadCohortUnitStatus(outputDir, name);
    if (result.status.empty()) continue;
    // the subject and session come from the unit's name: sub-<s>[_ses-<t>]
    const size_t ses = name.find("_ses-");
    const std::string subject = name.substr(4, ses == std::string::npos ? std::string::npos : ses - 4);
    const std::string session = ses == std::string::npos ? "n/a" : name.substr(ses + 5);
    table += subject + "\t" + session + "\t" + result.status + "\t" + Clean(result.reason) + "\n";
  }
  return CohortWriteFileAtomically(CohortDerivativesDir(outputDir) + "/status.tsv", table);
}
