// Start-up against a viewer that holds no volume: the program must not wait for it.
#include <gtk/gtk.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/startup.h"
#include "support/test_support.h"

namespace {

TEST(DesktopProgramWithoutVolume, GoesOnToTheNotReadyNoticeWithAnEmptyDataSet) {
  ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "no display (run under xvfb-run)";
  setenv("GSETTINGS_BACKEND", "memory", 1);
  quorix_test::ServerProcess server;  // no --volume
  static std::vector<PcdDialogSeen> seen;
  seen.clear();
  PCD_SetDialogResponder([](const PcdDialogSeen& s) {
    seen.push_back(s);
    return PcdDialogAnswer{kPcdDialogCancel, ""};
  });
  std::string number = std::to_string(server.number);
  char* argv[] = {const_cast<char*>("quorix"), number.data(), nullptr};

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int started = PCD_InitializeApplication(2, argv);
  const std::string err = testing::internal::GetCapturedStderr();
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(started, 1) << err;

  EXPECT_EQ(pcd_app->session.volume, nullptr);
  EXPECT_EQ(pcd_app->memo, "Data Source: IPC with PELLUCID\nMatrix size: 0x0x0 x 0(ch)\n");
  ASSERT_NE(pcd_app->session.dti, nullptr);
  EXPECT_EQ(pcd_app->session.dti->isReady, 0);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].title, "Important Notice");
  EXPECT_EQ(seen[0].text, "MPG setting is NOT ready or loaded volume \ndata set is NOT relevant for MR-DTI analysis.");
  // the link's lines on the console (stderr), in order, none of them a failure
  EXPECT_EQ(err.rfind("IPC available (IPC Client initialization succeeded)\n>> Establishing connection ... OK\n", 0),
            0u)
      << err;
  EXPECT_EQ(err.find("Failed <"), std::string::npos) << err;
  EXPECT_EQ(out, "");

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  PCD_CleanUpApplication();
  testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(pcd_app, nullptr);
  PCD_SetDialogResponder(nullptr);
}

}  // namespace
