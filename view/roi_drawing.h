// ROI edits made with the mouse in a pane, and their undo and redo. Every edit goes
// through one record: the ROI's geometry is kept before and after, so undo and redo put
// back exactly what was there, whatever the kind of edit. A locked ROI (one a study
// refers to) is never drawn on. A study's own region (a sphere or a freehand contour
// drawn with the seed, target or avoidance palette) is edited and undone the same way,
// on the same history.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "study/roi_object.h"
#include "study/study_object.h"
#include "view/slice_pane.h"

struct PcdRoiEditHistory {
  struct Step {
    uint16_t roiId;
    std::vector<uint8_t> before, after;  // the ROI's serialized form, or the region's
    int32_t region = -1;                 // >= 0: region of the study roiId names
  };
  std::vector<Step> undo, redo;
  // the edit under way (between begin and end)
  bool open = false;
  uint16_t openId = kPcdNoObject;
  int32_t openRegion = -1;
  std::vector<uint8_t> openBefore;
};

// Starts an edit of roi; false (with "Uneditable ROI refered by study(ies)\n" on the
// console for a locked one) when it may not be edited.
bool PCDview_BeginRoiEdit(PcdRoiEditHistory* history, const PcdRoiObject* roi);
// Ends it: a step that changed something becomes undoable and the redo list is cleared.
void PCDview_EndRoiEdit(PcdRoiEditHistory* history, const PcdRoiObject* roi);
// Puts back the geometry before (undo) or after (redo) the last step; false when there is
// nothing to do or its ROI (or study) is gone. The ROI's label, status, visibility and
// colour stay. studied, when given, tells whether the step was a study region's.
bool PCDview_UndoRoiEdit(PcdRoiEditHistory* history, PcdRoiList* rois, PcdStudyList* studies = nullptr,
                         bool* studied = nullptr);
bool PCDview_RedoRoiEdit(PcdRoiEditHistory* history, PcdRoiList* rois, PcdStudyList* studies = nullptr,
                         bool* studied = nullptr);

// ---- study regions ------------------------------------------------------------------
// The region a palette (PCD_PALETTE_SEED, _TARGET, _AVOIDANCE) draws in a study: the
// seed, target or avoidance region of tracking and modeling; the one region of voxel
// statistics and diffusion profile whichever of the three is chosen. -1 for none.
int32_t PCDview_RegionOfPalette(const PcdStudyObject* study, int32_t palette);
// The kind a region is drawn as: kPcdRegionFreehand when it is a freehand region (the
// seed region by its seed source), else kPcdRegionSphere. 0 for no such region.
int32_t PCDview_DrawnRegionKind(const PcdStudyObject* study, int32_t region);
// Starts and ends an edit of a study's region (its use, kind and shape are kept).
bool PCDview_BeginRegionEdit(PcdRoiEditHistory* history, const PcdStudyObject* study, int32_t region);
void PCDview_EndRegionEdit(PcdRoiEditHistory* history, const PcdStudyObject* study);
// Makes the region a sphere at centre with this radius (at least 1 voxel), or the
// freehand region of a closed contour (as PCDview_SetRoiFreehand); the region takes part
// (use 432), its kind follows, and so do the seed source of a seed region and the mode
// of a statistics region. The freehand one returns as PCDview_SetRoiFreehand.
void PCDview_SetRegionSphere(PcdStudyObject* study, int32_t region, const PcdVector3D& centre, float radius);
int PCDview_SetRegionFreehand(PcdStudyObject* study, int32_t region, const PcdIntSize3D& volume,
                              const PcdPaneGeometry& g, const std::vector<PcdVector2D>& contour);
// The drawn regions of a study (sphere and freehand regions that take part) as ROI
// records for the overlays, coloured by role: seed green, target blue, avoidance red,
// the region of statistics and profile yellow. Ids are the region indexes.
void PCDview_GetRegionOverlays(const PcdStudyObject* study, PcdRoiList* out);
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
