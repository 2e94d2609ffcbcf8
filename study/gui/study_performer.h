// The " Study performer " page: the "/Study" menu, a table of 40 rows by 4 columns with
// the study list (rows 0 to 12), the four settings panels (rows 12 to 38, only the
// selected study's panel shown) and " Analyze and Display " (rows 38 to 40).
//
// Panel values go into the study shown in the panel before another study is shown; a
// guard flag keeps the handlers quiet while a panel is being filled.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "app/services/menu.h"
#include "study/study_object.h"

constexpr char kPcdAnalyzeButtonLabel[] = " Analyze and Display ";

constexpr int kPcdStudyMenuEntryCount = 43;
extern const PcdMenuEntry kPcdStudyMenu[kPcdStudyMenuEntryCount];

// One settings panel: its widget, the text view of its "Summary" page, and the two ways
// between its controls and a study of its kind.
struct PcdStudyPanel {
  GtkWidget* widget = nullptr;
  GtkWidget* notebook = nullptr;
  GtkWidget* summary = nullptr;
  std::function<void(const PcdStudyObject*)> load;
  std::function<void(PcdStudyObject*)> store;
  std::shared_ptr<void> controls;  // the panel's widgets, owned here
};

std::unique_ptr<PcdStudyPanel> PCD_NewTractPanel(bool modeling);  // "Fiber tracking" / "Fiber modeling"
std::unique_ptr<PcdStudyPanel> PCD_NewProfilePanel();             // "Diffusion profile"
std::unique_ptr<PcdStudyPanel> PCD_NewStatisticsPanel();          // "Voxel statistics"

struct PcdStudyPerformer {
  GtkWidget* page = nullptr;
  PcdMenuBar menu;
  GtkWidget* list = nullptr;
  GtkListStore* store = nullptr;
  GtkWidget* visible = nullptr;  // " visible "
  GtkWidget* label = nullptr;    // the label entry
  GtkWidget* panelBox = nullptr;
  GtkWidget* analyze = nullptr;  // " Analyze and Display "
  std::unique_ptr<PcdStudyPanel> panels[4];  // by study type
  bool filling = false;
  uint16_t shownId = kPcdNoObject;
};

GtkWidget* PCD_BuildStudyPerformerPage();
void PCD_DeleteStudyPerformer();
PcdStudyPerformer* PCD_GetStudyPerformer();

// Writes the panel's values into the study it shows.
void PCD_StoreStudyPanel();
// Rebuilds the list, selects the selected study's row and fills its panel.
void PCD_RefreshStudyPerformer();
void PCD_SelectStudy(uint16_t id);
// Stores the shown panel and fills it again: its region pages list the ROIs there are now.
void PCD_ReloadStudyPanel();
// The user changed a setting of the shown panel that the views draw (a region's kind or
// use): the study takes the panel's settings and the views show them at once.
void PCD_StudyPanelEdited();
// New study of a type: store, create (with its viewer object group), show.
PcdStudyObject* PCD_NewStudyFromPerformer(int32_t type);
// Analyses the selected study (dump: "Analyze and dump result") and shows its summary.
void PCD_AnalyzeSelectedStudy(bool dump);
// The text of the shown panel's "Summary" page, and replacing it.
std::string PCD_GetSummaryPageText();
void PCD_SetSummaryPageText(const std::string& text);
// The study label entry (the preset labels go through it).
void PCD_SetStudyLabelEntry(const char* text);
// The ROIs that the studies list by id are locked (a study announcing them); the ROI
// editor shows it.
void PCD_AnnounceStudyRois();

// Both object pages: forget the objects they show (after a clean-up, when ids restart),
// and keep their handlers quiet while the window goes.
void PCD_ForgetShownObjects();
void PCD_QuietObjectPages();
