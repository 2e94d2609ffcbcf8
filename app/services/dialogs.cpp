#include "app/services/dialogs.h"

#include <cstdio>
#include <thread>
#include <utility>

#include "app/services/accessible.h"
#include "io/notice.h"

namespace {

constexpr int kResponderChoseFile = 1001;  // private response: the responder named a file

PcdDialogResponder g_responder;
GtkWidget* g_parent = nullptr;
bool g_notices_connected = false;
PcdNoticeHandler g_previous_notice_handler;
std::thread::id g_toolkit_thread;

void beep() {
  GdkDisplay* display = gdk_display_get_default();
  if (display) gdk_display_beep(display);
}

// One modal run of a dialog. With a responder installed, the responder is asked once
// the dialog has been drawn, and its answer is given to the dialog as a response.
struct DialogRun {
  GtkDialog* dialog;
  PcdDialogSeen seen;
  GtkEntry* entry = nullptr;  // the value dialog's entry, filled from the answer
  PcdDialogAnswer answer{};
  bool answered = false;
  guint fallback = 0;  // answers a dialog that is never drawn
  guint idle = 0;      // the pending answer after the first draw
};

// Each source clears its own id when it fires; whichever answers first removes the other,
// so no source outlives the run it points at, whatever order load gives them.
void cancel_pending(DialogRun* run) {
  if (run->fallback) g_source_remove(std::exchange(run->fallback, 0u));
  if (run->idle) g_source_remove(std::exchange(run->idle, 0u));
}

void answer_now(DialogRun* run) {
  if (run->answered) return;
  run->answered = true;
  cancel_pending(run);
  run->answer = g_responder(run->seen);
  if (run->entry && run->answer.code == kPcdValueOk) {
    gtk_entry_set_text(run->entry, run->answer.text.c_str());
  }
  int code = run->answer.code;
  // The chooser checks an accepted name on its own and may hold the answer back while it
  // loads a folder; a name given by the responder is taken as typed instead.
  if (GTK_IS_FILE_CHOOSER(run->dialog) && code == kPcdFileChosen) code = kResponderChoseFile;
  gtk_dialog_response(run->dialog, code);
}

gboolean answer_drawn(gpointer user) {
  auto* run = static_cast<DialogRun*>(user);
  run->idle = 0;
  answer_now(run);
  return G_SOURCE_REMOVE;
}

gboolean on_first_draw(GtkWidget*, cairo_t*, gpointer user) {
  auto* run = static_cast<DialogRun*>(user);
  if (!run->answered && run->idle == 0) {
    run->idle = g_idle_add_full(G_PRIORITY_LOW, answer_drawn, run, nullptr);
  }
  return FALSE;
}

gboolean answer_undrawn(gpointer user) {
  // A dialog that was never drawn (no display refresh) is answered all the same.
  auto* run = static_cast<DialogRun*>(user);
  run->fallback = 0;
  answer_now(run);
  return G_SOURCE_REMOVE;
}

int run_dialog(DialogRun* run) {
  GtkWidget* window = GTK_WIDGET(run->dialog);
  run->seen.window = window;
  if (g_parent) gtk_window_set_transient_for(GTK_WINDOW(window), GTK_WINDOW(g_parent));
  gtk_window_set_modal(GTK_WINDOW(window), TRUE);
  gulong handler = 0;
  if (g_responder) {
    handler = g_signal_connect_after(window, "draw", G_CALLBACK(on_first_draw), run);
    run->fallback = g_timeout_add(3000, answer_undrawn, run);
  }
  gtk_widget_show_all(window);
  int response = gtk_dialog_run(run->dialog);
  // nothing may reach this run once it has returned
  cancel_pending(run);
  if (handler && GTK_IS_WIDGET(window)) g_signal_handler_disconnect(window, handler);
  // a run that ended some other way must not be answered later
  run->answered = true;
  return response;
}

GtkWidget* new_dialog(const char* title, int width, int height) {
  GtkWidget* dialog = gtk_dialog_new();
  gtk_window_set_title(GTK_WINDOW(dialog), title);
  gtk_widget_set_size_request(dialog, width, height);
  gtk_window_set_position(GTK_WINDOW(dialog), GTK_WIN_POS_CENTER_ON_PARENT);
  return dialog;
}

GtkWidget* add_message(GtkWidget* dialog, const char* text) {
  GtkWidget* label = gtk_label_new(text);
  gtk_label_set_xalign(GTK_LABEL(label), 0.0f);
  gtk_widget_set_margin_start(label, 8);
  gtk_widget_set_margin_end(label, 8);
  gtk_widget_set_margin_top(label, 8);
  gtk_widget_set_margin_bottom(label, 8);
  GtkWidget* area = gtk_dialog_get_content_area(GTK_DIALOG(dialog));
  gtk_box_pack_start(GTK_BOX(area), label, TRUE, TRUE, 0);
  return label;
}

}  // namespace

PcdDialogResponder PCD_SetDialogResponder(PcdDialogResponder responder) {
  return std::exchange(g_responder, std::move(responder));
}

void PCD_SetDialogParent(GtkWidget* window) { g_parent = window; }

void PCD_ShowNotice(const char* title, const char* text, int width, int height) {
  beep();
  GtkWidget* dialog = new_dialog(title, width, height);
  add_message(dialog, text);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "OK", GTK_RESPONSE_OK);
  DialogRun run{GTK_DIALOG(dialog), {PcdDialogKind::Notice, title, text, "", width, height,
                                     dialog}};
  run_dialog(&run);
  gtk_widget_destroy(dialog);
}

int PCD_AskConfirmation(const char* title, const char* text, int width, int height) {
  beep();
  GtkWidget* dialog = new_dialog(title, width, height);
  add_message(dialog, text);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "Yes", kPcdConfirmYes);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "No", GTK_RESPONSE_NO);
  DialogRun run{GTK_DIALOG(dialog), {PcdDialogKind::Confirm, title, text, "", width, height,
                                     dialog}};
  int response = run_dialog(&run);
  gtk_widget_destroy(dialog);
  return response == kPcdConfirmYes ? kPcdConfirmYes : kPcdDialogCancel;
}

int PCD_AskValue(const char* title, const char* label, const char* initialText,
                 std::string* value) {
  GtkWidget* dialog = new_dialog(title, 240, 100);
  GtkWidget* area = gtk_dialog_get_content_area(GTK_DIALOG(dialog));
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  gtk_container_set_border_width(GTK_CONTAINER(row), 8);
  gtk_box_pack_start(GTK_BOX(row), gtk_label_new(label), FALSE, FALSE, 0);
  GtkWidget* entry = gtk_entry_new();
  PCD_SetAccessibleName(entry, label);
  gtk_entry_set_text(GTK_ENTRY(entry), initialText ? initialText : "");
  gtk_entry_set_activates_default(GTK_ENTRY(entry), TRUE);
  gtk_box_pack_start(GTK_BOX(row), entry, TRUE, TRUE, 0);
  gtk_box_pack_start(GTK_BOX(area), row, TRUE, TRUE, 0);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "OK", kPcdValueOk);
  gtk_dialog_add_button(GTK_DIALOG(dialog), "Cancel", GTK_RESPONSE_CANCEL);
  gtk_dialog_set_default_response(GTK_DIALOG(dialog), kPcdValueOk);
  DialogRun run{GTK_DIALOG(dialog), {PcdDialogKind::Value, title, label,
                                     initialText ? initialText : "", 240, 100, dialog}};
  run.entry = GTK_ENTRY(entry);
  int response = run_dialog(&run);
  if (response == kPcdValueOk) *value = gtk_entry_get_text(GTK_ENTRY(entry));
  gtk_widget_destroy(dialog);
  return response == kPcdValueOk ? kPcdValueOk : kPcdDialogCancel;
}

bool PCD_ChooseFile(PcdDialogKind kind, const char* title, const char* defaultName,
                    std::string* path) {
  GtkFileChooserAction action = GTK_FILE_CHOOSER_ACTION_OPEN;
  if (kind == PcdDialogKind::SaveFile) action = GTK_FILE_CHOOSER_ACTION_SAVE;
  if (kind == PcdDialogKind::SelectFolder) action = GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER;
  GtkWidget* dialog = gtk_file_chooser_dialog_new(
      title, nullptr, action, "_Cancel", GTK_RESPONSE_CANCEL,
      kind == PcdDialogKind::SaveFile ? "_Save" : "_Open", kPcdFileChosen, nullptr);
  gtk_window_set_default_size(GTK_WINDOW(dialog), 640, 480);
  if (kind == PcdDialogKind::SaveFile && defaultName && *defaultName) {
    gtk_file_chooser_set_current_name(GTK_FILE_CHOOSER(dialog), defaultName);
  }
  DialogRun run{GTK_DIALOG(dialog), {kind, title, "", defaultName ? defaultName : "", 640,
                                     480, dialog}};
  int response = run_dialog(&run);
  bool chosen = false;
  if (response == kResponderChoseFile && !run.answer.text.empty()) {
    *path = run.answer.text;
    chosen = true;
  } else if (response == kPcdFileChosen) {
    if (char* name = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(dialog))) {
      *path = name;
      g_free(name);
      chosen = true;
    }
  }
  gtk_widget_destroy(dialog);
  return chosen;
}

void PCD_ShowAbout() {
  GtkWidget* dialog = gtk_about_dialog_new();
  GtkAboutDialog* about = GTK_ABOUT_DIALOG(dialog);
  gtk_about_dialog_set_program_name(about, "Quorix.II");
  gtk_about_dialog_set_version(about, "2.0");
  gtk_about_dialog_set_comments(
      about, "Analysis and visualisation of MR diffusion tensor imaging data:\n"
             "tensor maps, regions of interest, fiber tracking and fiber modeling.\n"
             "Works beside the PELLUCID volume viewer.");
  gtk_about_dialog_set_copyright(about, "The Quorix.II developers");
  gtk_window_set_title(GTK_WINDOW(dialog), "About Quorix");
  DialogRun run{GTK_DIALOG(dialog), {PcdDialogKind::About, "About Quorix", "", "", 0, 0,
                                     dialog}};
  run_dialog(&run);
  gtk_widget_destroy(dialog);
}

void PCD_ConnectCoreNotices() {
  if (g_notices_connected) return;
  g_notices_connected = true;
  g_toolkit_thread = std::this_thread::get_id();
  g_previous_notice_handler = PCD_SetNoticeHandler([](const PcdNotice& notice) {
    // Dialogs belong to the toolkit's thread; a notice raised on a worker goes to the
    // console instead.
    if (std::this_thread::get_id() != g_toolkit_thread) {
      std::fprintf(stderr, "%s: %s\n", notice.title.c_str(), notice.text.c_str());
      return;
    }
    PCD_ShowNotice(notice.title.c_str(), notice.text.c_str(), notice.width, notice.height);
  });
}

void PCD_DisconnectCoreNotices() {
  if (!g_notices_connected) return;
  g_notices_connected = false;
  PCD_SetNoticeHandler(std::move(g_previous_notice_handler));
  g_previous_notice_handler = nullptr;
}
