// Binary channels: ROI masks whose every voxel is 0 (background) or 1 (foreground), in
// any data type (0.0 and 1.0 in float channels). The test for a binary channel, the counts
// of its voxels, the voxel-wise Boolean combination the ROI editor merges, intersects and
// cuts masks with, and one step of erosion or dilation.
//
// Erosion and dilation use the six face neighbours of a voxel (four in a plane): the
// same neighbourhood as region growing.
#pragma once

#include <cstdint>
#include <string>

#include "vol/raw_volume.h"

// 1 when every voxel of the channel is 0 or 1, else 0 (also for a missing channel or an
// invalid type code). Integer voxels are read unsigned, so -1 fails; float voxels must
// equal 0.0 or 1.0 exactly (NaN fails). An empty channel counts as binary.
int PCD_IsBinaryChannel(const PcdRawVolumeData* volume, int32_t channel);

// Voxels equal to 0, or -1 when the channel is not binary.
int64_t PCD_CountBackgroundVoxelsOfBinaryVolume(PcdRawVolumeData* volume, int32_t channel);
// Voxels minus the background count. A channel that is not binary therefore gives the
// number of voxels plus one: callers test for binary first.
int64_t PCD_CountForegroundVoxelsOfBinaryVolume(PcdRawVolumeData* volume, int32_t channel);

// Combines the source channel into the destination channel voxel by voxel, d the
// destination and s the source voxel, writing 1 (1.0) or 0 (0.0) in the destination's type:
//   "OR"   1 where s = 1, unchanged elsewhere
//   "AND"  1 where s = 1 and d = 1, 0 elsewhere
//   "NAND" 1 where d = 1 and s != 1, 0 elsewhere: the source cut out of the destination
//   "XOR"  1 where s != d, unchanged where they are equal (so a voxel set in both stays 1)
// Nothing happens unless both channels are binary and the volumes agree in x, y and z;
// any other operator text prints "Invalid operator <text>" and changes nothing. The
// destination and the source may be the same channel.
void PCD_BooleanOperationOfBinaryVolumes(PcdRawVolumeData* destination, int32_t destinationChannel,
                                         const PcdRawVolumeData* source, int32_t sourceChannel,
                                         const char* operatorText);

// One step of 3D morphology on a binary channel ("Erode" and "Dilate" of the voxel
// growing editor). Dilation sets every voxel that has a foreground face neighbour;
// erosion clears every foreground voxel that has a background face neighbour, and
// the outside of the volume counts as background. 0, or -1 with an "Err: " line (and
// nothing changed) when the channel is missing or not binary.
int PCD_ErodeBinaryVolume(PcdRawVolumeData* volume, int32_t channel);
int PCD_DilateBinaryVolume(PcdRawVolumeData* volume, int32_t channel);

// The same in one plane ("2D Erosion" and "2D Dilation" of a freehand ROI): a 2D array
// [y][x] of sizeX x sizeY elements of the given type, four face neighbours.
int PCD_ErodeBinary2DArray(Pcd2DArray array, int32_t sizeX, int32_t sizeY, int32_t type);
int PCD_DilateBinary2DArray(Pcd2DArray array, int32_t sizeX, int32_t sizeY, int32_t type);

// The problem with using channel 0 of mask as a region of a volume of the given size:
// the mask must exist with x, y and z equal to size's and channel 0 of one unsigned byte
// a voxel. "" when it fits, else an "Err: ...\n" line naming the problem.
std::string PCD_FindMaskProblem(const PcdRawVolumeData* mask, const PcdIntSize4D& size);
