#include "study/gui/gui_util.h"

#include <cstdio>

#include "study/roi_object.h"

PcdRadioGroup PCD_NewRadioGroup(const char* title, const PcdChoiceTable& table, bool vertical) {
  PcdRadioGroup group;
  GtkWidget* box = gtk_box_new(vertical ? GTK_ORIENTATION_VERTICAL : GTK_ORIENTATION_HORIZONTAL, 0);
  GtkWidget* previous = nullptr;
  for (int i = 0; i < table.count; ++i) {
    GtkWidget* b = previous ? gtk_radio_button_new_with_label_from_widget(GTK_RADIO_BUTTON(previous),
                                                                         table.choices[i].label)
                            : gtk_radio_button_new_with_label(nullptr, table.choices[i].label);
    gtk_box_pack_start(GTK_BOX(box), b, FALSE, FALSE, 0);
    group.buttons.push_back(b);
    group.codes.push_back(table.choices[i].code);
    previous = b;
  }
  if (title == nullptr) {
    group.widget = box;
  } else {
    group.widget = gtk_frame_new(title);
    gtk_container_add(GTK_CONTAINER(group.widget), box);
  }
  return group;
}

void PCD_SetRadioCode(const PcdRadioGroup& group, int32_t code) {
  for (size_t i = 0; i < group.buttons.size(); ++i)
    if (group.codes[i] == code) {
      gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(group.buttons[i]), TRUE);
      return;
    }
  if (!group.buttons.empty()) gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(group.buttons[0]), TRUE);
}

int32_t PCD_GetRadioCode(const PcdRadioGroup& group) {
  for (size_t i = 0; i < group.buttons.size(); ++i)
    if (gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(group.buttons[i]))) return group.codes[i];
  return group.codes.empty() ? 0 : group.codes[0];
}

GtkWidget* PCD_NewObjectList(const char* const* titles, int count, GtkWidget** view, GtkListStore** store) {
  std::vector<GType> types(static_cast<size_t>(count), G_TYPE_STRING);
  types.push_back(G_TYPE_UINT);
  *store = gtk_list_store_newv(count + 1, types.data());
  *view = gtk_tree_view_new_with_model(GTK_TREE_MODEL(*store));
  g_object_unref(*store);  // the view holds it
  for (int i = 0; i < count; ++i) {
    GtkCellRenderer* cell = gtk_cell_renderer_text_new();
    gtk_cell_renderer_set_fixed_size(cell, -1, 20);
    if (i + 1 < count) g_object_set(cell, "xalign", 0.5f, nullptr);
    GtkTreeViewColumn* column = gtk_tree_view_column_new_with_attributes(titles[i], cell, "text", i, nullptr);
    gtk_tree_view_column_set_alignment(column, i + 1 < count ? 0.5f : 0.0f);
    if (i + 1 == count) gtk_tree_view_column_set_expand(column, TRUE);
    gtk_tree_view_append_column(GTK_TREE_VIEW(*view), column);
  }
  gtk_tree_view_set_tooltip_column(GTK_TREE_VIEW(*view), count - 1);  // a label too long for the row
  gtk_tree_selection_set_mode(gtk_tree_view_get_selection(GTK_TREE_VIEW(*view)), GTK_SELECTION_SINGLE);
  GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll), GTK_POLICY_AUTOMATIC, GTK_POLICY_AUTOMATIC);
  gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(scroll), GTK_SHADOW_IN);
  gtk_container_add(GTK_CONTAINER(scroll), *view);
  return scroll;
}

void PCD_SetListRowText(GtkListStore* store, int idColumn, uint16_t id, int column, const char* text) {
  GtkTreeModel* model = GTK_TREE_MODEL(store);
  GtkTreeIter iter;
  for (gboolean ok = gtk_tree_model_get_iter_first(model, &iter); ok; ok = gtk_tree_model_iter_next(model, &iter)) {
    guint rowId = 0;
    gtk_tree_model_get(model, &iter, idColumn, &rowId, -1);
    if (rowId == id) gtk_list_store_set(store, &iter, column, text, -1);
  }
}

uint16_t PCD_GetSelectedListId(GtkWidget* view, int idColumn) {
  GtkTreeModel* model = nullptr;
  GtkTreeIter iter;
  if (!gtk_tree_selection_get_selected(gtk_tree_view_get_selection(GTK_TREE_VIEW(view)), &model, &iter))
    return kPcdNoObject;
  guint id = kPcdNoObject;
  gtk_tree_model_get(model, &iter, idColumn, &id, -1);
  return static_cast<uint16_t>(id);
}

void PCD_SelectListId(GtkWidget* view, int idColumn, uint16_t id) {
  GtkTreeSelection* selection = gtk_tree_view_get_selection(GTK_TREE_VIEW(view));
  GtkTreeModel* model = gtk_tree_view_get_model(GTK_TREE_VIEW(view));
  GtkTreeIter iter;
  for (gboolean ok = gtk_tree_model_get_iter_first(model, &iter); ok; ok = gtk_tree_model_iter_next(model, &iter)) {
    guint rowId = 0;
    gtk_tree_model_get(model, &iter, idColumn, &rowId, -1);
    if (rowId == id) {
      gtk_tree_selection_select_iter(selection, &iter);
      GtkTreePath* path = gtk_tree_model_get_path(model, &iter);
      if (gtk_widget_get_realized(view)) gtk_tree_view_scroll_to_cell(GTK_TREE_VIEW(view), path, nullptr, FALSE, 0, 0);
      gtk_tree_path_free(path);
      return;
    }
  }
  gtk_tree_selection_unselect_all(selection);
}

void PCD_SetEntryText(GtkWidget* entry, const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  gtk_entry_set_text(GTK_ENTRY(entry), text);
}

void PCD_SetEntryInt(GtkWidget* entry, int value) {
  char text[32];
  std::snprintf(text, sizeof text, "%d", value);
  gtk_entry_set_text(GTK_ENTRY(entry), text);
}

bool PCD_ReadEntryFloat(GtkWidget* entry, float* value) {
  float v = 0.0f;
  if (std::sscanf(gtk_entry_get_text(GTK_ENTRY(entry)), "%f", &v) != 1) return false;
  *value = v;
  return true;
}

bool PCD_ReadEntryInt(GtkWidget* entry, int32_t* value) {
  int v = 0;
  if (std::sscanf(gtk_entry_get_text(GTK_ENTRY(entry)), "%d", &v) != 1) return false;
  *value = v;
  return true;
}

GtkWidget* PCD_NewTextPage(GtkWidget** view) {
  GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll), GTK_POLICY_AUTOMATIC, GTK_POLICY_AUTOMATIC);
  *view = gtk_text_view_new();
  gtk_text_view_set_monospace(GTK_TEXT_VIEW(*view), TRUE);
  gtk_container_add(GTK_CONTAINER(scroll), *view);
  return scroll;
}

void PCD_SetTextViewText(GtkWidget* view, const std::string& text) {
  char* valid = g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size()));
  gtk_text_buffer_set_text(gtk_text_view_get_buffer(GTK_TEXT_VIEW(view)), valid, -1);
  g_free(valid);
}

std::string PCD_GetTextViewText(GtkWidget* view) {
  GtkTextBuffer* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(view));
  GtkTextIter start, end;
  gtk_text_buffer_get_bounds(buffer, &start, &end);
  char* text = gtk_text_buffer_get_text(buffer, &start, &end, FALSE);
  std::string out = text;
  g_free(text);
  return out;
}

GtkWidget* PCD_NewSmallNotebook() {
  GtkWidget* notebook = gtk_notebook_new();
  gtk_notebook_set_scrollable(GTK_NOTEBOOK(notebook), TRUE);
  gtk_style_context_add_class(gtk_widget_get_style_context(notebook), "pcd-small-tabs");
  static bool styled = false;
  if (!styled) {
    GtkCssProvider* css = gtk_css_provider_new();
    gtk_css_provider_load_from_data(css, ".pcd-small-tabs tab { padding: 2px 3px; min-height: 0; }", -1, nullptr);
    gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(css),
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(css);
    styled = true;
  }
  return notebook;
}

// Every page scrolls, so that no page makes the 320-pixel window wider or taller.
void PCD_AppendNotebookPage(GtkWidget* notebook, GtkWidget* page, const char* label) {
  if (!GTK_IS_SCROLLED_WINDOW(page)) {
    GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll), GTK_POLICY_AUTOMATIC, GTK_POLICY_AUTOMATIC);
    gtk_container_add(GTK_CONTAINER(scroll), page);
    page = scroll;
  }
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), page, gtk_label_new(label));
}
