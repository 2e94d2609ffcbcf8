// The analyses of one diffusion image of a cohort: tensor maps, tracks, atlas statistics
// and a quality-control row, written under BIDS-Derivatives names into one folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cohort/bids_layout.h"
#include "dti/dti_data.h"
#include "vol/raw_volume.h"

struct CohortAnalyses {
  bool maps = true, track = true, stats = true;
  // "maps,track,stats" (the ones chosen, in this order)
  std::string Text() const;
};

// Parses "--analyses maps,track,stats" (any non-empty subset, any order); false for an
// unknown name.
bool ParseCohortAnalyses(const std::string& text, CohortAnalyses* out);

// An atlas: a label image of the subjects' matrix size (already in their space).
struct CohortAtlas {
  std::string path;
  std::string name;  // letters and digits of its file name: the atlas-<name> entity
  PcdRawVolumeData* labels = nullptr;  // owned, SINT16
  std::vector<int32_t> values;         // its non-zero labels, ascending
  CohortAtlas() = default;
  CohortAtlas(const CohortAtlas&) = delete;
  CohortAtlas& operator=(const CohortAtlas&) = delete;
  ~CohortAtlas();
};

// Reads an atlas image; false with an "Err: " line when it cannot be read.
bool LoadCohortAtlas(const std::string& path, CohortAtlas* atlas);

// Seconds spent per stage of one image, for the benchmark's time split.
struct CohortTimes {
  double read = 0, fit = 0, track = 0, stats = 0, write = 0;
};

// The header of the per-image QC table and of the group's QC table after its "subject"
// and "session" columns.
extern const char kCohortQcHeader[];
// The header of the per-image atlas table (the group table puts "subject", "session" and
// "dwi" in front).
extern const char kCohortRoiStatsHeader[];

// Analyses one image and writes its files into dir; their names (relative to dir) are
// appended to written in the order they were made. False with an "Err: " line when the
// image cannot be analysed. atlas may be null (then no statistics).
bool AnalyseCohortDwiRun(const BidsDwiRun& run, const CohortAnalyses& analyses,
                         const CohortAtlas* atlas, int threads, const std::string& dir,
                         std::vector<std::string>* written, CohortTimes* times);

// Hook for further per-image steps that other commands provide (gradient-table check,
// reports): called after the analyses, writing into the same folder; returns the value of
// the QC table's "gradcheck" column: the gradient-table check's verdict ("as given", or
// the corrected axes), "n/a" when it could not run (no high-FA voxels).
std::string RunCohortExtraSteps(const PcdDtiData* dti, const BidsDwiRun& run, const std::string& dir,
                                std::vector<std::string>* written);
