// The distance between two voxel groups: the smallest distance between a voxel centre of
// one and a voxel centre of the other, "Distance between 2 voxelgroups: %4.3f(mm)\n".
//
// Only boundary voxels (a face neighbour outside the group) can be nearest: from an
// inner voxel one step towards the other group along the axis of the largest gap comes
// closer. The boundary of one group goes into a k-d tree, and every boundary voxel of the
// other asks it for its nearest point below the best distance found so far. Squared
// distances are whole numbers of voxels, compared exactly in 64 bits, so the result is
// the same number the comparison of every pair gives.
#pragma once

#include <cstdint>
#include <string>

#include "study/roi_object.h"

// Voxel coordinates (group origin + index) must lie within +-2^29 so that squared
// distances fit 64 bits.
constexpr int64_t kPcdVoxelDistanceRange = int64_t{1} << 29;

// The smallest squared distance between the groups' voxel centres, in voxels squared:
// 0 when they share a voxel, -1 when either group is missing or empty, -2 when a voxel
// lies beyond kPcdVoxelDistanceRange.
int64_t PCD_GetVoxelGroupSquaredDistance(const PcdVoxelGroup* a, const PcdVoxelGroup* b);
// The same by comparing every pair of voxels; kept to show that the tree gives the same.
int64_t PCD_GetVoxelGroupSquaredDistanceByPairs(const PcdVoxelGroup* a, const PcdVoxelGroup* b);

// The distance between two voxelgroup ROIs of the list in mm (voxel size in mm per
// voxel), written to the console and into *line as "Distance between 2 voxelgroups:
// %4.3f(mm)\n". 0, or -1 with an "Err: " line when an id names no voxelgroup ROI, a group
// is empty or out of range.
int PCD_RunVoxelGroupDistance(const PcdRoiList* rois, uint16_t idA, uint16_t idB, float voxelSize,
                              std::string* line);
