#include "app/services/accessible.h"

#include <string>

void PCD_SetAccessibleName(GtkWidget* field, const char* label) {
  if (field == nullptr || label == nullptr) return;
  std::string name = label;
  const auto trimmed = [](char c) { return c == ' ' || c == ':' || c == '\t'; };
  while (!name.empty() && trimmed(name.back())) name.pop_back();
  size_t first = 0;
  while (first < name.size() && trimmed(name[first])) ++first;
  atk_object_set_name(gtk_widget_get_accessible(field), name.substr(first).c_str());
}
