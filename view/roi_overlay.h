// ROIs over a pane, each only while it is visible: a voxel group or a freehand region as
// its voxels on the section, filled and translucent; a sphere as the voxels it takes plus
// its circle where the section cuts it; the box VOI as a dashed rectangle.
#pragma once

#include <cairo.h>

#include <cstdint>

#include "study/roi_object.h"
#include "view/slice_pane.h"

// Whether a ROI takes voxel (x, y, z) of the volume: the same voxels as the ROI's
// rasterisation (a sphere's voxels are those whose centre lies within the radius).
struct PcdRoiVoxelTest {
  const PcdRoiObject* roi = nullptr;
  std::vector<uint32_t> freehandKeys;  // sorted x | y << 8 | z << 16
  bool Contains(int32_t x, int32_t y, int32_t z) const;
};
PcdRoiVoxelTest PCDview_MakeRoiVoxelTest(const PcdRoiObject* roi);

// Draws the visible ROIs of the list; the selected one with a brighter outline.
void PCDview_DrawRoiOverlays(cairo_t* cr, const PcdPaneGeometry& g, const PcdRoiList* rois);

// The box VOI (origin and size in voxels) where the section cuts it.
void PCDview_DrawBoxVoi(cairo_t* cr, const PcdPaneGeometry& g, const PcdIntVector3D& origin,
                        const PcdIntSize3D& size);
