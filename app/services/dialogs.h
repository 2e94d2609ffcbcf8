// The small modal dialogs used everywhere in the program: the notice ("Important
// Notice", "Warning"), the yes/no confirmation, the value entry and the file chooser.
//
// Every dialog is a real top-level window run modally. A responder can be installed that
// is called once the dialog is on screen and drawn; it answers the dialog the way a user
// would (the GUI tests drive the program this way, and could take screenshots of the
// dialog from the window it is given).
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <string>

constexpr int kPcdConfirmYes = 661;  // the confirming answer of a yes/no dialog
constexpr int kPcdValueOk = 789;     // the confirming answer of a value dialog
constexpr int kPcdDialogCancel = 0;  // every other answer
constexpr int kPcdFileChosen = GTK_RESPONSE_ACCEPT;  // the file chooser's confirming answer

constexpr char kPcdNoticeTitle[] = "Important Notice";
constexpr char kPcdNotImplemented[] = "Not implemented yet.";
constexpr char kPcdWarningTitle[] = "Warning";

enum class PcdDialogKind { Notice, Confirm, Value, OpenFile, SaveFile, SelectFolder, About };

// What the responder sees: the kind, title, message (or the value dialog's label), the
// text pre-filled in its entry or file name, and the dialog window itself.
struct PcdDialogSeen {
  PcdDialogKind kind;
  std::string title;
  std::string text;
  std::string initialText;
  int width;
  int height;
  GtkWidget* window;
};

// The responder's answer: the code the dialog returns (kPcdConfirmYes, kPcdValueOk,
// kPcdDialogCancel, or kPcdFileChosen) and the text typed into its entry or the
// file chosen.
struct PcdDialogAnswer {
  int code = kPcdDialogCancel;
  std::string text;
};

using PcdDialogResponder = std::function<PcdDialogAnswer(const PcdDialogSeen&)>;

// Installs a responder (an empty one brings back the user). Returns the previous one.
PcdDialogResponder PCD_SetDialogResponder(PcdDialogResponder responder);

// Beeps, then shows the text in a modal dialog with an OK button; returns when closed.
void PCD_ShowNotice(const char* title, const char* text, int width = 240, int height = 100);

// Beeps, then asks; returns kPcdConfirmYes for "Yes", kPcdDialogCancel otherwise.
int PCD_AskConfirmation(const char* title, const char* text, int width = 240,
                        int height = 100);

// Shows a labelled entry pre-filled with initialText. Returns kPcdValueOk with the entry's
// text in *value, or kPcdDialogCancel with *value untouched.
int PCD_AskValue(const char* title, const char* label, const char* initialText,
                 std::string* value);

// Lets the user choose a file (or a folder). defaultName pre-fills the name for saving.
// Returns true with the chosen path, false when cancelled.
bool PCD_ChooseFile(PcdDialogKind kind, const char* title, const char* defaultName,
                    std::string* path);

// The about box titled "About Quorix".
void PCD_ShowAbout();

// The parent of every dialog (the main window once it exists; may be null).
void PCD_SetDialogParent(GtkWidget* window);

// Connects the core's notices (io/notice.h) to PCD_ShowNotice; the previous handler is
// put back by PCD_DisconnectCoreNotices.
void PCD_ConnectCoreNotices();
void PCD_DisconnectCoreNotices();
