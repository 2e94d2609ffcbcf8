// The "Fiber tracking" and "Fiber modeling" panels: the regions, the stop criteria and
// scheme ("Tracking" / "Modeling"), the display choices ("Display") and the summary.
#include <memory>

#include "app/services/accessible.h"
#include "study/gui/gui_util.h"
#include "study/gui/region_page.h"
#include "study/gui/study_performer.h"

namespace {

// One "Stop if" row: check button and entry over an enable/value pair of the limits;
// ADC is shown and entered times 1000.
struct StopRow {
  const char* label;
  int32_t PcdDiffusionTensorLimits::*enable;
  float PcdDiffusionTensorLimits::*value;
  float scale;
};
const StopRow kStopRows[] = {
    {"FA   <", &PcdDiffusionTensorLimits::useFAmin, &PcdDiffusionTensorLimits::FAmin, 1.0f},
    {"ADC (x1k) >", &PcdDiffusionTensorLimits::useADCmax, &PcdDiffusionTensorLimits::ADCmax, 1000.0f},
    {"So   <", &PcdDiffusionTensorLimits::useSoMin, &PcdDiffusionTensorLimits::SoMin, 1.0f},
    {"So   >", &PcdDiffusionTensorLimits::useSoMax, &PcdDiffusionTensorLimits::SoMax, 1.0f},
    {"Angle (deg.) >", &PcdDiffusionTensorLimits::useAngleMax, &PcdDiffusionTensorLimits::AngleMax, 1.0f},
};
constexpr int kStopCount = 5;

// the seed region's kind and the seed source code stand for each other
int32_t kind_of_seed_source(int32_t source) {
  if (source == kPcdSeedFromList) return kPcdRegionListed;
  if (source == kPcdSeedFromFreehand || source == kPcdSeedFromFreehandToo) return kPcdRegionFreehand;
  return kPcdRegionSphere;
}
int32_t seed_source_of_kind(int32_t kind) {
  if (kind == kPcdRegionListed) return kPcdSeedFromList;
  if (kind == kPcdRegionFreehand) return kPcdSeedFromFreehand;
  return kPcdSeedFromSphere;
}

struct TractControls {
  std::unique_ptr<PcdRegionPage> regions[3];
  PcdRadioGroup scheme, density, primitive, coloring;
  GtkWidget* lengthCheck = nullptr;
  GtkWidget* length = nullptr;
  GtkWidget* stopChecks[kStopCount] = {};
  GtkWidget* stopEntries[kStopCount] = {};
};

GtkWidget* build_stop_frame(TractControls* c) {
  GtkWidget* frame = gtk_frame_new("Stop if");
  GtkWidget* grid = gtk_grid_new();
  gtk_grid_set_column_spacing(GTK_GRID(grid), 4);
  gtk_container_set_border_width(GTK_CONTAINER(grid), 2);
  auto add_row = [&](int row, const char* label, GtkWidget** check, GtkWidget** entry) {
    *check = gtk_check_button_new_with_label(label);
    *entry = gtk_entry_new();
    gtk_entry_set_width_chars(GTK_ENTRY(*entry), 8);
    PCD_SetAccessibleName(*entry, label);
    gtk_grid_attach(GTK_GRID(grid), *check, 0, row, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), *entry, 1, row, 1, 1);
  };
  add_row(0, "Length (steps) =", &c->lengthCheck, &c->length);
  // the node limit always holds: its check button only shows that
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c->lengthCheck), TRUE);
  gtk_widget_set_sensitive(c->lengthCheck, FALSE);
  for (int i = 0; i < kStopCount; ++i) add_row(i + 1, kStopRows[i].label, &c->stopChecks[i], &c->stopEntries[i]);
  gtk_container_add(GTK_CONTAINER(frame), grid);
  return frame;
}

void load(TractControls* c, const PcdStudyObject* study) {
  const PcdTractSettings* t = study->tract.get();
  if (t == nullptr) return;
  PCD_LoadRegionPage(c->regions[0].get(), t->regions[0], kind_of_seed_source(t->seedSource));
  for (int r = 1; r < 3; ++r) PCD_LoadRegionPage(c->regions[r].get(), t->regions[r], t->regions[r].kind);
  PCD_SetRadioCode(c->scheme, t->scheme);
  PCD_SetRadioCode(c->density, t->seedDensity);
  PCD_SetRadioCode(c->primitive, t->primitive);
  PCD_SetRadioCode(c->coloring, t->coloring);
  PCD_SetEntryInt(c->length, t->nodeLimit);
  for (int i = 0; i < kStopCount; ++i) {
    const StopRow& row = kStopRows[i];
    gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c->stopChecks[i]), t->limits.*row.enable != 0);
    PCD_SetEntryText(c->stopEntries[i], "%3.2f", static_cast<double>(t->limits.*row.value * row.scale));
  }
}

void store(TractControls* c, PcdStudyObject* study) {
  PcdTractSettings* t = study->tract.get();
  if (t == nullptr) return;
  t->seedSource = seed_source_of_kind(PCD_StoreRegionPage(c->regions[0].get(), &t->regions[0]));
  t->regions[0].kind = kind_of_seed_source(t->seedSource);
  t->seedObjectCount = t->regions[0].idCount;
  for (int r = 1; r < 3; ++r) t->regions[r].kind = PCD_StoreRegionPage(c->regions[r].get(), &t->regions[r]);
  t->scheme = PCD_GetRadioCode(c->scheme);
  t->seedDensity = PCD_GetRadioCode(c->density);
  t->primitive = PCD_GetRadioCode(c->primitive);
  t->coloring = PCD_GetRadioCode(c->coloring);
  int32_t length = 0;
  if (PCD_ReadEntryInt(c->length, &length) && length > 0) t->nodeLimit = length;
  for (int i = 0; i < kStopCount; ++i) {
    const StopRow& row = kStopRows[i];
    t->limits.*row.enable = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(c->stopChecks[i])) ? 1 : 0;
    float v = 0.0f;
    if (PCD_ReadEntryFloat(c->stopEntries[i], &v)) t->limits.*row.value = v / row.scale;
  }
}

}  // namespace

std::unique_ptr<PcdStudyPanel> PCD_NewTractPanel(bool modeling) {
  auto panel = std::make_unique<PcdStudyPanel>();
  auto c = std::make_shared<TractControls>();
  panel->widget = gtk_frame_new(modeling ? "Fiber modeling" : "Fiber tracking");
  panel->notebook = PCD_NewSmallNotebook();
  gtk_container_add(GTK_CONTAINER(panel->widget), panel->notebook);

  static const char* const kRegionTabs[3] = {"Seed", "Target", "Avoidance"};
  for (int r = 0; r < 3; ++r) {
    c->regions[r] = PCD_NewRegionPage(true, r > 0);
    PCD_AppendNotebookPage(panel->notebook, c->regions[r]->widget, kRegionTabs[r]);
  }

  GtkWidget* setting = PCD_NewSmallNotebook();
  GtkWidget* tracking = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  c->scheme = PCD_NewRadioGroup(modeling ? "Modeling scheme" : "Tracking scheme", kPcdTrackingSchemeChoices, false);
  gtk_box_pack_start(GTK_BOX(tracking), c->scheme.widget, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(tracking), build_stop_frame(c.get()), FALSE, FALSE, 0);
  PCD_AppendNotebookPage(setting, tracking, modeling ? "Modeling" : "Tracking");
  GtkWidget* display = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  c->density = PCD_NewRadioGroup("Seed density", kPcdSeedDensityChoices, false);
  c->primitive = PCD_NewRadioGroup("Primitive type", kPcdPrimitiveTypeChoices, false);
  c->coloring = PCD_NewRadioGroup("Coloring", kPcdFiberColoringChoices, true);
  for (GtkWidget* w : {c->density.widget, c->primitive.widget, c->coloring.widget})
    gtk_box_pack_start(GTK_BOX(display), w, FALSE, FALSE, 0);
  PCD_AppendNotebookPage(setting, display, "Display");
  PCD_AppendNotebookPage(panel->notebook, setting, "Setting");

  PCD_AppendNotebookPage(panel->notebook, PCD_NewTextPage(&panel->summary), "Summary");
  panel->load = [c](const PcdStudyObject* study) { load(c.get(), study); };
  panel->store = [c](PcdStudyObject* study) { store(c.get(), study); };
  panel->controls = c;
  return panel;
}
