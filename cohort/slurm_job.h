// A cohort as a Slurm job array: one subject per array task, each task running the same
// participant unit as a serial run does. Slurm does all scheduling; we only write the job
// script and hand it to sbatch.
#pragma once

#include <string>
#include <vector>

struct CohortSlurmJob {
  std::vector<std::string> subjects;  // one per array task, in task order
  // the command every task runs, before "--participant-label <subject>": the program,
  // BIDS_DIR OUTPUT_DIR participant and the options that apply to every subject
  std::vector<std::string> command;
  std::string logDir;     // where Slurm writes each task's output
  int arrayLimit = 0;     // at most this many tasks at once (0: no limit)
  int memoryMb = 0;       // --mem per task (0: the cluster's default)
  int timeMinutes = 0;    // --time per task (0: the cluster's default)
  int cpus = 1;           // --cpus-per-task
  std::string jobName = "quorix-bids";
};

// A word quoted for bash: as it is when it is plainly safe, else in single quotes.
std::string CohortShellQuote(const std::string& word);

// The bash job script. A task that the kernel or Slurm ends by a signal gets its subject
// recorded as failed with the signal (and "out of memory" when the memory controller saw
// it) by a second, small call of the same program.
std::string FormatCohortSlurmScript(const CohortSlurmJob& job);

// Runs "sbatch --parsable SCRIPT" (no shell) and returns the job id it prints; empty with
// *problem set when sbatch cannot be run or refuses.
std::string SubmitCohortSlurmScript(const std::string& scriptPath, std::string* problem);
