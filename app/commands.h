// The commands of the main menu bar and the table that binds them to their paths.
#pragma once

#include <gtk/gtk.h>

#include "app/loading.h"
#include "app/services/menu.h"

constexpr int kPcdMainMenuEntryCount = 66;
extern const PcdMenuEntry kPcdMainMenu[kPcdMainMenuEntryCount];


// The three "Manual set" values (action number).
enum PcdManualSetKind : guint {
  PCD_MANUAL_TOTAL_CHANNELS = 1,
  PCD_MANUAL_SO_CHANNELS = 2,
  PCD_MANUAL_UNIFORM_B = 3,
};

// MPG presets (action number).
enum PcdMpgPreset : guint {
  PCD_PRESET_GE_6 = 6,
  PCD_PRESET_GE_13 = 13,
  PCD_PRESET_JONES_30 = 30,
};

// Every command has the menu callback's signature; the data is unused (the commands work
// on pcd_app).
void cmd_not_implemented(gpointer, guint, GtkWidget*);
void cmd_load_volume(gpointer, guint importKind, GtkWidget*);
void cmd_import_mpg(gpointer, guint, GtkWidget*);
void cmd_export_dti(gpointer, guint, GtkWidget*);
void cmd_export_volume(gpointer, guint, GtkWidget*);
void cmd_export_mpg(gpointer, guint, GtkWidget*);
void cmd_quit(gpointer, guint, GtkWidget*);
void cmd_mpg_preset(gpointer, guint preset, GtkWidget*);
void cmd_manual_set(gpointer, guint kind, GtkWidget*);
void cmd_roi_auto_update(gpointer, guint on, GtkWidget*);
void cmd_toggle_realtime(gpointer, guint, GtkWidget*);
void cmd_add_computational_channels(gpointer, guint, GtkWidget*);
void cmd_about(gpointer, guint, GtkWidget*);
