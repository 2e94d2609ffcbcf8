// What the desktop program's tests under Xvfb share: events sent as the X server delivers
// them (keys, buttons, motion), waiting for the toolkit to draw, screenshots, finding
// widgets, reading and clicking lists, and a scripted answerer of the program's dialogs.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <string>
#include <vector>

#include "app/services/dialogs.h"

namespace quorix_test {

// Set before any test starts: the file chooser keeps its settings in memory (there is no
// session bus) and the accessibility bridge stays off.
extern const bool kQuietDesktop;

// Lets the X server send its expose events and the toolkit handle them for ms
// milliseconds (a closed dialog leaves its picture on the window beneath until then).
void DrainEvents(int ms, int pollMs = 10);

// A key pressed while window has the input focus.
void PressKey(GtkWidget* window, guint keyval, guint modifiers = 0);
// Mouse events on a widget at widget coordinates (x, y).
void SendButton(GtkWidget* area, GdkEventType type, double x, double y, guint state = 0, guint button = 1);
void SendMotion(GtkWidget* area, double x, double y, guint state = GDK_BUTTON1_MASK);
void Click(GtkWidget* area, double x, double y, guint state = 0);

// The widget's window as it is on screen, into BINARY_DIR/screenshots/name.
void SaveScreenshot(GtkWidget* widget, const std::string& name);

// The first widget under root (internal children included) that satisfies the test.
GtkWidget* FindWidget(GtkWidget* root, const std::function<bool(GtkWidget*)>& test);
// The visible button under root labelled label.
GtkWidget* FindButton(GtkWidget* root, const char* label);
// The notebook page whose tab reads label, made current as a click on the tab does.
void ShowTab(GtkWidget* notebook, const char* label);
// The rows of a list store's first `columns` text columns, joined by "|".
std::vector<std::string> ListRows(GtkListStore* store, int columns = 5);
// A click on row n of a tree view.
void ClickRow(GtkWidget* list, int n);
// Typing into an entry (or spin button) and pressing Enter.
void TypeInto(GtkWidget* entry, const char* text);

// Answers the program's dialogs from a script: every dialog is recorded in seen, answered
// by the first of answers (which is then dropped), or cancelled when none is left;
// onSeen, when set, runs first.
struct DialogScript {
  std::vector<PcdDialogSeen> seen;
  std::vector<PcdDialogAnswer> answers;
  std::function<void(const PcdDialogSeen&)> onSeen;
};
void AnswerDialogsFrom(DialogScript* script);

}  // namespace quorix_test
