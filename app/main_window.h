// The main window: menu bar, the notebook of the three pages, the status line.
#pragma once

#include <gtk/gtk.h>

#include "app/services/accessible.h"
#include "app/services/status_line.h"

constexpr char kPcdWindowTitle[] = "Quorix.II (Linux Edition) 2025";
constexpr int kPcdWindowWidth = 320;
constexpr int kPcdWindowHeight = 712;
// Wide enough at first for the lists' type and label columns side by side ("Voxel
// statistics" | "Voxel statistics 1"); the size request stays 320.
constexpr int kPcdWindowDefaultWidth = 400;

constexpr char kPcdStudyPageLabel[] = " Study performer ";
constexpr char kPcdRoiPageLabel[] = " ROI editor ";
constexpr char kPcdUtilityPageLabel[] = " Utility ";
constexpr char kPcdMemoFrameLabel[] = " - Editable Memo - ";

// Builds the window into pcd_app (widgets, menu bar from the main table, accelerators)
// and shows it. False when the menu table cannot be built.
bool PCD_BuildMainWindow();
