// Menu bars built from tables of plain data, one row per entry, in the manner of an
// item factory: the row's path names its place ("/File/Import/DTI file"), branches that
// are not listed come into being from the paths of their items, and separators are rows
// of their own. Keeping the tables as data keeps their entry counts real and testable.
#pragma once

#include <gtk/gtk.h>

#include <string>
#include <vector>

enum class PcdMenuKind {
  Item,        // a plain command
  Branch,      // an explicit submenu
  LastBranch,  // an explicit submenu packed at the right end of the bar
  Separator,   // a line of dashes
  RadioHead,   // first radio item of a group
  RadioItem,   // further radio item; `group` names the path of its group head
};

// Callback of an entry: the data given to the builder, the entry's action number and the
// menu item that was activated.
using PcdMenuCallback = void (*)(gpointer callbackData, guint action, GtkWidget* item);

struct PcdMenuEntry {
  const char* path;         // "_" before a letter marks the mnemonic
  const char* accelerator;  // gtk_accelerator_parse() form ("<control>O", "F11", "F") or null
  PcdMenuKind kind;
  PcdMenuCallback callback;  // null: the entry does nothing
  guint action;
  const char* group;  // RadioItem only
};

// What the builder made: the bar, and every entry's widget by the entry's path with the
// mnemonic marks removed.
struct PcdMenuBar {
  GtkWidget* bar = nullptr;
  std::vector<std::string> paths;     // in table order, one per entry
  std::vector<GtkWidget*> items;      // the widget of each entry
};

// Builds a menu bar from `count` rows. Accelerators are added to `accelGroup` (may be
// null). Radio groups start in their head's state (the head is active). Returns false,
// with a warning on stderr, when a row's parent path cannot be resolved or a radio item
// names no earlier group head; the rows before it stay built.
bool PCD_BuildMenuBar(const PcdMenuEntry* entries, int count, gpointer callbackData,
                      GtkAccelGroup* accelGroup, PcdMenuBar* out);

// The widget built for a path (mnemonic marks removed, e.g. "/Help/About ..."), or null.
GtkWidget* PCD_FindMenuItem(const PcdMenuBar& menu, const char* path);

// A path with every mnemonic mark removed ("/_Help" -> "/Help", "__" stays "_").
std::string PCD_MenuPathWithoutMnemonics(const char* path);
