// The region page of a settings panel: the choice of region kind and the ROI list with its
// "Use" column (the ROIs of a "Listed" region; ticking one chooses "Listed").
#pragma once

#include <gtk/gtk.h>

#include <memory>

#include "study/gui/gui_util.h"
#include "study/study_settings.h"

struct PcdRegionPage {
  GtkWidget* widget = nullptr;
  PcdRadioGroup kind;             // "Sphere", "Freehand", "Listed" or "Box VOI", "Sphere", "Freehand", "Listed"
  GtkWidget* use = nullptr;       // " use this region " (target and avoidance only)
  GtkWidget* list = nullptr;      // the ROIs, with "Use"
  GtkListStore* store = nullptr;  // Use (boolean), #, label, id
};

// listed: the kinds of tracking regions (else those of statistics and profile regions);
// withUse: the region may be left out.
std::unique_ptr<PcdRegionPage> PCD_NewRegionPage(bool listed, bool withUse);
// kind: the code to show (the seed region shows its seed source as a kind).
void PCD_LoadRegionPage(PcdRegionPage* page, const PcdStudyRegion& region, int32_t kind);
// Stores the use flag and the listed ids; returns the chosen kind code.
int32_t PCD_StoreRegionPage(const PcdRegionPage* page, PcdStudyRegion* region);
