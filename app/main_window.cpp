#include "app/main_window.h"

#include <string>

#include "app/services/app_state.h"
#include "app/commands.h"
#include "app/services/dialogs.h"
#include "app/gradient_check_menu.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"

namespace {

void on_window_destroy(GtkWidget*, gpointer) {
  // Closing the window leaves the loop without a question.
  if (pcd_app) {
    pcd_app->window = nullptr;
    pcd_app->statusLabel = nullptr;
    pcd_app->memoView = nullptr;
  }
  PCD_SetDialogParent(nullptr);
  PCD_LeaveMainLoop();
}

void on_memo_changed(GtkTextBuffer* buffer, gpointer) {
  if (!pcd_app) return;
  GtkTextIter start, end;
  gtk_text_buffer_get_bounds(buffer, &start, &end);
  char* text = gtk_text_buffer_get_text(buffer, &start, &end, FALSE);
  pcd_app->memo = text;
  g_free(text);
}

// The two object pages are built by their own files (study/gui/).
GtkWidget* build_study_page() { return PCD_BuildStudyPerformerPage(); }

GtkWidget* build_roi_page() { return PCD_BuildRoiEditorPage(); }

GtkWidget* build_utility_page() {
  GtkWidget* frame = gtk_frame_new(kPcdMemoFrameLabel);
  gtk_container_set_border_width(GTK_CONTAINER(frame), 4);
  GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll), GTK_POLICY_AUTOMATIC,
                                 GTK_POLICY_AUTOMATIC);
  GtkWidget* memo = gtk_text_view_new();
  gtk_text_view_set_editable(GTK_TEXT_VIEW(memo), TRUE);
  gtk_text_view_set_wrap_mode(GTK_TEXT_VIEW(memo), GTK_WRAP_WORD_CHAR);
  g_signal_connect(gtk_text_view_get_buffer(GTK_TEXT_VIEW(memo)), "changed",
                   G_CALLBACK(on_memo_changed), nullptr);
  gtk_container_add(GTK_CONTAINER(scroll), memo);
  gtk_container_add(GTK_CONTAINER(frame), scroll);
  pcd_app->memoView = memo;
  return frame;
}

// The theme's tab padding would make the three tabs wider than the 320-pixel window.
void narrow_tabs(GtkWidget* notebook) {
  gtk_widget_set_name(notebook, "pcd-main-notebook");
  GtkCssProvider* css = gtk_css_provider_new();
  gtk_css_provider_load_from_data(css, "#pcd-main-notebook tab { padding: 3px 4px; }", -1, nullptr);
  gtk_style_context_add_provider_for_screen(gtk_widget_get_screen(notebook), GTK_STYLE_PROVIDER(css),
                                            GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(css);
}

// Plain-letter accelerators (the palette frame's F, L, N, B, G) must not take typing away
// from the memo or an entry: a text widget with the focus sees unmodified keys first, and
// only keys it leaves unhandled go on to the accelerators and mnemonics.
gboolean on_window_key_press(GtkWidget* window, GdkEventKey* event, gpointer) {
  GtkWidget* focus = gtk_window_get_focus(GTK_WINDOW(window));
  const bool typing =
      focus != nullptr &&
      ((GTK_IS_TEXT_VIEW(focus) && gtk_text_view_get_editable(GTK_TEXT_VIEW(focus))) ||
       (GTK_IS_EDITABLE(focus) && gtk_editable_get_editable(GTK_EDITABLE(focus))));
  const guint commandKeys = GDK_CONTROL_MASK | GDK_MOD1_MASK | GDK_SUPER_MASK;
  if (typing && (event->state & commandKeys) == 0 &&
      gtk_window_propagate_key_event(GTK_WINDOW(window), event))
    return TRUE;
  return FALSE;  // the window's own handling: accelerators, mnemonics, then the focus
}

// Back on the study performer, the region pages list the ROIs drawn in the meantime.
void on_page_switched(GtkNotebook*, GtkWidget* page, guint, gpointer) {
  if (pcd_app && page == pcd_app->studyPage) PCD_ReloadStudyPanel();
}

void append_page(GtkWidget* notebook, GtkWidget* page, const char* label) {
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), page, gtk_label_new(label));
}

}  // namespace

bool PCD_BuildMainWindow() {
  PcdAppState* app = pcd_app;
  app->window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  g_signal_connect(app->window, "destroy", G_CALLBACK(on_window_destroy), nullptr);
  g_signal_connect(app->window, "key-press-event", G_CALLBACK(on_window_key_press), nullptr);
  gtk_widget_set_size_request(app->window, kPcdWindowWidth, kPcdWindowHeight);
  gtk_window_set_default_size(GTK_WINDOW(app->window), kPcdWindowDefaultWidth, kPcdWindowHeight);
  gtk_window_set_title(GTK_WINDOW(app->window), kPcdWindowTitle);

  app->vbox = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_container_set_border_width(GTK_CONTAINER(app->vbox), 2);
  gtk_container_add(GTK_CONTAINER(app->window), app->vbox);

  app->accelGroup = gtk_accel_group_new();
  gtk_window_add_accel_group(GTK_WINDOW(app->window), app->accelGroup);
  g_object_unref(app->accelGroup);  // the window holds it
  if (!PCD_BuildMenuBar(kPcdMainMenu, kPcdMainMenuEntryCount, nullptr, app->accelGroup,
                        &app->mainMenu)) {
    return false;
  }
  app->menuBar = app->mainMenu.bar;
  PCD_AddGradientCheckItem(app->mainMenu);  // beside the table: its entries stay as they are
  gtk_box_pack_start(GTK_BOX(app->vbox), app->menuBar, FALSE, TRUE, 0);

  app->notebook = gtk_notebook_new();
  gtk_notebook_set_tab_pos(GTK_NOTEBOOK(app->notebook), GTK_POS_TOP);
  narrow_tabs(app->notebook);
  app->studyPage = build_study_page();
  app->roiPage = build_roi_page();
  app->utilityPage = build_utility_page();
  append_page(app->notebook, app->studyPage, kPcdStudyPageLabel);
  append_page(app->notebook, app->roiPage, kPcdRoiPageLabel);
  append_page(app->notebook, app->utilityPage, kPcdUtilityPageLabel);
  g_signal_connect(app->notebook, "switch-page", G_CALLBACK(on_page_switched), nullptr);
  gtk_box_pack_start(GTK_BOX(app->vbox), app->notebook, TRUE, TRUE, 0);

  app->statusLabel = gtk_label_new("");
  gtk_label_set_xalign(GTK_LABEL(app->statusLabel), 0.0f);
  // a long status is cut at the window's edge (its whole text in the tooltip) instead of
  // widening the window until it slides under the views
  gtk_label_set_ellipsize(GTK_LABEL(app->statusLabel), PANGO_ELLIPSIZE_END);
  gtk_label_set_width_chars(GTK_LABEL(app->statusLabel), 10);
  gtk_box_pack_end(GTK_BOX(app->vbox), app->statusLabel, FALSE, FALSE, 2);

  gtk_widget_show_all(app->window);
  PCD_SetDialogParent(app->window);
  return true;
}
