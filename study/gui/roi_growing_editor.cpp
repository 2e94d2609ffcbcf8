// " Voxel growing ": the growing criteria of a voxelgroup ROI and the buttons that grow,
// erode, dilate and clear its voxels.
#include <cmath>
#include <cstdio>

#include "app/services/accessible.h"
#include "app/services/app_state.h"
#include "study/gui/roi_editor.h"
#include "study/roi_edit.h"

namespace {

enum GrowEntry { kMaxStep, kMinFA, kMaxAngle, kMinSignal, kMaxSignal };
constexpr const char* kEntryLabels[5] = {"max step", " min FA ", "max angle", " min signal ", "max signal"};
enum GrowButton { kGrow, kErode, kDilate, kClear };
constexpr const char* kButtonLabels[4] = {"3D Grow", "Erode", "Dilate", "Clear"};

const PcdChoice kGrowModes[] = {{kPcdGrowByTensorProperty, "tensor", "Tensor Property"},
                                {kPcdGrowBySingleSignal, "signal", "Single Signal"}};
const PcdChoiceTable kGrowModeTable{"Grow if", kGrowModes, 2};
const PcdChoice kColorings[] = {{915, "uniform", "uniform"},
                                {824, "direction", "direction coding"},
                                {651, "anisotropy", "anisotropy coding"}};
const PcdChoiceTable kColoringTable{"Coloring", kColorings, 3};

void on_clicked(GtkButton*, gpointer data) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  PcdRoiObject* roi = e ? PCD_FindRoiObject(&pcd_app->session.rois, e->shownId) : nullptr;
  if (roi == nullptr || roi->type != PCD_ROI_VOXELGROUP) return;
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(&pcd_app->session);
  int done = -1;
  switch (GPOINTER_TO_INT(data)) {
    case kGrow:
      if (roi->status != 1) pcd_store_growing_editor(e, roi);
      done = PCD_GrowVoxelGroupRoi(pcd_app->session.dti, roi);
      break;
    case kErode: done = PCD_MorphVoxelGroupRoi(roi, &size, false); break;
    case kDilate: done = PCD_MorphVoxelGroupRoi(roi, &size, true); break;
    default: done = PCD_ClearRoiRegion(roi); break;
  }
  if (done == 0) pcd_roi_changed_by_editor();
}

}  // namespace

GtkWidget* pcd_build_growing_editor(PcdRoiEditor* e) {
  GtkWidget* frame = gtk_frame_new(" Voxel growing ");
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  gtk_container_set_border_width(GTK_CONTAINER(box), 4);
  e->growIf = PCD_NewRadioGroup("Grow if", kGrowModeTable, false);
  gtk_box_pack_start(GTK_BOX(box), e->growIf.widget, FALSE, FALSE, 0);
  GtkWidget* entries = gtk_grid_new();  // labels right-aligned before their entries
  gtk_grid_set_column_spacing(GTK_GRID(entries), 4);
  for (int i = 0; i < 5; ++i) {
    GtkWidget* label = gtk_label_new(kEntryLabels[i]);
    gtk_label_set_xalign(GTK_LABEL(label), 1.0f);
    e->growEntries[i] = gtk_entry_new();
    gtk_entry_set_width_chars(GTK_ENTRY(e->growEntries[i]), 9);
    PCD_SetAccessibleName(e->growEntries[i], kEntryLabels[i]);
    gtk_grid_attach(GTK_GRID(entries), label, 0, i, 1, 1);
    gtk_grid_attach(GTK_GRID(entries), e->growEntries[i], 1, i, 1, 1);
  }
  gtk_box_pack_start(GTK_BOX(box), entries, FALSE, FALSE, 0);
  GtkWidget* buttons = gtk_grid_new();  // two by two, to fit the narrow window
  gtk_grid_set_column_homogeneous(GTK_GRID(buttons), TRUE);
  for (int i = 0; i < 4; ++i) {
    e->growButtons[i] = gtk_button_new_with_label(kButtonLabels[i]);
    g_signal_connect(e->growButtons[i], "clicked", G_CALLBACK(on_clicked), GINT_TO_POINTER(i));
    gtk_grid_attach(GTK_GRID(buttons), e->growButtons[i], i % 2, i / 2, 1, 1);
  }
  gtk_box_pack_start(GTK_BOX(box), buttons, FALSE, FALSE, 2);
  e->coloring = PCD_NewRadioGroup("Coloring", kColoringTable, true);
  gtk_box_pack_start(GTK_BOX(box), e->coloring.widget, FALSE, FALSE, 0);
  gtk_container_add(GTK_CONTAINER(frame), box);
  return frame;
}

void pcd_load_growing_editor(PcdRoiEditor* e, const PcdRoiObject* roi) {
  const PcdDtiRegionGrowingCore& g = roi->growing;
  PCD_SetRadioCode(e->growIf, g.mode);
  PCD_SetEntryInt(e->growEntries[kMaxStep], g.generationLimit);
  PCD_SetEntryText(e->growEntries[kMinFA], "%3.2f", PCD_GetGrowingFAmin(&g));
  PCD_SetEntryText(e->growEntries[kMaxAngle], "%3.2f", PCD_GetGrowingAngleMax(&g));
  PCD_SetEntryInt(e->growEntries[kMinSignal], static_cast<int>(g.lowerBound));
  PCD_SetEntryInt(e->growEntries[kMaxSignal], static_cast<int>(g.upperBound));
}

// Entries read with "%f" (the step with "%d"); an entry that does not parse keeps its value.
void pcd_store_growing_editor(PcdRoiEditor* e, PcdRoiObject* roi) {
  PcdDtiRegionGrowingCore& g = roi->growing;
  g.mode = PCD_GetRadioCode(e->growIf);
  PCD_ReadEntryInt(e->growEntries[kMaxStep], &g.generationLimit);
  float v = 0.0f;
  if (PCD_ReadEntryFloat(e->growEntries[kMinFA], &v)) PCD_SetGrowingFAmin(&g, v);
  if (PCD_ReadEntryFloat(e->growEntries[kMaxAngle], &v)) PCD_SetGrowingAngleMax(&g, v);
  PCD_ReadEntryFloat(e->growEntries[kMinSignal], &g.lowerBound);
  PCD_ReadEntryFloat(e->growEntries[kMaxSignal], &g.upperBound);
}
