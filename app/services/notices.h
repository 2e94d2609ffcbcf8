// What the study pages (study/gui/) and the slice views (view/) tell each other. Neither
// knows the other: the layer beneath both carries the notices, and the main window's
// start-up connects each to its listener. A notice nobody listens to is dropped.
#pragma once

#include <functional>

#include "study/roi_object.h"
#include "vol/raw_volume.h"

// ---- from the pages to the views
// A study's result was stored into (or dropped from) the fiber and glyph overlays: the
// slice views draw again.
extern std::function<void()> pcd_notice_study_result;
// The box VOI dragged in the views; false (and nothing written) while there is none.
extern std::function<bool(PcdIntVector3D* origin, PcdIntSize3D* size)> pcd_notice_box_voi;

// ---- from the views to the pages
// The mouse changed a ROI (the ROI editor refreshes its controls); ROIs were added (its list).
extern std::function<void(PcdRoiObject*)> pcd_view_roi_edited;
extern std::function<void()> pcd_view_rois_added;

// The notices sent, each only when connected.
void PCD_NoticeStudyResult();
bool PCD_NoticeBoxVoi(PcdIntVector3D* origin, PcdIntSize3D* size);
