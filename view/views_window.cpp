#include "view/views_window.h"
#include "view/view_context.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "app/services/accessible.h"
#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/services/status_line.h"
#include "app/services/viewer_link.h"
#include "dti/tensor.h"

PcdViewsState* pcd_views = nullptr;
PcdPaletteFrameHooks pcd_views_palette;

namespace {

void cmd_pane_kind(gpointer pane, guint kind, GtkWidget* item) {
  PCDview_SetPaneKind(static_cast<PcdViewPane*>(pane), static_cast<int32_t>(kind));
}

constexpr PcdMenuKind kBranch = PcdMenuKind::Branch;
constexpr PcdMenuKind kItem = PcdMenuKind::Item;
constexpr PcdMenuKind kSep = PcdMenuKind::Separator;

}  // namespace

// The branch label names the kind the pane shows first, spaces kept; both separators of
// a table carry the same path.
const PcdMenuEntry kPcdPaneMenus[kPcdPaneKindCount][kPcdPaneMenuEntryCount] = {
    {{"/ Axial  ", nullptr, kBranch, nullptr, 0, nullptr},
     {"/ Axial  /Axial", nullptr, kItem, cmd_pane_kind, PCD_PANE_AXIAL, nullptr},
     {"/ Axial  /Sagittal", nullptr, kItem, cmd_pane_kind, PCD_PANE_SAGITTAL, nullptr},
     {"/ Axial  /Coronal", nullptr, kItem, cmd_pane_kind, PCD_PANE_CORONAL, nullptr},
     {"/ Axial  /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/ Axial  /Oblique", nullptr, kItem, cmd_pane_kind, PCD_PANE_OBLIQUE, nullptr},
     {"/ Axial  /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/ Axial  /Spherical", nullptr, kItem, cmd_pane_kind, PCD_PANE_SPHERICAL, nullptr}},
    {{"/Sagittal ", nullptr, kBranch, nullptr, 0, nullptr},
     {"/Sagittal /Axial", nullptr, kItem, cmd_pane_kind, PCD_PANE_AXIAL, nullptr},
     {"/Sagittal /Sagittal", nullptr, kItem, cmd_pane_kind, PCD_PANE_SAGITTAL, nullptr},
     {"/Sagittal /Coronal", nullptr, kItem, cmd_pane_kind, PCD_PANE_CORONAL, nullptr},
     {"/Sagittal /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Sagittal /Oblique", nullptr, kItem, cmd_pane_kind, PCD_PANE_OBLIQUE, nullptr},
     {"/Sagittal /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Sagittal /Spherical", nullptr, kItem, cmd_pane_kind, PCD_PANE_SPHERICAL, nullptr}},
    {{"/Coronal ", nullptr, kBranch, nullptr, 0, nullptr},
     {"/Coronal /Axial", nullptr, kItem, cmd_pane_kind, PCD_PANE_AXIAL, nullptr},
     {"/Coronal /Sagittal", nullptr, kItem, cmd_pane_kind, PCD_PANE_SAGITTAL, nullptr},
     {"/Coronal /Coronal", nullptr, kItem, cmd_pane_kind, PCD_PANE_CORONAL, nullptr},
     {"/Coronal /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Coronal /Oblique", nullptr, kItem, cmd_pane_kind, PCD_PANE_OBLIQUE, nullptr},
     {"/Coronal /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Coronal /Spherical", nullptr, kItem, cmd_pane_kind, PCD_PANE_SPHERICAL, nullptr}},
    {{"/Oblique  ", nullptr, kBranch, nullptr, 0, nullptr},
     {"/Oblique  /Axial", nullptr, kItem, cmd_pane_kind, PCD_PANE_AXIAL, nullptr},
     {"/Oblique  /Sagittal", nullptr, kItem, cmd_pane_kind, PCD_PANE_SAGITTAL, nullptr},
     {"/Oblique  /Coronal", nullptr, kItem, cmd_pane_kind, PCD_PANE_CORONAL, nullptr},
     {"/Oblique  /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Oblique  /Oblique", nullptr, kItem, cmd_pane_kind, PCD_PANE_OBLIQUE, nullptr},
     {"/Oblique  /Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Oblique  /Spherical", nullptr, kItem, cmd_pane_kind, PCD_PANE_SPHERICAL, nullptr}},
    {{"/Spherical", nullptr, kBranch, nullptr, 0, nullptr},
     {"/Spherical/Axial", nullptr, kItem, cmd_pane_kind, PCD_PANE_AXIAL, nullptr},
     {"/Spherical/Sagittal", nullptr, kItem, cmd_pane_kind, PCD_PANE_SAGITTAL, nullptr},
     {"/Spherical/Coronal", nullptr, kItem, cmd_pane_kind, PCD_PANE_CORONAL, nullptr},
     {"/Spherical/Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Spherical/Oblique", nullptr, kItem, cmd_pane_kind, PCD_PANE_OBLIQUE, nullptr},
     {"/Spherical/Sp1", nullptr, kSep, nullptr, 0, nullptr},
     {"/Spherical/Spherical", nullptr, kItem, cmd_pane_kind, PCD_PANE_SPHERICAL, nullptr}},
};

namespace {

// Display scales in the order of the table: 1.5 s, s, s, 0.5 s, 2 s, 3 s, 4 s, shown to
// the user as the magnification they give.
const char* const kZoomLabels[kPcdViewScaleCount] = {"67 %", "100 %", "100 % ", "200 %",
                                                     "50 %", "33 %", "25 %"};

PcdIntSize4D VolumeSize() {
  const PcdRawVolumeData* v = pcd_app ? pcd_app->session.volume : nullptr;
  return v && v->matrixSize ? *v->matrixSize : PcdIntSize4D{0, 0, 0, 0};
}

float VoxelsPerPixel(int32_t zoom) {
  PcdViewContext scales;
  const PcdIntSize4D s = VolumeSize();
  // the widest axis decides, so that a volume taller than wide still fits the pane
  PCD_SetViewScales(&scales, std::max({s.x, s.y, s.z, 1}));
  return scales.scales[std::clamp(zoom, 0, kPcdViewScaleCount - 1)];
}

bool RoiEditorIsCurrent() {
  if (!pcd_app || !pcd_app->notebook || !pcd_app->roiPage) return false;
  const int page = gtk_notebook_get_current_page(GTK_NOTEBOOK(pcd_app->notebook));
  return page >= 0 && gtk_notebook_get_nth_page(GTK_NOTEBOOK(pcd_app->notebook), page) == pcd_app->roiPage;
}

PcdIntVector3D Clamped(PcdIntVector3D c) {
  const PcdIntSize4D s = VolumeSize();
  c.x = std::clamp(c.x, 0, std::max(0, s.x - 1));
  c.y = std::clamp(c.y, 0, std::max(0, s.y - 1));
  c.z = std::clamp(c.z, 0, std::max(0, s.z - 1));
  return c;
}

void SetSpin(GtkWidget* spin, double lower, double upper, double value) {
  gtk_spin_button_set_range(GTK_SPIN_BUTTON(spin), lower, std::max(lower, upper));
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(spin), value);
}

// The controls follow the state (guarded so that their handlers do not write back).
void UpdateControls() {
  PcdViewsState* v = pcd_views;
  const PcdIntSize4D s = VolumeSize();
  v->updatingControls = true;
  SetSpin(v->channel, 1, std::max(1, s.channels), v->channelIndex + 1);
  for (PcdViewPane& p : v->panes) {
    const int32_t n = PCDview_PaneSliceCount(p.pane.kind, s);
    if (n > 0) SetSpin(p.slice, 0, n - 1, PCDview_PaneSlice(p.pane.kind, v->cursor));
  }
  v->updatingControls = false;
}

// A new data set: the cursor goes to its centre, the box VOI covers it, edits and
// results of the old one are forgotten.
void FollowDataSet() {
  PcdViewsState* v = pcd_views;
  const PcdRawVolumeData* volume = pcd_app ? pcd_app->session.volume : nullptr;
  if (volume == v->volumeSeen) return;
  v->volumeSeen = volume;
  const PcdIntSize4D s = VolumeSize();
  v->cursor = {s.x / 2, s.y / 2, s.z / 2};
  v->boxOrigin = {0, 0, 0};
  v->boxSize = {s.x, s.y, s.z};
  v->channelIndex = std::clamp(v->channelIndex, 0, std::max(0, s.channels - 1));
  v->greyWindows.clear();
  PCDview_ClearRoiEditHistory(&v->history);
  PCDview_DropAllStudyFibers();
  PCDview_DropAllStudyGlyphs();
  UpdateControls();
}

void QueueDraw() {
  if (!pcd_views) return;
  for (PcdViewPane& p : pcd_views->panes)
    if (p.area) gtk_widget_queue_draw(p.area);
  if (pcd_views_palette.redraw) pcd_views_palette.redraw();
}

gboolean on_pane_draw(GtkWidget* area, cairo_t* cr, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  PCDview_RenderPaneImage(p);
  if (p->image) {
    cairo_set_source_surface(cr, p->image, 0, 0);
    cairo_paint(cr);
  }
  return TRUE;
}

PcdVector3D EventVoxel(const PcdViewPane* p, double x, double y) {
  return PCDview_PixelToVoxel(p->geometry, x, y);
}

PcdIntVector3D Floor(const PcdVector3D& q) {
  return {int32_t(std::floor(q.x)), int32_t(std::floor(q.y)), int32_t(std::floor(q.z))};
}

PcdIntSize3D VolumeSize3() {
  const PcdIntSize4D s = VolumeSize();
  return {s.x, s.y, s.z};
}

// The box VOI takes the dragged rectangle in the pane's plane and keeps its extent
// across it.
void DragBox(PcdViewPane* p, const PcdVector3D& at) {
  PcdViewsState* v = pcd_views;
  const PcdIntVector3D a = Clamped(Floor(p->pressVoxel)), b = Clamped(Floor(at));
  const int axis = PCDview_PaneNormalAxis(p->pane.kind);
  if (axis != 0) v->boxOrigin.x = std::min(a.x, b.x), v->boxSize.x = std::abs(a.x - b.x) + 1;
  if (axis != 1) v->boxOrigin.y = std::min(a.y, b.y), v->boxSize.y = std::abs(a.y - b.y) + 1;
  if (axis != 2) v->boxOrigin.z = std::min(a.z, b.z), v->boxSize.z = std::abs(a.z - b.z) + 1;
}

void Continue(PcdViewPane* p, double x, double y) {
  PcdViewsState* v = pcd_views;
  PcdRoiObject* roi = pcd_app ? PCD_GetSelectedRoiObject(&pcd_app->session.rois) : nullptr;
  const PcdVector3D at = EventVoxel(p, x, y);
  switch (p->gesture) {
    case PcdViewPane::Gesture::Sphere: {
      if (!roi) return;
      const PcdVector3D c = roi->shape->centre;
      const double r = std::sqrt(double(at.x - c.x) * (at.x - c.x) + double(at.y - c.y) * (at.y - c.y) +
                                 double(at.z - c.z) * (at.z - c.z));
      PCDview_SetRoiSphere(roi, c, float(r));
      break;
    }
    case PcdViewPane::Gesture::Freehand:
    case PcdViewPane::Gesture::RegionFreehand:
      p->contour.push_back({float(x), float(y)});
      break;
    case PcdViewPane::Gesture::RegionSphere: {
      PcdStudyObject* study = pcd_app ? PCD_FindStudyObject(&pcd_app->session.studies, p->regionStudy) : nullptr;
      const PcdStudyRegion* region = PCD_GetStudyRegion(study, p->region);
      if (region == nullptr || !region->shape) return;
      const PcdVector3D c = region->shape->centre;
      const double r = std::sqrt(double(at.x - c.x) * (at.x - c.x) + double(at.y - c.y) * (at.y - c.y) +
                                 double(at.z - c.z) * (at.z - c.z));
      PCDview_SetRegionSphere(study, p->region, c, float(r));
      break;
    }
    case PcdViewPane::Gesture::Paint:
    case PcdViewPane::Gesture::Erase:
      if (!roi) return;
      PCDview_PaintRoiVoxels(roi, VolumeSize3(), p->geometry, at,
                             float(gtk_spin_button_get_value(GTK_SPIN_BUTTON(v->brush))),
                             p->gesture == PcdViewPane::Gesture::Paint ? 1 : 0);
      break;
    case PcdViewPane::Gesture::Box:
      DragBox(p, at);
      break;
    default:
      return;
  }
  QueueDraw();
}

void Finish(PcdViewPane* p, double x, double y) {
  PcdViewsState* v = pcd_views;
  const auto gesture = p->gesture;
  if (gesture == PcdViewPane::Gesture::None) return;
  Continue(p, x, y);
  p->gesture = PcdViewPane::Gesture::None;
  if (gesture == PcdViewPane::Gesture::Box) {
    pcd_viewer_send_region(&v->boxOrigin, &v->boxSize);
    QueueDraw();
    return;
  }
  if (gesture == PcdViewPane::Gesture::RegionSphere || gesture == PcdViewPane::Gesture::RegionFreehand) {
    PcdStudyObject* study = PCD_FindStudyObject(&pcd_app->session.studies, p->regionStudy);
    if (study && gesture == PcdViewPane::Gesture::RegionFreehand)
      PCDview_SetRegionFreehand(study, p->region, VolumeSize3(), p->geometry, p->contour);
    p->contour.clear();
    PCDview_EndRegionEdit(&v->history, study);
    if (study && pcd_view_study_edited) pcd_view_study_edited(study);
    QueueDraw();
    return;
  }
  PcdRoiObject* roi = PCD_GetSelectedRoiObject(&pcd_app->session.rois);
  if (gesture == PcdViewPane::Gesture::Freehand && roi)
    PCDview_SetRoiFreehand(roi, VolumeSize3(), p->geometry, p->contour);
  p->contour.clear();
  PCDview_EndRoiEdit(&v->history, roi);
  if (roi && pcd_view_roi_edited) pcd_view_roi_edited(roi);
  QueueDraw();
}

// With a study region palette chosen, a press starts drawing the selected study's
// region of that palette: a freehand region takes a contour (in an axis-aligned pane),
// any other becomes a sphere centred on the pressed voxel. False when there is nothing to
// draw (no palette, no study, no such region).
bool StartRegion(PcdViewPane* p, GdkEventButton* event, const PcdVector3D& at) {
  PcdViewsState* v = pcd_views;
  if (!pcd_app || v->regionPalette < 0) return false;
  if (pcd_view_study_edit_begins) pcd_view_study_edit_begins();  // the panel's values first
  PcdStudyObject* study = PCD_GetSelectedStudyObject(&pcd_app->session.studies);
  const int32_t region = PCDview_RegionOfPalette(study, v->regionPalette);
  if (region < 0 || !PCDview_BeginRegionEdit(&v->history, study, region)) return false;
  p->regionStudy = study->id;
  p->region = region;
  if (PCDview_DrawnRegionKind(study, region) == kPcdRegionFreehand && PCDview_PaneNormalAxis(p->pane.kind) >= 0) {
    p->contour.assign(1, PcdVector2D{float(event->x), float(event->y)});
    p->gesture = PcdViewPane::Gesture::RegionFreehand;
    return true;
  }
  const PcdIntVector3D c = Floor(at);
  PCDview_SetRegionSphere(study, region, {c.x + 0.5f, c.y + 0.5f, c.z + 0.5f}, 1.0f);
  p->gesture = PcdViewPane::Gesture::RegionSphere;
  Continue(p, event->x, event->y);
  return true;
}

// A press starts a gesture: Ctrl drags the box VOI; with the ROI editor current the
// selected ROI is drawn (by its type); otherwise the cursor moves.
void Start(PcdViewPane* p, GdkEventButton* event) {
  PcdViewsState* v = pcd_views;
  const PcdVector3D at = EventVoxel(p, event->x, event->y);
  p->pressVoxel = at;
  const bool planar = p->pane.kind != PCD_PANE_SPHERICAL;
  if ((event->state & GDK_CONTROL_MASK) && planar && PCDview_PaneNormalAxis(p->pane.kind) >= 0) {
    p->gesture = PcdViewPane::Gesture::Box;
    DragBox(p, at);
    QueueDraw();
    return;
  }
  if (!RoiEditorIsCurrent() && planar && StartRegion(p, event, at)) return;
  PcdRoiObject* roi = pcd_app ? PCD_GetSelectedRoiObject(&pcd_app->session.rois) : nullptr;
  if (RoiEditorIsCurrent() && roi && planar && roi->shape) {
    if (!PCDview_BeginRoiEdit(&v->history, roi)) {
      gdk_display_beep(gdk_display_get_default());
      return;
    }
    if (roi->type == PCD_ROI_SPHERICAL) {
      const PcdIntVector3D c = Floor(at);
      PCDview_SetRoiSphere(roi, {c.x + 0.5f, c.y + 0.5f, c.z + 0.5f}, 1.0f);
      p->gesture = PcdViewPane::Gesture::Sphere;
    } else if (roi->type == PCD_ROI_FREEHAND) {
      p->contour.assign(1, PcdVector2D{float(event->x), float(event->y)});
      p->gesture = PcdViewPane::Gesture::Freehand;
      return;
    } else {
      p->gesture = (event->state & GDK_SHIFT_MASK) ? PcdViewPane::Gesture::Erase : PcdViewPane::Gesture::Paint;
    }
    Continue(p, event->x, event->y);
    return;
  }
  if (planar) PCDview_SetCursor(Floor(at), true);
}

void on_save_png(GtkMenuItem*, gpointer data) {
  const auto* p = static_cast<const PcdViewPane*>(data);
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::SaveFile, "Save pane as PNG", "pane.png", &path)) return;
  if (!PCDview_SavePanePng(p, path.c_str()))
    std::fprintf(stderr, "Warning: the pane could not be written to %s\n", path.c_str());
}

void PopupPaneMenu(PcdViewPane* p, GdkEventButton* event) {
  GtkWidget* menu = gtk_menu_new();
  GtkWidget* item = gtk_menu_item_new_with_label("Save as PNG ...");
  g_signal_connect(item, "activate", G_CALLBACK(on_save_png), p);
  gtk_menu_shell_append(GTK_MENU_SHELL(menu), item);
  gtk_widget_show_all(menu);
  g_signal_connect(menu, "deactivate", G_CALLBACK(gtk_widget_destroy), nullptr);
  gtk_menu_popup_at_pointer(GTK_MENU(menu), reinterpret_cast<GdkEvent*>(event));
}

gboolean on_pane_press(GtkWidget*, GdkEventButton* event, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  if (event->type != GDK_BUTTON_PRESS) return TRUE;
  gtk_widget_grab_focus(p->area);  // keys go to the views, not to a field typed in before
  if (event->button == 3) PopupPaneMenu(p, event);
  else if (event->button == 1) Start(p, event);
  return TRUE;
}

gboolean on_pane_motion(GtkWidget*, GdkEventMotion* event, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  if (p->gesture != PcdViewPane::Gesture::None && (event->state & GDK_BUTTON1_MASK))
    Continue(p, event->x, event->y);
  return TRUE;
}

gboolean on_pane_release(GtkWidget*, GdkEventButton* event, gpointer data) {
  if (event->button == 1) Finish(static_cast<PcdViewPane*>(data), event->x, event->y);
  return TRUE;
}

// The wheel steps through the slices of an axis-aligned pane.
gboolean on_pane_scroll(GtkWidget*, GdkEventScroll* event, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  const int axis = PCDview_PaneNormalAxis(p->pane.kind);
  int step = event->direction == GDK_SCROLL_UP ? 1 : event->direction == GDK_SCROLL_DOWN ? -1 : 0;
  if (axis < 0 || step == 0) return TRUE;
  PcdIntVector3D c = pcd_views->cursor;
  (axis == 0 ? c.x : axis == 1 ? c.y : c.z) += step;
  PCDview_SetCursor(c, true);
  return TRUE;
}

void on_slice_changed(GtkSpinButton* spin, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  if (pcd_views->updatingControls) return;
  const int axis = PCDview_PaneNormalAxis(p->pane.kind);
  if (axis < 0) return;
  PcdIntVector3D c = pcd_views->cursor;
  (axis == 0 ? c.x : axis == 1 ? c.y : c.z) = gtk_spin_button_get_value_as_int(spin);
  PCDview_SetCursor(c, true);
}

void on_zoom_changed(GtkComboBox* combo, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  const int zoom = gtk_combo_box_get_active(combo);
  if (zoom >= 0) p->pane.zoom = zoom;
  QueueDraw();
}

void on_oblique_changed(GtkWidget*, gpointer data) {
  auto* p = static_cast<PcdViewPane*>(data);
  p->pane.obliqueTilt = float(gtk_spin_button_get_value(GTK_SPIN_BUTTON(p->tilt)));
  p->pane.obliqueTurn = float(gtk_spin_button_get_value(GTK_SPIN_BUTTON(p->turn)));
  p->pane.obliqueAlongE1 = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(p->alongE1));
  p->pane.sphereRadius = float(gtk_spin_button_get_value(GTK_SPIN_BUTTON(p->radius)));
  PCDview_SetPaneKind(p, p->pane.kind);
}

void on_channel_changed(GtkSpinButton* spin, gpointer) {
  if (pcd_views->updatingControls) return;
  PCDview_SetChannel(gtk_spin_button_get_value_as_int(spin) - 1);
}

GtkWidget* Spin(double lower, double upper, double step, int digits, double value) {
  GtkWidget* spin = gtk_spin_button_new_with_range(lower, upper, step);
  gtk_spin_button_set_digits(GTK_SPIN_BUTTON(spin), static_cast<guint>(digits));
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(spin), value);
  gtk_entry_set_width_chars(GTK_ENTRY(spin), 4);
  return spin;
}

GtkWidget* Labelled(GtkWidget* box, const char* label, GtkWidget* control) {
  GtkWidget* hbox = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 2);
  gtk_box_pack_start(GTK_BOX(hbox), gtk_label_new(label), FALSE, FALSE, 0);
  PCD_SetAccessibleName(control, label);
  gtk_box_pack_start(GTK_BOX(hbox), control, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(box), hbox, FALSE, FALSE, 2);
  return hbox;
}

GtkWidget* BuildPane(PcdViewPane* p, int32_t firstKind) {
  p->pane.kind = firstKind;
  p->box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 1);
  PCD_BuildMenuBar(kPcdPaneMenus[firstKind], kPcdPaneMenuEntryCount, p, nullptr, &p->menu);
  gtk_box_pack_start(GTK_BOX(p->box), p->menu.bar, FALSE, FALSE, 0);

  GtkWidget* controls = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
  p->slice = Spin(0, 0, 1, 0, 0);
  Labelled(controls, "slice", p->slice);
  g_signal_connect(p->slice, "value-changed", G_CALLBACK(on_slice_changed), p);
  p->zoom = gtk_combo_box_text_new();
  for (const char* label : kZoomLabels) gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(p->zoom), label);
  gtk_combo_box_set_active(GTK_COMBO_BOX(p->zoom), p->pane.zoom);
  g_signal_connect(p->zoom, "changed", G_CALLBACK(on_zoom_changed), p);
  gtk_box_pack_start(GTK_BOX(controls), p->zoom, FALSE, FALSE, 0);
  p->tilt = Spin(-90, 90, 5, 0, p->pane.obliqueTilt);
  p->turn = Spin(-180, 180, 5, 0, p->pane.obliqueTurn);
  p->alongE1 = gtk_check_button_new_with_label("e1");
  p->radius = Spin(1, 64, 0.5, 1, p->pane.sphereRadius);
  Labelled(controls, "tilt", p->tilt);
  Labelled(controls, "turn", p->turn);
  gtk_box_pack_start(GTK_BOX(controls), p->alongE1, FALSE, FALSE, 0);
  Labelled(controls, "radius", p->radius);
  for (GtkWidget* w : {p->tilt, p->turn, p->radius}) g_signal_connect(w, "value-changed", G_CALLBACK(on_oblique_changed), p);
  g_signal_connect(p->alongE1, "toggled", G_CALLBACK(on_oblique_changed), p);
  // four panes have the same controls: their names say which pane
  const std::string pane = "pane " + std::to_string(p->index + 1) + " ";
  PCD_SetAccessibleName(p->slice, (pane + "slice").c_str());
  PCD_SetAccessibleName(p->tilt, (pane + "tilt").c_str());
  PCD_SetAccessibleName(p->turn, (pane + "turn").c_str());
  PCD_SetAccessibleName(p->radius, (pane + "radius").c_str());
  PCD_SetAccessibleName(p->zoom, (pane + "zoom").c_str());
  gtk_box_pack_start(GTK_BOX(p->box), controls, FALSE, FALSE, 0);

  p->area = gtk_drawing_area_new();
  gtk_widget_set_size_request(p->area, kPcdPaneSize, kPcdPaneSize);
  gtk_widget_set_hexpand(p->area, TRUE);  // a larger window gives larger panes
  gtk_widget_set_vexpand(p->area, TRUE);
  gtk_widget_set_can_focus(p->area, TRUE);
  gtk_widget_add_events(p->area, GDK_BUTTON_PRESS_MASK | GDK_BUTTON_RELEASE_MASK |
                                     GDK_POINTER_MOTION_MASK | GDK_SCROLL_MASK);
  g_signal_connect(p->area, "draw", G_CALLBACK(on_pane_draw), p);
  g_signal_connect(p->area, "button-press-event", G_CALLBACK(on_pane_press), p);
  g_signal_connect(p->area, "button-release-event", G_CALLBACK(on_pane_release), p);
  g_signal_connect(p->area, "motion-notify-event", G_CALLBACK(on_pane_motion), p);
  g_signal_connect(p->area, "scroll-event", G_CALLBACK(on_pane_scroll), p);
  gtk_box_pack_start(GTK_BOX(p->box), p->area, TRUE, TRUE, 0);
  return p->box;
}

// Ctrl+Z and Ctrl+Y undo and redo; unmodified keys go to a text field with the focus
// before the main menu's plain-letter accelerators can take them.
gboolean on_views_key_press(GtkWidget* window, GdkEventKey* event, gpointer) {
  const guint mods = event->state & (GDK_CONTROL_MASK | GDK_MOD1_MASK | GDK_SUPER_MASK | GDK_SHIFT_MASK);
  if (mods == GDK_CONTROL_MASK) {
    const guint key = gdk_keyval_to_lower(event->keyval);
    if (key == GDK_KEY_z) return PCDview_Undo(), TRUE;
    if (key == GDK_KEY_y) return PCDview_Redo(), TRUE;
  }
  GtkWidget* focus = gtk_window_get_focus(GTK_WINDOW(window));
  const bool typing = focus != nullptr && GTK_IS_EDITABLE(focus) && gtk_editable_get_editable(GTK_EDITABLE(focus));
  if (typing && (mods & ~GDK_SHIFT_MASK) == 0 && gtk_window_propagate_key_event(GTK_WINDOW(window), event))
    return TRUE;
  return FALSE;
}

void on_views_destroy(GtkWidget*, gpointer) {
  if (!pcd_views) return;
  for (PcdViewPane& p : pcd_views->panes) {
    if (p.image) cairo_surface_destroy(p.image);
    p.image = nullptr;
    p.area = nullptr;
  }
  delete pcd_views;
  pcd_views = nullptr;
}

void on_palette_clicked(GtkButton*, gpointer) {
  if (pcd_views_palette.open) pcd_views_palette.open();
}

void on_region_palette_changed(GtkComboBox* combo, gpointer) {
  if (pcd_views) pcd_views->regionPalette = gtk_combo_box_get_active(combo) - 1;  // "none" first
}

// The tensor at a voxel when the data set is ready for it (quietly: the status line asks
// on every click, the console is not the place for the answer).
bool TensorAt(const PcdIntVector3D& c, float* fa, float* adc, PcdVector3D* e1) {
  const PcdDtiData* dti = pcd_app ? pcd_app->session.dti : nullptr;
  if (dti == nullptr || dti->isReady != 1 || dti->volume == nullptr || dti->volume->matrixSize == nullptr ||
      dti->channelCount - dti->soCount < 6 || dti->channelCount > dti->volume->matrixSize->channels)
    return false;
  for (int32_t ch = 0; ch < dti->channelCount; ++ch)
    if (dti->volume->dataType[ch] != 3) return false;
  std::unique_ptr<PcdDiffusionTensorData, void (*)(PcdDiffusionTensorData*)> t(
      PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount), PCDdti_DeleteDiffusionTensorData);
  if (!t || !PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, t.get(), &c)) return false;
  *fa = PCDdti_GetFA(t.get());
  *adc = PCDdti_GetADC(t.get());
  *e1 = {t->tensor[1][3], t->tensor[2][3], t->tensor[3][3]};
  return true;
}

}  // namespace

bool PCDview_OpenViewsWindow() {
  if (pcd_views) return true;
  if (gdk_display_get_default() == nullptr) return false;
  pcd_views = new PcdViewsState();
  PcdViewsState* v = pcd_views;
  v->window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(v->window), "Quorix.II views");
  g_signal_connect(v->window, "destroy", G_CALLBACK(on_views_destroy), nullptr);
  g_signal_connect(v->window, "key-press-event", G_CALLBACK(on_views_key_press), nullptr);
  if (pcd_app && pcd_app->accelGroup) gtk_window_add_accel_group(GTK_WINDOW(v->window), pcd_app->accelGroup);

  GtkWidget* vbox = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  gtk_container_set_border_width(GTK_CONTAINER(vbox), 2);
  gtk_container_add(GTK_CONTAINER(v->window), vbox);
  GtkWidget* bar = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  v->channel = Spin(1, 1, 1, 0, 1);
  Labelled(bar, "channel", v->channel);
  g_signal_connect(v->channel, "value-changed", G_CALLBACK(on_channel_changed), nullptr);
  v->brush = Spin(0.5, 20, 0.5, 1, 1.5);
  Labelled(bar, "brush", v->brush);
  // the study region palettes, as in the ROI palette frame
  v->palette = gtk_combo_box_text_new();
  for (const char* label : {"none", "seed", "target", "avoidance"})
    gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(v->palette), label);
  gtk_combo_box_set_active(GTK_COMBO_BOX(v->palette), 0);
  g_signal_connect(v->palette, "changed", G_CALLBACK(on_region_palette_changed), nullptr);
  Labelled(bar, "study region", v->palette);
  GtkWidget* palette = gtk_button_new_with_label("ROI palette frame");
  g_signal_connect(palette, "clicked", G_CALLBACK(on_palette_clicked), nullptr);
  gtk_box_pack_end(GTK_BOX(bar), palette, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(vbox), bar, FALSE, FALSE, 0);

  GtkWidget* grid = gtk_grid_new();
  gtk_grid_set_row_spacing(GTK_GRID(grid), 4);
  gtk_grid_set_column_spacing(GTK_GRID(grid), 4);
  const int32_t first[kPcdViewPaneCount] = {PCD_PANE_AXIAL, PCD_PANE_SAGITTAL, PCD_PANE_CORONAL, PCD_PANE_OBLIQUE};
  for (int i = 0; i < kPcdViewPaneCount; ++i) {
    v->panes[i].index = i;
    gtk_grid_attach(GTK_GRID(grid), BuildPane(&v->panes[i], first[i]), i % 2, i / 2, 1, 1);
  }
  gtk_box_pack_start(GTK_BOX(vbox), grid, TRUE, TRUE, 0);
  gtk_widget_show_all(v->window);
  for (PcdViewPane& p : v->panes) PCDview_SetPaneKind(&p, p.pane.kind);
  // shown whole, every pane first asked for the width of all its controls: the hidden
  // ones no longer count
  gtk_window_resize(GTK_WINDOW(v->window), 1, 1);
  if (pcd_app && pcd_app->window) {
    gint x = 0, y = 0, width = 0, height = 0;
    gtk_window_get_position(GTK_WINDOW(pcd_app->window), &x, &y);
    // before its first allocation the main window's width is the size it asks for
    gtk_window_get_size(GTK_WINDOW(pcd_app->window), &width, &height);
    width = std::max(width, gtk_widget_get_allocated_width(pcd_app->window));
    gtk_window_move(GTK_WINDOW(v->window), x + width + 8, y);
  }
  FollowDataSet();
  return true;
}

void PCDview_CloseViewsWindow() {
  if (pcd_views_palette.close) pcd_views_palette.close();
  if (pcd_views && pcd_views->window) gtk_widget_destroy(pcd_views->window);
  PCDview_DropAllStudyFibers();
}

void PCDview_Redraw() {
  if (!pcd_views) return;
  FollowDataSet();
  UpdateControls();  // channels may have been added to the same data set
  QueueDraw();
}

void PCDview_SetPaneKind(PcdViewPane* p, int32_t kind) {
  if (kind < 0 || kind >= kPcdPaneKindCount) return;
  p->pane.kind = kind;
  const bool planar = PCDview_PaneNormalAxis(kind) >= 0;
  const bool oblique = kind == PCD_PANE_OBLIQUE, spherical = kind == PCD_PANE_SPHERICAL;
  gtk_widget_set_visible(p->slice, planar);
  gtk_widget_set_visible(gtk_widget_get_parent(p->slice), planar);
  for (GtkWidget* w : {p->tilt, p->turn}) gtk_widget_set_visible(gtk_widget_get_parent(w), oblique);
  gtk_widget_set_visible(p->alongE1, oblique);
  gtk_widget_set_sensitive(p->tilt, !p->pane.obliqueAlongE1);
  gtk_widget_set_sensitive(p->turn, !p->pane.obliqueAlongE1);
  gtk_widget_set_visible(gtk_widget_get_parent(p->radius), spherical);
  gtk_widget_set_sensitive(p->zoom, !spherical);  // the unrolled sphere fills the pane
  if (pcd_views) UpdateControls();
  if (p->area) gtk_widget_queue_draw(p->area);
}

PcdSliceScene PCDview_GetScene(const PcdViewPane* p) {
  PcdSliceScene scene;
  const PcdViewsState* v = pcd_views;
  if (pcd_app) {
    scene.volume = pcd_app->session.volume;
    scene.greyMax = pcd_app->greyMax;
    const PcdDtiData* dti = pcd_app->session.dti;
    if (dti && dti->reserved > 0) scene.voxelMm = {dti->reserved, dti->reserved, dti->reserved};
  }
  scene.channel = v->channelIndex;
  scene.cursor = v->cursor;
  const PcdGreyWindow grey = PCDview_GetGreyWindow(v->channelIndex);
  scene.greyLow = grey.low;
  scene.greyHigh = grey.high;
  scene.voxelsPerPixel = VoxelsPerPixel(p->pane.zoom);
  float fa = 0, adc = 0;
  if (p->pane.kind == PCD_PANE_OBLIQUE && p->pane.obliqueAlongE1) TensorAt(v->cursor, &fa, &adc, &scene.e1);
  return scene;
}

void PCDview_RenderPaneImage(PcdViewPane* p) {
  if (!pcd_views || !p->area) return;
  FollowDataSet();
  const int w = std::max(1, gtk_widget_get_allocated_width(p->area));
  const int h = std::max(1, gtk_widget_get_allocated_height(p->area));
  if (!p->image || cairo_image_surface_get_width(p->image) != w || cairo_image_surface_get_height(p->image) != h) {
    if (p->image) cairo_surface_destroy(p->image);
    p->image = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
  }
  PcdPaneOverlays overlays;
  if (pcd_app) {
    overlays.rois = &pcd_app->session.rois;
    PCDview_GetRegionOverlays(PCD_GetSelectedStudyObject(&pcd_app->session.studies), &pcd_views->regionOverlays);
    overlays.regions = &pcd_views->regionOverlays;
    for (const auto& study : pcd_app->session.studies.items)
      if (study && study->visible == 1) {
        overlays.fibers.push_back(PCDview_GetStudyFibers(study->id));
        overlays.glyphs.push_back(PCDview_GetStudyGlyphs(study->id));
      }
  }
  overlays.showBox = true;
  overlays.boxOrigin = pcd_views->boxOrigin;
  overlays.boxSize = pcd_views->boxSize;
  const PcdSliceScene scene = PCDview_GetScene(p);
  p->geometry = PCDview_RenderPane(p->image, p->pane, scene, overlays, &p->table);
  ++pcd_views->redraws;
}

void PCDview_SetCursor(const PcdIntVector3D& cursor, bool tellViewer) {
  if (!pcd_views) return;
  FollowDataSet();
  pcd_views->cursor = Clamped(cursor);
  UpdateControls();
  PCD_SetStatus(PCDview_DescribeCursor().c_str());
  if (tellViewer) pcd_viewer_send_position(&pcd_views->cursor);
  QueueDraw();
}

void PCDview_SetBoxVoi(const PcdIntVector3D& origin, const PcdIntSize3D& size) {
  if (!pcd_views) return;
  FollowDataSet();
  const PcdIntVector3D first = Clamped(origin);
  const PcdIntVector3D last = Clamped({origin.x + std::max(1, size.x) - 1, origin.y + std::max(1, size.y) - 1,
                                       origin.z + std::max(1, size.z) - 1});
  pcd_views->boxOrigin = first;
  pcd_views->boxSize = {last.x - first.x + 1, last.y - first.y + 1, last.z - first.z + 1};
  pcd_viewer_send_region(&pcd_views->boxOrigin, &pcd_views->boxSize);
  QueueDraw();
}

void PCDview_SetChannel(int32_t channel) {
  if (!pcd_views) return;
  FollowDataSet();
  const PcdIntSize4D s = VolumeSize();
  pcd_views->channelIndex = std::clamp(channel, 0, std::max(0, s.channels - 1));
  UpdateControls();
  PCD_SetStatus(PCDview_DescribeCursor().c_str());
  QueueDraw();
}

namespace {

// The slot of a channel's window, fitted afresh when the channel is new or was replaced.
PcdGreyWindow* GreyWindowSlot(int32_t channel) {
  const PcdRawVolumeData* volume = pcd_app ? pcd_app->session.volume : nullptr;
  if (!pcd_views || !volume || !volume->matrixSize || channel < 0 || channel >= volume->matrixSize->channels)
    return nullptr;
  std::vector<PcdGreyWindow>& windows = pcd_views->greyWindows;
  if (windows.size() < size_t(volume->matrixSize->channels)) windows.resize(size_t(volume->matrixSize->channels));
  PcdGreyWindow& w = windows[size_t(channel)];
  if (w.data != volume->data[channel]) {
    w = PcdGreyWindow{};
    w.data = volume->data[channel];
    w.high = float(pcd_app->levelSetting);  // an empty or colour channel keeps the plain mapping
    PCDview_FitGreyMapping(volume, channel, &w.low, &w.high, 0.01, 0.99);
  }
  return &w;
}

}  // namespace

PcdGreyWindow PCDview_GetGreyWindow(int32_t channel) {
  const PcdGreyWindow* w = GreyWindowSlot(channel);
  if (w) return *w;
  PcdGreyWindow plain;
  plain.high = pcd_app ? float(pcd_app->levelSetting) : 254.0f;
  return plain;
}

void PCDview_SetGreyWindow(int32_t channel, float low, float high) {
  PcdGreyWindow* w = GreyWindowSlot(channel);
  if (!w) return;
  w->low = low;
  w->high = high > low ? high : low + 1.0f;
  w->adjusted = true;
  QueueDraw();
}

int32_t PCDview_GetChannel() { return pcd_views ? pcd_views->channelIndex : 0; }

std::string PCDview_DescribeCursor() {
  if (!pcd_views || !pcd_app || !pcd_app->session.volume) return "";
  const PcdIntVector3D c = pcd_views->cursor;
  char text[256];
  double value = 0;
  const PcdRawVolumeData* volume = pcd_app->session.volume;
  const int32_t channel = pcd_views->channelIndex;
  PCDview_GetVoxelValue(volume, channel, c.x, c.y, c.z, &value);
  int n = 0;
  if (channel < volume->matrixSize->channels && volume->colorFormat[channel] == PCD_RGBA_PACKED) {
    // a colour voxel is its three components, red in the top byte
    const auto word = static_cast<uint32_t>(value);
    n = std::snprintf(text, sizeof text, " (%d, %d, %d) ch. %d: R %u G %u B %u", c.x, c.y, c.z, channel + 1,
                      word >> 24, (word >> 16) & 0xFFu, (word >> 8) & 0xFFu);
  } else {
    n = std::snprintf(text, sizeof text, " (%d, %d, %d) ch. %d: %g", c.x, c.y, c.z, channel + 1, value);
  }
  float fa = 0, adc = 0;
  PcdVector3D e1;
  if (n > 0 && TensorAt(c, &fa, &adc, &e1))
    std::snprintf(text + n, sizeof text - size_t(n), "  FA %.3f  ADC %.3f  e1 (%.2f, %.2f, %.2f)",
                  double(fa), double(adc * 1000.0f), double(e1.x), double(e1.y), double(e1.z));
  return text;
}

namespace {

// After an undo or redo: the page that shows what changed shows it again.
void AfterHistoryStep(bool studied) {
  if (studied) {
    if (pcd_view_study_edited) pcd_view_study_edited(PCD_GetSelectedStudyObject(&pcd_app->session.studies));
  } else if (pcd_view_roi_edited) {
    pcd_view_roi_edited(PCD_GetSelectedRoiObject(&pcd_app->session.rois));
  }
  QueueDraw();
}

}  // namespace

bool PCDview_Undo() {
  bool studied = false;
  if (!pcd_views || !pcd_app ||
      !PCDview_UndoRoiEdit(&pcd_views->history, &pcd_app->session.rois, &pcd_app->session.studies, &studied))
    return false;
  AfterHistoryStep(studied);
  return true;
}

bool PCDview_Redo() {
  bool studied = false;
  if (!pcd_views || !pcd_app ||
      !PCDview_RedoRoiEdit(&pcd_views->history, &pcd_app->session.rois, &pcd_app->session.studies, &studied))
    return false;
  AfterHistoryStep(studied);
  return true;
}

void PCDview_SetRegionPalette(int32_t palette) {
  if (!pcd_views) return;
  gtk_combo_box_set_active(GTK_COMBO_BOX(pcd_views->palette), std::clamp(palette, -1, 2) + 1);
}

bool PCDview_SavePanePng(const PcdViewPane* p, const char* path) {
  return p && p->image && path && cairo_surface_write_to_png(p->image, path) == CAIRO_STATUS_SUCCESS;
}
