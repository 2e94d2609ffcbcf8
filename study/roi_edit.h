// What the ROI editor's buttons do to a ROI: growing, eroding, dilating and clearing a
// voxel group, clearing and eroding or dilating a freehand region in its planes, and the
// 3D objects of the visible ROIs that the viewer shows.
//
// A voxel group edited here covers the whole volume (origin 0, the volume's size, one
// byte a voxel); a group of another box or storage kind is first redrawn into such a
// group, voxel for voxel. Every edit refuses a locked ROI with
// "Uneditable ROI refered by study(ies)\n" and changes nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "dti/dti_data.h"
#include "study/roi_object.h"
#include "vol/serialize.h"

// Gives a voxelgroup ROI a whole-volume group of this size (keeping its voxels). 0, or
// -1 for another type, a size without voxels or no memory.
int PCD_EnsureWholeVolumeVoxelGroup(PcdRoiObject* roi, const PcdIntSize3D* size);

// "3D Grow": region growing (by the ROI's growing core) from the group's voxels over the
// data set. 0 when grown, -1 when refused (locked, not a voxelgroup, no voxels to grow
// from, or the growing's own "Err: " line).
int PCD_GrowVoxelGroupRoi(const PcdDtiData* dti, PcdRoiObject* roi);
// "Erode" / "Dilate": one step of 3D morphology on the group. 0, or -1.
int PCD_MorphVoxelGroupRoi(PcdRoiObject* roi, const PcdIntSize3D* size, bool dilate);
// "Clear": no voxels (voxel group) or no points (freehand). 0, or -1 when locked.
int PCD_ClearRoiRegion(PcdRoiObject* roi);
// "2D Erosion" / "2D Dilation" of a freehand ROI, slice by slice in its 256 x 256
// planes, four face neighbours. 0, or -1 (locked, another type, or the result would hold
// more points than the shape record takes, in which case nothing changes).
int PCD_MorphFreehandRoi(PcdRoiObject* roi, bool dilate);

// Voxels that the ROI covers in a volume of this size.
int64_t PCD_CountRoiVoxels(const PcdRoiObject* roi, const PcdIntSize3D* size);

// Display objects of the ROI 3D objects: one per visible ROI, its value the ROI's id, its
// colour the ROI's colour. A spherical ROI is object 13 (40 bytes: centre x, y, z and
// radius as floats in voxel units, then six zero words); freehand and voxelgroup ROIs are
// point lists, object 61 without extras (int32 k, one zero byte, k voxel centres as three
// floats each).
PcdObjectGroup PCD_BuildRoiObjectGroup(const PcdRoiList* rois, const PcdIntSize3D* size);
