// The gradient-table check in the desktop program: one item at the end of the MPG
// settings menu. It runs the check on the data set's setting, shows the verdict with the
// best candidates, and offers to correct the setting when another table scores better.
// The item is added beside the main menu's table, which keeps its own entries.
#pragma once

#include <gtk/gtk.h>

#include "app/services/menu.h"

constexpr char kPcdGradientCheckTitle[] = "Gradient table check";
constexpr char kPcdGradientCheckLabel[] = "Check gradient table ...";

// Appends a separator and the item to the "/Setting/MPG" submenu of the bar; the item,
// or null when the bar has no such submenu.
GtkWidget* PCD_AddGradientCheckItem(const PcdMenuBar& menu);
// What the item does (also callable directly).
void cmd_check_gradient_table(gpointer, guint, GtkWidget*);
