// The " ROI editor " page: list, label, notebook, and the hand-over between them.
#include "study/gui/roi_editor.h"

#include <cstdio>
#include <string>

#include "app/services/accessible.h"
#include "app/services/app_state.h"
#include "app/services/notices.h"
#include "app/services/viewer_objects.h"
#include "study/roi_edit.h"

namespace {

enum RoiColumn { kColNumber, kColType, kColVisible, kColStatus, kColLabel, kColId };

PcdRoiList* rois() { return &pcd_app->session.rois; }

PcdIntSize3D volume_size() { return PCD_GetSessionMatrixSize(&pcd_app->session); }

void fill_summary(PcdRoiEditor* e, const PcdRoiObject* roi) {
  if (roi == nullptr) {
    PCD_SetTextViewText(e->summary, "");
    gtk_label_set_text(GTK_LABEL(e->info), "");
    return;
  }
  const PcdIntSize3D size = volume_size();
  char text[512];
  std::snprintf(text, sizeof text, "%s\ntype: %s\nid: %u\nstatus: %s\nvisible: %s\nvoxels: %lld\n", roi->label,
                kPcdRoiTypes[roi->type].label, roi->id, roi->status == 1 ? "locked" : "free",
                roi->visible == 1 ? "yes" : "no", static_cast<long long>(PCD_CountRoiVoxels(roi, &size)));
  PCD_SetTextViewText(e->summary, text);
  std::snprintf(text, sizeof text, " ID: %u    type: %s    %s", roi->id, kPcdRoiTypes[roi->type].label,
                roi->status == 1 ? "locked" : "free");
  gtk_label_set_text(GTK_LABEL(e->info), text);
  const GdkRGBA rgba{roi->red / 65535.0, roi->green / 65535.0, roi->blue / 65535.0, 1.0};
  gtk_color_chooser_set_rgba(GTK_COLOR_CHOOSER(e->color), &rgba);
}

// Fills every control from the ROI (guarded: the handlers do not write back).
void load_editors(PcdRoiEditor* e, const PcdRoiObject* roi) {
  e->filling = true;
  e->shownId = roi ? roi->id : kPcdNoObject;
  for (int t = 0; t < 3; ++t) gtk_widget_set_visible(e->editors[t], roi != nullptr && roi->type == t);
  gtk_widget_set_visible(e->noRoi, roi == nullptr);
  if (roi != nullptr) {
    if (roi->type == PCD_ROI_SPHERICAL) pcd_load_sphere_editor(e, roi);
    if (roi->type == PCD_ROI_VOXELGROUP) pcd_load_growing_editor(e, roi);
    gtk_widget_set_sensitive(e->editors[roi->type], roi->status != 1);  // locked: not editable
  }
  gtk_entry_set_text(GTK_ENTRY(e->label), roi ? roi->label : "");
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(e->visible), roi && roi->visible == 1);
  gtk_widget_set_sensitive(e->label, roi != nullptr);
  gtk_widget_set_sensitive(e->visible, roi != nullptr);
  fill_summary(e, roi);
  e->filling = false;
}

void fill_rows(PcdRoiEditor* e) {
  gtk_list_store_clear(e->store);
  for (const auto& roi : rois()->items) {
    GtkTreeIter iter;
    gtk_list_store_append(e->store, &iter);
    const std::string number = std::to_string(roi->id);
    gtk_list_store_set(e->store, &iter, kColNumber, number.c_str(), kColType, kPcdRoiTypes[roi->type].label,
                       kColVisible, roi->visible == 1 ? "o" : "-", kColStatus, roi->status == 1 ? "locked" : "free",
                       kColLabel, roi->label, kColId, static_cast<guint>(roi->id), -1);
  }
}

void on_row_selected(GtkTreeSelection*, gpointer) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr || e->filling) return;
  const uint16_t id = PCD_GetSelectedListId(e->list, kColId);
  if (id != kPcdNoObject && id != e->shownId) PCD_SelectRoi(id);
}

// Editing the entry renames the selected ROI; its row follows.
void on_label_changed(GtkEditable*, gpointer) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr || e->filling) return;
  PcdRoiObject* roi = PCD_FindRoiObject(rois(), e->shownId);
  if (roi == nullptr) return;
  PCD_SetRoiLabel(roi, gtk_entry_get_text(GTK_ENTRY(e->label)));
  PCD_SetListRowText(e->store, kColId, roi->id, kColLabel, roi->label);
}

void on_visible_toggled(GtkToggleButton* button, gpointer) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr || e->filling) return;
  PcdRoiObject* roi = PCD_FindRoiObject(rois(), e->shownId);
  if (roi == nullptr) return;
  roi->visible = gtk_toggle_button_get_active(button) ? 1 : 0;
  PCD_RefreshRoiEditor();
  PCD_UpdateRoi3DObjects();
}

void on_color_set(GtkColorButton* button, gpointer) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  PcdRoiObject* roi = e ? PCD_FindRoiObject(rois(), e->shownId) : nullptr;
  if (roi == nullptr || e->filling) return;
  GdkRGBA rgba;
  gtk_color_chooser_get_rgba(GTK_COLOR_CHOOSER(button), &rgba);
  roi->red = static_cast<uint16_t>(rgba.red * 65535.0 + 0.5);
  roi->green = static_cast<uint16_t>(rgba.green * 65535.0 + 0.5);
  roi->blue = static_cast<uint16_t>(rgba.blue * 65535.0 + 0.5);
  pcd_roi_changed_by_editor();
}

GtkWidget* build_roi_tab(PcdRoiEditor* e) {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  gtk_container_set_border_width(GTK_CONTAINER(box), 2);
  e->editors[PCD_ROI_SPHERICAL] = pcd_build_sphere_editor(e);
  e->editors[PCD_ROI_FREEHAND] = pcd_build_freehand_editor(e);
  e->editors[PCD_ROI_VOXELGROUP] = pcd_build_growing_editor(e);
  for (GtkWidget* editor : e->editors) {
    gtk_widget_show_all(editor);  // its controls; the editor itself only for its type
    gtk_widget_set_no_show_all(editor, TRUE);
    gtk_widget_hide(editor);
    gtk_box_pack_start(GTK_BOX(box), editor, FALSE, FALSE, 0);
  }
  e->noRoi = gtk_label_new("(no ROI)");
  gtk_widget_set_no_show_all(e->noRoi, TRUE);
  gtk_box_pack_start(GTK_BOX(box), e->noRoi, FALSE, FALSE, 8);
  return box;
}

GtkWidget* build_setting_tab(PcdRoiEditor* e) {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
  gtk_container_set_border_width(GTK_CONTAINER(box), 4);
  e->info = gtk_label_new("");
  gtk_label_set_xalign(GTK_LABEL(e->info), 0.0f);
  gtk_box_pack_start(GTK_BOX(box), e->info, FALSE, FALSE, 0);
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
  gtk_box_pack_start(GTK_BOX(row), gtk_label_new(" color "), FALSE, FALSE, 0);
  e->color = gtk_color_button_new();
  g_signal_connect(e->color, "color-set", G_CALLBACK(on_color_set), nullptr);
  gtk_box_pack_start(GTK_BOX(row), e->color, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(box), row, FALSE, FALSE, 0);
  return box;
}

}  // namespace

PcdRoiEditor* PCD_GetRoiEditor() { return pcd_app ? static_cast<PcdRoiEditor*>(pcd_app->roiEditor) : nullptr; }

GtkWidget* PCD_BuildRoiEditorPage() {
  auto* e = new PcdRoiEditor;
  pcd_app->roiEditor = e;
  e->page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  PCD_BuildMenuBar(kPcdRoiMenu, kPcdRoiMenuEntryCount, nullptr, pcd_app->accelGroup, &e->menu);
  gtk_box_pack_start(GTK_BOX(e->page), e->menu.bar, FALSE, FALSE, 0);

  static const char* const kTitles[] = {" # ", " type ", " vis.", " status ", " label     "};
  GtkWidget* scroll = PCD_NewObjectList(kTitles, 5, &e->list, &e->store);
  gtk_widget_set_size_request(scroll, -1, 150);
  gtk_box_pack_start(GTK_BOX(e->page), scroll, FALSE, TRUE, 0);
  g_signal_connect(gtk_tree_view_get_selection(GTK_TREE_VIEW(e->list)), "changed", G_CALLBACK(on_row_selected),
                   nullptr);

  e->visible = gtk_check_button_new_with_label(" visible");
  g_signal_connect(e->visible, "toggled", G_CALLBACK(on_visible_toggled), nullptr);
  gtk_box_pack_start(GTK_BOX(e->page), e->visible, FALSE, FALSE, 0);
  e->label = gtk_entry_new();
  PCD_SetAccessibleName(e->label, "ROI label");
  g_signal_connect(e->label, "changed", G_CALLBACK(on_label_changed), nullptr);
  gtk_box_pack_start(GTK_BOX(e->page), e->label, FALSE, FALSE, 0);

  e->notebook = PCD_NewSmallNotebook();
  PCD_AppendNotebookPage(e->notebook, build_roi_tab(e), "ROI");
  PCD_AppendNotebookPage(e->notebook, build_setting_tab(e), "Setting");
  GtkWidget* summary = PCD_NewTextPage(&e->summary);
  gtk_text_view_set_editable(GTK_TEXT_VIEW(e->summary), FALSE);
  PCD_AppendNotebookPage(e->notebook, summary, "Summary");
  gtk_box_pack_start(GTK_BOX(e->page), e->notebook, TRUE, TRUE, 0);
  load_editors(e, nullptr);
  return e->page;
}

void PCD_DeleteRoiEditor() {
  delete PCD_GetRoiEditor();
  if (pcd_app) pcd_app->roiEditor = nullptr;
}

void PCD_StoreRoiEditor() {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr || e->filling) return;
  PcdRoiObject* roi = PCD_FindRoiObject(rois(), e->shownId);
  if (roi == nullptr || roi->status == 1) return;  // a locked ROI is not edited
  if (roi->type == PCD_ROI_SPHERICAL) pcd_store_sphere_editor(e, roi);
  if (roi->type == PCD_ROI_VOXELGROUP) pcd_store_growing_editor(e, roi);
}

void PCD_RefreshRoiEditor() {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr) return;
  const PcdRoiObject* roi = PCD_GetSelectedRoiObject(rois());
  e->filling = true;
  fill_rows(e);
  PCD_SelectListId(e->list, kColId, roi ? roi->id : kPcdNoObject);
  e->filling = false;
  load_editors(e, roi);
  PCD_NoticeRoisChanged();  // a list that changed (new, deleted, loaded ROIs) shows in the panes at once
}

void PCD_SelectRoi(uint16_t id) {
  PCD_StoreRoiEditor();
  if (PCD_FindRoiObject(rois(), id) == nullptr) return;
  rois()->selectedId = id;
  PCD_RefreshRoiEditor();
}

PcdRoiObject* PCD_NewRoiFromEditor(int32_t type) {
  PCD_StoreRoiEditor();
  const PcdIntSize3D size = volume_size();
  PcdRoiObject* roi = PCD_NewRoiObject(rois(), type, &size);
  PCD_RefreshRoiEditor();
  return roi;
}

void pcd_roi_changed_by_editor() {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr || e->filling) return;
  fill_summary(e, PCD_FindRoiObject(rois(), e->shownId));
  PCD_AutoUpdateRoi3DObjects();
  PCD_NoticeRoisChanged();  // a typed centre or radius moves the drawn ROI now
}
