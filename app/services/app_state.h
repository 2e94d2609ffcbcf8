// The one application state record of the desktop program, allocated at start-up and
// reachable from everywhere through pcd_app.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/services/menu.h"
#include "dti/dti_data.h"
#include "study/work_session.h"
#include "vol/raw_volume.h"

struct PcdViewContext;  // the views' drawing context (view/view_context.h)

constexpr int32_t kPcdLevelSettingDefault = 254;

struct PcdAppState {
  // widgets of the main window
  GtkWidget* window = nullptr;
  GtkWidget* vbox = nullptr;
  GtkWidget* menuBar = nullptr;
  GtkWidget* notebook = nullptr;
  GtkWidget* studyPage = nullptr;
  GtkWidget* roiPage = nullptr;
  GtkWidget* utilityPage = nullptr;
  GtkWidget* statusLabel = nullptr;
  GtkWidget* memoView = nullptr;
  GtkWidget* analyzeButton = nullptr;
  GtkAccelGroup* accelGroup = nullptr;
  PcdMenuBar mainMenu;
  guint timer = 0;

  int32_t viewerSessionNumber = 0;
  int ipcInitialized = 0;     // the client side of the viewer link came up
  void* ipcLink = nullptr;    // the attached link; start-up fails without it
  // The current data set (volume and its DTI interpretation, both owned) with its ROI
  // and study lists: what a work session file saves and restores.
  PcdWorkSession session;
  void* tensorField = nullptr;         // computed tensor field, when there is one

  int32_t startupWord = 0;
  float greyMax = 255.0f;
  float drawSetting1 = 2.0f;
  float drawSetting2 = 12.0f;
  float drawSetting3 = 0.98f;
  int32_t drawSetting4 = 16;
  int32_t drawSetting5 = 4;
  int32_t realtimeAnalysis = 0;
  int32_t furtherWord1 = 0;
  int32_t furtherWord2 = 0;
  int32_t roiAutoUpdate = 0;
  int32_t roiObjectsShown = 0;
  int32_t levelSetting = kPcdLevelSettingDefault;
  int32_t viewerObjectId = -1;
  uint8_t initialized = 0;

  void* studyPerformer = nullptr;
  void* roiEditor = nullptr;
  void* roiPalette = nullptr;

  GdkVisual* visual = nullptr;
  PangoFontDescription* textFont = nullptr;
  PcdViewContext* viewContext = nullptr;  // shared drawing context of the views

  std::string memo;  // text of the editable memo, saved with the work session
};

extern PcdAppState* pcd_app;

// Allocates the record with its start-up values and makes it pcd_app. Null when memory
// runs out (pcd_app is then null too).
PcdAppState* PCD_NewAppState();
// True when the DTI data's MPG setting is ready.
bool PCD_MpgReady();

// Frees pcd_app (only the record: its resources are released by clean-up first).
void PCD_DeleteAppState();
