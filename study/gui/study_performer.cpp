// The " Study performer " page: list, label, the panel of the selected study, the
// analyse button.
#include "study/gui/study_performer.h"

#include <string>

#include "app/services/accessible.h"
#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/services/status_line.h"
#include "app/services/viewer_objects.h"
#include "study/gui/gui_util.h"
#include "study/gui/roi_editor.h"
#include "study/study_runner.h"
#include "view/fiber_overlay.h"
#include "view/glyph_overlay.h"
#include "app/services/notices.h"

namespace {

enum StudyColumn { kColNumber, kColType, kColVisible, kColStatus, kColLabel, kColId };

PcdStudyList* studies() { return &pcd_app->session.studies; }

const char* status_text(int32_t analysed) {
  switch (analysed) {
    case 0: return "-";
    case 1: return "done";
    default: return "old";  // analysed in an earlier session
  }
}

PcdStudyPanel* panel_of(PcdStudyPerformer* p, const PcdStudyObject* study) {
  if (study == nullptr || study->type < 0 || study->type > 3) return nullptr;
  return p->panels[study->type].get();
}

void load_panel(PcdStudyPerformer* p, const PcdStudyObject* study) {
  p->filling = true;
  p->shownId = study ? study->id : kPcdNoObject;
  for (int t = 0; t < 4; ++t) gtk_widget_set_visible(p->panels[t]->widget, study != nullptr && study->type == t);
  if (PcdStudyPanel* panel = panel_of(p, study)) {
    panel->load(study);
    PCD_SetTextViewText(panel->summary, PCD_GetStudySummary(study));
  }
  gtk_entry_set_text(GTK_ENTRY(p->label), study ? study->label : "");
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(p->visible), study && study->visible == 1);
  gtk_widget_set_sensitive(p->label, study != nullptr);
  gtk_widget_set_sensitive(p->visible, study != nullptr);
  gtk_widget_set_sensitive(p->analyze, study != nullptr);
  p->filling = false;
}

void fill_rows(PcdStudyPerformer* p) {
  gtk_list_store_clear(p->store);
  for (const auto& study : studies()->items) {
    GtkTreeIter iter;
    gtk_list_store_append(p->store, &iter);
    const std::string number = std::to_string(study->id);
    const PcdChoice* type = PCD_FindChoiceByCode(kPcdStudyTypeChoices, study->type);
    gtk_list_store_set(p->store, &iter, kColNumber, number.c_str(), kColType, type ? type->label : "?",
                       kColVisible, study->visible == 1 ? "o" : "-", kColStatus, status_text(study->analysed),
                       kColLabel, study->label, kColId, static_cast<guint>(study->id), -1);
  }
}

void on_row_selected(GtkTreeSelection*, gpointer) {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p == nullptr || p->filling) return;
  const uint16_t id = PCD_GetSelectedListId(p->list, kColId);
  if (id != kPcdNoObject && id != p->shownId) {
    PCD_SelectStudy(id);
    PCD_NoticeStudiesChanged();  // the views show the selected study's drawn regions
  }
}

void on_label_changed(GtkEditable*, gpointer) {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p == nullptr || p->filling) return;
  PcdStudyObject* study = PCD_FindStudyObject(studies(), p->shownId);
  if (study == nullptr) return;
  PCD_SetStudyLabel(study, gtk_entry_get_text(GTK_ENTRY(p->label)));
  PCD_SetListRowText(p->store, kColId, study->id, kColLabel, study->label);
}

// On "released" the button's state becomes the study's visible flag.
void on_visible_released(GtkButton* button, gpointer) {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  PcdStudyObject* study = p ? PCD_FindStudyObject(studies(), p->shownId) : nullptr;
  if (study == nullptr || p->filling) return;
  study->visible = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(button)) ? 1 : 0;
  PCD_RefreshStudyPerformer();
  PCD_UpdateStudy3DObjects();
}

void on_analyze_clicked(GtkButton*, gpointer) { PCD_AnalyzeSelectedStudy(false); }

}  // namespace

PcdStudyPerformer* PCD_GetStudyPerformer() {
  return pcd_app ? static_cast<PcdStudyPerformer*>(pcd_app->studyPerformer) : nullptr;
}

GtkWidget* PCD_BuildStudyPerformerPage() {
  auto* p = new PcdStudyPerformer;
  pcd_app->studyPerformer = p;
  p->page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  PCD_BuildMenuBar(kPcdStudyMenu, kPcdStudyMenuEntryCount, nullptr, pcd_app->accelGroup, &p->menu);
  gtk_box_pack_start(GTK_BOX(p->page), p->menu.bar, FALSE, FALSE, 0);

  GtkWidget* frame = gtk_frame_new(nullptr);
  gtk_frame_set_shadow_type(GTK_FRAME(frame), GTK_SHADOW_NONE);
  GtkWidget* grid = gtk_grid_new();  // 40 rows by 4 columns
  gtk_grid_set_row_homogeneous(GTK_GRID(grid), FALSE);
  gtk_container_add(GTK_CONTAINER(frame), grid);
  gtk_box_pack_start(GTK_BOX(p->page), frame, TRUE, TRUE, 0);

  GtkWidget* top = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  static const char* const kTitles[] = {"  #  ", " type ", " vis.", "status", " label     "};
  GtkWidget* scroll = PCD_NewObjectList(kTitles, 5, &p->list, &p->store);
  gtk_widget_set_size_request(scroll, -1, 110);
  gtk_box_pack_start(GTK_BOX(top), scroll, TRUE, TRUE, 0);
  g_signal_connect(gtk_tree_view_get_selection(GTK_TREE_VIEW(p->list)), "changed", G_CALLBACK(on_row_selected),
                   nullptr);
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 2);
  p->visible = gtk_check_button_new_with_label(" visible ");
  g_signal_connect(p->visible, "released", G_CALLBACK(on_visible_released), nullptr);
  gtk_box_pack_start(GTK_BOX(row), p->visible, FALSE, FALSE, 0);
  p->label = gtk_entry_new();
  PCD_SetAccessibleName(p->label, "study label");
  g_signal_connect(p->label, "changed", G_CALLBACK(on_label_changed), nullptr);
  gtk_box_pack_start(GTK_BOX(row), p->label, TRUE, TRUE, 0);
  gtk_box_pack_start(GTK_BOX(top), row, FALSE, FALSE, 0);
  gtk_widget_set_hexpand(top, TRUE);
  gtk_grid_attach(GTK_GRID(grid), top, 0, 0, 4, 12);

  p->panelBox = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_widget_set_vexpand(p->panelBox, TRUE);
  p->panels[PCD_STUDY_FIBER_TRACKING] = PCD_NewTractPanel(false);
  p->panels[PCD_STUDY_DIFFUSION_PROFILE] = PCD_NewProfilePanel();
  p->panels[PCD_STUDY_VOXEL_STATISTICS] = PCD_NewStatisticsPanel();
  p->panels[PCD_STUDY_FIBER_MODELING] = PCD_NewTractPanel(true);
  for (auto& panel : p->panels) {
    gtk_widget_show_all(panel->widget);  // its controls; the panel itself only when chosen
    gtk_widget_set_no_show_all(panel->widget, TRUE);
    gtk_widget_hide(panel->widget);
    gtk_box_pack_start(GTK_BOX(p->panelBox), panel->widget, TRUE, TRUE, 0);
  }
  gtk_grid_attach(GTK_GRID(grid), p->panelBox, 0, 12, 4, 26);

  p->analyze = gtk_button_new_with_label(kPcdAnalyzeButtonLabel);
  gtk_widget_set_size_request(p->analyze, 200, 36);
  gtk_widget_set_halign(p->analyze, GTK_ALIGN_CENTER);
  g_signal_connect(p->analyze, "clicked", G_CALLBACK(on_analyze_clicked), nullptr);
  gtk_grid_attach(GTK_GRID(grid), p->analyze, 0, 38, 4, 2);
  pcd_app->analyzeButton = p->analyze;
  load_panel(p, nullptr);
  return p->page;
}

void PCD_DeleteStudyPerformer() {
  delete PCD_GetStudyPerformer();
  if (pcd_app) pcd_app->studyPerformer = nullptr;
}

void PCD_StoreStudyPanel() {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p == nullptr || p->filling) return;
  PcdStudyObject* study = PCD_FindStudyObject(studies(), p->shownId);
  if (PcdStudyPanel* panel = panel_of(p, study)) panel->store(study);
}

void PCD_RefreshStudyPerformer() {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p == nullptr) return;
  const PcdStudyObject* study = PCD_GetSelectedStudyObject(studies());
  p->filling = true;
  fill_rows(p);
  PCD_SelectListId(p->list, kColId, study ? study->id : kPcdNoObject);
  p->filling = false;
  load_panel(p, study);
  PCD_NoticeStudiesChanged();  // regions, visibility and results of the listed studies show at once
}

void PCD_StudyPanelEdited() {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p == nullptr || p->filling) return;
  PCD_StoreStudyPanel();
  PCD_NoticeStudiesChanged();
}

void PCD_ReloadStudyPanel() {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p == nullptr || p->filling) return;
  PCD_StoreStudyPanel();
  // the settings only: a summary page being edited keeps its text
  const PcdStudyObject* study = PCD_FindStudyObject(studies(), p->shownId);
  PcdStudyPanel* panel = panel_of(p, study);
  if (panel == nullptr) return;
  p->filling = true;
  panel->load(study);
  p->filling = false;
}

void PCD_SelectStudy(uint16_t id) {
  PCD_StoreStudyPanel();
  if (PCD_FindStudyObject(studies(), id) == nullptr) return;
  studies()->selectedId = id;
  PCD_RefreshStudyPerformer();
}

PcdStudyObject* PCD_NewStudyFromPerformer(int32_t type) {
  PCD_StoreStudyPanel();
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(&pcd_app->session);
  PcdStudyObject* study = PCD_NewStudyObject(studies(), type, &size);
  if (study != nullptr) study->viewerObjectGroup = PCD_AllocateStudyObjectGroup();
  PCD_RefreshStudyPerformer();
  return study;
}

void PCD_AnnounceStudyRois() {
  for (const auto& study : studies()->items) {
    const std::vector<uint16_t> ids = PCD_GetStudyRoiIds(study.get());
    PCD_LockRoiObjects(&pcd_app->session.rois, ids.data(), static_cast<int32_t>(ids.size()));
  }
  PCD_RefreshRoiEditor();
}

void PCD_AnalyzeSelectedStudy(bool dump) {
  PCD_StoreStudyPanel();
  PCD_StoreRoiEditor();
  PcdStudyObject* study = PCD_GetSelectedStudyObject(studies());
  if (study == nullptr) return;
  PcdStudyRunOptions options;
  const bool fibers = study->type == PCD_STUDY_FIBER_TRACKING || study->type == PCD_STUDY_FIBER_MODELING;
  if (dump && study->type == PCD_STUDY_FIBER_TRACKING) {  // asked once the fibers are there
    options.dump = true;
    options.askTrackingDumpFile = [](std::string* file) {
      std::string path;
      if (!PCD_ChooseFile(PcdDialogKind::SaveFile, "Dump file", file->c_str(), &path)) return false;
      *file = path;
      return true;
    };
  } else if (dump && fibers) {  // modeling asks first; a cancelled dialog skips the dump
    std::string path;
    options.dump = PCD_ChooseFile(PcdDialogKind::SaveFile, "Dump file", "fibemodel_dump.raw", &path);
    options.dumpFile = path;
  } else {
    options.dump = dump;
  }
  // "Box VOI" regions take the box the user dragged in the views (the whole volume until then)
  options.hasBoxVoi = PCD_NoticeBoxVoi(&options.boxOrigin, &options.boxSize);
  options.drawFibers = [](const PcdStudyObject* s, const PcdFibeTrakBuffer* buffer, int drawn) {
    PCD_TakeStudyFiberResult(s, buffer);  // the viewer's 3D objects
    PCDview_SetStudyFibers(s, buffer, drawn);  // the slice views
  };
  std::vector<PcdGlyph> glyphs;
  const PcdDifProfDrawFunction collect = PCDview_CollectGlyphs(&glyphs);
  options.drawProfile = [&collect](const PcdStudyObject*, const PcdVector3D* point,
                                   const PcdDiffusionTensorData* tensor) { collect(point, tensor); };
  if (PCD_RunStudy(&pcd_app->session, study, options) == 0 && study->type == PCD_STUDY_DIFFUSION_PROFILE)
    PCDview_SetStudyGlyphs(study, std::move(glyphs));
  PCD_NoticeStudyResult();
  PCD_RefreshStudyPerformer();
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (PcdStudyPanel* panel = p ? panel_of(p, study) : nullptr)  // its "Summary" page is the last
    gtk_notebook_set_current_page(GTK_NOTEBOOK(panel->notebook), -1);
}

std::string PCD_GetSummaryPageText() {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  PcdStudyPanel* panel = p ? panel_of(p, PCD_FindStudyObject(studies(), p->shownId)) : nullptr;
  return panel ? PCD_GetTextViewText(panel->summary) : std::string();
}

void PCD_SetSummaryPageText(const std::string& text) {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  PcdStudyPanel* panel = p ? panel_of(p, PCD_FindStudyObject(studies(), p->shownId)) : nullptr;
  if (panel) PCD_SetTextViewText(panel->summary, text);
}

void PCD_SetStudyLabelEntry(const char* text) {
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p != nullptr && PCD_GetSelectedStudyObject(studies()) != nullptr) gtk_entry_set_text(GTK_ENTRY(p->label), text);
}

void PCD_ForgetShownObjects() {
  if (PcdStudyPerformer* p = PCD_GetStudyPerformer()) p->shownId = kPcdNoObject;
  if (PcdRoiEditor* e = PCD_GetRoiEditor()) e->shownId = kPcdNoObject;
}

void PCD_QuietObjectPages() {
  if (PcdStudyPerformer* p = PCD_GetStudyPerformer()) p->filling = true;
  if (PcdRoiEditor* e = PCD_GetRoiEditor()) e->filling = true;
}
