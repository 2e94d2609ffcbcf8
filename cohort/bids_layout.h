// Finding the diffusion data of a BIDS dataset: every subject's (and session's)
// dwi/*_dwi.nii[.gz] with its .bval and .bvec sidecars, checked before any work starts so
// that one broken subject is reported and the others go on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// One diffusion image of a subject (and session).
struct BidsDwiRun {
  std::string subject;   // the label without "sub-": "01"
  std::string session;   // without "ses-"; empty when the dataset has no sessions
  std::string image;     // path of the .nii or .nii.gz
  std::string relative;  // the image's path inside the dataset: "sub-01/dwi/sub-01_dwi.nii.gz"
  std::string bval, bvec;
  std::string prefix;    // the file name up to "_dwi": "sub-01_ses-1_acq-b1000"
  std::string problem;   // empty when the run is usable; else why not (names the file)
};

// Every run of one subject and session: the unit of work.
struct BidsUnit {
  std::string subject, session;
  std::vector<BidsDwiRun> runs;
  // "sub-01" or "sub-01_ses-1": names its status, log and marker files
  std::string Name() const;
  // "sub-01" or "sub-01/ses-1": its folder inside a derivatives dataset
  std::string Folder() const;
};

// What to look at; empty lists mean everything. Labels may carry "sub-"/"ses-".
struct BidsSelection {
  std::vector<std::string> participants;
  std::vector<std::string> sessions;
};

// Why a dataset cannot be used at all.
struct BidsDatasetProblem {
  std::string message;
};

// The units of the dataset at root in the order of their names (subject, then session),
// each run validated. Participants asked for that do not exist are listed in *missing.
// nullopt with *problem set when root is not a BIDS dataset (no folder, no sub-*).
std::optional<std::vector<BidsUnit>> FindBidsUnits(const std::string& root,
                                                   const BidsSelection& selection,
                                                   std::vector<std::string>* missing,
                                                   BidsDatasetProblem* problem);

// A label as BIDS allows it (letters and digits only), with any "sub-"/"ses-" removed;
// empty when it is not one.
std::string BidsCleanLabel(const std::string& text, const char* prefix);

// The numbers of an FSL .bval/.bvec text, row by row (any blank space separates them,
// empty lines are skipped). nullopt with *problem for a token that is not a finite number
// or more than kBidsMaxNumbers numbers.
constexpr size_t kBidsMaxNumbers = 1 << 20;
std::optional<std::vector<std::vector<double>>> ParseBidsGradientText(const std::string& text,
                                                                      std::string* problem);

// Compares the image's volume count with its sidecars; an empty string when they fit,
// else a message naming the file at fault.
std::string CheckBidsDwiRun(const BidsDwiRun& run);
