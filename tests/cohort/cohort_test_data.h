// Test data sets of the cohort tests: phantom subjects in BIDS layout and label images.
#pragma once

#include <cstdint>
#include <string>

#include "tools/phantom/phantom.h"

namespace cohort_test {

constexpr int kX = 24, kY = 24, kZ = 12;

// Writes a 24 x 24 x 12 phantom (1 So + 12 directions, a little noise from seed) as
// root/dir/<prefix>_dwi.nii.gz with its .bval and .bvec. truth, when given, receives
// the true maps.
void WriteSubject(const std::string& root, const std::string& dir, const std::string& prefix,
                  uint32_t seed, PcdPhantomTruth* truth = nullptr, float noise = 0.02f);

// The label of a voxel in the test atlas: three slabs across x in the lower half, two
// across y in the upper half.
int AtlasLabel(int x, int y, int z);
// Writes the test atlas as an int16 NIfTI image.
void WriteAtlas(const std::string& path);

}  // namespace cohort_test
