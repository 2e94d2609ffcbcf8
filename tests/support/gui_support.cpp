#include "support/gui_support.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

namespace quorix_test {

const bool kQuietDesktop =
    setenv("GSETTINGS_BACKEND", "memory", 1) == 0 && setenv("NO_AT_BRIDGE", "1", 1) == 0;

void DrainEvents(int ms, int pollMs) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < until) {
    gdk_display_sync(gdk_display_get_default());
    while (gtk_events_pending()) gtk_main_iteration();
    std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
  }
}

void PressKey(GtkWidget* window, guint keyval, guint modifiers) {
  GdkEvent* event = gdk_event_new(GDK_KEY_PRESS);
  event->key.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(window)));
  event->key.send_event = FALSE;
  event->key.time = GDK_CURRENT_TIME;
  event->key.state = modifiers;
  event->key.keyval = keyval;
  GdkKeymapKey* keys = nullptr;
  gint count = 0;
  GdkDisplay* display = gtk_widget_get_display(window);
  if (gdk_keymap_get_entries_for_keyval(gdk_keymap_get_for_display(display), keyval, &keys, &count) && count > 0) {
    event->key.hardware_keycode = static_cast<guint16>(keys[0].keycode);
    event->key.group = static_cast<guint8>(keys[0].group);
  }
  g_free(keys);
  gdk_event_set_device(event, gdk_seat_get_keyboard(gdk_display_get_default_seat(display)));
  gtk_main_do_event(event);
  gdk_event_free(event);
}

void SendButton(GtkWidget* area, GdkEventType type, double x, double y, guint state, guint button) {
  GdkEvent* e = gdk_event_new(type);
  e->button.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(area)));
  e->button.send_event = FALSE;
  e->button.time = GDK_CURRENT_TIME;
  e->button.x = x, e->button.y = y;
  e->button.state = state;
  e->button.button = button;
  GdkDisplay* display = gtk_widget_get_display(area);
  gdk_event_set_device(e, gdk_seat_get_pointer(gdk_display_get_default_seat(display)));
  gtk_main_do_event(e);
  gdk_event_free(e);
}

void SendMotion(GtkWidget* area, double x, double y, guint state) {
  GdkEvent* e = gdk_event_new(GDK_MOTION_NOTIFY);
  e->motion.window = GDK_WINDOW(g_object_ref(gtk_widget_get_window(area)));
  e->motion.time = GDK_CURRENT_TIME;
  e->motion.x = x, e->motion.y = y;
  e->motion.state = state;
  gdk_event_set_device(e, gdk_seat_get_pointer(gdk_display_get_default_seat(gtk_widget_get_display(area))));
  gtk_main_do_event(e);
  gdk_event_free(e);
}

void Click(GtkWidget* area, double x, double y, guint state) {
  SendButton(area, GDK_BUTTON_PRESS, x, y, state);
  SendButton(area, GDK_BUTTON_RELEASE, x, y, state);
}

void SaveScreenshot(GtkWidget* widget, const std::string& name) {
  GdkWindow* w = gtk_widget_get_window(widget);
  if (w == nullptr) return;
  GdkPixbuf* shot = gdk_pixbuf_get_from_window(w, 0, 0, gdk_window_get_width(w), gdk_window_get_height(w));
  if (shot == nullptr) return;
  const std::string dir = std::string(QUORIX_BINARY_DIR) + "/screenshots";
  std::filesystem::create_directories(dir);
  gdk_pixbuf_save(shot, (dir + "/" + name).c_str(), "png", nullptr, nullptr);
  g_object_unref(shot);
}

GtkWidget* FindWidget(GtkWidget* root, const std::function<bool(GtkWidget*)>& test) {
  if (test(root)) return root;
  if (!GTK_IS_CONTAINER(root)) return nullptr;
  GList* children = nullptr;
  gtk_container_forall(GTK_CONTAINER(root), [](GtkWidget* w, gpointer list) {
    *static_cast<GList**>(list) = g_list_append(*static_cast<GList**>(list), w);
  }, &children);
  GtkWidget* found = nullptr;
  for (GList* c = children; c && !found; c = c->next) found = FindWidget(GTK_WIDGET(c->data), test);
  g_list_free(children);
  return found;
}

GtkWidget* FindButton(GtkWidget* root, const char* label) {
  return FindWidget(root, [label](GtkWidget* w) {
    return GTK_IS_BUTTON(w) && gtk_widget_is_visible(w) && gtk_button_get_label(GTK_BUTTON(w)) &&
           std::string(gtk_button_get_label(GTK_BUTTON(w))) == label;
  });
}

void ShowTab(GtkWidget* notebook, const char* label) {
  for (int i = 0; i < gtk_notebook_get_n_pages(GTK_NOTEBOOK(notebook)); ++i) {
    GtkWidget* page = gtk_notebook_get_nth_page(GTK_NOTEBOOK(notebook), i);
    if (std::string(gtk_notebook_get_tab_label_text(GTK_NOTEBOOK(notebook), page)) == label) {
      gtk_notebook_set_current_page(GTK_NOTEBOOK(notebook), i);
      return;
    }
  }
  ADD_FAILURE() << "no tab " << label;
}

std::vector<std::string> ListRows(GtkListStore* store, int columns) {
  std::vector<std::string> rows;
  GtkTreeModel* model = GTK_TREE_MODEL(store);
  GtkTreeIter iter;
  for (gboolean ok = gtk_tree_model_get_iter_first(model, &iter); ok; ok = gtk_tree_model_iter_next(model, &iter)) {
    std::string row;
    for (int c = 0; c < columns; ++c) {
      gchar* text = nullptr;
      gtk_tree_model_get(model, &iter, c, &text, -1);
      row += (c ? "|" : "") + std::string(text ? text : "");
      g_free(text);
    }
    rows.push_back(row);
  }
  return rows;
}

void ClickRow(GtkWidget* list, int n) {
  GtkTreePath* path = gtk_tree_path_new_from_indices(n, -1);
  gtk_tree_view_set_cursor(GTK_TREE_VIEW(list), path, nullptr, FALSE);
  gtk_tree_path_free(path);
}

void TypeInto(GtkWidget* entry, const char* text) {
  gtk_entry_set_text(GTK_ENTRY(entry), text);
  gtk_widget_activate(entry);
}

void AnswerDialogsFrom(DialogScript* script) {
  PCD_SetDialogResponder([script](const PcdDialogSeen& seen) {
    script->seen.push_back(seen);
    if (script->onSeen) script->onSeen(seen);
    if (script->answers.empty()) return PcdDialogAnswer{kPcdDialogCancel, ""};
    PcdDialogAnswer a = script->answers.front();
    script->answers.erase(script->answers.begin());
    return a;
  });
}

}  // namespace quorix_test
