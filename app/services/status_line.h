// The main window's status line and memo, and leaving the main loop: what every window
// and command of the program may touch of the main window, without knowing it.
#pragma once

// Replaces the text of the status line.
void PCD_SetStatus(const char* text);
// Replaces the memo widget's content with pcd_app->memo.
void PCD_RefreshMemo();
// Leaves the toolkit's main loop if one is running.
void PCD_LeaveMainLoop();
