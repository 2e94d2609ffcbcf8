// The region page of a settings panel: the choice of region kind and, for the kinds of
// tracking and modeling, the ROI list with its "Use" column (the listed ROIs).
#pragma once

#include <gtk/gtk.h>

#include <memory>

#include "study/gui/gui_util.h"
#include "study/study_settings.h"

struct PcdRegionPage {
  GtkWidget* widget = nullptr;
  PcdRadioGroup kind;             // "Sphere", "Freehand", "Listed" or "Box VOI", "Sphere", "Freehand"
  GtkWidget* use = nullptr;       // " use this region " (target and avoidance only)
  GtkWidget* list = nullptr;      // the ROIs, with "Use" (tracking and modeling only)
  GtkListStore* store = nullptr;  // Use (boolean), #, label, id
};

// listed: the tracking kinds with the ROI list; withUse: the region may be left out.
std::unique_ptr<PcdRegionPage> PCD_NewRegionPage(bool listed, bool withUse);
// kind: the code to show (the seed region shows its seed source as a kind).
void PCD_LoadRegionPage(PcdRegionPage* page, const PcdStudyRegion& region, int32_t kind);
// Stores the use flag and the listed ids; returns the chosen kind code.
int32_t PCD_StoreRegionPage(const PcdRegionPage* page, PcdStudyRegion* region);
