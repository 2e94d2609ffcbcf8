// The " ROI editor " page: the "/ROI" menu, the ROI list, the " visible" check button and
// the label entry, and the "ROI" / "Setting" / "Summary" notebook whose "ROI" page holds
// the editor of the selected ROI's type (" Spherical ROI ", " Freehand ROI ",
// " Voxel growing ").
//
// Values go from the editors into the ROI shown in them before another ROI is shown
// (store before select); while the editors are being filled from a ROI a guard flag
// keeps their change handlers from writing back.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>

#include "app/services/menu.h"
#include "study/gui/gui_util.h"
#include "study/roi_object.h"

constexpr int kPcdRoiMenuEntryCount = 34;
extern const PcdMenuEntry kPcdRoiMenu[kPcdRoiMenuEntryCount];

struct PcdRoiEditor {
  GtkWidget* page = nullptr;
  PcdMenuBar menu;
  GtkWidget* list = nullptr;
  GtkListStore* store = nullptr;
  GtkWidget* visible = nullptr;  // " visible"
  GtkWidget* label = nullptr;    // the label entry
  GtkWidget* notebook = nullptr; // "ROI", "Setting", "Summary"
  GtkWidget* editors[3] = {};    // the frames of the three type editors, by ROI type
  GtkWidget* noRoi = nullptr;    // shown on the "ROI" page when there is no ROI
  GtkWidget* info = nullptr;     // "Setting": id, type, status
  GtkWidget* color = nullptr;    // "Setting": the ROI's colour
  GtkWidget* summary = nullptr;  // "Summary" text view

  GtkWidget* sphere[4] = {};     // " x: ", " y: ", " z: ", "radius: "
  GtkWidget* freehand[3] = {};   // "Clear", "2D Erosion", "2D Dilation"
  PcdRadioGroup growIf;          // "Tensor Property" 654, "Single Signal" 345
  GtkWidget* growEntries[5] = {};  // "max step", " min FA ", "max angle", " min signal ", "max signal"
  GtkWidget* growButtons[4] = {};  // "3D Grow", "Erode", "Dilate", "Clear"
  PcdRadioGroup coloring;        // "uniform", "direction coding", "anisotropy coding"

  bool filling = false;              // the guard flag
  uint16_t shownId = kPcdNoObject;   // the ROI whose values the editors hold
};

// The page (kept in pcd_app->roiEditor); PCD_DeleteRoiEditor frees the private data.
GtkWidget* PCD_BuildRoiEditorPage();
void PCD_DeleteRoiEditor();
PcdRoiEditor* PCD_GetRoiEditor();  // null before the page exists

// Writes the editors' values into the ROI they show.
void PCD_StoreRoiEditor();
// Rebuilds the list, selects the selected ROI's row and fills the editors from it.
void PCD_RefreshRoiEditor();
// Store, select the ROI of this id, fill the editors (the list's selection handler).
void PCD_SelectRoi(uint16_t id);
// The ROI commands of the menu and of start-up: store, create, show in the editors.
PcdRoiObject* PCD_NewRoiFromEditor(int32_t type);

// ---- the type editors (one file each) ----
GtkWidget* pcd_build_sphere_editor(PcdRoiEditor* e);
void pcd_load_sphere_editor(PcdRoiEditor* e, const PcdRoiObject* roi);
void pcd_store_sphere_editor(PcdRoiEditor* e, PcdRoiObject* roi);
GtkWidget* pcd_build_freehand_editor(PcdRoiEditor* e);
GtkWidget* pcd_build_growing_editor(PcdRoiEditor* e);
void pcd_load_growing_editor(PcdRoiEditor* e, const PcdRoiObject* roi);
void pcd_store_growing_editor(PcdRoiEditor* e, PcdRoiObject* roi);
// After an editor changed the shown ROI: summary, views and ROI 3D objects follow.
void pcd_roi_changed_by_editor();
