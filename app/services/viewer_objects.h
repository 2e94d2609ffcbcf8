// The 3D objects that this program shows in the viewer: the ROI 3D objects (the visible
// ROIs, in the program's own object group) and each study's result (in the study's
// object group), with the fiber results kept for redrawing and voxelizing.
#pragma once

#include <vector>

#include "fiber/trakline.h"
#include "study/study_object.h"
#include "study/trackline_objects.h"

// Sends an object group into an existing group: "Sending object for (%s) with ID (%d) ..."
// then "done\n". 0, or -1 (no link, or the transfer failed).
int PCD_SendObjectGroupToViewer(const char* what, const PcdObjectGroup& group, int32_t groupId);

// "/Setting/ROI 3D object": Show, Update sets the shown flag and sends; Hide empties the
// group in the viewer and clears the flag. Update resends only while they are shown.
void PCD_ShowRoi3DObjects();
void PCD_HideRoi3DObjects();
void PCD_UpdateRoi3DObjects();
// After an edit of a ROI: resent when the auto-update flag is on.
void PCD_AutoUpdateRoi3DObjects();

// A new study's object group in the viewer (-1 when none could be made).
int32_t PCD_AllocateStudyObjectGroup();
// Keeps the selected half-lines of a run for the study and sends them to its group.
void PCD_TakeStudyFiberResult(const PcdStudyObject* study, const PcdFibeTrakBuffer* buffer);
// Resends every study's group: its kept lines when visible, an empty group when hidden.
void PCD_UpdateStudy3DObjects();
// Forgets kept results of studies that are gone.
void PCD_ForgetRemovedStudyResults();
// The kept half-lines of every visible study.
std::vector<PcdPolyline> PCD_GetVisibleTrackLines();
