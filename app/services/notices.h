// What the study pages (study/gui/) and the slice views (view/) tell each other. Neither
// knows the other: the layer beneath both carries the notices, and the main window's
// start-up connects each to its listener. A notice nobody listens to is dropped.
#pragma once

#include <functional>

#include "study/roi_object.h"
#include "study/study_object.h"
#include "vol/raw_volume.h"

// ---- from the pages to the views
// A study's result was stored into (or dropped from) the fiber and glyph overlays: the
// slice views draw again.
extern std::function<void()> pcd_notice_study_result;
// The study list or the selected study changed: the views draw again (the regions of the
// selected study, the visibility and results of the listed ones).
extern std::function<void()> pcd_notice_studies_changed;
// The ROI list or a ROI's values changed in the ROI editor: the slice views draw again.
extern std::function<void()> pcd_notice_rois_changed;
// The box VOI dragged in the views; false (and nothing written) while there is none.
extern std::function<bool(PcdIntVector3D* origin, PcdIntSize3D* size)> pcd_notice_box_voi;

// ---- from the views to the pages
// The mouse changed a ROI (the ROI editor refreshes its controls); ROIs were added (its list).
extern std::function<void(PcdRoiObject*)> pcd_view_roi_edited;
extern std::function<void()> pcd_view_rois_added;
// The mouse is about to change the selected study's region (the study performer stores
// its panel into the study) and has changed it (the performer shows the new region).
extern std::function<void()> pcd_view_study_edit_begins;
extern std::function<void(PcdStudyObject*)> pcd_view_study_edited;

// The notices sent, each only when connected.
void PCD_NoticeStudyResult();
void PCD_NoticeRoisChanged();
void PCD_NoticeStudiesChanged();
bool PCD_NoticeBoxVoi(PcdIntVector3D* origin, PcdIntSize3D* size);
