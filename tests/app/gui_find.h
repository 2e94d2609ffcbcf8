// Finding the program's widgets as assistive technology does: by accessible name.
#pragma once

#include <gtk/gtk.h>

#include <string>

namespace quorix_test {

// The first widget under root (root included, internal children too) whose accessible
// name is name; null when none is.
inline GtkWidget* FindByAccessibleName(GtkWidget* root, const std::string& name) {
  if (root == nullptr) return nullptr;
  const char* own = atk_object_get_name(gtk_widget_get_accessible(root));
  if (own != nullptr && name == own) return root;
  if (!GTK_IS_CONTAINER(root)) return nullptr;
  struct Search {
    const std::string* name;
    GtkWidget* found;
  } search{&name, nullptr};
  gtk_container_forall(
      GTK_CONTAINER(root),
      [](GtkWidget* child, gpointer data) {
        auto* s = static_cast<Search*>(data);
        if (s->found == nullptr) s->found = FindByAccessibleName(child, *s->name);
      },
      &search);
  return search.found;
}

}  // namespace quorix_test
