// " Freehand ROI ": clearing the drawn region and one step of erosion or dilation in its
// planes. The drawing itself happens in the slice views.
#include "app/services/app_state.h"
#include "study/gui/roi_editor.h"
#include "study/roi_edit.h"

namespace {

enum FreehandAction { kClear, kErode, kDilate };

void on_clicked(GtkButton*, gpointer data) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  PcdRoiObject* roi = e ? PCD_FindRoiObject(&pcd_app->session.rois, e->shownId) : nullptr;
  if (roi == nullptr || roi->type != PCD_ROI_FREEHAND) return;
  const int action = GPOINTER_TO_INT(data);
  const int done = action == kClear ? PCD_ClearRoiRegion(roi) : PCD_MorphFreehandRoi(roi, action == kDilate);
  if (done == 0) pcd_roi_changed_by_editor();
}

}  // namespace

GtkWidget* pcd_build_freehand_editor(PcdRoiEditor* e) {
  static const char* const kLabels[3] = {"Clear", "2D Erosion", "2D Dilation"};
  GtkWidget* frame = gtk_frame_new(" Freehand ROI ");
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
  gtk_container_set_border_width(GTK_CONTAINER(box), 4);
  for (int i = 0; i < 3; ++i) {
    e->freehand[i] = gtk_button_new_with_label(kLabels[i]);
    g_signal_connect(e->freehand[i], "clicked", G_CALLBACK(on_clicked), GINT_TO_POINTER(i));
    gtk_box_pack_start(GTK_BOX(box), e->freehand[i], TRUE, TRUE, 0);
  }
  gtk_container_add(GTK_CONTAINER(frame), box);
  return frame;
}
