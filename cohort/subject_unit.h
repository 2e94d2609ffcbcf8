// One subject (and session) as a unit that any scheduler may run, kill and rerun: it takes
// a lock of its own, works in a folder of its own, moves its outputs into place only when
// all are written, and leaves a marker with the checksums of its inputs; a rerun with the
// same inputs and version skips it. Its status goes to a file of its own so that parallel
// units never write the same file.
#pragma once

#include <string>

#include "cohort/bids_layout.h"
#include "cohort/dwi_analysis.h"

struct CohortRunOptions {
  std::string outputDir;  // OUTPUT_DIR; the derivatives go to OUTPUT_DIR/quorix
  CohortAnalyses analyses;
  const CohortAtlas* atlas = nullptr;
  std::string workDir;  // empty: OUTPUT_DIR/quorix/.work
  int threads = 1;
};

// The statuses a unit ends with (the status column of status.tsv).
extern const char kCohortDone[];     // "done"
extern const char kCohortSkipped[];  // "skipped"
extern const char kCohortFailed[];   // "failed"
extern const char kCohortRunning[];  // "running": only while a process works on it

struct CohortUnitResult {
  std::string status;
  std::string reason;  // "n/a" for done
};

// OUTPUT_DIR/quorix
std::string CohortDerivativesDir(const std::string& outputDir);
// Runs (or skips) one unit and records its status.
CohortUnitResult RunCohortUnit(const BidsUnit& unit, const CohortRunOptions& options);

// True when the unit's folder holds a marker of the same inputs, version and analyses
// with every output intact: a run would skip it.
bool CohortUnitIsDone(const BidsUnit& unit, const CohortRunOptions& options);

// Records that the process running a unit was ended by a signal (the job script calls it
// through --record-signal): "killed by signal N", "out of memory" when the memory
// controller of the calling process's control group counted an out-of-memory kill.
CohortUnitResult RecordCohortUnitKilled(const BidsUnit& unit, const std::string& outputDir, int signal);

// The status of a unit from its status file; a "running" unit whose lock nobody holds is
// reported failed (its process ended without a word: killed or crashed). Empty status when
// the unit has no status file.
CohortUnitResult ReadCohortUnitStatus(const std::string& outputDir, const std::string& unitName);

// Merges every unit's status file into OUTPUT_DIR/quorix/status.tsv (subject, session,
// status, reason; sorted). False when it cannot be written.
bool WriteCohortStatusTable(const std::string& outputDir);
