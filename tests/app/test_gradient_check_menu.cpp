// The gradient-table check of the MPG settings menu, under Xvfb with a real
// pellucid-server holding a phantom whose table the program recognises: the check keeps
// the table as given; after x and y of the setting are swapped by hand it names the swap
// and, when the user agrees, puts the setting back as it was. Screenshots of both dialogs
// go to BINARY_DIR/screenshots.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/gradient_check_menu.h"
#include "app/startup.h"
#include "io/raw_volume_file.h"
#include "support/gui_support.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::TempDir;

quorix_test::DialogScript g_dialogs;
std::vector<PcdDialogSeen>& g_seen = g_dialogs.seen;
std::vector<PcdDialogAnswer>& g_answers = g_dialogs.answers;

using quorix_test::SaveScreenshot;

TEST(GradientCheckMenu, KeepsTheTrueTableAndOffersToUndoASwap) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "saved");
  PcdPhantomOptions options;
  options.sizeX = 40, options.sizeY = 40, options.sizeZ = 16;
  options.oblique = true;
  PcdDtiData* phantom = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(phantom, nullptr);
  WriteRawVolumeFile(phantom->volume, dir.file("phantom.raw").c_str());
  PCD_DeleteRawVolumeData(phantom->volume);
  std::free(phantom);
  quorix_test::ServerProcess server({"--volume", dir.file("phantom.raw"), "--save-dir", dir.file("saved")});
  g_dialogs.onSeen = [](const PcdDialogSeen& seen) {
    if (seen.title == kPcdGradientCheckTitle)
      SaveScreenshot(seen.window, seen.kind == PcdDialogKind::Notice ? "gradient-check-kept.png" : "gradient-check-offer.png");
  };
  quorix_test::AnswerDialogsFrom(&g_dialogs);
  std::string number = std::to_string(server.number);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCD_InitializeApplication(2, argv), 1);
  PcdDtiData* dti = pcd_app->session.dti;
  ASSERT_NE(dti, nullptr);
  ASSERT_EQ(dti->isReady, 1);
  const PcdDtiData truth = *dti;

  // the item stands in the MPG menu, beside the table's own entries
  GtkWidget* item = nullptr;
  GtkWidget* separator = PCD_FindMenuItem(pcd_app->mainMenu, "/Setting/MPG/sep1");
  ASSERT_NE(separator, nullptr);
  GList* children = gtk_container_get_children(GTK_CONTAINER(gtk_widget_get_parent(separator)));
  for (GList* c = children; c; c = c->next)
    if (GTK_IS_MENU_ITEM(c->data) && !GTK_IS_SEPARATOR_MENU_ITEM(c->data) &&
        std::string(gtk_menu_item_get_label(GTK_MENU_ITEM(c->data))) == kPcdGradientCheckLabel)
      item = GTK_WIDGET(c->data);
  g_list_free(children);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(pcd_app->mainMenu.paths.size(), 66u);

  g_seen.clear();
  gtk_menu_item_activate(GTK_MENU_ITEM(item));
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].kind, PcdDialogKind::Notice);
  EXPECT_EQ(g_seen[0].text.rfind("The table as given is best.\n", 0), 0u) << g_seen[0].text;

  // x and y swapped by hand; the check names the swap and the answer Yes undoes it
  for (int32_t c = 0; c < dti->channelCount; ++c) std::swap(dti->mpgVectors[c].x, dti->mpgVectors[c].y);
  g_seen.clear();
  g_answers = {{kPcdConfirmYes, ""}};
  gtk_menu_item_activate(GTK_MENU_ITEM(item));
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].kind, PcdDialogKind::Confirm);
  EXPECT_EQ(g_seen[0].text.rfind("The table needs correcting: y x z (same as -y -x -z).\n", 0), 0u) << g_seen[0].text;
  EXPECT_NE(g_seen[0].text.find("\nCorrect the MPG setting?"), std::string::npos);
  bool same = true, negated = true;
  for (int32_t c = 0; c < dti->channelCount; ++c) {
    const PcdVector3D a = dti->mpgVectors[c], b = truth.mpgVectors[c];
    same = same && a.x == b.x && a.y == b.y && a.z == b.z;
    negated = negated && a.x == -b.x && a.y == -b.y && a.z == -b.z;
  }
  EXPECT_TRUE(same || negated);
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(pcd_app->statusLabel)), "MPG setting corrected; compute the channels again.");
  testing::internal::GetCapturedStderr();
  PCD_CleanUpApplication();
}

}  // namespace
