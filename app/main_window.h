// The main window: menu bar, the notebook of the three pages, the status line.
#pragma once

#include <gtk/gtk.h>

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
constexpr char kPcdAnalyzeButtonLabel[] = " Analyze and Display ";

// Builds the window into pcd_app (widgets, menu bar from the main table, accelerators)
// and shows it. False when the menu table cannot be built.
bool PCD_BuildMainWindow();

// Replaces the text of the status line.
void PCD_SetStatus(const char* text);

// Replaces the memo widget's content with pcd_app->memo.
void PCD_RefreshMemo();

// Gives a field the text of the label beside it (spaces and colons trimmed) as its
// accessible name, so that screen readers, and tests that drive the program through
// accessibility, tell the fields apart.
void PCD_SetAccessibleName(GtkWidget* field, const char* label);

// Leaves the toolkit's main loop if one is running.
void PCD_LeaveMainLoop();
