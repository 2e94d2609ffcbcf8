// The " ROI editor " and " Study performer " pages driven as a user drives them, under
// Xvfb, with a real pellucid-server: menu items activated, rows selected, numbers typed
// into spin buttons and entries, buttons clicked.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/main_window.h"
#include "app/object_commands.h"
#include "app/startup.h"
#include "io/object_files.h"
#include "io/raw_volume_file.h"
#include "ipc/ipc.h"
#include "study/gui/gui_util.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "support/gui_support.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"
#include "view/fiber_overlay.h"
#include "view/views_window.h"


namespace {

using quorix_test::TempDir;

// 32 x 32 x 12 with a straight bundle along x through y 13..18, z 4..7.
std::string WriteBundlePhantom(const TempDir& dir) {
  PcdDtiData* dti = PCD_MakeDwiPhantom({.sizeX = 32, .sizeY = 32, .sizeZ = 12, .directions = 6}, nullptr);
  const std::string path = dir.file("bundle.raw");
  WriteRawVolumeFile(dti->volume, path.c_str());
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  return path;
}

quorix_test::DialogScript g_dialogs;
std::vector<PcdDialogSeen>& g_seen = g_dialogs.seen;
std::vector<PcdDialogAnswer>& g_answers = g_dialogs.answers;
std::vector<std::string> g_summaryAtDialog;  // the selected study's summary when each dialog came

void AnswerDialogs() {
  g_dialogs.onSeen = [](const PcdDialogSeen&) {
    const PcdStudyObject* selected = pcd_app ? PCD_GetSelectedStudyObject(&pcd_app->session.studies) : nullptr;
    g_summaryAtDialog.push_back(selected ? PCD_GetStudySummary(selected) : "");
  };
  quorix_test::AnswerDialogsFrom(&g_dialogs);
}

PcdDialogAnswer Chosen(const std::string& path) { return {kPcdFileChosen, path}; }

void Drain(int ms = 150) { quorix_test::DrainEvents(ms); }

// The application with the console captured; the console of each step is returned.
struct Console {
  Console() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
  }
  std::string Take() {
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    return err;
  }
  ~Console() {
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
  }
};

bool Start(int serverNumber) {
  std::string number = std::to_string(serverNumber);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};
  return PCD_InitializeApplication(2, argv) == 1;
}

PcdRoiEditor* Editor() { return PCD_GetRoiEditor(); }
PcdStudyPerformer* Performer() { return PCD_GetStudyPerformer(); }

void Activate(const PcdMenuBar& menu, const char* path) {
  GtkWidget* item = PCD_FindMenuItem(menu, path);
  ASSERT_NE(item, nullptr) << path;
  gtk_menu_item_activate(GTK_MENU_ITEM(item));
}

GtkWidget* Find(GtkWidget* root, const std::function<bool(GtkWidget*)>& test) {
  return quorix_test::FindWidget(root, test);
}

GtkWidget* Button(GtkWidget* root, const char* label) { return quorix_test::FindButton(root, label); }

using quorix_test::ShowTab;

// The rows of a list as "number|type|vis|status|label".
std::vector<std::string> Rows(GtkListStore* store) { return quorix_test::ListRows(store, 5); }

std::string Column(GtkListStore* store, int column) {
  std::string out;
  for (const std::string& row : Rows(store)) {
    size_t at = 0;
    for (int c = 0; c < column; ++c) at = row.find('|', at) + 1;
    out += row.substr(at, row.find('|', at) - at);
  }
  return out;
}

using quorix_test::ClickRow;

// Typing into a spin button and pressing Enter.
void Type(GtkWidget* entry, const char* text) { quorix_test::TypeInto(entry, text); }

std::string TextOf(GtkWidget* view) { return PCD_GetTextViewText(view); }

// The visible summary page of the shown settings panel.
GtkWidget* SummaryView() {
  PcdStudyPerformer* p = Performer();
  for (auto& panel : p->panels)
    if (gtk_widget_get_visible(panel->widget)) return panel->summary;
  return nullptr;
}

void Screenshot(GtkWidget* widget, const std::string& name) {
  Drain(250);
  quorix_test::SaveScreenshot(widget, name);
}

std::string ServerObjects(const TempDir& dir) {
  const std::string path = dir.file("saved/objects.txt");
  return std::filesystem::exists(path) ? quorix_test::ReadFileText(path) : std::string();
}

TEST(StudyPages, SphereSeedTracksTheBundleAndTheSessionComesBack) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "saved");
  quorix_test::ServerProcess server({"--volume", WriteBundlePhantom(dir), "--save-dir", dir.file("saved")});
  AnswerDialogs();
  Console console;
  ASSERT_TRUE(Start(server.number));
  std::string err = console.Take();
  // the program's own group, then one for each default study
  EXPECT_NE(err.find("Assigned object group ID: 2\nAssigned object group ID: 3\nAssigned object group ID: 4\n"),
            std::string::npos) << err;

  // start-up made one study of each offered kind and one ROI of each kind; the last selected
  PcdRoiEditor* e = Editor();
  PcdStudyPerformer* p = Performer();
  EXPECT_EQ(Rows(p->store), (std::vector<std::string>{"0|Fiber tracking|o|-|Fiber tracking 1",
                                                      "1|Diffusion profile|o|-|Diffusion profile 1",
                                                      "2|Voxel statistics|o|-|Voxel statistics 1"}));
  EXPECT_EQ(Rows(e->store), (std::vector<std::string>{"0|Spherical|o|free|Spherical 1", "1|Freehand|o|free|Freehand 1",
                                                      "2|Voxelgroup|o|free|Voxelgroup 1"}));
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(e->label)), "Voxelgroup 1");
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(p->label)), "Voxel statistics 1");

  // the sphere is drawn by its spin buttons, on the bundle: centre of voxel (10, 15, 5)
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  ClickRow(e->list, 0);
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(e->label)), "Spherical 1");
  EXPECT_TRUE(gtk_widget_get_visible(e->editors[PCD_ROI_SPHERICAL]));
  EXPECT_FALSE(gtk_widget_get_visible(e->editors[PCD_ROI_VOXELGROUP]));
  Type(e->sphere[0], "10.5");
  Type(e->sphere[1], "15.5");
  Type(e->sphere[2], "5.5");
  Type(e->sphere[3], "1.5");
  const PcdRoiObject* sphere = PCD_FindRoiObject(&pcd_app->session.rois, 0);
  EXPECT_EQ(sphere->shape->centre.x, 10.5f);
  EXPECT_EQ(sphere->shape->centre.y, 15.5f);
  EXPECT_EQ(sphere->shape->centre.z, 5.5f);
  EXPECT_EQ(sphere->shape->radius, 1.5f);
  // out of range is held at the range: the radius stays within 1 .. 256
  Type(e->sphere[3], "0.2");
  EXPECT_EQ(sphere->shape->radius, 1.0f);
  Type(e->sphere[3], "1.5");
  // the label entry renames it, and its row follows
  gtk_entry_set_text(GTK_ENTRY(e->label), "seed sphere");
  EXPECT_STREQ(sphere->label, "seed sphere");
  EXPECT_EQ(Rows(e->store)[0], "0|Spherical|o|free|seed sphere");

  // the sphere becomes the listed seed of the default tracking study
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);
  ClickRow(p->list, 0);
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(p->label)), "Fiber tracking 1");
  PcdStudyPanel* tracking = p->panels[PCD_STUDY_FIBER_TRACKING].get();
  ASSERT_TRUE(gtk_widget_get_visible(tracking->widget));
  ShowTab(tracking->notebook, "Seed");
  GtkWidget* seedPage = gtk_notebook_get_nth_page(GTK_NOTEBOOK(tracking->notebook), 0);
  gtk_button_clicked(GTK_BUTTON(Button(seedPage, "Listed")));
  GtkWidget* roiList = Find(seedPage, [](GtkWidget* w) { return GTK_IS_TREE_VIEW(w); });
  ASSERT_NE(roiList, nullptr);
  GtkTreeViewColumn* use = gtk_tree_view_get_column(GTK_TREE_VIEW(roiList), 0);
  EXPECT_STREQ(gtk_tree_view_column_get_title(use), "Use");
  GList* cells = gtk_cell_layout_get_cells(GTK_CELL_LAYOUT(use));
  g_signal_emit_by_name(cells->data, "toggled", "0");  // a click on the first row's box
  g_list_free(cells);
  const PcdStudyObject* study = PCD_FindStudyObject(&pcd_app->session.studies, 0);
  EXPECT_EQ(study->tract->seedSource, kPcdSeedFromList);
  EXPECT_EQ(study->tract->regions[0].idCount, 1);
  EXPECT_EQ(study->tract->seedObjectCount, 1);
  EXPECT_EQ(study->tract->regions[0].ids[0], 0);
  EXPECT_EQ(sphere->status, 1);  // announced by the study: locked
  EXPECT_EQ(Rows(e->store)[0], "0|Spherical|o|locked|seed sphere");
  err = console.Take();

  // " Analyze and Display ": 19 seeds (the centre voxel, 6 face and 12 edge neighbours),
  // each on the bundle, each tracked
  gtk_button_clicked(GTK_BUTTON(p->analyze));
  err = console.Take();
  const std::string summary = TextOf(SummaryView());
  EXPECT_EQ(summary.rfind("Seed Points:   19\nTracked Lines:   19\nDrawn Lines:   19\nBuffer Size:   ", 0), 0u)
      << summary << err;
  EXPECT_EQ(gtk_notebook_get_current_page(GTK_NOTEBOOK(tracking->notebook)), 4);  // "Summary"
  Screenshot(pcd_app->window, "study-tracking-analyzed.png");
  EXPECT_EQ(Rows(p->store)[0], "0|Fiber tracking|o|done|Fiber tracking 1");
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), "Seed:19, Lines:38/38");
  // the result in the viewer: the study's group holds one polyline per half-line
  EXPECT_NE(err.find("Sending object for (Fiber tracking 1) with ID (2) ...done\n"), std::string::npos) << err;
  EXPECT_NE(ServerObjects(dir).find("group 2: 38 objects"), std::string::npos) << ServerObjects(dir);

  // the same analysis with its dump, written where the chooser says; the chooser comes
  // once the fibers are there (the summary is new when it shows)
  g_seen.clear();
  g_summaryAtDialog.clear();
  g_answers = {Chosen(dir.file("dump.txt"))};
  PCD_SetStudySummary(PCD_GetSelectedStudyObject(&pcd_app->session.studies), "before");
  Activate(p->menu, "/Study/Special/Analyze and dump result");
  console.Take();
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].initialText, "fibetrak_dump.txt");
  EXPECT_EQ(g_summaryAtDialog[0].rfind("Seed Points:   19\n", 0), 0u) << g_summaryAtDialog[0];
  const std::string dump = quorix_test::ReadFileText(dir.file("dump.txt"));
  EXPECT_NE(dump.find("<Dump result is from here>================================================\n19\n"),
            std::string::npos);

  // the tracked lines as grey and colour channels for the viewer
  const auto savedChannels = [&] {
    int n = 0;
    for (const auto& f : std::filesystem::directory_iterator(dir.path() / "saved"))
      n += f.path().filename().string().find("channel") != std::string::npos;
    return n;
  };
  const int channelsBefore = savedChannels();
  Activate(pcd_app->mainMenu, "/Special/Voxelize visible tracklines as/Grey volume");
  Activate(pcd_app->mainMenu, "/Special/Voxelize visible tracklines as/Color volume");
  EXPECT_EQ(savedChannels(), channelsBefore + 2);
  EXPECT_NE(console.Take().find("Voxelizing 38 visible tracklines\n"), std::string::npos);

  // the locked sphere refuses deletion
  ClickRow(e->list, 0);
  Activate(e->menu, "/ROI/Delete");
  EXPECT_EQ(console.Take(), "Undeletable ROI refered by study(ies)\n");
  EXPECT_EQ(pcd_app->session.rois.items.size(), 3u);

  // the ROI 3D objects: shown (the three ROIs), then hidden (an empty group)
  Activate(pcd_app->mainMenu, "/Setting/ROI 3D object/Show, Update");
  EXPECT_NE(ServerObjects(dir).find("group 1: 3 objects"), std::string::npos) << ServerObjects(dir);
  Activate(pcd_app->mainMenu, "/Setting/ROI 3D object/Hide");
  EXPECT_NE(ServerObjects(dir).find("group 1: 0 objects"), std::string::npos) << ServerObjects(dir);
  // shown again: a ROI hidden in the editor leaves the viewer at once; auto update on and off
  Activate(pcd_app->mainMenu, "/Setting/ROI 3D object/Show, Update");
  Activate(pcd_app->mainMenu, "/Setting/ROI 3D object/Auto update/On");
  EXPECT_EQ(pcd_app->roiAutoUpdate, 1);
  ClickRow(e->list, 1);
  gtk_button_clicked(GTK_BUTTON(e->visible));
  EXPECT_NE(ServerObjects(dir).find("group 1: 2 objects"), std::string::npos) << ServerObjects(dir);
  gtk_button_clicked(GTK_BUTTON(e->visible));
  Activate(pcd_app->mainMenu, "/Setting/ROI 3D object/Auto update/Off");
  Activate(pcd_app->mainMenu, "/Setting/ROI 3D object/Hide");
  EXPECT_EQ(pcd_app->roiAutoUpdate, 0);
  console.Take();

  // the tracked lines become a voxelgroup ROI of the voxels they pass
  Activate(pcd_app->mainMenu, "/Special/Voxelize visible tracklines as/Voxelgroup ROI");
  ASSERT_EQ(pcd_app->session.rois.items.size(), 4u);
  const PcdRoiObject* voxelized = pcd_app->session.rois.items.back().get();
  EXPECT_STREQ(voxelized->label, "Voxelized tracklines");
  const PcdIntSize3D size{32, 32, 12};
  std::vector<uint8_t> voxels = PCD_RasterizeRoiObject(voxelized, &size);
  // the seed voxels lie on every line through them
  EXPECT_EQ(voxels[10 + 32 * (15 + 32 * 5)], 1);
  EXPECT_EQ(voxels[0], 0);  // a corner outside the head
  EXPECT_EQ(Rows(e->store).back(), "3|Voxelgroup|o|free|Voxelized tracklines");
  console.Take();

  // save, leave, start again, open: the same objects and labels
  g_answers = {Chosen(dir.file("work.qws"))};
  Activate(pcd_app->mainMenu, "/File/Save work data");
  console.Take();
  const std::vector<std::string> roiRows = Rows(e->store);
  const std::vector<std::string> studyRows = Rows(p->store);
  PCD_CleanUpApplication();
  err = console.Take();
  EXPECT_NE(err.find("Requesting removal of Object 2\n"), std::string::npos) << err;
  ASSERT_TRUE(Start(server.number));
  console.Take();
  // the views look at the seed sphere's section before the session comes back
  ASSERT_NE(pcd_views, nullptr);
  PCDview_SetCursor({10, 15, 5}, false);
  Drain(250);
  PcdViewPane* axial = &pcd_views->panes[0];
  double sx = 0, sy = 0;
  ASSERT_TRUE(PCDview_VoxelToPixel(axial->geometry, {10.5f, 15.5f, 5.5f}, &sx, &sy, nullptr));
  const auto aroundSeed = [&] {  // the pixels within a voxel of the sphere's centre
    std::vector<uint32_t> pixels;
    cairo_surface_flush(axial->image);
    const uint8_t* data = cairo_image_surface_get_data(axial->image);
    const int stride = cairo_image_surface_get_stride(axial->image);
    for (int y = int(sy) - 8; y <= int(sy) + 8; ++y)
      for (int x = int(sx) - 8; x <= int(sx) + 8; ++x)
        pixels.push_back(*reinterpret_cast<const uint32_t*>(data + y * stride + x * 4));
    return pixels;
  };
  const std::vector<uint32_t> withoutSphere = aroundSeed();
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}, Chosen(dir.file("work.qws"))};
  Activate(pcd_app->mainMenu, "/File/Open work data");
  err = console.Take();
  // its ROIs show in the views at once, with no other action
  Drain(250);
  EXPECT_NE(aroundSeed(), withoutSphere) << "the opened session's sphere is not drawn";
  ASSERT_EQ(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[0].text, "Discard current session data?");
  EXPECT_EQ(g_seen[2].title, "Notice");
  EXPECT_EQ(g_seen[2].text, "Objects loaded: 3 studies / 4 ROIs.");
  EXPECT_NE(err.find("Clean-up old objects OK\n"), std::string::npos) << err;
  e = Editor();
  p = Performer();
  // the same rows; the analysed study now counts as analysed in an earlier session
  std::vector<std::string> expectedStudies = studyRows;
  expectedStudies[0] = "0|Fiber tracking|o|old|Fiber tracking 1";
  EXPECT_EQ(Rows(p->store), expectedStudies);
  EXPECT_EQ(Rows(e->store), roiRows);
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(p->label)), "Fiber tracking 1");  // the first is selected
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(e->label)), "seed sphere");
  EXPECT_EQ(gtk_spin_button_get_value(GTK_SPIN_BUTTON(e->sphere[0])), 10.5);
  EXPECT_EQ(TextOf(SummaryView()).rfind("Seed Points:   19\n", 0), 0u);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), "Session data loaded.");

  // a refused file changes nothing
  quorix_test::WriteFileText(dir.file("bad.qws"), "#Quorix-II work session file (not used in earlier Quorix!");
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}, Chosen(dir.file("bad.qws"))};
  Activate(pcd_app->mainMenu, "/File/Open work data");
  ASSERT_EQ(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[2].text, "This is NOT a Quorix-II WORK file.");
  EXPECT_EQ(Rows(e->store), roiRows);

  PCD_CleanUpApplication();
  PCD_SetDialogResponder(nullptr);
}


// Every command of the two menus, the visibility rules, the labels, the panels and the
// dialogs that change nothing when cancelled; screenshots of every editor and panel.
TEST(StudyPages, MenusPanelsAndEditorsAsTheUserSeesThem) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "saved");
  quorix_test::ServerProcess server({"--volume", WriteBundlePhantom(dir), "--save-dir", dir.file("saved")});
  AnswerDialogs();
  Console console;
  ASSERT_TRUE(Start(server.number));
  console.Take();
  PcdRoiEditor* e = Editor();
  PcdStudyPerformer* p = Performer();

  // the two menus, every entry at its path
  ASSERT_EQ(e->menu.paths.size(), 34u);
  ASSERT_EQ(p->menu.paths.size(), 43u);
  for (const char* path :
       {"/ROI/New/Spherical", "/ROI/New/Freehand", "/ROI/New/Voxelgroup", "/ROI/Duplicate", "/ROI/Delete",
        "/ROI/Visibility/Show/All", "/ROI/Visibility/Show/Only/Spherical", "/ROI/Visibility/Show/Only/Freehand",
        "/ROI/Visibility/Show/Only/Voxelgroup", "/ROI/Visibility/Show/Only/Selected", "/ROI/Visibility/Hide/All",
        "/ROI/Visibility/Hide/Only/Spherical", "/ROI/Visibility/Hide/Only/Freehand",
        "/ROI/Visibility/Hide/Only/Voxelgroup", "/ROI/Visibility/Hide/Only/Selected", "/ROI/Visibility/Invert",
        "/ROI/Status/Force locked", "/ROI/Status/Force unlocked", "/ROI/Masking voxelgroup/Erase inside box VOI",
        "/ROI/Masking voxelgroup/Erase outside box VOI"})
    EXPECT_NE(PCD_FindMenuItem(e->menu, path), nullptr) << path;
  for (const char* path :
       {"/Study/New/Fiber tracking", "/Study/New/Diffusion profile", "/Study/New/Voxel statistics",
        "/Study/Duplicate", "/Study/Delete", "/Study/Special/Analyze and dump result",
        "/Study/Special/Analyze all studies", "/Study/Special/Analyze all studies but done",
        "/Study/Visibility/Show/All", "/Study/Visibility/Show/Only/Fiber tracking",
        "/Study/Visibility/Show/Only/Diffusion profile", "/Study/Visibility/Show/Only/Voxel statistics",
        "/Study/Visibility/Show/Only/Selected", "/Study/Visibility/Hide/All",
        "/Study/Visibility/Hide/Only/Fiber tracking", "/Study/Visibility/Hide/Only/Diffusion profile",
        "/Study/Visibility/Hide/Only/Voxel statistics", "/Study/Visibility/Hide/Only/Selected",
        "/Study/Visibility/Invert", "/Study/Preset labels/L. Pyramidal Tract",
        "/Study/Preset labels/R. Pyramidal Tract", "/Study/Preset labels/Corpse Callosum",
        "/Study/Summary string/Record current", "/Study/Summary string/Restore"})
    EXPECT_NE(PCD_FindMenuItem(p->menu, path), nullptr) << path;
  EXPECT_EQ(PCD_FindMenuItem(p->menu, "/Study/New/Fiber modeling"), nullptr);

  // ROI visibility: Spherical 1, Freehand 1, Voxelgroup 1 and a new Spherical 2 (selected)
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  Activate(e->menu, "/ROI/New/Spherical");
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(e->label)), "Spherical 2");
  const std::vector<std::pair<const char*, const char*>> roiSteps = {
      {"/ROI/Visibility/Hide/Only/Spherical", "-oo-"},  // hiding a type shows every other ROI
      {"/ROI/Visibility/Show/Only/Freehand", "-o--"},   {"/ROI/Visibility/Show/Only/Selected", "---o"},
      {"/ROI/Visibility/Hide/Only/Selected", "ooo-"},   {"/ROI/Visibility/Invert", "---o"},
      {"/ROI/Visibility/Hide/All", "----"},             {"/ROI/Visibility/Show/All", "oooo"},
      {"/ROI/Visibility/Show/Only/Voxelgroup", "--o-"}, {"/ROI/Visibility/Hide/Only/Voxelgroup", "oo-o"},
      {"/ROI/Visibility/Show/Only/Spherical", "o--o"},  {"/ROI/Visibility/Hide/Only/Freehand", "o-oo"},
  };
  for (const auto& [path, expected] : roiSteps) {
    Activate(e->menu, path);
    EXPECT_EQ(Column(e->store, 2), expected) << path;
  }
  // the " visible" check button follows the selected ROI and sets it
  EXPECT_TRUE(gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(e->visible)));
  gtk_button_clicked(GTK_BUTTON(e->visible));
  EXPECT_EQ(Column(e->store, 2), "o-o-");

  // duplicate Freehand 1: next id, its own colour, free
  ClickRow(e->list, 1);
  Activate(e->menu, "/ROI/Status/Force locked");
  EXPECT_EQ(Column(e->store, 3), "freelockedfreefree");
  ClickRow(e->list, 1);
  EXPECT_FALSE(gtk_widget_get_sensitive(e->editors[PCD_ROI_FREEHAND]));  // locked: not editable
  Activate(e->menu, "/ROI/Duplicate");
  EXPECT_EQ(Rows(e->store).back(), "4|Freehand|o|free|copy of Freehand 1");
  EXPECT_NE(pcd_app->session.rois.items.back()->red, pcd_app->session.rois.items[1]->red);
  ClickRow(e->list, 1);
  Activate(e->menu, "/ROI/Status/Force unlocked");
  EXPECT_EQ(Column(e->store, 3), "freefreefreefreefree");
  ClickRow(e->list, 1);
  EXPECT_TRUE(gtk_widget_get_sensitive(e->editors[PCD_ROI_FREEHAND]));
  // masking is for voxelgroup ROIs only; deleting a free ROI removes its row
  Activate(e->menu, "/ROI/Masking voxelgroup/Erase inside box VOI");
  EXPECT_EQ(console.Take(), "Thi function is only for voxelgroup ROIs\n");
  Activate(e->menu, "/ROI/Delete");
  EXPECT_EQ(Column(e->store, 0), "0234");

  // the type editors, each with its page shown
  for (int row : {0, 1, 3}) {
    ClickRow(e->list, row);
    const int type = pcd_app->session.rois.items[static_cast<size_t>(row)]->type;
    for (int t = 0; t < 3; ++t) EXPECT_EQ(gtk_widget_get_visible(e->editors[t]), t == type) << row;
    static const char* const kNames[3] = {"roi-spherical.png", "roi-freehand.png", "roi-voxelgroup.png"};
    Screenshot(pcd_app->window, kNames[type]);
  }
  // the growing entries are read when "3D Grow" is clicked (nothing grows from no voxels)
  ClickRow(e->list, 1);
  gtk_entry_set_text(GTK_ENTRY(e->growEntries[0]), "5");
  gtk_entry_set_text(GTK_ENTRY(e->growEntries[1]), "0.35");
  gtk_button_clicked(GTK_BUTTON(e->growIf.buttons[1]));
  gtk_button_clicked(GTK_BUTTON(Button(e->page, "3D Grow")));
  const PcdRoiObject* group = pcd_app->session.rois.items[1].get();
  EXPECT_EQ(group->growing.generationLimit, 5);
  EXPECT_EQ(PCD_GetGrowingFAmin(&group->growing), 0.35f);
  EXPECT_EQ(group->growing.mode, 345);
  ClickRow(e->list, 0);  // the values stay with the ROI when another is shown
  ClickRow(e->list, 1);
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(e->growEntries[1])), "0.35");
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(e->growEntries[0])), "5");
  ShowTab(e->notebook, "Summary");
  EXPECT_EQ(TextOf(e->summary).rfind("Voxelgroup 1\ntype: Voxelgroup\n", 0), 0u) << TextOf(e->summary);
  Screenshot(pcd_app->window, "roi-summary.png");
  ShowTab(e->notebook, "ROI");

  // study visibility: Fiber tracking 1, Diffusion profile 1, Voxel statistics 1 (selected)
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);
  const std::vector<std::pair<const char*, const char*>> studySteps = {
      {"/Study/Visibility/Hide/Only/Diffusion profile", "o-o"},
      {"/Study/Visibility/Show/Only/Voxel statistics", "--o"},
      {"/Study/Visibility/Hide/Only/Selected", "oo-"},
      {"/Study/Visibility/Invert", "--o"},
      {"/Study/Visibility/Show/Only/Fiber tracking", "o--"},
      {"/Study/Visibility/Hide/Only/Fiber tracking", "-oo"},
      {"/Study/Visibility/Show/Only/Selected", "--o"},
      {"/Study/Visibility/Hide/All", "---"},
      {"/Study/Visibility/Show/Only/Diffusion profile", "-o-"},
      {"/Study/Visibility/Hide/Only/Voxel statistics", "oo-"},
      {"/Study/Visibility/Show/All", "ooo"},
  };
  for (const auto& [path, expected] : studySteps) {
    Activate(p->menu, path);
    EXPECT_EQ(Column(p->store, 2), expected) << path;
  }
  console.Take();

  // preset labels go through the label entry into the selected study
  Activate(p->menu, "/Study/Preset labels/Corpse Callosum");
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(p->label)), "Corpse Callosum");
  EXPECT_STREQ(PCD_GetSelectedStudyObject(&pcd_app->session.studies)->label, "Corpse Callosum");
  EXPECT_EQ(Rows(p->store)[2], "2|Voxel statistics|o|-|Corpse Callosum");

  // summary strings: the page's text recorded into the study, and restored from it
  PCD_SetTextViewText(SummaryView(), "my notes");
  Activate(p->menu, "/Study/Summary string/Record current");
  EXPECT_EQ(PCD_GetStudySummary(PCD_GetSelectedStudyObject(&pcd_app->session.studies)), "my notes");
  PCD_SetTextViewText(SummaryView(), "scribbled over");
  Activate(p->menu, "/Study/Summary string/Restore");
  EXPECT_EQ(TextOf(SummaryView()), "my notes");

  // new, duplicate (a copy of the settings), delete (its viewer object goes)
  Activate(p->menu, "/Study/New/Fiber tracking");
  EXPECT_STREQ(gtk_entry_get_text(GTK_ENTRY(p->label)), "Fiber tracking 2");
  PcdStudyPanel* tracking = p->panels[PCD_STUDY_FIBER_TRACKING].get();
  ShowTab(tracking->notebook, "Setting");
  GtkWidget* settingPage = gtk_notebook_get_nth_page(GTK_NOTEBOOK(tracking->notebook), 3);
  GtkWidget* adcCheck = Button(settingPage, "ADC (x1k) >");
  ASSERT_NE(adcCheck, nullptr);
  gtk_button_clicked(GTK_BUTTON(adcCheck));
  GtkWidget* highDensity = Button(settingPage, "high");
  gtk_button_clicked(GTK_BUTTON(highDensity));
  Activate(p->menu, "/Study/Duplicate");
  const PcdStudyObject* copy = pcd_app->session.studies.items.back().get();
  EXPECT_STREQ(copy->label, "copy of Fiber tracking 2");
  EXPECT_EQ(copy->tract->limits.useADCmax, 1);
  EXPECT_EQ(copy->tract->limits.ADCmax, 0.003f);  // shown as 3.00, stored in mm^2/s
  EXPECT_EQ(copy->tract->seedDensity, kPcdSeedDensityHigh);
  const int32_t group2 = copy->viewerObjectGroup;
  EXPECT_EQ(console.Take(), "Assigned object group ID: 5\nAssigned object group ID: 6\n");
  EXPECT_NE(ServerObjects(dir).find("group " + std::to_string(group2)), std::string::npos);
  Activate(p->menu, "/Study/Delete");
  EXPECT_EQ(console.Take(), "Requesting removal of Object " + std::to_string(group2) + "\n");
  EXPECT_EQ(ServerObjects(dir).find("group " + std::to_string(group2)), std::string::npos) << ServerObjects(dir);
  EXPECT_EQ(Column(p->store, 0), "0123");

  // a fiber modeling study comes from a study object file only
  {
    PcdWorkSession other;
    PCD_NewStudyObject(&other.studies, PCD_STUDY_FIBER_MODELING, nullptr);
    const PcdIntSize3D size{32, 32, 12};
    ASSERT_EQ(PCD_SaveStudyObjectFile(other.studies.items[0].get(), &size, dir.file("model.study").c_str()), 0);
  }
  g_answers = {Chosen(dir.file("model.study"))};
  Activate(pcd_app->mainMenu, "/File/Import/Study object");
  console.Take();
  EXPECT_EQ(Rows(p->store).back(), "5|Fiber modeling|o|-|Fiber modeling 1");
  EXPECT_TRUE(gtk_widget_get_visible(p->panels[PCD_STUDY_FIBER_MODELING]->widget));

  // screenshots of every panel and page
  const char* const kPanelNames[4] = {"tracking", "profile", "statistics", "modeling"};
  for (int row : {0, 1, 2, 4}) {
    ClickRow(p->list, row);
    const int type = pcd_app->session.studies.items[static_cast<size_t>(row)]->type;
    PcdStudyPanel* panel = p->panels[type].get();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(gtk_widget_get_visible(p->panels[t]->widget), t == type);
    for (int page = 0; page < gtk_notebook_get_n_pages(GTK_NOTEBOOK(panel->notebook)); ++page) {
      gtk_notebook_set_current_page(GTK_NOTEBOOK(panel->notebook), page);
      GtkWidget* child = gtk_notebook_get_nth_page(GTK_NOTEBOOK(panel->notebook), page);
      GtkWidget* inner = Find(child, [](GtkWidget* w) { return GTK_IS_NOTEBOOK(w); });
      const int innerPages = inner ? gtk_notebook_get_n_pages(GTK_NOTEBOOK(inner)) : 1;
      for (int i = 0; i < innerPages; ++i) {
        if (inner) gtk_notebook_set_current_page(GTK_NOTEBOOK(inner), i);
        Screenshot(pcd_app->window, std::string("study-") + kPanelNames[type] + "-" + std::to_string(page) + "-" +
                                        std::to_string(i) + ".png");
      }
    }
  }

  // dialogs cancelled change nothing; an exported ROI comes back as a new ROI
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  ClickRow(e->list, 0);
  const std::vector<std::string> before = Rows(e->store);
  g_seen.clear();
  g_answers = {};
  Activate(pcd_app->mainMenu, "/File/Open work data");
  Activate(pcd_app->mainMenu, "/File/Export/ROI object");
  Activate(pcd_app->mainMenu, "/File/Import/ROI object");
  Activate(pcd_app->mainMenu, "/File/Save work data");
  ASSERT_EQ(g_seen.size(), 4u);
  EXPECT_EQ(g_seen[0].text, "Discard current session data?");
  EXPECT_EQ(Rows(e->store), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator()),
            3);  // the phantom, the study file and the server's folder
  g_answers = {Chosen(dir.file("sphere.roi")), Chosen(dir.file("sphere.roi"))};
  Activate(pcd_app->mainMenu, "/File/Export/ROI object");
  Activate(pcd_app->mainMenu, "/File/Import/ROI object");
  console.Take();
  EXPECT_EQ(Rows(e->store).back(), "5|Spherical|o|free|Spherical 1");
  EXPECT_EQ(Rows(e->store).size(), before.size() + 1);

  // realtime analysis: the tensor at the viewer's position in the status line
  Activate(pcd_app->mainMenu, "/Special/Start realtime analysis");
  EXPECT_EQ(pcd_app->realtimeAnalysis, 1);
  ASSERT_EQ(PCDipc_SendConnectionRequest(), 0);
  const PcdIntVector3D position{10, 15, 5};
  PCDipc_SendPosition(&position);
  PCDipc_SendDisconnectionRequest();
  PCD_ServiceTimer(nullptr);
  const std::string status = gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel));
  // the bundle's tensor, fitted exactly from noiseless signals: eigenvalues 1.7, 0.3 and
  // 0.3 (x1k), their mean 0.767, FA = sqrt(1.5 * 1.3067 / 3.07) = 0.799
  EXPECT_EQ(status, "(10,15,5) FA:0.799 ADC:0.767 L:1.700/0.300/0.300 (x1k)");
  // outside the volume, or without a ready data set, nothing is said
  const PcdIntVector3D outside{32, 0, 0}, below{0, -1, 0};
  EXPECT_EQ(PCD_DescribeTensorAtVoxel(pcd_app->session.dti, outside), "");
  EXPECT_EQ(PCD_DescribeTensorAtVoxel(pcd_app->session.dti, below), "");
  EXPECT_EQ(PCD_DescribeTensorAtVoxel(nullptr, position), "");
  pcd_app->session.dti->isReady = 0;
  EXPECT_EQ(PCD_DescribeTensorAtVoxel(pcd_app->session.dti, position), "");
  pcd_app->session.dti->isReady = 1;
  Activate(pcd_app->mainMenu, "/Special/Start realtime analysis");
  EXPECT_EQ(pcd_app->realtimeAnalysis, 0);

  PCD_CleanUpApplication();
  PCD_SetDialogResponder(nullptr);
}

// A fiber modeling study with its default settings, as a user makes it: imported from a
// study object file, seeded from a sphere typed into the ROI editor in the straight
// bundle of the noisy 64 x 64 x 24 phantom, run with " Analyze and Display ". It must
// finish, and its fibers must follow the phantom's true directions: every segment in a
// voxel with one true direction within 30 degrees of it, every node in the bundles' slab
// and hardly any in isotropic tissue.
TEST(StudyPages, ADefaultModelingStudyOnNoisyDataFinishesOnTheBundle) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "saved");
  constexpr int kX = 64, kY = 64, kZ = 24;
  PcdPhantomTruth truth;
  {
    PcdDtiData* dti = PCD_MakeDwiPhantom({.sizeX = kX, .sizeY = kY, .sizeZ = kZ, .noise = 0.02f}, &truth);
    ASSERT_NE(dti, nullptr);
    WriteRawVolumeFile(dti->volume, dir.file("noisy.raw").c_str());
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
    PcdWorkSession other;
    PCD_NewStudyObject(&other.studies, PCD_STUDY_FIBER_MODELING, nullptr);
    const PcdIntSize3D size{kX, kY, kZ};
    ASSERT_EQ(PCD_SaveStudyObjectFile(other.studies.items[0].get(), &size, dir.file("model.study").c_str()), 0);
  }
  quorix_test::ServerProcess server({"--volume", dir.file("noisy.raw"), "--voxel-size", "2", "--save-dir",
                                     dir.file("saved")});
  AnswerDialogs();
  Console console;
  struct CleanUp {  // also when an assertion ends the test early
    ~CleanUp() {
      PCD_CleanUpApplication();
      PCD_SetDialogResponder(nullptr);
    }
  } cleanUp;
  ASSERT_TRUE(Start(server.number));
  PcdRoiEditor* e = Editor();
  PcdStudyPerformer* p = Performer();
  Activate(pcd_app->mainMenu, "/Special/Add computational channels");

  // the seed: a sphere of radius 1.5 at voxel (12, 31, 11), in the bundle along x
  // (y 27..36, z 9..14) and away from the crossing (x 27..36)
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 1);
  ClickRow(e->list, 0);
  Type(e->sphere[0], "12.5");
  Type(e->sphere[1], "31.5");
  Type(e->sphere[2], "11.5");
  Type(e->sphere[3], "1.5");
  ASSERT_GT(truth.fa[12 + kX * (31 + kY * 11)], 0.6f);

  g_answers = {Chosen(dir.file("model.study"))};
  Activate(pcd_app->mainMenu, "/File/Import/Study object");
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);
  ASSERT_EQ(Rows(p->store).back(), "3|Fiber modeling|o|-|Fiber modeling 1");
  ClickRow(p->list, 3);
  PcdStudyPanel* modeling = p->panels[PCD_STUDY_FIBER_MODELING].get();
  ASSERT_TRUE(gtk_widget_get_visible(modeling->widget));
  ShowTab(modeling->notebook, "Seed");
  GtkWidget* seedPage = gtk_notebook_get_nth_page(GTK_NOTEBOOK(modeling->notebook), 0);
  gtk_button_clicked(GTK_BUTTON(Button(seedPage, "Listed")));
  GtkWidget* roiList = Find(seedPage, [](GtkWidget* w) { return GTK_IS_TREE_VIEW(w); });
  ASSERT_NE(roiList, nullptr);
  GList* cells = gtk_cell_layout_get_cells(GTK_CELL_LAYOUT(gtk_tree_view_get_column(GTK_TREE_VIEW(roiList), 0)));
  g_signal_emit_by_name(cells->data, "toggled", "0");  // the sphere's box
  g_list_free(cells);
  const PcdStudyObject* study = PCD_GetSelectedStudyObject(&pcd_app->session.studies);
  ASSERT_EQ(study->type, PCD_STUDY_FIBER_MODELING);
  ASSERT_EQ(study->tract->regions[0].idCount, 1);
  console.Take();

  gtk_button_clicked(GTK_BUTTON(p->analyze));
  const std::string err = console.Take();
  const std::string summary = TextOf(SummaryView());
  EXPECT_EQ(summary.rfind("Seed Points:   19\n", 0), 0u) << summary << err;
  const PcdFiberLayer* fibers = PCDview_GetStudyFibers(study->id);
  ASSERT_NE(fibers, nullptr) << err;
  ASSERT_GT(fibers->fiberStart.size(), 10u) << summary;
  int along = 0, across = 0, offBundles = 0, inBand = 0, nodes = 0;
  const auto voxel = [&](const PcdFiberNode& n, size_t* at) {
    const double x = std::floor(n.x), y = std::floor(n.y), z = std::floor(n.z);
    if (x < 0 || y < 0 || z < 0 || x >= kX || y >= kY || z >= kZ) return false;
    *at = size_t(x) + kX * (size_t(y) + kY * size_t(z));
    return true;
  };
  for (size_t f = 0; f + 1 < fibers->fiberStart.size(); ++f)
    for (uint32_t k = fibers->fiberStart[f]; k < fibers->fiberStart[f + 1]; ++k) {
      const PcdFiberNode& n = fibers->nodes[k];
      size_t at = 0;
      if (!voxel(n, &at)) continue;
      ++nodes;
      // isotropic tissue (not the fluid rim where the bundles end, not the crossing,
      // whose voxels have no single true direction) is off the bundles
      const bool tissue = truth.adc[at] > 0 && truth.fa[at] < 0.05f && std::fabs(truth.adc[at] - 2.5e-3f) > 1e-6f;
      offBundles += tissue;
      inBand += std::fabs(n.z - 12.0) <= 4.0;  // the bundles' slab: z 9..14
      const PcdVector3D d = truth.direction[at];
      if (k + 1 >= fibers->fiberStart[f + 1] || (d.x == 0 && d.y == 0 && d.z == 0)) continue;
      const PcdFiberNode& m = fibers->nodes[k + 1];
      const double sx = m.x - n.x, sy = m.y - n.y, sz = m.z - n.z;
      const double length = std::sqrt(sx * sx + sy * sy + sz * sz);
      if (length == 0) continue;
      (std::fabs(sx * d.x + sy * d.y + sz * d.z) >= 0.866 * length ? along : across) += 1;
    }
  EXPECT_GT(along, 100);
  EXPECT_EQ(across, 0);
  EXPECT_LE(offBundles * 100, nodes * 2) << offBundles << " of " << nodes << " nodes in isotropic tissue";
  EXPECT_EQ(inBand, nodes);
  // the fibers over the colour map, the cursor on the seed
  PCDview_SetChannel(31);  // So + 30 DWIs, then colour
  PCDview_SetCursor({12, 31, 11}, false);
  Screenshot(pcd_views->window, "views-modeling.png");
  Screenshot(pcd_app->window, "study-modeling-analyzed.png");
}

}  // namespace
