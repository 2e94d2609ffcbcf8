// "/File/Import/DICOM (directory)" under Xvfb: the menu command through the loading
// workflow, on series written by pydicom (tests/io/dicom_series.py).
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "app/services/app_state.h"
#include "app/commands.h"
#include "app/services/dialogs.h"
#include "app/loading.h"
#include "app/main_window.h"
#include "app/services/menu.h"
#include "app/startup.h"
#include "io/raw_volume_file.h"
#include "support/gui_support.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::TempDir;

bool WriteSeries(const std::string& dir, const std::string& json) {
  const int status = quorix_test::RunCommand(std::string("/usr/bin/python3 ") + QUORIX_SOURCE_DIR +
                                             "/tests/io/dicom_series.py '" + dir + "' '" + json + "'");
  return status == 0;
}

quorix_test::DialogScript g_dialogs;
std::vector<PcdDialogSeen>& g_seen = g_dialogs.seen;
std::vector<PcdDialogAnswer>& g_answers = g_dialogs.answers;

void RecordDialogs() { quorix_test::AnswerDialogsFrom(&g_dialogs); }

// The menu command as the user starts it (Ctrl+D runs the same item). The program's own
// lines come on stdout, the import's on stderr.
struct Console {
  std::string out, err;
};
void ImportDicomFromMenu(Console* console) {
  GtkWidget* item = PCD_FindMenuItem(pcd_app->mainMenu, "/File/Import/DICOM (directory)");
  ASSERT_NE(item, nullptr);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  gtk_menu_item_activate(GTK_MENU_ITEM(item));
  console->out = testing::internal::GetCapturedStdout();
  console->err = testing::internal::GetCapturedStderr();
}

TEST(DesktopDicomImport, MenuCommandImportsADirectoryThroughTheLoadingWorkflow) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  if (!WriteSeries(dir.file("dwi"), R"({"slices": 2, "channels": 7, "x": 6, "y": 5, "spacing": 4.0,
      "bvalues": [0, 1000, 1000, 1000, 1000, 1000, 1000],
      "directions": [null, [1, 0, 0], [0, 1, 0], [0, 0, 1], [0.6, 0.8, 0], [0, 0.6, 0.8], [0.8, 0, 0.6]]})") ||
      !WriteSeries(dir.file("plain"), R"({"slices": 2, "channels": 2, "fov": false, "pixel_spacing": false})"))
    GTEST_SKIP() << "python3-pydicom is not installed";

  // the viewer's volume is a ready phantom, so the import asks before discarding it
  PcdDtiData* phantom = PCD_MakeDwiPhantom({.sizeX = 8, .sizeY = 6, .sizeZ = 3, .directions = 6}, nullptr);
  WriteRawVolumeFile(phantom->volume, dir.file("phantom.raw").c_str());
  PCD_DeleteRawVolumeData(phantom->volume);
  std::free(phantom);
  quorix_test::ServerProcess server({"--volume", dir.file("phantom.raw"), "--save-dir", dir.path().string()});
  RecordDialogs();
  std::string number = std::to_string(server.number);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int started = PCD_InitializeApplication(2, argv);
  const std::string startOut = testing::internal::GetCapturedStdout();
  const std::string startErr = testing::internal::GetCapturedStderr();
  ASSERT_EQ(started, 1) << startOut << startErr;
  ASSERT_TRUE(PCD_MpgReady());
  const auto chosen = [](const std::string& path) { return PcdDialogAnswer{kPcdFileChosen, path}; };
  Console console;

  // cancelled at the question, then at the directory chooser: nothing changes
  PcdRawVolumeData* const before = pcd_app->session.volume;
  g_seen.clear();
  ImportDicomFromMenu(&console);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].text, "Discard current session data?");
  EXPECT_EQ(g_seen[0].title, "Important Notice");
  g_answers = {{kPcdConfirmYes, ""}};
  ImportDicomFromMenu(&console);
  ASSERT_EQ(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[2].kind, PcdDialogKind::SelectFolder);
  // an empty directory is refused: the data set stays, the console says why
  std::filesystem::create_directory(dir.file("empty"));
  g_answers = {{kPcdConfirmYes, ""}, chosen(dir.file("empty"))};
  ImportDicomFromMenu(&console);
  EXPECT_NE(console.err.find("Found 0 files\nErr: no DICOM image numbered 1"), std::string::npos) << console.err;
  EXPECT_EQ(pcd_app->session.volume, before);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), "DICOM import failed.");

  // the diffusion series: resampled 2:1, its own voxel size (nothing asked), its own MPG setting
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}, chosen(dir.file("dwi"))};
  ImportDicomFromMenu(&console);
  EXPECT_NE(console.err.find("Recognized volume: 6 x 5 x 2 x 7\nVoxel size: 2.000000 mm\n"
                             "Interpolating in z direction (ratio:2.000)...done\n"),
            std::string::npos) << console.err;
  EXPECT_NE(console.err.find("MPG setting from the DICOM diffusion elements: 1 b=0 and 6 diffusion-weighted channels\n"),
            std::string::npos);
  // the console is stderr; the MPG dump stands between the loading lines
  EXPECT_EQ(console.out, "");
  const size_t replacing = console.err.find("Volume data OK. Replacing.\n");
  EXPECT_NE(replacing, std::string::npos) << console.err;
  // the default studies' viewer objects are removed between the two lines
  const size_t cleaned = console.err.find("ROI cleaned in PELLUCID.\nRequesting removal of Object ", replacing);
  EXPECT_NE(cleaned, std::string::npos) << console.err;
  EXPECT_NE(console.err.find("Clean-up old objects OK\n", cleaned), std::string::npos) << console.err;
  ASSERT_EQ(g_seen.size(), 3u);  // question, chooser, recognition notice
  EXPECT_EQ(g_seen[2].text.rfind("Quorix.II recognized DTI data as bellow.", 0), 0u);
  EXPECT_NE(g_seen[2].text.find("matrix size:    6 x 5 x 3 (7 channels)"), std::string::npos) << g_seen[2].text;
  EXPECT_EQ(pcd_app->memo.rfind("Data Source: DICOM\nLocal DICOM directory: \n" + dir.file("dwi") + "/\n", 0), 0u)
      << pcd_app->memo;
  EXPECT_EQ(pcd_app->session.dti->reserved, 2.0f);
  EXPECT_EQ(pcd_app->session.dti->isReady, 1);
  EXPECT_EQ(pcd_app->session.dti->mpgVectors[3].z, 1.0f);  // axial: (0, 0, 1) stays as it is
  // the middle slice lies halfway between the two written ones (which differ by 100)
  const int16_t* so = static_cast<const int16_t*>(pcd_app->session.volume->data[0]);
  EXPECT_EQ(so[0], -500);
  EXPECT_EQ(so[30], -450);
  EXPECT_EQ(so[60], -400);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), " initialized.");

  // a series without pixel size: not resampled, and the voxel size is asked for
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}, chosen(dir.file("plain")), {kPcdValueOk, "1.5"}};
  ImportDicomFromMenu(&console);
  ASSERT_EQ(g_seen.size(), 3u);  // two channels make no ready setting: no recognition notice
  EXPECT_EQ(g_seen[2].text, "voxel size(mm)");
  EXPECT_EQ(g_seen[2].initialText, "1.0");
  EXPECT_NE(console.err.find("Warning: no pixel size in DICOM; z is not resampled\n"
                             "Interpolating in z direction (ratio:1.000)...done\n"), std::string::npos) << console.err;
  EXPECT_NE(console.err.find("Voxel size is specified as 1.500000 mm.\n"), std::string::npos) << console.err;
  EXPECT_EQ(pcd_app->session.dti->reserved, 1.5f);
  EXPECT_EQ(pcd_app->session.volume->matrixSize->channels, 2);

  testing::internal::CaptureStdout();
  PCD_CleanUpApplication();
  testing::internal::GetCapturedStdout();
  PCD_SetDialogResponder(nullptr);
}

}  // namespace
