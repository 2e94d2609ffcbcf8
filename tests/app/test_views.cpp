// The views window under Xvfb, driven as a user drives it: mouse events on the panes,
// keys on the window, pixels read back from what the panes show. Expected places and
// values come from the phantom's own truth and from voxel geometry worked out by hand.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "app/services/app_state.h"
#include "app/commands.h"
#include "app/demo.h"
#include "app/main_window.h"
#include "app/services/dialogs.h"
#include "app/startup.h"
#include "gui_find.h"
#include "io/raw_volume_file.h"
#include "ipc/ipc.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "study/study_runner.h"
#include "support/gui_support.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"
#include "view/fiber_overlay.h"
#include "view/glyph_overlay.h"
#include "view/palette_frame.h"
#include "view/views_window.h"

namespace {

using quorix_test::TempDir;

constexpr int kX = 32, kY = 32, kZ = 12;  // the phantom; 8 pixels a voxel at the first scale
constexpr double kPixels = 256.0 / kX;

void Drain() { quorix_test::DrainEvents(250); }

// The program on a phantom with its computed maps, the views window open.
struct ViewsSession {
  TempDir dir;
  PcdPhantomTruth truth;
  std::unique_ptr<quorix_test::ServerProcess> server;
  int32_t colourChannel = 0, faChannel = 0;

  ViewsSession() {
    PcdDtiData* dti = PCD_MakeDwiPhantom({.sizeX = kX, .sizeY = kY, .sizeZ = kZ, .directions = 12}, &truth);
    const std::string path = dir.file("phantom.raw");
    WriteRawVolumeFile(dti->volume, path.c_str());
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
    server = std::make_unique<quorix_test::ServerProcess>(
        std::vector<std::string>{"--volume", path, "--save-dir", dir.path().string()});
    PCD_SetDialogResponder([](const PcdDialogSeen&) { return PcdDialogAnswer{kPcdDialogCancel, ""}; });
    std::string number = std::to_string(server->number);
    char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};
    testing::internal::CaptureStderr();
    ok = PCD_InitializeApplication(2, argv) == 1;
    if (ok) cmd_add_computational_channels(nullptr, 0, nullptr);
    testing::internal::GetCapturedStderr();
    colourChannel = 13, faChannel = 14;  // So + 12 DWIs, then colour, FA, ADC, isotropic
    Drain();
  }
  ~ViewsSession() {
    testing::internal::CaptureStderr();
    PCD_CleanUpApplication();
    testing::internal::GetCapturedStderr();
    PCD_SetDialogResponder(nullptr);
  }
  bool ok = false;
  size_t At(int x, int y, int z) const { return size_t(x) + kX * (size_t(y) + kY * size_t(z)); }
};

PcdViewPane* Pane(int i) { return &pcd_views->panes[i]; }

// Where a voxel's centre lies in a pane at the first display scale (the whole 32-voxel
// section fits 256 pixels and is centred): worked out from the orientation conventions,
// x right and y down in axial panes, y right and z up in sagittal, x right and z up in
// coronal.
void VoxelPixel(int kind, const PcdViewPane* p, int x, int y, int z, double* px, double* py) {
  const double w = gtk_widget_get_allocated_width(p->area), h = gtk_widget_get_allocated_height(p->area);
  const double cx = x + 0.5 - kX / 2.0, cy = y + 0.5 - kY / 2.0, cz = z + 0.5 - kZ / 2.0;
  switch (kind) {
    case PCD_PANE_AXIAL: *px = w / 2 + cx * kPixels, *py = h / 2 + cy * kPixels; return;
    case PCD_PANE_SAGITTAL: *px = w / 2 + cy * kPixels, *py = h / 2 - cz * kPixels; return;
    default: *px = w / 2 + cx * kPixels, *py = h / 2 - cz * kPixels; return;
  }
}

uint32_t PixelAt(cairo_surface_t* image, double px, double py) {
  cairo_surface_flush(image);
  const uint8_t* data = cairo_image_surface_get_data(image);
  const int stride = cairo_image_surface_get_stride(image);
  return *reinterpret_cast<const uint32_t*>(data + int(py) * stride + int(px) * 4);
}

using quorix_test::Click;
using quorix_test::SendButton;
using quorix_test::SendMotion;



void PressKeyOn(GtkWidget* window, guint keyval, guint modifiers = 0) {
  quorix_test::PressKey(window, keyval, modifiers);
}

void SaveShot(GtkWidget* widget, const std::string& name) { quorix_test::SaveScreenshot(widget, name); }

int CountVoxels(const PcdRoiObject* roi) {
  const PcdIntSize3D size{kX, kY, kZ};
  const std::vector<uint8_t> mask = PCD_RasterizeRoiObject(roi, &size);
  return int(std::count(mask.begin(), mask.end(), 1));
}

// The voxel of highest true FA: the middle of a bundle.
PcdIntVector3D StrongestVoxel(const PcdPhantomTruth& truth) {
  const size_t best = size_t(std::max_element(truth.fa.begin(), truth.fa.end()) - truth.fa.begin());
  return {int32_t(best % kX), int32_t(best / kX % kY), int32_t(best / (kX * kY))};
}

TEST(SliceViews, FourPanesWithTheirMenusShowTheMapsWhereTheBundlesAre) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  ASSERT_NE(pcd_views, nullptr);
  // the pane menus: 8 entries each, the branch named by the kind shown first
  const char* const branches[] = {"/ Axial  ", "/Sagittal ", "/Coronal ", "/Oblique  "};
  for (int i = 0; i < kPcdViewPaneCount; ++i) {
    ASSERT_EQ(Pane(i)->menu.paths.size(), 8u);
    EXPECT_EQ(Pane(i)->menu.paths[0], branches[i]);
    EXPECT_EQ(Pane(i)->menu.paths[4], std::string(branches[i]) + "/Sp1");
    EXPECT_EQ(Pane(i)->menu.paths[6], std::string(branches[i]) + "/Sp1");
    EXPECT_EQ(Pane(i)->menu.paths[7], std::string(branches[i]) + "/Spherical");
  }
  EXPECT_STREQ(kPcdPaneMenus[PCD_PANE_SPHERICAL][0].path, "/Spherical");

  // FA x 1000 through a grey window the user set to 0 .. 1000: the grey is FA x 255
  const PcdIntVector3D strong = StrongestVoxel(s.truth);
  ASSERT_GT(s.truth.fa[s.At(strong.x, strong.y, strong.z)], 0.6f);
  PCDview_SetGreyWindow(s.faChannel, 0, 1000);
  PCDview_SetChannel(s.faChannel);
  PCDview_SetCursor(strong, false);
  Drain();
  for (int i = 0; i < 3; ++i) {
    double px, py;
    VoxelPixel(i, Pane(i), strong.x, strong.y, strong.z, &px, &py);
    const uint32_t pixel = PixelAt(Pane(i)->image, px + 3, py + 3);  // off the cursor's cross
    const double fa = s.truth.fa[s.At(strong.x, strong.y, strong.z)];
    EXPECT_NEAR(int(pixel & 255), fa * 255, 0.1 * 255) << "pane " << i;
    EXPECT_EQ(pixel >> 8 & 255, pixel & 255) << "grey";
  }
  // an isotropic voxel of the head in the same axial section is dark
  for (int x = 0; x < kX; ++x) {
    const size_t at = s.At(x, strong.y, strong.z);
    if (s.truth.adc[at] > 0 && s.truth.fa[at] < 0.05f) {
      double px, py;
      VoxelPixel(PCD_PANE_AXIAL, Pane(0), x, strong.y, strong.z, &px, &py);
      EXPECT_LT(int(PixelAt(Pane(0)->image, px + 3, py + 3) & 255), 40) << "x " << x;
      break;
    }
  }
  SaveShot(pcd_views->window, "views-fa.png");

  // the directional colours: the strongest component is the bundle's main axis
  PCDview_SetChannel(s.colourChannel);
  Drain();
  const PcdVector3D d = s.truth.direction[s.At(strong.x, strong.y, strong.z)];
  const int axis = std::fabs(d.x) >= std::fabs(d.y) && std::fabs(d.x) >= std::fabs(d.z) ? 0 : std::fabs(d.y) >= std::fabs(d.z) ? 1 : 2;
  for (int i = 0; i < 3; ++i) {
    double px, py;
    VoxelPixel(i, Pane(i), strong.x, strong.y, strong.z, &px, &py);
    const uint32_t pixel = PixelAt(Pane(i)->image, px + 3, py + 3);
    const int rgb[3] = {int(pixel >> 16 & 255), int(pixel >> 8 & 255), int(pixel & 255)};
    EXPECT_GT(rgb[axis], 120) << "pane " << i;
    for (int c = 0; c < 3; ++c)
      if (c != axis) {
        EXPECT_LT(rgb[c], rgb[axis]) << "pane " << i << " component " << c;
      }
  }
  SaveShot(pcd_views->window, "views-colour.png");

  // switching a pane's kind through its menu shows the oblique controls, hides the slice
  GtkWidget* item = PCD_FindMenuItem(Pane(3)->menu, "/Oblique  /Spherical");
  ASSERT_NE(item, nullptr);
  gtk_menu_item_activate(GTK_MENU_ITEM(item));
  EXPECT_EQ(Pane(3)->pane.kind, PCD_PANE_SPHERICAL);
  EXPECT_FALSE(gtk_widget_get_visible(Pane(3)->slice));
  EXPECT_FALSE(gtk_widget_get_sensitive(Pane(3)->zoom));
  Drain();
  SaveShot(pcd_views->window, "views-spherical.png");
  gtk_menu_item_activate(GTK_MENU_ITEM(PCD_FindMenuItem(Pane(3)->menu, "/Oblique  /Oblique")));
  EXPECT_TRUE(gtk_widget_get_visible(Pane(3)->alongE1));
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(Pane(3)->alongE1), TRUE);
  EXPECT_FALSE(gtk_widget_get_sensitive(Pane(3)->tilt));
  // zoom: at 200 % a voxel takes 16 pixels, centred on the cursor
  gtk_combo_box_set_active(GTK_COMBO_BOX(Pane(0)->zoom), 3);
  Drain();
  EXPECT_FLOAT_EQ(Pane(0)->geometry.pixelsPerVoxel, 16.0f);
  SaveShot(pcd_views->window, "views-zoom-oblique.png");
  gtk_combo_box_set_active(GTK_COMBO_BOX(Pane(0)->zoom), 1);
}

TEST(SliceViews, AClickMovesTheCursorEverywhereAndTellsTheViewer) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  PCDview_SetCursor({16, 16, 6}, false);
  Drain();
  double px, py;
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), 9, 21, 6, &px, &py);
  Click(Pane(0)->area, px, py);
  Drain();
  EXPECT_EQ(pcd_views->cursor.x, 9);
  EXPECT_EQ(pcd_views->cursor.y, 21);
  EXPECT_EQ(pcd_views->cursor.z, 6);
  EXPECT_EQ(gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(Pane(1)->slice)), 9);   // sagittal: x
  EXPECT_EQ(gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(Pane(2)->slice)), 21);  // coronal: y
  // a click in the coronal pane moves x and z, keeps y
  VoxelPixel(PCD_PANE_CORONAL, Pane(2), 20, 21, 3, &px, &py);
  Click(Pane(2)->area, px, py);
  Drain();
  EXPECT_EQ(pcd_views->cursor.x, 20);
  EXPECT_EQ(pcd_views->cursor.y, 21);
  EXPECT_EQ(pcd_views->cursor.z, 3);
  EXPECT_EQ(gtk_spin_button_get_value_as_int(GTK_SPIN_BUTTON(Pane(0)->slice)), 3);
  // the viewer holds the position (request 464)
  PcdIpcBroadcast bb;
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&bb), 0);
  EXPECT_EQ(bb.position.x, 20);
  EXPECT_EQ(bb.position.y, 21);
  EXPECT_EQ(bb.position.z, 3);
  const std::string status = gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel));
  EXPECT_EQ(status.rfind(" (20, 21, 3) ch. 1: ", 0), 0u) << status;
  EXPECT_NE(status.find("FA "), std::string::npos) << status;
  EXPECT_NE(status.find("e1 ("), std::string::npos) << status;
  // the channel control reaches the computed channels: So + 12 DWIs + colour, FA, ADC, isotropic
  double low = 0, high = 0;
  gtk_spin_button_get_range(GTK_SPIN_BUTTON(pcd_views->channel), &low, &high);
  EXPECT_EQ(high, 17.0);
  // a colour voxel shows as its components; on the x bundle red leads
  const PcdIntVector3D onX = StrongestVoxel(s.truth);
  PCDview_SetChannel(s.colourChannel);
  PCDview_SetCursor(onX, false);
  unsigned r = 0, g = 0, b = 0;
  const std::string colour = gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel));
  const size_t at = colour.find(": R ");
  ASSERT_NE(at, std::string::npos) << colour;
  ASSERT_EQ(std::sscanf(colour.c_str() + at, ": R %u G %u B %u", &r, &g, &b), 3) << colour;
  EXPECT_TRUE(r > g || g > r) << colour;  // one bundle's axis, not grey
  EXPECT_LE(std::max({r, g, b}), 255u);
  PCDview_SetChannel(0);
  PCDview_SetCursor({20, 21, 3}, false);
  // the slice control moves the cursor too; the wheel steps it
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(Pane(0)->slice), 7);
  EXPECT_EQ(pcd_views->cursor.z, 7);

  // a Ctrl-drag sets the box VOI in the pane's plane and sends it (request 465)
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), 4, 5, 7, &px, &py);
  double qx, qy;
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), 10, 12, 7, &qx, &qy);
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py, GDK_CONTROL_MASK);
  SendMotion(Pane(0)->area, qx, qy, GDK_BUTTON1_MASK | GDK_CONTROL_MASK);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, qx, qy, GDK_CONTROL_MASK);
  ASSERT_EQ(PCDipc_GetBroadcastedInfo(&bb), 0);
  EXPECT_EQ(bb.regionOrigin.x, 4);
  EXPECT_EQ(bb.regionOrigin.y, 5);
  EXPECT_EQ(bb.regionSize.x, 7);
  EXPECT_EQ(bb.regionSize.y, 8);
  EXPECT_EQ(bb.regionOrigin.z, 0);
  EXPECT_EQ(bb.regionSize.z, kZ);  // across the pane the box keeps the whole volume

  // voxel statistics over "Box VOI", run with " Analyze and Display ", take exactly that
  // box: x 4..10, y 5..12, every slice: 7 x 8 x 12 = 672 voxels
  const PcdIntSize3D size{kX, kY, kZ};
  PcdStudyObject* stats = PCD_NewStudyObject(&pcd_app->session.studies, PCD_STUDY_VOXEL_STATISTICS, &size);
  ASSERT_NE(stats, nullptr);
  PCD_RefreshStudyPerformer();
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);
  Drain();
  testing::internal::CaptureStderr();
  gtk_button_clicked(GTK_BUTTON(pcd_app->analyzeButton));
  testing::internal::GetCapturedStderr();
  const std::string summary = PCD_GetStudySummary(stats);
  EXPECT_EQ(summary.rfind("Tensors: 672\n", 0), 0u) << summary;
  Drain();
  SaveShot(pcd_app->window, "statistics-box-summary.png");
  SaveShot(pcd_views->window, "views-box.png");
}

TEST(SliceViews, TheMouseDrawsRoisAndCtrlZTakesEditsBack) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  PcdRoiList& rois = pcd_app->session.rois;
  const PcdIntSize3D size{kX, kY, kZ};
  PCDview_SetCursor({16, 16, 6}, false);
  // drawing needs the ROI editor as the current page; elsewhere a press moves the cursor
  PcdRoiObject* sphere = PCD_NewRoiObject(&rois, PCD_ROI_SPHERICAL, &size);
  ASSERT_NE(sphere, nullptr);
  const PcdVector3D before = sphere->shape->centre;
  PCD_SetRoiLabel(sphere, "drawn");
  const std::string label = sphere->label;
  double px, py;
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), 10, 12, 6, &px, &py);
  Click(Pane(0)->area, px, py);
  EXPECT_EQ(sphere->shape->centre.x, before.x);
  EXPECT_EQ(pcd_views->cursor.x, 10);
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  Drain();

  // a sphere: press on its centre voxel, drag three voxels to the right
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py);
  SendMotion(Pane(0)->area, px + 2 * kPixels, py);
  SendMotion(Pane(0)->area, px + 3 * kPixels, py);
  SaveShot(pcd_views->window, "views-drawing-sphere.png");
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, px + 3 * kPixels, py);
  EXPECT_FLOAT_EQ(sphere->shape->centre.x, 10.5f);
  EXPECT_FLOAT_EQ(sphere->shape->centre.y, 12.5f);
  EXPECT_FLOAT_EQ(sphere->shape->centre.z, 6.5f);
  EXPECT_FLOAT_EQ(sphere->shape->radius, 3.0f);
  // the lattice points within 3 of a lattice point: 1 + 6 + 12 + 8 + 6 + 24 + 24 + 24 + 12 + 6 = 123
  EXPECT_EQ(CountVoxels(sphere), 123);

  // a freehand contour around the voxels x 5..8, y 20..23 of slice 6
  PcdRoiObject* freehand = PCD_NewRoiObject(&rois, PCD_ROI_FREEHAND, &size);
  const double left = Pane(0)->geometry.width / 2.0 + (5.1 - kX / 2.0) * kPixels;
  const double right = Pane(0)->geometry.width / 2.0 + (8.9 - kX / 2.0) * kPixels;
  const double top = Pane(0)->geometry.height / 2.0 + (20.1 - kY / 2.0) * kPixels;
  const double bottom = Pane(0)->geometry.height / 2.0 + (23.9 - kY / 2.0) * kPixels;
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, left, top);
  SendMotion(Pane(0)->area, right, top);
  SendMotion(Pane(0)->area, right, bottom);
  SendMotion(Pane(0)->area, left, bottom);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, left, bottom);
  ASSERT_EQ(freehand->shape->points.size(), 16u);
  for (const PcdRoiPoint& p : freehand->shape->points) {
    EXPECT_TRUE(p.x >= 5 && p.x <= 8 && p.y >= 20 && p.y <= 23 && p.z == 6) << int(p.x) << " " << int(p.y);
  }

  // a voxel group: one dab of the 1.5-voxel brush paints the 3 x 3 voxels around it
  PcdRoiObject* group = PCD_NewRoiObject(&rois, PCD_ROI_VOXELGROUP, &size);
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(pcd_views->brush), 1.5);
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), 20, 8, 6, &px, &py);
  Click(Pane(0)->area, px, py);
  EXPECT_EQ(CountVoxels(group), 9);
  // a stroke to the right adds a row of three per voxel travelled
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py);
  SendMotion(Pane(0)->area, px + kPixels, py);
  SendMotion(Pane(0)->area, px + 2 * kPixels, py);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, px + 2 * kPixels, py);
  EXPECT_EQ(CountVoxels(group), 15);
  // Shift erases
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py, GDK_SHIFT_MASK);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, px, py, GDK_SHIFT_MASK);
  EXPECT_EQ(CountVoxels(group), 6);
  Drain();
  SaveShot(pcd_views->window, "views-rois.png");

  // undo, step by step, back to the empty group; redo forward again
  PressKeyOn(pcd_views->window, GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ(CountVoxels(group), 15);
  PressKeyOn(pcd_views->window, GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ(CountVoxels(group), 9);
  PressKeyOn(pcd_views->window, GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ(CountVoxels(group), 0);
  PressKeyOn(pcd_views->window, GDK_KEY_y, GDK_CONTROL_MASK);
  EXPECT_EQ(CountVoxels(group), 9);
  // further back: the freehand ROI loses its points, the sphere its radius
  PressKeyOn(pcd_views->window, GDK_KEY_z, GDK_CONTROL_MASK);
  PressKeyOn(pcd_views->window, GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_TRUE(freehand->shape->points.empty());
  PressKeyOn(pcd_views->window, GDK_KEY_z, GDK_CONTROL_MASK);
  EXPECT_EQ(sphere->shape->centre.x, before.x);
  EXPECT_EQ(std::string(sphere->label), label);  // the label is not part of an edit

  // a locked ROI is not drawn on
  rois.selectedId = sphere->id;
  sphere->status = 1;
  testing::internal::CaptureStderr();
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py);
  SendMotion(Pane(0)->area, px + 4 * kPixels, py);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, px + 4 * kPixels, py);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Uneditable ROI refered by study(ies)\n");
  EXPECT_EQ(sphere->shape->centre.x, before.x);
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);
}

TEST(SliceViews, ATrackingStudySeededFromADrawnSphereShowsItsFibersOverTheBundle) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  const PcdIntVector3D strong = StrongestVoxel(s.truth);
  PcdRoiList& rois = pcd_app->session.rois;
  const PcdIntSize3D size{kX, kY, kZ};
  PCDview_SetCursor(strong, false);
  Drain();
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  PcdRoiObject* seed = PCD_NewRoiObject(&rois, PCD_ROI_SPHERICAL, &size);
  double px, py;
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), strong.x, strong.y, strong.z, &px, &py);
  SendButton(Pane(0)->area, GDK_BUTTON_PRESS, px, py);
  SendButton(Pane(0)->area, GDK_BUTTON_RELEASE, px + 1.5 * kPixels, py);
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);

  PcdStudyObject* study = PCD_NewStudyObject(&pcd_app->session.studies, PCD_STUDY_FIBER_TRACKING, &size);
  ASSERT_NE(study, nullptr);
  study->tract->seedSource = kPcdSeedFromList;
  study->tract->regions[0].idCount = 1;
  study->tract->regions[0].ids[0] = seed->id;
  study->tract->coloring = kPcdColorUniform;  // one known colour to look for
  PcdStudyRunOptions options;
  int drawn = -1;
  options.drawFibers = [&](const PcdStudyObject* st, const PcdFibeTrakBuffer* buffer, int lines) {
    drawn = lines;
    PCDview_SetStudyFibers(st, buffer, lines);
  };
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCD_RunStudy(&pcd_app->session, study, options), 0);
  testing::internal::GetCapturedStderr();
  ASSERT_GT(drawn, 0);
  PCDview_SetChannel(s.faChannel);
  PCDview_SetCursor(strong, false);
  Drain();
  // in every pane the fiber colour lies within a voxel of the seed voxel
  const uint32_t uniform = 0xffffd900u;  // (255, 217, 0)
  for (int i = 0; i < 3; ++i) {
    VoxelPixel(i, Pane(i), strong.x, strong.y, strong.z, &px, &py);
    int hits = 0;
    for (int dy = -12; dy <= 12; ++dy)
      for (int dx = -12; dx <= 12; ++dx) hits += PixelAt(Pane(i)->image, px + dx, py + dy) == uniform;
    EXPECT_GT(hits, 0) << "pane " << i;
  }
  // and never far off the bundle: a corner of the pane holds none
  int stray = 0;
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) stray += PixelAt(Pane(0)->image, x, y) == uniform;
  EXPECT_EQ(stray, 0);
  SaveShot(pcd_views->window, "views-fibers.png");
  // a diffusion profile study's glyphs through its draw function: on the section through
  // the bundle, coloured by direction, their colour is the bundle's axis
  PcdStudyObject* profile = PCD_NewStudyObject(&pcd_app->session.studies, PCD_STUDY_DIFFUSION_PROFILE, &size);
  ASSERT_NE(profile, nullptr);
  profile->profile->coloring = kPcdColorDirection;
  profile->profile->primitive = kPcdGlyphEllipsoid;
  std::vector<PcdVector3D> points;
  for (int y = 0; y < kY; ++y)
    for (int x = 0; x < kX; ++x) points.push_back({float(x), float(y), float(strong.z)});  // voxel centres
  PcdDifProfContext context;
  context.pointCount = int32_t(points.size());
  context.points = points.data();
  std::vector<PcdGlyph> glyphs;
  char text[256] = {};
  testing::internal::CaptureStderr();
  PCDdti_DiffusionProfileDisplay(pcd_app->session.dti, &context, PCDview_CollectGlyphs(&glyphs), text, sizeof text);
  testing::internal::GetCapturedStderr();
  ASSERT_FALSE(glyphs.empty());
  PCDview_SetStudyGlyphs(profile, std::move(glyphs));
  study->visible = 0;
  PCDview_SetGreyWindow(0, 0, 1);  // the user's window: the whole head white under the glyphs
  PCDview_SetChannel(0);
  Drain();
  SaveShot(pcd_views->window, "views-glyphs.png");
  {
    // a bundle voxel of the section away from the seed ROI and the cursor
    int bx = -1, by = -1;
    for (int y = 0; y < kY && bx < 0; ++y)
      for (int x = 0; x < kX && bx < 0; ++x)
        if (s.truth.fa[s.At(x, y, strong.z)] > 0.6f && std::abs(x - strong.x) + std::abs(y - strong.y) > 6) bx = x, by = y;
    ASSERT_GE(bx, 0);
    const PcdVector3D d = s.truth.direction[s.At(bx, by, strong.z)];
    VoxelPixel(PCD_PANE_AXIAL, Pane(0), bx, by, strong.z, &px, &py);
    // the glyph is thinner than a pixel (l2 / l1 = 0.18 at 8 pixels a voxel) and its centre
    // falls on a pixel corner: of the pixels around the centre, the one it covers most is
    // its colour blended with the white of the FA map, so the bundle's axis keeps its full
    // channel and the others drop
    uint32_t pixel = 0xffffffffu;
    for (int oy = -1; oy <= 0; ++oy)
      for (int ox = -1; ox <= 0; ++ox) {
        const uint32_t p = PixelAt(Pane(0)->image, px + ox, py + oy);
        const auto sum = [](uint32_t c) { return (c >> 16 & 255) + (c >> 8 & 255) + (c & 255); };
        if (sum(p) < sum(pixel)) pixel = p;
      }
    const double rgb[3] = {double(pixel >> 16 & 255), double(pixel >> 8 & 255), double(pixel & 255)};
    const double axis[3] = {std::fabs(d.x), std::fabs(d.y), std::fabs(d.z)};
    for (int k = 0; k < 3; ++k) {
      if (axis[k] > 0.9) {
        EXPECT_GE(rgb[k], 230) << k;
      } else if (axis[k] < 0.1) {
        EXPECT_LE(rgb[k], 160) << k;
      }
    }
  }
  profile->visible = 0;
  // a hidden study shows nothing
  study->visible = 0;
  PCDview_Redraw();
  Drain();
  int hidden = 0;
  for (int y = 0; y < Pane(0)->geometry.height; ++y)
    for (int x = 0; x < Pane(0)->geometry.width; ++x) hidden += PixelAt(Pane(0)->image, x, y) == uniform;
  EXPECT_EQ(hidden, 0);
}

TEST(SliceViews, PaletteFrameCommandsAndAcceleratorsLeaveTypingAlone) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  const int32_t channels = pcd_app->session.volume->matrixSize->channels;
  ASSERT_EQ(channels, 17);
  gtk_widget_grab_focus(Pane(0)->area);
  PressKeyOn(pcd_views->window, GDK_KEY_L);
  EXPECT_EQ(PCDview_GetChannel(), 16);
  PressKeyOn(pcd_views->window, GDK_KEY_B);
  EXPECT_EQ(PCDview_GetChannel(), 15);
  PressKeyOn(pcd_views->window, GDK_KEY_N);
  PressKeyOn(pcd_views->window, GDK_KEY_N);  // stays at the last
  EXPECT_EQ(PCDview_GetChannel(), 16);
  PressKeyOn(pcd_views->window, GDK_KEY_F);
  EXPECT_EQ(PCDview_GetChannel(), 0);
  // typed into the channel field, letters are the field's, not commands
  gtk_widget_grab_focus(pcd_views->channel);
  PressKeyOn(pcd_views->window, GDK_KEY_L);
  PressKeyOn(pcd_views->window, GDK_KEY_N);
  EXPECT_EQ(PCDview_GetChannel(), 0);

  // Adjust greyscale fits the mapping to the FA channel: its brightest voxels go white
  PCDview_SetChannel(s.faChannel);
  gtk_widget_grab_focus(Pane(0)->area);
  PressKeyOn(pcd_views->window, GDK_KEY_G);
  EXPECT_GT(pcd_app->levelSetting, 600);
  EXPECT_LT(pcd_app->levelSetting, 1000);
  const PcdGreyWindow fitted = PCDview_GetGreyWindow(s.faChannel);
  EXPECT_TRUE(fitted.adjusted);
  EXPECT_EQ(int32_t(std::ceil(fitted.high)), pcd_app->levelSetting);
  // the adjustment is the FA channel's: another channel shown and back, it is still there
  PCDview_SetChannel(0);
  EXPECT_FALSE(PCDview_GetGreyWindow(0).adjusted);
  PCDview_SetChannel(s.faChannel);
  EXPECT_EQ(PCDview_GetGreyWindow(s.faChannel).high, fitted.high);
  // Ctrl+U sends the shown channel to the viewer, which saves it
  testing::internal::CaptureStderr();
  PressKeyOn(pcd_views->window, GDK_KEY_u, GDK_CONTROL_MASK);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Sending a channel to PELLUCID...done.\n");

  // the frame: paint a seed and a target, export them as ROIs
  ASSERT_TRUE(PCDview_OpenPaletteFrame());
  Drain();
  GtkWidget* area = PCDview_GetPaletteArea();
  const double w = gtk_widget_get_allocated_width(area), h = gtk_widget_get_allocated_height(area);
  const double frame = 512.0 / kX;  // 16 pixels a voxel
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(pcd_views->brush), 0.5);
  Click(area, w / 2 + (3.5 - kX / 2.0) * frame, h / 2 + (4.5 - kY / 2.0) * frame);
  PcdRoiPalette* palette = PCDview_GetRoiPalette();
  palette->current = PCD_PALETTE_TARGET;
  Click(area, w / 2 + (7.5 - kX / 2.0) * frame, h / 2 + (9.5 - kY / 2.0) * frame);
  Drain();
  SaveShot(gtk_widget_get_toplevel(area), "palette-frame.png");
  const size_t before = pcd_app->session.rois.items.size();
  cmd_palette_export(nullptr, 0, nullptr);
  ASSERT_EQ(pcd_app->session.rois.items.size(), before + 2);
  const PcdRoiObject* seed = pcd_app->session.rois.items[before].get();
  const PcdRoiObject* target = pcd_app->session.rois.items[before + 1].get();
  EXPECT_STREQ(seed->label, "Imported seed of channel 15");
  EXPECT_STREQ(target->label, "Imported target of channel 15");
  const PcdIntSize3D size{kX, kY, kZ};
  const auto mask = PCD_RasterizeRoiObject(seed, &size);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), 1);
  EXPECT_EQ(mask[s.At(3, 4, pcd_views->cursor.z)], 1);
  EXPECT_EQ(CountVoxels(target), 1);
}

// The newcomer's demonstration (tools/run.sh): a tracking study seeded in the straight
// bundle, statistics over the 8 x 6 x 4 box around the seed voxel (32 / 5 = 6, 16, 6:
// x 2..9, y 13..18, z 4..7, inside the volume: 192 voxels), the colour map shown.
TEST(SliceViews, TheDemonstrationTracksTheBundleAndCountsItsBox) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  const int32_t channels = pcd_app->session.volume->matrixSize->channels;
  testing::internal::CaptureStderr();
  PcdDemoOptions everyKind;
  everyKind.allKinds = true;
  const bool ran = PCD_RunDemo(everyKind);
  const std::string console = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(ran) << console;
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, channels);  // the maps were there
  EXPECT_EQ(PCDview_GetChannel(), s.colourChannel);
  EXPECT_EQ(pcd_views->boxOrigin.x, 2);
  EXPECT_EQ(pcd_views->boxOrigin.y, 13);
  EXPECT_EQ(pcd_views->boxOrigin.z, 4);
  const PcdStudyObject* tracking = nullptr;
  const PcdStudyObject* statistics = nullptr;
  for (const auto& study : pcd_app->session.studies.items) {
    if (study->type == PCD_STUDY_FIBER_TRACKING && !tracking) tracking = study.get();
    if (study->type == PCD_STUDY_VOXEL_STATISTICS && !statistics) statistics = study.get();
  }
  ASSERT_NE(tracking, nullptr);
  ASSERT_NE(statistics, nullptr);
  EXPECT_EQ(PCD_GetStudySummary(statistics).rfind("Tensors: 192\n", 0), 0u) << PCD_GetStudySummary(statistics);
  // the seed voxel lies in the bundle along x, and its fibers are drawn
  EXPECT_GT(s.truth.fa[s.At(6, 16, 6)], 0.6f);
  EXPECT_GT(std::fabs(s.truth.direction[s.At(6, 16, 6)].x), 0.9f);
  const PcdFiberLayer* fibers = PCDview_GetStudyFibers(tracking->id);
  ASSERT_NE(fibers, nullptr) << console;
  EXPECT_GT(fibers->fiberStart.size(), 1u);
  EXPECT_NE(console.find("Demo: Fiber tracking 1: "), std::string::npos) << console;
  // tracking and modeling seed from the same listed sphere of radius 2 around a voxel
  // centre: the voxels at distance 0, 1, sqrt 2, sqrt 3 and 2, 1 + 6 + 12 + 8 + 6
  int fiberStudies = 0;
  for (const auto& study : pcd_app->session.studies.items) {
    if (study->type != PCD_STUDY_FIBER_TRACKING && study->type != PCD_STUDY_FIBER_MODELING) continue;
    ++fiberStudies;
    EXPECT_EQ(PCD_GetStudySummary(study.get()).rfind("Seed Points:   33\n", 0), 0u)
        << study->label << ": " << PCD_GetStudySummary(study.get());
  }
  EXPECT_EQ(fiberStudies, 2);
}

TEST(SliceViews, ChannelsOpenInTheirOwnWindowAndTypedRoisRedrawAtOnce) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  ViewsSession s;
  ASSERT_TRUE(s.ok);
  // The So channel is 16-bit: 6400 in tissue, 8000 in the bundles, 9600 in the fluid
  // (the phantom's classes, told apart by the true maps). Tissue is most of the head,
  // so 1 % of the non-zero voxels lies in it; 99 % is the fluid's So when the fluid is
  // more than 1 % of the head, else the bundles'.
  size_t head = 0, fluid = 0;
  for (size_t i = 0; i < s.truth.adc.size(); ++i) {
    head += s.truth.adc[i] > 0;
    fluid += std::fabs(s.truth.adc[i] - 2.5e-3f) < 1e-6f;
  }
  ASSERT_GT(head, 0u);
  const double high = fluid * 100 > head ? 9600.0 : 8000.0, low = 6400.0;
  const PcdIntVector3D strong = StrongestVoxel(s.truth);
  PCDview_SetChannel(0);
  PCDview_SetCursor(strong, false);
  Drain();
  SaveShot(pcd_views->window, "views-so-window.png");
  int white = 0, inHead = 0;
  for (int y = 0; y < kY; ++y)
    for (int x = 0; x < kX; ++x) {
      if (s.truth.adc[s.At(x, y, strong.z)] <= 0) continue;
      double px, py;
      VoxelPixel(PCD_PANE_AXIAL, Pane(0), x, y, strong.z, &px, &py);
      const uint32_t pixel = PixelAt(Pane(0)->image, px + 2, py + 2);
      ++inHead;
      white += (pixel & 255) == 255;
    }
  EXPECT_LT(white * 2, inHead) << "the head is a white blob";
  {
    double px, py;
    VoxelPixel(PCD_PANE_AXIAL, Pane(0), strong.x, strong.y, strong.z, &px, &py);
    const uint32_t bundle = PixelAt(Pane(0)->image, px + 3, py + 3);
    EXPECT_NEAR(int(bundle & 255), (8000.0 - low) * 255 / (high - low), 1.5);
  }
  // a channel of another range (FA x 1000, colour) has a window of its own, and So's is kept
  PCDview_SetChannel(s.faChannel);
  EXPECT_LT(PCDview_GetGreyWindow(s.faChannel).high, 1001.0f);
  EXPECT_NEAR(PCDview_GetGreyWindow(0).high, high, 0.5);

  // Typing a spherical ROI's centre into the ROI editor moves it in the views at once.
  // The field is found by its accessible name, as a screen reader finds it.
  PcdRoiObject* sphere = nullptr;
  for (const auto& roi : pcd_app->session.rois.items)
    if (roi->type == PCD_ROI_SPHERICAL) sphere = roi.get();
  ASSERT_NE(sphere, nullptr);
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  PCD_SelectRoi(sphere->id);
  PCDview_SetChannel(0);
  PCDview_SetCursor({16, 16, int32_t(std::floor(sphere->shape->centre.z))}, false);
  Drain();
  GtkWidget* x = quorix_test::FindByAccessibleName(pcd_app->window, "x");
  ASSERT_NE(x, nullptr);
  ASSERT_TRUE(GTK_IS_SPIN_BUTTON(x));
  EXPECT_EQ(quorix_test::FindByAccessibleName(pcd_app->window, "radius"), PCD_GetRoiEditor()->sphere[3]);
  EXPECT_NE(quorix_test::FindByAccessibleName(pcd_views->window, "pane 2 slice"), nullptr);
  const int drawn = pcd_views->redraws;
  cairo_surface_t* before = cairo_surface_create_similar_image(Pane(0)->image, CAIRO_FORMAT_ARGB32,
                                                               Pane(0)->geometry.width, Pane(0)->geometry.height);
  {
    cairo_t* cr = cairo_create(before);
    cairo_set_source_surface(cr, Pane(0)->image, 0, 0);
    cairo_paint(cr);
    cairo_destroy(cr);
  }
  gtk_widget_grab_focus(x);
  gtk_editable_select_region(GTK_EDITABLE(x), 0, -1);
  for (guint key : {GDK_KEY_2, GDK_KEY_4, GDK_KEY_period, GDK_KEY_5, GDK_KEY_Return}) PressKeyOn(pcd_app->window, key);
  Drain();
  EXPECT_FLOAT_EQ(sphere->shape->centre.x, 24.5f);
  EXPECT_GT(pcd_views->redraws, drawn) << "typing did not redraw the panes";
  // the pixels that changed lie around the new centre (and the old one)
  double cx, cy;
  VoxelPixel(PCD_PANE_AXIAL, Pane(0), 24, int(std::floor(sphere->shape->centre.y)), pcd_views->cursor.z, &cx, &cy);
  const double reach = (sphere->shape->radius + 1.5) * kPixels;
  int nearNew = 0;
  for (int py = 0; py < Pane(0)->geometry.height; ++py)
    for (int px = 0; px < Pane(0)->geometry.width; ++px)
      if (PixelAt(before, px, py) != PixelAt(Pane(0)->image, px, py) && std::hypot(px - cx, py - cy) < reach) ++nearNew;
  cairo_surface_destroy(before);
  EXPECT_GT(nearNew, 0);
  Drain();
  SaveShot(pcd_views->window, "views-typed-sphere.png");

  // the views window lies beside the main window, not over it
  gint mainX = 0, mainY = 0, mainW = 0, mainH = 0, viewsX = 0, viewsY = 0;
  gtk_window_get_position(GTK_WINDOW(pcd_app->window), &mainX, &mainY);
  gtk_window_get_size(GTK_WINDOW(pcd_app->window), &mainW, &mainH);
  gtk_window_get_position(GTK_WINDOW(pcd_views->window), &viewsX, &viewsY);
  EXPECT_GE(viewsX, mainX + mainW);
  // and stays there: a long status line does not widen the main window under the views
  PCD_SetStatus(std::string(40, 'x').append(" a status line far longer than the window is wide ").append(200, 'y').c_str());
  Drain();
  gint widthAfter = 0, heightAfter = 0;
  gtk_window_get_size(GTK_WINDOW(pcd_app->window), &widthAfter, &heightAfter);
  EXPECT_EQ(widthAfter, mainW);

  // the study list shows its labels whole: the label column lies inside the visible
  // part of the list and is as wide as each label's text
  GtkTreeView* list = GTK_TREE_VIEW(PCD_GetStudyPerformer()->list);
  GtkTreeViewColumn* labels = gtk_tree_view_get_column(list, 4);
  ASSERT_NE(labels, nullptr);
  GdkRectangle shown;
  gtk_tree_view_get_visible_rect(list, &shown);
  EXPECT_LE(gtk_tree_view_column_get_x_offset(labels) + gtk_tree_view_column_get_width(labels), shown.width);
  ASSERT_FALSE(pcd_app->session.studies.items.empty());
  for (const auto& study : pcd_app->session.studies.items) {
    PangoLayout* layout = gtk_widget_create_pango_layout(GTK_WIDGET(list), study->label);
    int width = 0, height = 0;
    pango_layout_get_pixel_size(layout, &width, &height);
    g_object_unref(layout);
    EXPECT_GE(gtk_tree_view_column_get_width(labels), width) << study->label;
  }
}

}  // namespace
