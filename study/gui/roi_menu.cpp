// The "/ROI" menu: one row per item-factory entry, separators included, and its commands.
#include "app/services/app_state.h"
#include "app/services/viewer_link.h"
#include "app/services/viewer_objects.h"
#include "study/gui/roi_editor.h"
#include "study/roi_edit.h"

namespace {

constexpr PcdMenuKind kItem = PcdMenuKind::Item;
constexpr PcdMenuKind kBranch = PcdMenuKind::Branch;
constexpr PcdMenuKind kSep = PcdMenuKind::Separator;

PcdRoiList* rois() { return &pcd_app->session.rois; }

void cmd_roi_new(gpointer, guint type, GtkWidget*) {
  if (PCD_NewRoiFromEditor(static_cast<int32_t>(type)) != nullptr) PCD_UpdateRoi3DObjects();
}

void cmd_roi_duplicate(gpointer, guint, GtkWidget*) {
  PCD_StoreRoiEditor();
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(&pcd_app->session);
  PCD_DuplicateSelectedRoiObject(rois(), &size);
  PCD_RefreshRoiEditor();
}

void cmd_roi_delete(gpointer, guint, GtkWidget*) {
  if (PCD_GetSelectedRoiObject(rois()) == nullptr) return;
  PCD_StoreRoiEditor();
  if (PCD_DeleteSelectedRoiObject(rois()) != 0) return;  // locked: the console says so
  // the next ROI in the list takes the selection, as a list whose row went away does
  if (!rois()->items.empty()) rois()->selectedId = rois()->items.back()->id;
  PCD_RefreshRoiEditor();
  PCD_UpdateRoi3DObjects();
}

// action: command * 4 + ROI type
void cmd_roi_visibility(gpointer, guint action, GtkWidget*) {
  PCD_StoreRoiEditor();
  PCD_SetRoiVisibility(rois(), static_cast<PcdVisibilityCommand>(action / 4), static_cast<int32_t>(action % 4));
  PCD_RefreshRoiEditor();
  PCD_UpdateRoi3DObjects();
}

void cmd_roi_status(gpointer, guint status, GtkWidget*) {
  PCD_StoreRoiEditor();
  PCD_ForceStatusOfSelectedRoi(rois(), static_cast<int32_t>(status));
  PCD_RefreshRoiEditor();
}

// The box VOI is the region the viewer broadcasts.
void cmd_roi_mask(gpointer, guint inside, GtkWidget*) {
  if (PCD_GetSelectedRoiObject(rois()) == nullptr) return;
  PcdIntVector3D origin{0, 0, 0};
  PcdIntSize3D size{1, 1, 1};
  PCD_StoreRoiEditor();
  const PcdRoiObject* roi = PCD_GetSelectedRoiObject(rois());
  if (roi->status != 1 && roi->type == PCD_ROI_VOXELGROUP && pcd_viewer_get_box(&origin, &size) != 0) return;
  const PcdIntSize3D volume = PCD_GetSessionMatrixSize(&pcd_app->session);
  if (roi->type == PCD_ROI_VOXELGROUP && roi->status != 1)
    PCD_EnsureWholeVolumeVoxelGroup(PCD_GetSelectedRoiObject(rois()), &volume);
  if (PCD_MaskSelectedVoxelGroupByBox(rois(), &origin, &size, static_cast<int>(inside)) != 0) return;
  PCD_RefreshRoiEditor();
  PCD_AutoUpdateRoi3DObjects();
}

constexpr guint vis(PcdVisibilityCommand command, int32_t type = 0) {
  return static_cast<guint>(command) * 4 + static_cast<guint>(type);
}

}  // namespace

const PcdMenuEntry kPcdRoiMenu[kPcdRoiMenuEntryCount] = {
    {"/ROI", nullptr, kBranch, nullptr, 0, nullptr},
    {"/ROI/New/Spherical", nullptr, kItem, cmd_roi_new, PCD_ROI_SPHERICAL, nullptr},
    {"/ROI/New/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/New/Freehand", nullptr, kItem, cmd_roi_new, PCD_ROI_FREEHAND, nullptr},
    {"/ROI/New/Voxelgroup", nullptr, kItem, cmd_roi_new, PCD_ROI_VOXELGROUP, nullptr},
    {"/ROI/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Duplicate", nullptr, kItem, cmd_roi_duplicate, 0, nullptr},
    {"/ROI/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Delete", nullptr, kItem, cmd_roi_delete, 0, nullptr},
    {"/ROI/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Show/All", nullptr, kItem, cmd_roi_visibility, vis(PCD_SHOW_ALL), nullptr},
    {"/ROI/Visibility/Show/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Show/Only/Spherical", nullptr, kItem, cmd_roi_visibility,
     vis(PCD_SHOW_ONLY_TYPE, PCD_ROI_SPHERICAL), nullptr},
    {"/ROI/Visibility/Show/Only/Freehand", nullptr, kItem, cmd_roi_visibility,
     vis(PCD_SHOW_ONLY_TYPE, PCD_ROI_FREEHAND), nullptr},
    {"/ROI/Visibility/Show/Only/Voxelgroup", nullptr, kItem, cmd_roi_visibility,
     vis(PCD_SHOW_ONLY_TYPE, PCD_ROI_VOXELGROUP), nullptr},
    {"/ROI/Visibility/Show/Only/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Show/Only/Selected", nullptr, kItem, cmd_roi_visibility, vis(PCD_SHOW_ONLY_SELECTED),
     nullptr},
    {"/ROI/Visibility/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Hide/All", nullptr, kItem, cmd_roi_visibility, vis(PCD_HIDE_ALL), nullptr},
    {"/ROI/Visibility/Hide/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Hide/Only/Spherical", nullptr, kItem, cmd_roi_visibility,
     vis(PCD_HIDE_ONLY_TYPE, PCD_ROI_SPHERICAL), nullptr},
    {"/ROI/Visibility/Hide/Only/Freehand", nullptr, kItem, cmd_roi_visibility,
     vis(PCD_HIDE_ONLY_TYPE, PCD_ROI_FREEHAND), nullptr},
    {"/ROI/Visibility/Hide/Only/Voxelgroup", nullptr, kItem, cmd_roi_visibility,
     vis(PCD_HIDE_ONLY_TYPE, PCD_ROI_VOXELGROUP), nullptr},
    {"/ROI/Visibility/Hide/Only/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Hide/Only/Selected", nullptr, kItem, cmd_roi_visibility, vis(PCD_HIDE_ONLY_SELECTED),
     nullptr},
    {"/ROI/Visibility/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Visibility/Invert", nullptr, kItem, cmd_roi_visibility, vis(PCD_INVERT_VISIBILITY), nullptr},
    {"/ROI/sep4", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Status/Force locked", nullptr, kItem, cmd_roi_status, 1, nullptr},
    {"/ROI/Status/Force unlocked", nullptr, kItem, cmd_roi_status, 0, nullptr},
    {"/ROI/sep5", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Masking voxelgroup/Erase inside box VOI", nullptr, kItem, cmd_roi_mask, 1, nullptr},
    {"/ROI/Masking voxelgroup/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/ROI/Masking voxelgroup/Erase outside box VOI", nullptr, kItem, cmd_roi_mask, 0, nullptr},
};
