// The QC report of one data set: one HTML page (index.html) with its PNG figures beside
// it in a directory, and the numbers behind it as a record that a cohort run can put
// into its QC table.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "dti/dti_data.h"
#include "dti/gradient_check.h"

struct PcdSubjectReportOptions {
  std::string title = "Quorix QC report";
  PcdVector3D voxelMm{0, 0, 0};  // per axis; zero: the data set's voxel size
  int16_t threshold = 0;         // So threshold of the tensor fit, as for channels
  int32_t threads = 1;
  bool gradientCheck = true;
  int32_t trackSeeds = 800;      // seeds of the tract picture
  int32_t trackNodes = 80;       // node limit of each half-fiber there: a short run
};

struct PcdSubjectReport {
  PcdIntSize4D matrix{0, 0, 0, 0};
  PcdVector3D voxelMm{1, 1, 1};
  int32_t soCount = 0, dwiCount = 0;
  std::vector<float> bValues;    // per channel of the setting
  int64_t maskVoxels = 0;        // the brain mask: So above a tenth of its 99th percentile
  double validFraction = 0;      // of the mask's voxels, those whose tensor fit gave a tensor
  double medianFa = 0;           // over the mask's valid voxels
  int64_t failedVoxels = 0;
  std::vector<double> residual;  // per channel: RMS of (signal - fitted) / So over the mask
  std::vector<int32_t> residualOutliers;
  bool gradientChecked = false;
  PcdGradientCheck gradientCheck;
  int32_t fibers = 0;
  double meanFiberMm = 0;
  std::vector<std::string> warnings;
};

// Computes the maps (the four channels are appended to the data set's volume), the mask,
// residuals, the gradient check and a short tracking run, and writes dir/index.html with
// its figures (dir is created). False with an "Err: " line when the data set cannot be
// analysed or a file cannot be written.
bool PCDreport_WriteSubjectReport(PcdDtiData* dti, const PcdSubjectReportOptions& options,
                                  const std::string& dir, PcdSubjectReport* report);

// The record as QC columns (name, value), numbers in the "C" locale: the measures of a
// subject's row in a cohort's QC table.
std::vector<std::pair<std::string, std::string>> PCDreport_QcColumns(const PcdSubjectReport& report);

// Text with &, <, >, " and ' escaped for HTML.
std::string PCDreport_EscapeHtml(const std::string& text);
