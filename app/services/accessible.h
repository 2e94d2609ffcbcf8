// Accessible names of the program's fields, which the pages and the views give alike.
#pragma once

#include <gtk/gtk.h>

// Gives a field the text of the label beside it (spaces and colons trimmed) as its
// accessible name, so that screen readers, and tests that drive the program through
// accessibility, tell the fields apart.
void PCD_SetAccessibleName(GtkWidget* field, const char* label);
