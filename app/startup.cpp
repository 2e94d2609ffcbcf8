#include "app/startup.h"

#include <cstdio>
#include <cstdlib>

#include "app/services/app_state.h"
#include "view/view_context.h"
#include "app/services/dialogs.h"
#include "app/loading.h"
#include "app/main_window.h"
#include "app/object_commands.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "app/services/viewer_link.h"
#include "view/palette_frame.h"
#include "view/views_window.h"

namespace {

// A viewer without a volume gives an empty data set: its size reads 0x0x0 x 0.
void WriteMemoFromViewer() {
  const PcdIntSize4D s = pcd_app->session.volume ? *pcd_app->session.volume->matrixSize : PcdIntSize4D{0, 0, 0, 0};
  char text[256];
  std::snprintf(text, sizeof text, "Data Source: IPC with PELLUCID\nMatrix size: %dx%dx%d x %d(ch)\n", s.x, s.y,
                s.z, s.channels);
  pcd_app->memo = text;
}

int Fail() {
  pcd_viewer_detach();
  PCD_DeleteAppState();
  return 0;
}

}  // namespace

int PCD_ServiceTimer(void*) {
  if (pcd_app != nullptr && pcd_app->realtimeAnalysis == 1) PCD_ServiceRealtimeAnalysis();
  return G_SOURCE_CONTINUE;
}

int PCD_InitializeApplication(int argc, char** argv) {
  PcdAppState* app = PCD_NewAppState();
  if (app == nullptr) return 0;
  if (argc == 2) std::sscanf(argv[1], "%d", &app->viewerSessionNumber);
  app->initialized = 0;
  app->roiAutoUpdate = 0;
  app->levelSetting = kPcdLevelSettingDefault;
  app->ipcInitialized = pcd_viewer_initialize(app->viewerSessionNumber);
  app->startupWord = 0;
  app->greyMax = 255.0f;
  app->ipcLink = pcd_viewer_attach();
  if (app->ipcLink == nullptr) return Fail();
  app->drawSetting3 = 0.98f;
  app->drawSetting2 = 12.0f;
  app->drawSetting1 = 2.0f;
  app->drawSetting4 = 16;
  app->drawSetting5 = 4;
  app->realtimeAnalysis = app->furtherWord1 = app->furtherWord2 = 0;

  GdkScreen* screen = gdk_screen_get_default();
  app->visual = screen ? gdk_screen_get_rgba_visual(screen) : nullptr;
  if (app->visual == nullptr && screen) app->visual = gdk_screen_get_system_visual(screen);
  app->textFont = pango_font_description_from_string("Sans 10");
  // the program draws for a 24-bit display only
  if (app->visual == nullptr || gdk_visual_get_depth(gdk_screen_get_system_visual(screen)) != 24)
    return Fail();
  pcd_viewer_wait_until_free();
  app->viewerObjectId = pcd_viewer_allocate_object_group();
  if (app->viewerObjectId == -1) std::fputs("<!!!> failed to allocate object in server.\n", stderr);

  app->session.volume = nullptr;
  app->session.rois.selectedId = app->session.studies.selectedId = kPcdNoObject;
  std::fputs(">> Establishing connection ... ", stderr);
  bool viewerEmpty = false;
  app->session.volume = pcd_viewer_receive_volume(&viewerEmpty);
  if (app->session.volume == nullptr && !viewerEmpty) return Fail();
  std::fputs("OK\n", stderr);
  WriteMemoFromViewer();
  app->session.dti = nullptr;
  PCD_CreateDtiData();
  app->studyPerformer = app->roiEditor = app->roiPalette = nullptr;
  PCD_ConnectSessionToViewer();
  PCD_CreateDefaultObjects();

  if (!PCD_BuildMainWindow()) return Fail();
  app->initialized = 1;
  gtk_widget_realize(app->window);
  app->viewContext = PCD_NewViewContext(app->window, app->textFont);
  PCDview_OpenViewsWindow();
  // what the mouse draws in the views shows at once in the ROI editor's list and controls
  pcd_view_roi_edited = [](PcdRoiObject*) { PCD_RefreshRoiEditor(); };
  pcd_view_rois_added = [] {
    PCD_RefreshRoiEditor();
    PCD_ReloadStudyPanel();
  };
  // and a study region drawn there in the study performer's panel
  pcd_view_study_edit_begins = [] { PCD_StoreStudyPanel(); };
  pcd_view_study_edited = [](PcdStudyObject*) { PCD_RefreshStudyPerformer(); };
  // a study's fibers and glyphs show in the slice views; "Box VOI" regions take the
  // views' box (the whole volume until one is dragged)
  pcd_notice_study_result = [] { PCDview_Redraw(); };
  pcd_notice_rois_changed = [] { PCDview_Redraw(); };
  pcd_notice_studies_changed = [] { PCDview_Redraw(); };
  pcd_notice_box_voi = [](PcdIntVector3D* origin, PcdIntSize3D* size) {
    if (pcd_views == nullptr || pcd_views->boxSize.x <= 0 || pcd_views->boxSize.y <= 0 || pcd_views->boxSize.z <= 0)
      return false;
    *origin = pcd_views->boxOrigin;
    *size = pcd_views->boxSize;
    return true;
  };
  // the palette frame rides along with the views window
  pcd_views_palette = {[] { PCDview_OpenPaletteFrame(); }, PCDview_ClosePaletteFrame, PCDview_RedrawPaletteFrame};
  PCD_ConnectCoreNotices();
  PCD_RefreshMemo();
  PCD_RefreshStudyPerformer();
  PCD_RefreshRoiEditor();
  PCD_UpdatePanels();
  if (PCD_MpgReady()) {
    PCD_SetStatus(" initialized.");
  } else {
    PCD_ShowMpgNotReadyNotice();
    PCD_SetStatus(" MPG not ready.");
  }
  app->timer = g_timeout_add(360, PCD_ServiceTimer, nullptr);
  return 1;
}

void PCD_CleanUpApplication() {
  PcdAppState* app = pcd_app;
  if (app == nullptr) return;
  if (app->timer) g_source_remove(app->timer);
  pcd_viewer_release_objects();
  std::fprintf(stderr, "Requesting removal of Object %d\n", app->viewerObjectId);
  if (app->viewerObjectId != -1) pcd_viewer_remove_object(app->viewerObjectId);
  std::free(app->session.dti);
  app->session.dti = nullptr;
  PCD_DeleteRawVolumeData(app->session.volume);
  app->session.volume = nullptr;
  PCD_CleanUpObjects();
  PCD_DisconnectCoreNotices();
  PCDview_CloseViewsWindow();
  PCD_DeleteViewContext(app->viewContext);
  PCD_QuietObjectPages();
  if (app->window) gtk_widget_destroy(app->window);
  PCD_DeleteStudyPerformer();
  PCD_DeleteRoiEditor();
  pcd_viewer_detach();
  PCD_DeleteAppState();
}
