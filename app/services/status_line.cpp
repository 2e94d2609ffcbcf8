#include "app/services/status_line.h"

#include <string>

#include "app/services/app_state.h"

void PCD_SetStatus(const char* text) {
  if (pcd_app && pcd_app->statusLabel) {
    gtk_label_set_text(GTK_LABEL(pcd_app->statusLabel), text);
    gtk_widget_set_tooltip_text(pcd_app->statusLabel, text);
  }
}

void PCD_RefreshMemo() {
  if (!pcd_app || !pcd_app->memoView) return;
  std::string text = pcd_app->memo;  // the change handler writes pcd_app->memo back
  GtkTextBuffer* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(pcd_app->memoView));
  // file names from other systems need not be UTF-8; show them mangled rather than not at all
  char* valid = g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size()));
  gtk_text_buffer_set_text(buffer, valid, -1);
  g_free(valid);
}

void PCD_LeaveMainLoop() {
  if (gtk_main_level() > 0) gtk_main_quit();
}
