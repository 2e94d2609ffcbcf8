// Small widget builders shared by the ROI editor and the study performer: radio groups
// made from the choice tables, labelled entries, object lists and text pages.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <string>
#include <vector>

#include "study/study_settings.h"

// A radio group: one button per choice of a table (or the labels given), in a frame
// titled by `title` (no frame when null).
struct PcdRadioGroup {
  GtkWidget* widget = nullptr;  // the frame or box to pack
  std::vector<GtkWidget*> buttons;
  std::vector<int32_t> codes;
};
PcdRadioGroup PCD_NewRadioGroup(const char* title, const PcdChoiceTable& table, bool vertical);
// Activates the button of code (the first one for an unknown code).
void PCD_SetRadioCode(const PcdRadioGroup& group, int32_t code);
int32_t PCD_GetRadioCode(const PcdRadioGroup& group);

// A list of objects: string columns with the given titles plus a hidden id column
// (the last, G_TYPE_UINT); single selection, rows 20 pixels high, every column but the
// last centred. Returns the scrolled window; *view and *store get the parts.
GtkWidget* PCD_NewObjectList(const char* const* titles, int count, GtkWidget** view,
                             GtkListStore** store);
// Puts text into a column of the row holding id.
void PCD_SetListRowText(GtkListStore* store, int idColumn, uint16_t id, int column, const char* text);
// The id of the selected row, or 65535.
uint16_t PCD_GetSelectedListId(GtkWidget* view, int idColumn);
// Selects the row holding id (no row: selection cleared).
void PCD_SelectListId(GtkWidget* view, int idColumn, uint16_t id);

void PCD_SetEntryText(GtkWidget* entry, const char* format, double value);
void PCD_SetEntryInt(GtkWidget* entry, int value);
// The entry's text read with "%f" / "%d"; false (value untouched) when it does not parse.
bool PCD_ReadEntryFloat(GtkWidget* entry, float* value);
bool PCD_ReadEntryInt(GtkWidget* entry, int32_t* value);

// A scrolled, editable text view; *view gets the text view.
GtkWidget* PCD_NewTextPage(GtkWidget** view);
void PCD_SetTextViewText(GtkWidget* view, const std::string& text);
std::string PCD_GetTextViewText(GtkWidget* view);

// A notebook whose tabs fit a narrow window.
GtkWidget* PCD_NewSmallNotebook();
void PCD_AppendNotebookPage(GtkWidget* notebook, GtkWidget* page, const char* label);
