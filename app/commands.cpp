// The commands of the main menu bar.
#include "app/commands.h"

#include <chrono>
#include <cstdio>
#include <string>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/loading.h"
#include "app/services/status_line.h"
#include "app/services/viewer_link.h"
#include "app/services/viewer_objects.h"
#include "dti/channels.h"
#include "dti/dti_check.h"
#include "dti/gradient_vectors.h"
#include "io/dti_file.h"
#include "io/raw_volume_file.h"
#include "view/views_window.h"

void cmd_not_implemented(gpointer, guint, GtkWidget*) {
  PCD_ShowNotice(kPcdNoticeTitle, kPcdNotImplemented);
}

void cmd_load_volume(gpointer, guint importKind, GtkWidget*) {
  PCD_LoadVolume(static_cast<int>(importKind), nullptr);
}

void cmd_import_mpg(gpointer, guint, GtkWidget*) {
  std::string path;
  if (pcd_app->session.dti == nullptr || !PCD_ChooseFile(PcdDialogKind::OpenFile, "MPG text file", nullptr, &path))
    return;
  if (ReadMpgDescriptionFile(path.c_str(), pcd_app->session.dti) != 1) return;
  PCDdti_DumpMPGvectorSetting(pcd_app->session.dti);
  PCD_SetStatus("MPG vector data imported.");
}

void cmd_export_dti(gpointer, guint, GtkWidget*) {
  std::string path;
  if (pcd_app->session.dti == nullptr || !PCD_ChooseFile(PcdDialogKind::SaveFile, "DTI file", "exported.dti", &path))
    return;
  WriteDtiFile(pcd_app->session.dti, path.c_str());
}

void cmd_export_volume(gpointer, guint, GtkWidget*) {
  std::string path;
  if (pcd_app->session.volume == nullptr ||
      !PCD_ChooseFile(PcdDialogKind::SaveFile, "PELLUCID file", "exported.raw", &path))
    return;
  WriteRawVolumeFile(pcd_app->session.volume, path.c_str());
}

void cmd_export_mpg(gpointer, guint, GtkWidget*) {
  std::string path;
  if (pcd_app->session.dti == nullptr || !PCD_ChooseFile(PcdDialogKind::SaveFile, "MPG text file", "mpg.txt", &path))
    return;
  if (WriteMpgDescriptionFile(path.c_str(), pcd_app->session.dti) == 0) PCD_SetStatus("MPG vector data exported.");
}

void cmd_quit(gpointer, guint, GtkWidget*) {
  if (PCD_MpgReady() &&
      PCD_AskConfirmation(kPcdNoticeTitle, "Do you REALLY quit the program?", 240, 100) != kPcdConfirmYes)
    return;
  PCD_LeaveMainLoop();
}

// The two vendor presets: single So, b = 1000, the published 6- or 13-direction rows.
void cmd_mpg_preset(gpointer, guint preset, GtkWidget*) {
  if (preset == PCD_PRESET_JONES_30) {
    PCD_ShowNotice(kPcdNoticeTitle, kPcdNotImplemented);
    return;
  }
  if (pcd_app->session.dti == nullptr) return;
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(pcd_app->session.dti, static_cast<int32_t>(preset) + 1);
  PCDdti_DumpMPGvectorSetting(pcd_app->session.dti);
}

void cmd_manual_set(gpointer, guint kind, GtkWidget*) {
  PcdDtiData* dti = pcd_app->session.dti;
  if (dti == nullptr) return;
  char current[64];
  std::string value;
  if (kind == PCD_MANUAL_UNIFORM_B) {
    std::snprintf(current, sizeof current, "%4.2f", static_cast<double>(PCDdti_GetUniformBvalueOfDTI(dti)));
    float b = 0.0f;
    if (PCD_AskValue(kPcdNoticeTitle, "uniform b", current, &value) != kPcdValueOk ||
        std::sscanf(value.c_str(), "%f", &b) != 1)
      return;
    for (int32_t c = dti->soCount; c < dti->channelCount && c < kPcdDtiMaxChannels; ++c) dti->bValues[c] = b;
    PCDdti_DumpMPGvectorSetting(dti);
    return;
  }
  const bool total = kind == PCD_MANUAL_TOTAL_CHANNELS;
  std::snprintf(current, sizeof current, "%d", total ? dti->channelCount : dti->soCount);
  int n = 0;
  if (PCD_AskValue(kPcdNoticeTitle, total ? "Total DTI Ch." : "So (b=0) Ch.", current, &value) != kPcdValueOk ||
      std::sscanf(value.c_str(), "%d", &n) != 1)
    return;
  const int32_t channels = total ? n : dti->channelCount;
  const int32_t so = total ? dti->soCount : n;
  if (so == 1) PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(dti, channels);
  else PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(dti, channels, so);
  PCDdti_DumpMPGvectorSetting(dti);
}

void cmd_roi_auto_update(gpointer, guint on, GtkWidget* item) {
  if (item && GTK_IS_CHECK_MENU_ITEM(item) && !gtk_check_menu_item_get_active(GTK_CHECK_MENU_ITEM(item))) return;
  pcd_app->roiAutoUpdate = on ? 1 : 0;
  if (on) PCD_UpdateRoi3DObjects();
}

void cmd_toggle_realtime(gpointer, guint, GtkWidget*) {
  pcd_app->realtimeAnalysis = pcd_app->realtimeAnalysis == 1 ? 0 : 1;
}

void cmd_add_computational_channels(gpointer, guint, GtkWidget*) {
  PcdDtiData* dti = pcd_app->session.dti;
  std::string problem;
  if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_AT_VOXELS, &problem)) {
    PCD_ShowNotice(kPcdNoticeTitle, problem.c_str());
    return;
  }
  const auto start = std::chrono::steady_clock::now();
  const int32_t first = pcd_app->session.volume->matrixSize->channels;
  const int added = PCDdti_AddComputationalChannels(dti, 0, 8);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr, "Analysis completed in %3.2f sec.\n", seconds);
  for (int i = 0; i < added; ++i) {
    std::fputs("Sending a computational channel to PELLUCID...", stderr);
    std::fflush(stderr);
    pcd_viewer_send_channel(pcd_app->session.volume, first + i);
    std::fputs("done.\n", stderr);
  }
  std::fprintf(stderr, "%d channels added.\n", added);
  PCDview_Redraw();  // the views' channel control reaches the new channels
}

void cmd_about(gpointer, guint, GtkWidget*) { PCD_ShowAbout(); }
