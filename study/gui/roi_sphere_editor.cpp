// " Spherical ROI ": the centre and radius of a spherical ROI by spin buttons.
#include "app/services/accessible.h"
#include "app/services/app_state.h"
#include "study/gui/roi_editor.h"

namespace {

struct SpinRow {
  const char* label;
  double lower, upper, climb;
};
// x, y, z: value 1.0, 0 .. 512, step 0.1, page 1.0, climb 0.1, 1 digit; radius 1 .. 256, climb 1.0
constexpr SpinRow kRows[4] = {{" x: ", 0.0, 512.0, 0.1}, {" y: ", 0.0, 512.0, 0.1}, {" z: ", 0.0, 512.0, 0.1},
                              {"radius: ", 1.0, 256.0, 1.0}};

void on_value_changed(GtkSpinButton*, gpointer) {
  PcdRoiEditor* e = PCD_GetRoiEditor();
  if (e == nullptr || e->filling) return;
  PcdRoiObject* roi = PCD_FindRoiObject(&pcd_app->session.rois, e->shownId);
  if (roi == nullptr || roi->type != PCD_ROI_SPHERICAL || roi->status == 1) return;
  pcd_store_sphere_editor(e, roi);
  pcd_roi_changed_by_editor();
}

}  // namespace

GtkWidget* pcd_build_sphere_editor(PcdRoiEditor* e) {
  GtkWidget* frame = gtk_frame_new(" Spherical ROI ");
  GtkWidget* grid = gtk_grid_new();
  gtk_grid_set_column_spacing(GTK_GRID(grid), 4);
  gtk_container_set_border_width(GTK_CONTAINER(grid), 4);
  for (int i = 0; i < 4; ++i) {
    const SpinRow& r = kRows[i];
    GtkAdjustment* adjustment = gtk_adjustment_new(1.0, r.lower, r.upper, 0.1, 1.0, 0.0);
    e->sphere[i] = gtk_spin_button_new(adjustment, r.climb, 1);
    gtk_spin_button_set_numeric(GTK_SPIN_BUTTON(e->sphere[i]), TRUE);
    g_signal_connect(e->sphere[i], "value-changed", G_CALLBACK(on_value_changed), nullptr);
    PCD_SetAccessibleName(e->sphere[i], r.label);
    GtkWidget* label = gtk_label_new(r.label);
    gtk_label_set_xalign(GTK_LABEL(label), 1.0f);
    gtk_grid_attach(GTK_GRID(grid), label, 0, i, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), e->sphere[i], 1, i, 1, 1);
  }
  gtk_container_add(GTK_CONTAINER(frame), grid);
  return frame;
}

void pcd_load_sphere_editor(PcdRoiEditor* e, const PcdRoiObject* roi) {
  if (!roi->shape) return;
  const PcdRoiShape& s = *roi->shape;
  const float values[4] = {s.centre.x, s.centre.y, s.centre.z, s.radius};
  for (int i = 0; i < 4; ++i) gtk_spin_button_set_value(GTK_SPIN_BUTTON(e->sphere[i]), values[i]);
}

void pcd_store_sphere_editor(PcdRoiEditor* e, PcdRoiObject* roi) {
  if (!roi->shape) return;
  PcdRoiShape& s = *roi->shape;
  auto value = [&](int i) { return static_cast<float>(gtk_spin_button_get_value(GTK_SPIN_BUTTON(e->sphere[i]))); };
  s.centre = {value(0), value(1), value(2)};
  s.radius = value(3);
}
