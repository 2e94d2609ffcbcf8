// The desktop program under Xvfb, attached to a real pellucid-server process.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "app/services/app_state.h"
#include "app/commands.h"
#include "app/services/dialogs.h"
#include "app/loading.h"
#include "app/main_window.h"
#include "app/startup.h"
#include "io/raw_volume_file.h"
#include "ipc/ipc.h"
#include "support/gui_support.h"
#include "support/test_support.h"
#include "view/views_window.h"
#include "tools/phantom/phantom.h"

// glib's frames carry no frame pointers: full stacks let LeakSanitizer recognise what
// the libraries allocate as they are loaded (the suppressions are in
// tests/sanitizer/lsan.supp, which every sanitizer run uses).
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {

using quorix_test::TempDir;


// The viewer server with a volume, saving what it receives.
struct Server : quorix_test::ServerProcess {
  Server(const std::string& volume, const std::string& saveDir)
      : ServerProcess({"--volume", volume, "--save-dir", saveDir}) {}
};

// A small DWI phantom as the viewer's volume: 1 So + 6 DWIs.
// The console is standard error: the given pieces stand there in this order (the MPG dump
// and progress lines may come between them), and nothing goes to standard output.
testing::AssertionResult ConsoleHasInOrder(const std::string& err, const std::string& out,
                                           const std::vector<std::string>& pieces) {
  if (!out.empty()) return testing::AssertionFailure() << "on standard output: " << out;
  size_t at = 0;
  for (const std::string& piece : pieces) {
    const size_t found = err.find(piece, at);
    if (found == std::string::npos)
      return testing::AssertionFailure() << "missing or out of order: " << piece << "\nin: " << err;
    at = found + piece.size();
  }
  return testing::AssertionSuccess();
}

std::string WritePhantom(const TempDir& dir) {
  PcdDtiData* dti =
      PCD_MakeDwiPhantom({.sizeX = 12, .sizeY = 10, .sizeZ = 4, .directions = 6}, nullptr);
  const std::string path = dir.file("phantom.raw");
  WriteRawVolumeFile(dti->volume, path.c_str());
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  return path;
}

quorix_test::DialogScript g_dialogs;
std::vector<PcdDialogSeen>& g_seen = g_dialogs.seen;
std::vector<PcdDialogAnswer>& g_answers = g_dialogs.answers;  // given in order; then the defaults

void RecordDialogs() { quorix_test::AnswerDialogsFrom(&g_dialogs); }

// A key pressed while the main window has the input focus, as the X server delivers it.
void PressKey(guint keyval, guint modifiers = 0) { quorix_test::PressKey(pcd_app->window, keyval, modifiers); }

std::string PageLabel(int page) {
  GtkWidget* child = gtk_notebook_get_nth_page(GTK_NOTEBOOK(pcd_app->notebook), page);
  return gtk_notebook_get_tab_label_text(GTK_NOTEBOOK(pcd_app->notebook), child);
}

void DrainEvents() { quorix_test::DrainEvents(400, 20); }

using quorix_test::SaveScreenshot;

TEST(DesktopProgram, StartsOnTheViewersVolumeAndRunsItsCommands) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "saved");
  Server server(WritePhantom(dir), dir.file("saved"));
  // the recognition notice as the user sees it (the responder is called once it is drawn)
  PCD_SetDialogResponder([](const PcdDialogSeen& seen) {
    if (seen.text.rfind("Quorix.II recognized", 0) == 0) SaveScreenshot(seen.window, "recognition-notice.png");
    g_seen.push_back(seen);
    return PcdDialogAnswer{kPcdDialogCancel, ""};
  });
  std::string number = std::to_string(server.number);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int started = PCD_InitializeApplication(2, argv);
  std::string err = testing::internal::GetCapturedStderr();
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(started, 1) << out << err;
  EXPECT_EQ(err.rfind("IPC available (IPC Client initialization succeeded)\n>> Establishing connection ... OK\n", 0), 0u) << err;
  EXPECT_EQ(out, "");
  EXPECT_EQ(pcd_app->viewerSessionNumber, server.number);
  EXPECT_EQ(pcd_app->viewerObjectId, 1);
  EXPECT_EQ(pcd_app->memo, "Data Source: IPC with PELLUCID\nMatrix size: 12x10x4 x 7(ch)\n");

  // the recognition notice, to the letter
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].title, "Important Notice");
  EXPECT_EQ(g_seen[0].width, 400);
  EXPECT_EQ(g_seen[0].text,
            "Quorix.II recognized DTI data as bellow.                                     \n \n"
            "   matrix size:    12 x 10 x 4 (7 channels)            \n"
            "   b=0 data:\t      ch.  1 - 1                              \n"
            "   DWI data:\t      ch. 2 - 7 (6 directions of MPG)   \n \n"
            " The default b value is 1000.0.                                                   \n \n"
            " If these settings are wrong, analysis can never be performed      \n"
            " correctly.  To correct the values, use commands in the menu:    \n"
            " Setting -> MPG -> Manual set.\t\t\t                                         \n \n"
            " Check MPG directions shown in the console window, too.");
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), " initialized.");

  // the window: title, 66 menu entries with their paths and accelerators, three pages
  EXPECT_EQ(std::string(gtk_window_get_title(GTK_WINDOW(pcd_app->window))).rfind("Quorix.II", 0), 0u);
  ASSERT_EQ(pcd_app->mainMenu.paths.size(), 66u);
  EXPECT_EQ(pcd_app->mainMenu.paths.front(), "/File");
  EXPECT_NE(PCD_FindMenuItem(pcd_app->mainMenu, "/Special/Add computational channels"), nullptr);
  EXPECT_NE(PCD_FindMenuItem(pcd_app->mainMenu, "/Help/About ..."), nullptr);
  EXPECT_EQ(PageLabel(0), " Study performer ");
  EXPECT_EQ(PageLabel(1), " ROI editor ");
  EXPECT_EQ(PageLabel(2), " Utility ");
  RecordDialogs();
  DrainEvents();
  SaveScreenshot(pcd_app->window, "main-window.png");
  // asks for 320 x 712 at least; opens wider, so that the lists show their labels whole
  gint requestW = 0, requestH = 0;
  gtk_widget_get_size_request(pcd_app->window, &requestW, &requestH);
  EXPECT_EQ(requestW, 320);
  EXPECT_EQ(requestH, 712);
  EXPECT_GE(gtk_widget_get_allocated_width(pcd_app->window), 320);
  EXPECT_EQ(gtk_widget_get_allocated_height(pcd_app->window), 712);

  // Manual set: 7 total channels with So 1 keeps the single-So default; a cancel changes nothing
  g_seen.clear();
  g_answers = {{kPcdValueOk, "2"}};
  testing::internal::CaptureStderr();
  cmd_manual_set(nullptr, PCD_MANUAL_SO_CHANNELS, nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("MPG setting NOT ready"), std::string::npos);
  EXPECT_EQ(g_seen[0].text, "So (b=0) Ch.");
  EXPECT_EQ(g_seen[0].initialText, "1");
  EXPECT_EQ(pcd_app->session.dti->isReady, 0);  // 2 So + 5 DWIs cannot be fitted
  g_answers = {{kPcdValueOk, "1"}};
  testing::internal::CaptureStderr();
  cmd_manual_set(nullptr, PCD_MANUAL_SO_CHANNELS, nullptr);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(pcd_app->session.dti->isReady, 1);
  cmd_manual_set(nullptr, PCD_MANUAL_UNIFORM_B, nullptr);  // cancelled
  EXPECT_EQ(PCDdti_GetUniformBvalueOfDTI(pcd_app->session.dti), 1000.0f);

  // loading with a ready setting asks first; a cancel, then a refused file, keep all
  g_seen.clear();
  PcdRawVolumeData* before = pcd_app->session.volume;
  PCD_LoadVolume(PCD_IMPORT_RAW_VOLUME, dir.file("phantom.raw").c_str());
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].text, "Discard current session data?");
  quorix_test::WriteFileText(dir.file("garbage.raw"), "not a volume");
  g_answers = {{kPcdConfirmYes, ""}};
  PCD_LoadVolume(PCD_IMPORT_RAW_VOLUME, dir.file("garbage.raw").c_str());
  EXPECT_EQ(pcd_app->session.volume, before);
  EXPECT_EQ(g_seen.back().text, "This is NOT a PELLUCID file.");
  EXPECT_EQ(g_seen.back().title, "Warning");

  // typing into the memo: plain letters are text there, not the palette frame's commands;
  // the same letter elsewhere and control keys in the memo still reach the menu
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 2);
  DrainEvents();
  gtk_widget_grab_focus(pcd_app->memoView);
  ASSERT_EQ(gtk_window_get_focus(GTK_WINDOW(pcd_app->window)), pcd_app->memoView);
  g_seen.clear();
  PCDview_SetChannel(3);
  for (guint key : {GDK_KEY_F, GDK_KEY_l, GDK_KEY_N, GDK_KEY_b, GDK_KEY_G}) PressKey(key);
  EXPECT_TRUE(g_seen.empty());
  EXPECT_EQ(PCDview_GetChannel(), 3);
  EXPECT_NE(pcd_app->memo.find("FlNbG"), std::string::npos) << pcd_app->memo;
  PressKey(GDK_KEY_q, GDK_CONTROL_MASK);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].text, "Do you REALLY quit the program?");
  gtk_widget_grab_focus(pcd_app->notebook);
  g_seen.clear();
  PCDview_SetChannel(3);
  PressKey(GDK_KEY_F);  // the palette frame's "First" channel
  EXPECT_TRUE(g_seen.empty());
  EXPECT_EQ(PCDview_GetChannel(), 0);
  gtk_notebook_set_current_page(GTK_NOTEBOOK(pcd_app->notebook), 0);

  // the computed channels are appended and sent to the viewer
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  cmd_add_computational_channels(nullptr, 0, nullptr);
  err = testing::internal::GetCapturedStderr();
  out = testing::internal::GetCapturedStdout();
  const std::string sent = "Sending a computational channel to PELLUCID...";
  EXPECT_TRUE(ConsoleHasInOrder(err, out, {"Analysis completed in ", " sec.\n", sent, "done.\n", sent,
                                           "done.\n", sent, "done.\n", sent, "done.\n",
                                           "4 channels added.\n"}));
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, 11);
  size_t channels = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path() / "saved"))
    channels += e.path().filename().string().find("channel") != std::string::npos;
  EXPECT_EQ(channels, 4u);

  // quit asks only with a ready setting; "Jones 30 dir" is a placeholder
  g_seen.clear();
  cmd_quit(nullptr, 0, nullptr);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].text, "Do you REALLY quit the program?");
  cmd_mpg_preset(nullptr, PCD_PRESET_JONES_30, nullptr);
  EXPECT_EQ(g_seen.back().text, "Not implemented yet.");

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  PCD_CleanUpApplication();
  err = testing::internal::GetCapturedStderr();
  out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(ConsoleHasInOrder(err, out, {"Requesting removal of Object 1\n", "Clean-up old objects OK\n"}));
  EXPECT_EQ(pcd_app, nullptr);
  PCD_SetDialogResponder(nullptr);
}

// Everything through the real dialogs: exports, loads of the exported files, refusals
// and cancels that keep the data set, and the MPG setting round trip.
TEST(DesktopProgram, LoadsAndExportsThroughItsDialogs) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  Server server(WritePhantom(dir), dir.path().string());
  RecordDialogs();
  std::string number = std::to_string(server.number);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int started = PCD_InitializeApplication(2, argv);
  const std::string startOut = testing::internal::GetCapturedStdout();
  const std::string startErr = testing::internal::GetCapturedStderr();
  ASSERT_EQ(started, 1) << startOut << startErr;
  const auto chosen = [](const std::string& path) { return PcdDialogAnswer{kPcdFileChosen, path}; };

  // exports, each through the file chooser with its default name
  g_seen.clear();
  g_answers = {chosen(dir.file("x.dti")), chosen(dir.file("mpg.txt")), chosen(dir.file("vol.raw"))};
  cmd_export_dti(nullptr, 0, nullptr);
  cmd_export_mpg(nullptr, 0, nullptr);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), "MPG vector data exported.");
  cmd_export_volume(nullptr, 0, nullptr);
  ASSERT_EQ(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[1].initialText, "mpg.txt");
  EXPECT_EQ(g_seen[2].initialText, "exported.raw");
  for (const char* name : {"x.dti", "mpg.txt", "vol.raw"}) EXPECT_TRUE(std::filesystem::exists(dir.file(name))) << name;

  // a DICOM import cancelled at the question loses nothing
  PcdRawVolumeData* const volume = pcd_app->session.volume;
  PcdDtiData* const dti = pcd_app->session.dti;
  g_seen.clear();
  PCD_LoadVolume(PCD_IMPORT_DICOM, nullptr);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].text, "Discard current session data?");
  // a cancelled chooser after the confirmation, and a refused DTI file, keep the data set
  g_answers = {{kPcdConfirmYes, ""}};
  PCD_LoadVolume(PCD_IMPORT_RAW_VOLUME, nullptr);
  quorix_test::WriteFileText(dir.file("bad.dti"), "PCD-DTI? no, nothing of the kind");
  g_answers = {{kPcdConfirmYes, ""}};
  PCD_LoadVolume(PCD_IMPORT_DTI_FILE, dir.file("bad.dti").c_str());
  EXPECT_EQ(g_seen.back().title, "Warning");
  EXPECT_EQ(g_seen.back().text, "This is NOT a DTI file.");
  EXPECT_EQ(pcd_app->session.volume, volume);
  EXPECT_EQ(pcd_app->session.dti, dti);

  // the exported raw volume comes back; it carries no voxel size, so it is asked for
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}, chosen(dir.file("vol.raw")), {kPcdValueOk, "2.5"}};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  PCD_LoadVolume(PCD_IMPORT_RAW_VOLUME, nullptr);
  const std::string loaded = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(ConsoleHasInOrder(loaded, testing::internal::GetCapturedStdout(),
                                {"Volume data OK. Replacing.\n", "  MPG setting seems to be ready",
                                 "Voxel size is specified as 2.500000 mm.\n", "ROI cleaned in PELLUCID.\n",
                                 "Clean-up old objects OK\n", "Transfering to PELLUCID... done\n"}));
  ASSERT_EQ(g_seen.size(), 4u);
  EXPECT_EQ(g_seen[2].text, "voxel size(mm)");
  EXPECT_EQ(g_seen[2].initialText, "1.0");
  EXPECT_EQ(g_seen[3].text.rfind("Quorix.II recognized", 0), 0u);
  EXPECT_EQ(pcd_app->session.dti->reserved, 2.5f);
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, 7);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), " initialized.");

  // uniform b: every DWI channel, the So channel untouched; then the MPG file brings 1000 back
  g_answers = {{kPcdValueOk, "800"}};
  testing::internal::CaptureStderr();
  cmd_manual_set(nullptr, PCD_MANUAL_UNIFORM_B, nullptr);
  const std::string dump = testing::internal::GetCapturedStderr();
  EXPECT_NE(dump.find("   7   b=800.0, g="), std::string::npos) << dump;
  EXPECT_EQ(g_seen.back().initialText, "1000.00");
  EXPECT_EQ(pcd_app->session.dti->bValues[0], 0.0f);
  EXPECT_EQ(pcd_app->session.dti->bValues[6], 800.0f);
  g_answers = {chosen(dir.file("mpg.txt"))};
  testing::internal::CaptureStderr();
  cmd_import_mpg(nullptr, 0, nullptr);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(pcd_app->session.dti->bValues[6], 1000.0f);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), "MPG vector data imported.");

  // the DTI file brings its own setting and description
  g_answers = {{kPcdConfirmYes, ""}};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  PCD_LoadVolume(PCD_IMPORT_DTI_FILE, dir.file("x.dti").c_str());
  testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(pcd_app->memo.rfind("Data Source: DTI file\n", 0), 0u) << pcd_app->memo;
  EXPECT_EQ(pcd_app->session.dti->volume, pcd_app->session.volume);
  EXPECT_EQ(pcd_app->session.dti->isReady, 1);

  // four DWIs cannot be fitted: the setting is no longer ready and quit asks nothing
  g_answers = {{kPcdValueOk, "5"}};
  testing::internal::CaptureStderr();
  cmd_manual_set(nullptr, PCD_MANUAL_TOTAL_CHANNELS, nullptr);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(pcd_app->session.dti->isReady, 0);
  g_seen.clear();
  cmd_quit(nullptr, 0, nullptr);
  EXPECT_TRUE(g_seen.empty());

  // no maps from a setting that is not ready: the notice says why, nothing is appended
  testing::internal::CaptureStderr();
  cmd_add_computational_channels(nullptr, 0, nullptr);
  const std::string refused = testing::internal::GetCapturedStderr();
  EXPECT_EQ(refused, "Err: MPG setting NOT ready. Analysis NOT executable.\n");
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].title, "Important Notice");
  EXPECT_EQ(g_seen[0].text, refused);
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, 7);

  // an explicit setting over more channels than the volume holds is refused the same way
  pcd_app->session.dti->channelCount = 9;
  pcd_app->session.dti->isReady = 1;
  g_seen.clear();
  testing::internal::CaptureStderr();
  cmd_add_computational_channels(nullptr, 0, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: the MPG setting describes 9 channels but the volume holds 7\n");
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, 7);

  // a cancelled voxel size question keeps the size the new volume came with (none)
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}, chosen(dir.file("vol.raw")), {kPcdDialogCancel, ""}};
  testing::internal::CaptureStderr();
  PCD_LoadVolume(PCD_IMPORT_RAW_VOLUME, nullptr);
  const std::string cancelled = testing::internal::GetCapturedStderr();
  ASSERT_GE(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[2].text, "voxel size(mm)");
  EXPECT_EQ(pcd_app->session.dti->reserved, 0.0f);
  EXPECT_EQ(cancelled.find("Voxel size is specified"), std::string::npos) << cancelled;

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  PCD_CleanUpApplication();
  testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  PCD_SetDialogResponder(nullptr);
}

TEST(DesktopProgram, StartUpFailuresEndQuietlyWithStatusZero) {
  std::string out;
  const std::string quorix = quorix_test::BuiltProgram("quorix");
  // no server of that number
  EXPECT_EQ(quorix_test::RunCommand(quorix + " 9876 2>&1", &out), 0);
  EXPECT_EQ(out, "IPC NOT available (IPC Client initialization failure)\n");
  // a display of depth 16: nothing beyond the link
  TempDir dir;
  Server server(WritePhantom(dir), dir.path().string());
  if (quorix_test::RunCommand("command -v xvfb-run >/dev/null") != 0) GTEST_SKIP() << "no xvfb-run";
  EXPECT_EQ(quorix_test::RunCommand("xvfb-run -a -s '-screen 0 640x480x16' " + quorix + " " +
                                        std::to_string(server.number) + " 2>&1",
                                    &out),
            0);
  // Xvfb may add lines of its own; ours is the link's line and nothing of the window
  EXPECT_NE(out.find("IPC available (IPC Client initialization succeeded)\n"), std::string::npos) << out;
  EXPECT_EQ(out.find("Establishing connection"), std::string::npos) << out;
}

// Every command of the main menu stands at its path with its accelerator (plain letters
// for the palette frame, on purpose).
TEST(DesktopProgram, MainMenuCommandsCarryTheirAccelerators) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  struct Expected {
    const char* path;
    const char* accelerator;
  };
  const Expected expected[] = {
      {"/File/Open work data", "<control>O"},
      {"/File/Import/DICOM (directory)", "<control>D"},
      {"/File/Import/DTI file (incl. MPG setting)", "<control>K"},
      {"/File/Import/PELLUCID file", "<control>L"},
      {"/File/Import/MPG text file", "<control>M"},
      {"/File/Import/Study object", ""},
      {"/File/Import/ROI object", ""},
      {"/File/Save work data", "<control>S"},
      {"/File/Export/DTI file (incl. MPG setting)", ""},
      {"/File/Export/PELLUCID file", ""},
      {"/File/Export/MPG text file", ""},
      {"/File/Export/Study object", ""},
      {"/File/Export/ROI object", ""},
      {"/File/Quit", "<control>Q"},
      {"/Setting/MPG/Presets/Single So/GE 6 dir b=1000", ""},
      {"/Setting/MPG/Presets/Single So/GE 13 dir b=1000", ""},
      {"/Setting/MPG/Presets/Jones 30 dir", ""},
      {"/Setting/MPG/Manual set/Total DTI channels", ""},
      {"/Setting/MPG/Manual set/So (b=0) channels", ""},
      {"/Setting/MPG/Manual set/uniform b value", ""},
      {"/Setting/ROI 3D object/Hide", "F11"},
      {"/Setting/ROI 3D object/Show, Update", "F12"},
      {"/Setting/ROI 3D object/Auto update/Off", ""},
      {"/Setting/ROI 3D object/Auto update/On", ""},
      {"/Special/Start realtime analysis", "<control>R"},
      {"/Special/Add computational channels", ""},
      {"/Special/Voxelize visible tracklines as/Grey volume", ""},
      {"/Special/Voxelize visible tracklines as/Color volume", ""},
      {"/Special/Voxelize visible tracklines as/Voxelgroup ROI", ""},
      {"/Special/ROI palette frame/Channel/First", "F"},
      {"/Special/ROI palette frame/Channel/Last", "L"},
      {"/Special/ROI palette frame/Channel/Next", "N"},
      {"/Special/ROI palette frame/Channel/Previous", "B"},
      {"/Special/ROI palette frame/Upload current channel", "<control>U"},
      {"/Special/ROI palette frame/Adjust greyscale", "G"},
      {"/Special/ROI palette frame/Export ROI to editor", ""},
      {"/Help/About ...", ""},
  };
  for (const Expected& e : expected) {
    const PcdMenuEntry* found = nullptr;
    for (const PcdMenuEntry& entry : kPcdMainMenu)
      if (PCD_MenuPathWithoutMnemonics(entry.path) == e.path) found = &entry;
    ASSERT_NE(found, nullptr) << e.path;
    guint wantKey = 0, gotKey = 0;
    GdkModifierType wantMods{}, gotMods{};
    gtk_accelerator_parse(e.accelerator, &wantKey, &wantMods);
    if (found->accelerator != nullptr) gtk_accelerator_parse(found->accelerator, &gotKey, &gotMods);
    EXPECT_EQ(gdk_keyval_to_lower(gotKey), gdk_keyval_to_lower(wantKey)) << e.path;
    EXPECT_EQ(gotMods, wantMods) << e.path;
  }
}

}  // namespace
