// The gradient-table check: which axis permutation and sign flips of the MPG setting make
// the most coherent fibers. For each candidate the tensors are refitted and tracked briefly
// from a grid of seeds in the high-FA voxels; the mean fiber length scores it (the
// fiber-coherence criterion of Jeurissen et al. 2014). A wrong table turns the principal
// directions away from the bundles, and the fibers leave them early.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "dti/dti_data.h"

// One candidate table: component i of every direction becomes sign[i] * old component
// axis[i]. Negating every direction changes no tensor, so each candidate stands for two
// tables; the one listed has at most one minus sign, the other is its negation.
struct PcdGradientCandidate {
  int8_t axis[3] = {0, 1, 2};
  int8_t sign[3] = {1, 1, 1};
  double meanLength = 0.0;  // mean fiber length in mm (both halves of every seed's fiber)
};

struct PcdGradientCheckOptions {
  float seedFaMin = 0.4f;     // seeds in voxels of at least this FA
  int32_t maxSeeds = 2000;    // the seed grid is thinned to stay below this
  int32_t nodeLimit = 60;     // per half-fiber: tracking is brief
  float step = 0.5f;          // voxels
  float trackFaMin = 0.2f;
  float angleMax = 45.0f;     // degrees between steps
  int32_t threads = 1;
  // optional, one entry per voxel (x fastest): where seeds may lie, and FA (0..1) when it
  // is already known (otherwise the tensors of the seed grid are fitted here)
  const std::vector<uint8_t>* mask = nullptr;
  const std::vector<float>* fa = nullptr;
};

struct PcdGradientCheck {
  std::vector<PcdGradientCandidate> candidates;  // 24; [0] is the table as given
  int32_t best = 0;         // index of the best candidate
  int32_t seedCount = 0;
  bool tableIsBest = true;  // the table as given scores best (ties go to it)
};

// The 24 candidates in their fixed order, the table as given first.
std::vector<PcdGradientCandidate> PCDdti_GradientCandidates();
// Scores every candidate. False with an "Err: " line when the data set cannot be analysed
// or has no voxel to seed from.
bool PCDdti_CheckGradientTable(const PcdDtiData* dti, const PcdGradientCheckOptions& options,
                               PcdGradientCheck* result);
// Rewrites the directions of the data set's setting as the candidate says.
void PCDdti_ApplyGradientCandidate(const PcdGradientCandidate& candidate, PcdDtiData* dti);
// "x y z", "-y x z": what each component becomes; the second form is the negation.
std::string PCDdti_DescribeGradientCandidate(const PcdGradientCandidate& candidate);
std::string PCDdti_DescribeEquivalentCandidate(const PcdGradientCandidate& candidate);
// A candidate's score below the best by no more than this fraction counts as a tie.
constexpr double kPcdGradientTie = 0.01;
// The verdict as one short text for tables and reports: "as given" when the table as
// given is best, else the better candidate, e.g. "-x y z".
std::string PCDdti_GradientVerdict(const PcdGradientCheck& check);
// The table of candidates, one line each, best first by score, with the table as given
// and the winner marked.
void PCDdti_PrintGradientCheck(const PcdGradientCheck& check, std::FILE* out);
