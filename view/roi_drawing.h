// ROI edits made with the mouse in a pane, and their undo and redo. Every edit goes
// through one record: the ROI's geometry is kept before and after, so undo and redo put
// back exactly what was there, whatever the kind of edit. A locked ROI (one a study
// refers to) is never drawn on.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "study/roi_object.h"
#include "view/slice_pane.h"

struct PcdRoiEditHistory {
  struct Step {
    uint16_t roiId;
    std::vector<uint8_t> before, after;  // the ROI's serialized form
  };
  std::vector<Step> undo, redo;
  // the edit under way (between begin and end)
  bool open = false;
  uint16_t openId = kPcdNoObject;
  std::vector<uint8_t> openBefore;
};

// Starts an edit of roi; false (with "Uneditable ROI refered by study(ies)\n" on the
// console for a locked one) when it may not be edited.
bool PCDview_BeginRoiEdit(PcdRoiEditHistory* history, const PcdRoiObject* roi);
// Ends it: a step that changed something becomes undoable and the redo list is cleared.
void PCDview_EndRoiEdit(PcdRoiEditHistory* history, const PcdRoiObject* roi);
// Puts back the geometry before (undo) or after (redo) the last step; false when there is
// nothing to do or its ROI is gone. The ROI's label, status, visibility and colour stay.
bool PCDview_UndoRoiEdit(PcdRoiEditHistory* history, PcdRoiList* rois);
bool PCDview_RedoRoiEdit(PcdRoiEditHistory* history, PcdRoiList* rois);
void PCDview_ClearRoiEditHistory(PcdRoiEditHistory* history);

// Calls visit(x, y, z) for every voxel of the volume within radius voxels of centre on
// the pane's section: a disc of the brush's size in the section's plane.
void PCDview_ForBrushVoxels(const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                            const PcdVector3D& centre, float radius,
                            const std::function<void(int32_t, int32_t, int32_t)>& visit);

// A sphere at centre with this radius (voxels, at least 1 as the editor allows).
void PCDview_SetRoiSphere(PcdRoiObject* roi, const PcdVector3D& centre, float radius);

// Paints (on = 1) or erases (on = 0) the voxels of a voxelgroup ROI within radius voxels
// of centre on the pane's section (a disc of the brush's size in the section's plane).
// The group grows to the whole volume first when it does not cover it. The number of
// voxels changed, or -1 when the ROI is no voxelgroup or the volume size is not usable.
int PCDview_PaintRoiVoxels(PcdRoiObject* roi, const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                           const PcdVector3D& centre, float radius, int on);

// A freehand ROI from a closed contour drawn in an axis-aligned pane (pane pixel
// coordinates): its points become the voxels of the section whose centre lies inside the
// contour. -1 with a "Warning: " line when the pane is not axis-aligned or the region has
// more voxels than a freehand ROI holds (the ROI is then left as it was); else the
// number of points.
int PCDview_SetRoiFreehand(PcdRoiObject* roi, const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                           const std::vector<PcdVector2D>& contour);
