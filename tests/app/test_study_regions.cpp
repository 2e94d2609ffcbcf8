// A study's own regions drawn in the views and ROIs drawn there used as the region of
// voxel statistics and diffusion profile, driven as a user drives them under Xvfb: the
// study list clicked, the palette chosen, the mouse dragged in a pane, " Analyze and
// Display " pressed, Ctrl+Z, the work session saved and opened. Expected voxel counts
// and sphere geometry are worked out by hand from the pixels dragged.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "app/services/app_state.h"
#include "app/commands.h"
#include "app/services/dialogs.h"
#include "app/startup.h"
#include "io/raw_volume_file.h"
#include "study/gui/gui_util.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "study/study_runner.h"
#include "support/gui_support.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"
#include "view/fiber_overlay.h"
#include "view/views_window.h"

namespace {

using quorix_test::TempDir;

// The noisy phantom: 32 x 32 x 12, 30 directions. Its straight bundle along x lies at
// y 13..18, z 4..7 (|y - 15.5| <= 32 / 12, |z - 5.5| <= 1.5); the bundle along y
// crosses it at x 13..18. At the first display scale a voxel takes 8 pixels.
constexpr int kX = 32, kY = 32, kZ = 12;
constexpr double kPixels = 256.0 / kX;
constexpr int32_t kColourChannel = 31;  // So + 30 DWIs, then colour, FA, ADC, isotropic

void Drain(int ms = 200) { quorix_test::DrainEvents(ms); }

quorix_test::DialogScript g_dialogs;
std::vector<PcdDialogAnswer>& g_answers = g_dialogs.answers;

struct Desktop {
  TempDir dir;
  std::unique_ptr<quorix_test::ServerProcess> server;
  bool ok = false;
  Desktop() {
    PcdDtiData* dti = PCD_MakeDwiPhantom({.sizeX = kX, .sizeY = kY, .sizeZ = kZ, .directions = 30, .noise = 0.04f},
                                         nullptr);
    const std::string path = dir.file("noisy.raw");
    WriteRawVolumeFile(dti->volume, path.c_str());
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
    server = std::make_unique<quorix_test::ServerProcess>(
        std::vector<std::string>{"--volume", path, "--save-dir", dir.path().string()});
    quorix_test::AnswerDialogsFrom(&g_dialogs);
    testing::internal::CaptureStderr();
    ok = Start();
    if (ok) cmd_add_computational_channels(nullptr, 0, nullptr);
    testing::internal::GetCapturedStderr();
    Drain();
  }
  bool Start() {
    std::string number = std::to_string(server->number);
    char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};
    return PCD_InitializeApplication(2, argv) == 1;
  }
  ~Desktop() {
    testing::internal::CaptureStderr();
    PCD_CleanUpApplication();
    testing::internal::GetCapturedStderr();
    PCD_SetDialogResponder(nullptr);
    g_answers.clear();
  }
};

PcdViewPane* Pane(int i) { return &pcd_views->panes[i]; }

// The pixel of a voxel's centre in the axial pane at the first scale (x right, y down,
// the 32-voxel section centred in the pane).
void AxialPixel(int x, int y, double* px, double* py) {
  const PcdViewPane* p = Pane(0);
  *px = gtk_widget_get_allocated_width(p->area) / 2.0 + (x + 0.5 - kX / 2.0) * kPixels;
  *py = gtk_widget_get_allocated_height(p->area) / 2.0 + (y + 0.5 - kY / 2.0) * kPixels;
}

using quorix_test::SendButton;

using quorix_test::SendMotion;

// A press at one pixel, a drag to another, a release there.
void Drag(double x0, double y0, double x1, double y1) {
  GtkWidget* area = Pane(0)->area;
  SendButton(area, GDK_BUTTON_PRESS, x0, y0);
  SendMotion(area, (x0 + x1) / 2, (y0 + y1) / 2);
  SendMotion(area, x1, y1);
  SendButton(area, GDK_BUTTON_RELEASE, x1, y1);
  Drain(100);
}

// A closed contour in the axial pane through the corners of the voxel rectangle
// x0..x1, y0..y1 (voxel coordinates, corners a fifth of a voxel inside).
void DrawRectangle(double x0, double x1, double y0, double y1) {
  const double w = Pane(0)->geometry.width / 2.0, h = Pane(0)->geometry.height / 2.0;
  const double l = w + (x0 - kX / 2.0) * kPixels, r = w + (x1 - kX / 2.0) * kPixels;
  const double t = h + (y0 - kY / 2.0) * kPixels, b = h + (y1 - kY / 2.0) * kPixels;
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, l, t);
  SendMotion(Pane(0)->area, r, t);
  SendMotion(Pane(0)->area, r, b);
  SendMotion(Pane(0)->area, l, b);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, l, b);
}

void PressKey(guint keyval, guint modifiers) { quorix_test::PressKey(pcd_views->window, keyval, modifiers); }

void Activate(const PcdMenuBar& menu, const char* path) {
  GtkWidget* item = PCD_FindMenuItem(menu, path);
  ASSERT_NE(item, nullptr) << path;
  gtk_menu_item_activate(GTK_MENU_ITEM(item));
}

using quorix_test::ClickRow;

GtkWidget* Find(GtkWidget* root, const std::function<bool(GtkWidget*)>& test) {
  return quorix_test::FindWidget(root, test);
}

// The radio button of a region page that reads label, and whether it is on.
bool RadioOn(GtkWidget* page, const char* label) {
  GtkWidget* b = Find(page, [label](GtkWidget* w) {
    return GTK_IS_RADIO_BUTTON(w) && gtk_button_get_label(GTK_BUTTON(w)) &&
           std::string(gtk_button_get_label(GTK_BUTTON(w))) == label;
  });
  return b != nullptr && gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(b));
}

void ClickRadio(GtkWidget* page, const char* label) {
  GtkWidget* b = Find(page, [label](GtkWidget* w) {
    return GTK_IS_RADIO_BUTTON(w) && gtk_button_get_label(GTK_BUTTON(w)) &&
           std::string(gtk_button_get_label(GTK_BUTTON(w))) == label;
  });
  ASSERT_NE(b, nullptr) << label;
  gtk_button_clicked(GTK_BUTTON(b));
}

// Ticks the "Use" box of a region page's ROI list in row n, as a click on it does.
void TickRoi(GtkWidget* page, int n) {
  GtkWidget* list = Find(page, [](GtkWidget* w) { return GTK_IS_TREE_VIEW(w); });
  ASSERT_NE(list, nullptr);
  GtkTreeViewColumn* use = gtk_tree_view_get_column(GTK_TREE_VIEW(list), 0);
  ASSERT_STREQ(gtk_tree_view_column_get_title(use), "Use");
  GList* cells = gtk_cell_layout_get_cells(GTK_CELL_LAYOUT(use));
  const std::string row = std::to_string(n);
  g_signal_emit_by_name(cells->data, "toggled", row.c_str());
  g_list_free(cells);
}

GtkWidget* PanelPage(int32_t type, int page) {
  return gtk_notebook_get_nth_page(GTK_NOTEBOOK(PCD_GetStudyPerformer()->panels[type]->notebook), page);
}

void SaveShot(GtkWidget* widget, const std::string& name) {
  Drain(250);
  quorix_test::SaveScreenshot(widget, name);
}

uint32_t PixelAt(cairo_surface_t* image, double px, double py) {
  cairo_surface_flush(image);
  const uint8_t* data = cairo_image_surface_get_data(image);
  return *reinterpret_cast<const uint32_t*>(data + int(py) * cairo_image_surface_get_stride(image) + int(px) * 4);
}

void Analyze() {
  testing::internal::CaptureStderr();
  gtk_button_clicked(GTK_BUTTON(pcd_app->analyzeButton));
  testing::internal::GetCapturedStderr();
  Drain(100);
}

// Moves the cursor with the palette off: the slice control to z, then a click on (x, y).
void PutCursor(int x, int y, int z) {
  PCDview_SetRegionPalette(-1);
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(Pane(0)->slice), z);
  Drain(100);  // the pane shows the new slice before the click
  double px, py;
  AxialPixel(x, y, &px, &py);
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, px, py);
  Drain(100);
}

TEST(SliceViews, ASeedSphereDrawnWithTheSeedPaletteSeedsTrackingThere) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  Desktop d;
  ASSERT_TRUE(d.ok);
  PcdStudyPerformer* performer = PCD_GetStudyPerformer();
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);  // " Study performer "
  ClickRow(performer->list, 0);                                        // "Fiber tracking 1"
  PcdStudyObject* study = PCD_GetSelectedStudyObject(&pcd_app->session.studies);
  ASSERT_NE(study, nullptr);
  ASSERT_EQ(study->type, PCD_STUDY_FIBER_TRACKING);
  const PcdRoiShape before = *study->tract->regions[0].shape;
  PutCursor(8, 15, 5);
  EXPECT_EQ(pcd_views->cursor.x, 8);
  EXPECT_EQ(pcd_views->cursor.z, 5);

  // the seed palette: a press on voxel (8, 15, 5), a drag 12 pixels (1.5 voxels) right
  gtk_combo_box_set_active(GTK_COMBO_BOX(pcd_views->palette), 1);  // "seed"
  double px, py;
  AxialPixel(8, 15, &px, &py);
  Drag(px, py, px + 1.5 * kPixels, py);
  const PcdStudyRegion& seed = study->tract->regions[0];
  EXPECT_FLOAT_EQ(seed.shape->centre.x, 8.5f);
  EXPECT_FLOAT_EQ(seed.shape->centre.y, 15.5f);
  EXPECT_FLOAT_EQ(seed.shape->centre.z, 5.5f);
  EXPECT_FLOAT_EQ(seed.shape->radius, 1.5f);
  EXPECT_EQ(study->tract->seedSource, kPcdSeedFromSphere);
  EXPECT_TRUE(RadioOn(PanelPage(PCD_STUDY_FIBER_TRACKING, 0), "Sphere"));
  // the other roles are left alone
  EXPECT_NE(study->tract->regions[1].use, kPcdRegionInUse);
  EXPECT_NE(study->tract->regions[2].use, kPcdRegionInUse);

  // shown in every pane that cuts it, in the seed's green: the axial, sagittal and
  // coronal panes all pass through voxel (8, 15, 5), the sphere's centre
  PCDview_SetChannel(0);
  Drain();
  for (int i = 0; i < 3; ++i) {
    const PcdViewPane* p = Pane(i);
    double cx = 0, cy = 0, depth = 0;
    ASSERT_TRUE(PCDview_VoxelToPixel(p->geometry, {8.5f, 15.5f, 5.5f}, &cx, &cy, &depth));
    const uint32_t pixel = PixelAt(p->image, cx + 3, cy + 3);  // beside the cursor's cross
    const int r = pixel >> 16 & 255, g = pixel >> 8 & 255, b = pixel & 255;
    EXPECT_GT(g, r + 40) << "pane " << i << std::hex << " " << pixel;
    EXPECT_GT(g, b + 40) << "pane " << i << std::hex << " " << pixel;
  }

  // " Analyze and Display ": the voxels whose centre lies within 1.5 of the centre voxel's
  // centre: itself, 6 face and 12 edge neighbours (sqrt 2 < 1.5 < sqrt 3)
  Analyze();
  const std::string summary = PCD_GetStudySummary(study);
  EXPECT_EQ(summary.rfind("Seed Points:   19\n", 0), 0u) << summary;
  const PcdIntSize3D size{kX, kY, kZ};
  const std::vector<PcdVector3D> seeds = PCD_GenerateStudySeeds(study, &pcd_app->session.rois, &size);
  ASSERT_EQ(seeds.size(), 19u);
  for (const PcdVector3D& s : seeds) {
    // a seed's voxel (tracking puts voxel i at i) has its centre within the sphere
    const double dx = std::round(s.x) + 0.5 - 8.5, dy = std::round(s.y) + 0.5 - 15.5, dz = std::round(s.z) + 0.5 - 5.5;
    EXPECT_LE(dx * dx + dy * dy + dz * dz, 1.5 * 1.5) << s.x << " " << s.y << " " << s.z;
  }
  // the fibers follow the straight bundle: up to the crossing (x 13..18) every node stays
  // in its y and z range (half a voxel of slack for the noise), and they run from its
  // left end (the head's tissue starts at x 2) into the crossing, where the y bundle may
  // take them
  const PcdFiberLayer* fibers = PCDview_GetStudyFibers(study->id);
  ASSERT_NE(fibers, nullptr);
  ASSERT_FALSE(fibers->nodes.empty());
  float xLow = 1e9f, xHigh = -1e9f;
  for (const PcdFiberNode& n : fibers->nodes) {  // pane coordinates: voxel i spans [i, i + 1)
    if (n.x < 13) {
      EXPECT_TRUE(n.y >= 12.5f && n.y < 19.5f && n.z >= 3.5f && n.z < 8.5f) << n.x << " " << n.y << " " << n.z;
    }
    xLow = std::min(xLow, n.x), xHigh = std::max(xHigh, n.x);
  }
  EXPECT_LT(xLow, 4.0f);
  EXPECT_GT(xHigh, 13.0f);
  PCDview_SetChannel(kColourChannel);
  SaveShot(pcd_views->window, "regions-seed-sphere-fibers.png");
  SaveShot(pcd_app->window, "regions-seed-sphere-summary.png");

  // Ctrl+Z puts the seed region back as it was, Ctrl+Y draws it again
  PressKey(GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ(seed.shape->centre.x, before.centre.x);
  EXPECT_EQ(seed.shape->centre.y, before.centre.y);
  EXPECT_EQ(seed.shape->radius, before.radius);
  PressKey(GDK_KEY_y, GDK_CONTROL_MASK);
  EXPECT_FLOAT_EQ(seed.shape->radius, 1.5f);

  // a target drawn with the target palette takes part at once; Ctrl+Z leaves it out again
  gtk_combo_box_set_active(GTK_COMBO_BOX(pcd_views->palette), 2);  // "target"
  AxialPixel(24, 15, &px, &py);
  Drag(px, py, px + 2 * kPixels, py);
  EXPECT_EQ(study->tract->regions[1].use, kPcdRegionInUse);
  EXPECT_EQ(study->tract->regions[1].kind, kPcdRegionSphere);
  EXPECT_FLOAT_EQ(study->tract->regions[1].shape->centre.x, 24.5f);
  EXPECT_FLOAT_EQ(study->tract->regions[1].shape->radius, 2.0f);
  Drain();
  SaveShot(pcd_views->window, "regions-seed-and-target.png");
  // the target's centre pixel in the axial pane: its blue while the region takes part; the
  // user's unticking " use this region " takes it out of the views at once, ticking it back in
  auto targetBlue = [] {
    const PcdViewPane* p = Pane(0);
    double cx = 0, cy = 0, depth = 0;
    if (!PCDview_VoxelToPixel(p->geometry, {24.5f, 15.5f, 5.5f}, &cx, &cy, &depth)) return false;
    const uint32_t pixel = PixelAt(p->image, cx + 3, cy + 3);
    const int r = pixel >> 16 & 255, g = pixel >> 8 & 255, b = pixel & 255;
    return b > r + 40 && b > g + 40;
  };
  PCDview_SetChannel(0);  // grey So beneath, as for the seed above
  Drain();
  EXPECT_TRUE(targetBlue());
  GtkWidget* targetUse = Find(PanelPage(PCD_STUDY_FIBER_TRACKING, 1), [](GtkWidget* w) {
    return GTK_IS_CHECK_BUTTON(w) && gtk_button_get_label(GTK_BUTTON(w)) &&
           std::string(gtk_button_get_label(GTK_BUTTON(w))) == " use this region ";
  });
  ASSERT_NE(targetUse, nullptr);
  gtk_button_clicked(GTK_BUTTON(targetUse));
  Drain();
  EXPECT_NE(study->tract->regions[1].use, kPcdRegionInUse);
  EXPECT_FALSE(targetBlue());
  gtk_button_clicked(GTK_BUTTON(targetUse));
  Drain();
  EXPECT_EQ(study->tract->regions[1].use, kPcdRegionInUse);
  EXPECT_TRUE(targetBlue());
  PressKey(GDK_KEY_z, GDK_CONTROL_MASK);  // back to before the target was drawn
  EXPECT_NE(study->tract->regions[1].use, kPcdRegionInUse);
  EXPECT_FLOAT_EQ(seed.shape->radius, 1.5f);  // the seed stays

  // saved in the work session and back when it is opened
  g_answers = {{kPcdFileChosen, d.dir.file("regions.qws")}};
  testing::internal::CaptureStderr();
  Activate(pcd_app->mainMenu, "/File/Save work data");
  g_answers = {{kPcdConfirmYes, ""}, {kPcdFileChosen, d.dir.file("regions.qws")}};
  Activate(pcd_app->mainMenu, "/File/Open work data");
  testing::internal::GetCapturedStderr();
  const PcdStudyObject* back = PCD_FindStudyObject(&pcd_app->session.studies, 0);
  ASSERT_NE(back, nullptr);
  ASSERT_NE(back, study);
  EXPECT_EQ(back->tract->seedSource, kPcdSeedFromSphere);
  EXPECT_FLOAT_EQ(back->tract->regions[0].shape->centre.x, 8.5f);
  EXPECT_FLOAT_EQ(back->tract->regions[0].shape->centre.y, 15.5f);
  EXPECT_FLOAT_EQ(back->tract->regions[0].shape->centre.z, 5.5f);
  EXPECT_FLOAT_EQ(back->tract->regions[0].shape->radius, 1.5f);
}

TEST(SliceViews, StatisticsAndProfilesOverDrawnRoisAndDrawnRegions) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  Desktop d;
  ASSERT_TRUE(d.ok);
  PcdRoiEditor* editor = PCD_GetRoiEditor();
  PcdStudyPerformer* performer = PCD_GetStudyPerformer();
  PutCursor(10, 10, 6);

  // a spherical ROI drawn in the ROI editor: centre voxel (10, 10, 6), radius 2. Its
  // voxels: 1 + 6 + 12 + 8 + 6 = 33 (lattice distances 0, 1, sqrt 2, sqrt 3, 2)
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);  // " ROI editor "
  Activate(editor->menu, "/ROI/New/Spherical");
  double px, py;
  AxialPixel(10, 10, &px, &py);
  Drag(px, py, px, py + 2 * kPixels);
  const PcdRoiObject* sphere = PCD_GetSelectedRoiObject(&pcd_app->session.rois);
  ASSERT_NE(sphere, nullptr);
  EXPECT_FLOAT_EQ(sphere->shape->radius, 2.0f);
  const int sphereRow = int(pcd_app->session.rois.items.size()) - 1;
  // a freehand ROI around the voxels x 20..23, y 20..22 of the same slice: 12 voxels
  Activate(editor->menu, "/ROI/New/Freehand");
  DrawRectangle(20.2, 23.8, 20.2, 22.8);
  ASSERT_EQ(PCD_GetSelectedRoiObject(&pcd_app->session.rois)->shape->points.size(), 12u);
  const int freehandRow = sphereRow + 1;
  Drain();
  SaveShot(pcd_views->window, "regions-drawn-rois.png");

  // voxel statistics: ticking the sphere in the region's ROI list makes the region
  // "Listed"; " Analyze and Display " examines exactly its 33 voxels
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);
  ClickRow(performer->list, 2);  // "Voxel statistics 1"
  PcdStudyObject* stats = PCD_GetSelectedStudyObject(&pcd_app->session.studies);
  ASSERT_EQ(stats->type, PCD_STUDY_VOXEL_STATISTICS);
  GtkWidget* statsRoi = PanelPage(PCD_STUDY_VOXEL_STATISTICS, 0);
  TickRoi(statsRoi, sphereRow);
  EXPECT_TRUE(RadioOn(statsRoi, "Listed"));
  EXPECT_EQ(sphere->status, 1);  // the study refers to it: locked
  Analyze();
  std::string summary = PCD_GetStudySummary(stats);
  EXPECT_EQ(summary.rfind("Tensors: 33\nValid Tensors: ", 0), 0u) << summary;
  // both ROIs listed: 33 + 12 voxels
  TickRoi(statsRoi, freehandRow);
  Analyze();
  summary = PCD_GetStudySummary(stats);
  EXPECT_EQ(summary.rfind("Tensors: 45\n", 0), 0u) << summary;
  SaveShot(pcd_app->window, "regions-statistics-listed.png");
  // and after a session round trip the listed region is still the same voxels
  g_answers = {{kPcdFileChosen, d.dir.file("listed.qws")}};
  testing::internal::CaptureStderr();
  Activate(pcd_app->mainMenu, "/File/Save work data");
  g_answers = {{kPcdConfirmYes, ""}, {kPcdFileChosen, d.dir.file("listed.qws")}};
  Activate(pcd_app->mainMenu, "/File/Open work data");
  testing::internal::GetCapturedStderr();
  ClickRow(PCD_GetStudyPerformer()->list, 2);
  stats = PCD_GetSelectedStudyObject(&pcd_app->session.studies);
  ASSERT_EQ(stats->type, PCD_STUDY_VOXEL_STATISTICS);
  EXPECT_EQ(stats->statistics->region.kind, kPcdRegionListed);
  Analyze();
  summary = PCD_GetStudySummary(stats);
  EXPECT_EQ(summary.rfind("Tensors: 45\n", 0), 0u) << summary;

  // a sphere drawn for the statistics study with a palette becomes its region: radius 1
  // around voxel (16, 16, 6) is 7 voxels
  performer = PCD_GetStudyPerformer();
  PutCursor(16, 16, 6);
  gtk_combo_box_set_active(GTK_COMBO_BOX(pcd_views->palette), 1);
  AxialPixel(16, 16, &px, &py);
  Drag(px, py, px + kPixels, py);
  EXPECT_EQ(stats->statistics->region.kind, kPcdRegionSphere);
  EXPECT_TRUE(RadioOn(PanelPage(PCD_STUDY_VOXEL_STATISTICS, 0), "Sphere"));
  Analyze();
  summary = PCD_GetStudySummary(stats);
  EXPECT_EQ(summary.rfind("Tensors: 7\n", 0), 0u) << summary;
  // Ctrl+Z gives the listed region back
  PressKey(GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ(stats->statistics->region.kind, kPcdRegionListed);
  EXPECT_TRUE(RadioOn(PanelPage(PCD_STUDY_VOXEL_STATISTICS, 0), "Listed"));
  PCDview_SetRegionPalette(-1);

  // a diffusion profile over the listed sphere ROI: one symbol a voxel, 33 in all
  ClickRow(performer->list, 1);  // "Diffusion profile 1"
  PcdStudyObject* profile = PCD_GetSelectedStudyObject(&pcd_app->session.studies);
  ASSERT_EQ(profile->type, PCD_STUDY_DIFFUSION_PROFILE);
  TickRoi(PanelPage(PCD_STUDY_DIFFUSION_PROFILE, 0), sphereRow);
  Analyze();
  summary = PCD_GetStudySummary(profile);
  EXPECT_NE(summary.find("/33 ("), std::string::npos) << summary;

  // its region made "Freehand" in the panel, then drawn with a palette as a contour
  // around the voxels x 4..11, y 14..16 of slice 5 on the x bundle: 24 symbols
  GtkWidget* profileRoi = PanelPage(PCD_STUDY_DIFFUSION_PROFILE, 0);
  ClickRadio(profileRoi, "Freehand");
  PutCursor(8, 15, 5);
  gtk_combo_box_set_active(GTK_COMBO_BOX(pcd_views->palette), 3);  // "avoidance": any palette will do
  DrawRectangle(4.2, 11.8, 14.2, 16.8);
  Drain(100);
  EXPECT_EQ(profile->profile->region.kind, kPcdRegionFreehand);
  EXPECT_EQ(profile->profile->region.shape->points.size(), 24u);
  EXPECT_TRUE(RadioOn(profileRoi, "Freehand"));
  Analyze();
  summary = PCD_GetStudySummary(profile);
  EXPECT_NE(summary.find("/24 ("), std::string::npos) << summary;
  PCDview_SetChannel(kColourChannel);
  SaveShot(pcd_views->window, "regions-profile-freehand.png");
}

}  // namespace
