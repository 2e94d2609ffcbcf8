#include "view/palette_frame.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "app/services/app_state.h"
#include "app/services/status_line.h"
#include "app/services/viewer_link.h"
#include "view/roi_drawing.h"
#include "view/roi_overlay.h"
#include "view/views_window.h"

namespace {

struct PaletteFrame {
  GtkWidget* window = nullptr;
  GtkWidget* area = nullptr;
  GtkWidget* radios[kPcdPaletteCount] = {};
  cairo_surface_t* image = nullptr;
  PcdGreyTable table;
  PcdPaneGeometry geometry;
  PcdRoiPalette palette;
  bool painting = false, erasing = false;
};
PaletteFrame* g_frame = nullptr;

const char* const kPaletteLabels[kPcdPaletteCount] = {"seed", "target", "avoidance", "ROI"};
const char* const kImportFormats[kPcdPaletteCount] = {"Imported seed of %s", "Imported target of %s",
                                                      "Imported avoidance of %s", "Imported ROI of %s"};
const double kPaletteColours[kPcdPaletteCount][3] = {{0.1, 0.9, 0.1}, {0.2, 0.4, 1.0}, {1.0, 0.15, 0.15}, {1.0, 0.9, 0.1}};

PcdIntSize3D SessionSize() {
  return pcd_app ? PCD_GetSessionMatrixSize(&pcd_app->session) : PcdIntSize3D{0, 0, 0};
}

// The palettes follow the data set: a new size starts them empty.
void FitPalettes() {
  const PcdIntSize3D s = SessionSize();
  PcdRoiPalette& p = g_frame->palette;
  if (p.size.x == s.x && p.size.y == s.y && p.size.z == s.z) return;
  p.size = s;
  for (auto& mask : p.masks) mask.assign(size_t(std::max(0, s.x)) * size_t(std::max(0, s.y)) * size_t(std::max(0, s.z)), 0);
}

void DrawMasks(cairo_t* cr) {
  const PcdRoiPalette& p = g_frame->palette;
  const PcdPaneGeometry& g = g_frame->geometry;
  for (int k = 0; k < kPcdPaletteCount; ++k) {
    if (p.masks[k].empty()) continue;
    for (int y = 0; y < g.height; ++y)
      for (int x = 0; x < g.width; ++x) {
        const PcdVector3D v = PCDview_PixelToVoxel(g, x + 0.5, y + 0.5);
        if (!(v.x >= 0 && v.y >= 0 && v.z >= 0 && v.x < p.size.x && v.y < p.size.y && v.z < p.size.z)) continue;
        const size_t i = size_t(v.x) + size_t(p.size.x) * (size_t(v.y) + size_t(p.size.y) * size_t(v.z));
        if (p.masks[k][i]) cairo_rectangle(cr, x, y, 1, 1);
      }
    cairo_set_source_rgba(cr, kPaletteColours[k][0], kPaletteColours[k][1], kPaletteColours[k][2], 0.45);
    cairo_fill(cr);
  }
}

gboolean on_frame_draw(GtkWidget* area, cairo_t* cr, gpointer) {
  if (!g_frame || !pcd_views) return TRUE;
  FitPalettes();
  const int w = std::max(1, gtk_widget_get_allocated_width(area)), h = std::max(1, gtk_widget_get_allocated_height(area));
  if (!g_frame->image || cairo_image_surface_get_width(g_frame->image) != w || cairo_image_surface_get_height(g_frame->image) != h) {
    if (g_frame->image) cairo_surface_destroy(g_frame->image);
    g_frame->image = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
  }
  PcdSlicePane pane;
  pane.kind = PCD_PANE_AXIAL;
  pane.zoom = 3;  // 0.5 s: twice the size of a view pane
  PcdViewPane probe;
  probe.pane = pane;
  const PcdSliceScene scene = PCDview_GetScene(&probe);
  PcdPaneOverlays overlays;
  g_frame->geometry = PCDview_RenderPane(g_frame->image, pane, scene, overlays, &g_frame->table);
  cairo_t* onImage = cairo_create(g_frame->image);
  cairo_set_antialias(onImage, CAIRO_ANTIALIAS_NONE);
  DrawMasks(onImage);
  cairo_destroy(onImage);
  cairo_surface_flush(g_frame->image);
  cairo_set_source_surface(cr, g_frame->image, 0, 0);
  cairo_paint(cr);
  return TRUE;
}

void PaintAt(double x, double y) {
  PcdRoiPalette& p = g_frame->palette;
  FitPalettes();
  std::vector<uint8_t>& mask = p.masks[p.current];
  if (mask.empty()) return;
  const float radius = pcd_views && pcd_views->brush ? float(gtk_spin_button_get_value(GTK_SPIN_BUTTON(pcd_views->brush))) : 1.5f;
  const PcdVector3D at = PCDview_PixelToVoxel(g_frame->geometry, x, y);
  PCDview_ForBrushVoxels(p.size, g_frame->geometry, at, radius, [&](int32_t vx, int32_t vy, int32_t vz) {
    mask[size_t(vx) + size_t(p.size.x) * (size_t(vy) + size_t(p.size.y) * size_t(vz))] = g_frame->erasing ? 0 : 1;
  });
  gtk_widget_queue_draw(g_frame->area);
}

gboolean on_frame_press(GtkWidget*, GdkEventButton* e, gpointer) {
  if (e->type != GDK_BUTTON_PRESS || e->button != 1) return TRUE;
  g_frame->painting = true;
  g_frame->erasing = (e->state & GDK_SHIFT_MASK) != 0;
  PaintAt(e->x, e->y);
  return TRUE;
}

gboolean on_frame_motion(GtkWidget*, GdkEventMotion* e, gpointer) {
  if (g_frame->painting && (e->state & GDK_BUTTON1_MASK)) PaintAt(e->x, e->y);
  return TRUE;
}

gboolean on_frame_release(GtkWidget*, GdkEventButton* e, gpointer) {
  if (e->button == 1) g_frame->painting = false;
  return TRUE;
}

void on_palette_toggled(GtkToggleButton* button, gpointer data) {
  if (g_frame && gtk_toggle_button_get_active(button)) g_frame->palette.current = GPOINTER_TO_INT(data);
}

void on_frame_destroy(GtkWidget*, gpointer) {
  if (!g_frame) return;
  if (g_frame->image) cairo_surface_destroy(g_frame->image);
  delete g_frame;
  g_frame = nullptr;
}

}  // namespace

int32_t PCDview_StepChannel(int32_t channel, int32_t count, guint step) {
  if (count <= 0) return 0;
  switch (step) {
    case PCD_CHANNEL_FIRST: return 0;
    case PCD_CHANNEL_LAST: return count - 1;
    case PCD_CHANNEL_NEXT: return std::min(channel + 1, count - 1);
    case PCD_CHANNEL_PREVIOUS: return std::max(channel - 1, 0);
    default: return std::clamp(channel, 0, count - 1);
  }
}

int PCDview_ExportPaletteToRois(const PcdRoiPalette* palette, PcdRoiList* rois, const char* name) {
  if (palette == nullptr || rois == nullptr) return 0;
  int made = 0;
  for (int k = 0; k < kPcdPaletteCount; ++k) {
    const std::vector<uint8_t>& mask = palette->masks[k];
    if (std::find(mask.begin(), mask.end(), 1) == mask.end()) continue;
    PcdRoiObject* roi = PCD_NewRoiObject(rois, PCD_ROI_VOXELGROUP, &palette->size);
    if (roi == nullptr) break;
    const PcdIntVector3D origin{0, 0, 0};
    const uint32_t second[3] = {0, 0, 0};
    roi->voxelGroup = PCD_NewVoxelGroup(&origin, &palette->size, second, kPcdVoxelGroupOneByte);
    if (!roi->voxelGroup) break;
    for (int32_t z = 0; z < palette->size.z; ++z)
      for (int32_t y = 0; y < palette->size.y; ++y)
        for (int32_t x = 0; x < palette->size.x; ++x)
          if (mask[size_t(x) + size_t(palette->size.x) * (size_t(y) + size_t(palette->size.y) * size_t(z))])
            PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), x, y, z, 1);
    char label[256];
    std::snprintf(label, sizeof label, kImportFormats[k], name ? name : "");
    PCD_SetRoiLabel(roi, label);
    ++made;
  }
  return made;
}

void cmd_palette_channel(gpointer, guint step, GtkWidget*) {
  if (!pcd_app || !pcd_app->session.volume) return;
  PCDview_SetChannel(PCDview_StepChannel(PCDview_GetChannel(), pcd_app->session.volume->matrixSize->channels, step));
}

void cmd_palette_upload(gpointer, guint, GtkWidget*) {
  if (!pcd_app || !pcd_app->session.volume) return;
  std::fputs("Sending a channel to PELLUCID...", stderr);
  std::fflush(stderr);
  const int sent = pcd_viewer_send_channel(pcd_app->session.volume, PCDview_GetChannel());
  std::fputs(sent == 0 ? "done.\n" : "failed.\n", stderr);
}

void cmd_palette_adjust_greyscale(gpointer, guint, GtkWidget*) {
  float low = 0, high = 0;
  if (!pcd_app || !pcd_views || !PCDview_FitGreyMapping(pcd_app->session.volume, PCDview_GetChannel(), &low, &high)) return;
  // the user's adjustment of this channel, kept when other channels are shown
  pcd_app->levelSetting = int32_t(std::ceil(high));
  PCDview_SetGreyWindow(PCDview_GetChannel(), low, high);
  PCDview_Redraw();
}

void cmd_palette_export(gpointer, guint, GtkWidget*) {
  if (!pcd_app || !g_frame) return;
  char name[64];
  std::snprintf(name, sizeof name, "channel %d", PCDview_GetChannel() + 1);
  if (PCDview_ExportPaletteToRois(&g_frame->palette, &pcd_app->session.rois, name) > 0) {
    if (pcd_view_rois_added) pcd_view_rois_added();
    PCDview_Redraw();
  }
}

bool PCDview_OpenPaletteFrame() {
  if (g_frame) {
    gtk_window_present(GTK_WINDOW(g_frame->window));
    return true;
  }
  if (!pcd_views) return false;
  g_frame = new PaletteFrame();
  g_frame->window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(g_frame->window), "ROI palette frame");
  g_signal_connect(g_frame->window, "destroy", G_CALLBACK(on_frame_destroy), nullptr);
  if (pcd_app && pcd_app->accelGroup) gtk_window_add_accel_group(GTK_WINDOW(g_frame->window), pcd_app->accelGroup);
  GtkWidget* vbox = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  gtk_container_add(GTK_CONTAINER(g_frame->window), vbox);
  GtkWidget* bar = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
  GSList* group = nullptr;
  for (int k = 0; k < kPcdPaletteCount; ++k) {
    g_frame->radios[k] = gtk_radio_button_new_with_label(group, kPaletteLabels[k]);
    group = gtk_radio_button_get_group(GTK_RADIO_BUTTON(g_frame->radios[k]));
    g_signal_connect(g_frame->radios[k], "toggled", G_CALLBACK(on_palette_toggled), GINT_TO_POINTER(k));
    gtk_box_pack_start(GTK_BOX(bar), g_frame->radios[k], FALSE, FALSE, 0);
  }
  gtk_box_pack_start(GTK_BOX(vbox), bar, FALSE, FALSE, 0);
  g_frame->area = gtk_drawing_area_new();
  gtk_widget_set_size_request(g_frame->area, 2 * kPcdPaneSize, 2 * kPcdPaneSize);
  gtk_widget_add_events(g_frame->area, GDK_BUTTON_PRESS_MASK | GDK_BUTTON_RELEASE_MASK | GDK_POINTER_MOTION_MASK);
  g_signal_connect(g_frame->area, "draw", G_CALLBACK(on_frame_draw), nullptr);
  g_signal_connect(g_frame->area, "button-press-event", G_CALLBACK(on_frame_press), nullptr);
  g_signal_connect(g_frame->area, "motion-notify-event", G_CALLBACK(on_frame_motion), nullptr);
  g_signal_connect(g_frame->area, "button-release-event", G_CALLBACK(on_frame_release), nullptr);
  gtk_box_pack_start(GTK_BOX(vbox), g_frame->area, TRUE, TRUE, 0);
  gtk_widget_show_all(g_frame->window);
  FitPalettes();
  return true;
}

void PCDview_ClosePaletteFrame() {
  if (g_frame) gtk_widget_destroy(g_frame->window);
}

void PCDview_RedrawPaletteFrame() {
  if (g_frame && g_frame->area) gtk_widget_queue_draw(g_frame->area);
}

PcdRoiPalette* PCDview_GetRoiPalette() { return g_frame ? &g_frame->palette : nullptr; }
GtkWidget* PCDview_GetPaletteArea() { return g_frame ? g_frame->area : nullptr; }
cairo_surface_t* PCDview_GetPaletteImage() { return g_frame ? g_frame->image : nullptr; }
