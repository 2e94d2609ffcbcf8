// The group level of a cohort: tables gathered from the finished participants' outputs
// alone (never from the images), so that they come out byte for byte the same however the
// participants were run.
#pragma once

#include <string>

struct CohortGroupSummary {
  int units = 0;   // finished units read
  int tables = 0;  // tables written
};

// Writes OUTPUT_DIR/quorix/group/qc.tsv and one atlas-<name>_roistats.tsv per atlas from
// the units whose done marker is in place (files as the marker lists them), rows sorted
// by subject, session and image. False with an "Err: " line when a table cannot be
// written; a unit whose files do not read as expected is left out with a "Warning: " line.
bool WriteCohortGroupTables(const std::string& outputDir, CohortGroupSummary* summary);
