// The "Diffusion profile" panel: its region ("ROI"), the symbols and the "Show if"
// ranges ("Setting"), and the summary.
#include <memory>
#include <string>

#include "app/services/accessible.h"
#include "study/gui/gui_util.h"
#include "study/gui/region_page.h"
#include "study/gui/study_performer.h"

namespace {

// One "Show if" row: lower and upper bound, each with its check button; ADC times 1000.
struct RangeRow {
  const char* label;
  int32_t PcdProfileSettings::*useLow;
  float PcdProfileSettings::*low;
  int32_t PcdProfileSettings::*useHigh;
  float PcdProfileSettings::*high;
  float scale;
};
const RangeRow kRows[] = {
    {"<  FA   <", &PcdProfileSettings::useFAmin, &PcdProfileSettings::FAmin, &PcdProfileSettings::useFAmax,
     &PcdProfileSettings::FAmax, 1.0f},
    {"< ADC (x1k) <", &PcdProfileSettings::useADCmin, &PcdProfileSettings::ADCmin, &PcdProfileSettings::useADCmax,
     &PcdProfileSettings::ADCmax, 1000.0f},
    {"<  So   <", &PcdProfileSettings::useSoMin, &PcdProfileSettings::SoMin, &PcdProfileSettings::useSoMax,
     &PcdProfileSettings::SoMax, 1.0f},
};
constexpr int kRowCount = 3;
const char* const kRowNames[kRowCount] = {"FA", "ADC (x1k)", "So"};  // the fields' accessible names

struct ProfileControls {
  std::unique_ptr<PcdRegionPage> region;
  PcdRadioGroup density, primitive, coloring;
  GtkWidget* emphasis = nullptr;
  GtkWidget* checks[kRowCount][2] = {};
  GtkWidget* entries[kRowCount][2] = {};
};

GtkWidget* build_show_if(ProfileControls* c) {
  GtkWidget* frame = gtk_frame_new("Show if");
  GtkWidget* grid = gtk_grid_new();
  gtk_grid_set_column_spacing(GTK_GRID(grid), 2);
  for (int i = 0; i < kRowCount; ++i) {
    for (int side = 0; side < 2; ++side) {
      c->checks[i][side] = gtk_check_button_new();
      c->entries[i][side] = gtk_entry_new();
      gtk_entry_set_width_chars(GTK_ENTRY(c->entries[i][side]), 6);
      PCD_SetAccessibleName(c->entries[i][side], (std::string(kRowNames[i]) + (side == 0 ? " min" : " max")).c_str());
    }
    gtk_grid_attach(GTK_GRID(grid), c->checks[i][0], 0, i, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), c->entries[i][0], 1, i, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), gtk_label_new(kRows[i].label), 2, i, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), c->entries[i][1], 3, i, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), c->checks[i][1], 4, i, 1, 1);
  }
  gtk_container_add(GTK_CONTAINER(frame), grid);
  return frame;
}

void load(ProfileControls* c, const PcdStudyObject* study) {
  const PcdProfileSettings* s = study->profile.get();
  if (s == nullptr) return;
  PCD_LoadRegionPage(c->region.get(), s->region, s->region.kind);
  PCD_SetRadioCode(c->density, s->symbolDensity);
  PCD_SetRadioCode(c->primitive, s->primitive);
  PCD_SetRadioCode(c->coloring, s->coloring);
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c->emphasis), s->emphasis != kPcdOptionOff);
  for (int i = 0; i < kRowCount; ++i) {
    const RangeRow& r = kRows[i];
    gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c->checks[i][0]), s->*r.useLow != 0);
    gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c->checks[i][1]), s->*r.useHigh != 0);
    PCD_SetEntryText(c->entries[i][0], "%3.2f", static_cast<double>(s->*r.low * r.scale));
    PCD_SetEntryText(c->entries[i][1], "%3.2f", static_cast<double>(s->*r.high * r.scale));
  }
}

void store(ProfileControls* c, PcdStudyObject* study) {
  PcdProfileSettings* s = study->profile.get();
  if (s == nullptr) return;
  s->region.kind = PCD_StoreRegionPage(c->region.get(), &s->region);
  s->region.use = kPcdRegionInUse;
  s->symbolDensity = PCD_GetRadioCode(c->density);
  s->primitive = PCD_GetRadioCode(c->primitive);
  s->coloring = PCD_GetRadioCode(c->coloring);
  s->emphasis = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(c->emphasis)) ? kPcdOptionOn : kPcdOptionOff;
  for (int i = 0; i < kRowCount; ++i) {
    const RangeRow& r = kRows[i];
    s->*r.useLow = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(c->checks[i][0])) ? 1 : 0;
    s->*r.useHigh = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(c->checks[i][1])) ? 1 : 0;
    float v = 0.0f;
    if (PCD_ReadEntryFloat(c->entries[i][0], &v)) s->*r.low = v / r.scale;
    if (PCD_ReadEntryFloat(c->entries[i][1], &v)) s->*r.high = v / r.scale;
  }
}

}  // namespace

std::unique_ptr<PcdStudyPanel> PCD_NewProfilePanel() {
  auto panel = std::make_unique<PcdStudyPanel>();
  auto c = std::make_shared<ProfileControls>();
  panel->widget = gtk_frame_new("Diffusion profile");
  panel->notebook = PCD_NewSmallNotebook();
  gtk_container_add(GTK_CONTAINER(panel->widget), panel->notebook);
  c->region = PCD_NewRegionPage(false, false);
  PCD_AppendNotebookPage(panel->notebook, c->region->widget, "ROI");

  GtkWidget* setting = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  c->density = PCD_NewRadioGroup("Symbol density", kPcdSymbolDensityChoices, false);
  c->primitive = PCD_NewRadioGroup(nullptr, kPcdProfilePrimitiveChoices, true);
  c->coloring = PCD_NewRadioGroup("Coloring", kPcdProfileColoringChoices, false);
  c->emphasis = gtk_check_button_new_with_label("Anisotropy emphasis");
  for (GtkWidget* w : {c->density.widget, c->primitive.widget, c->coloring.widget, c->emphasis})
    gtk_box_pack_start(GTK_BOX(setting), w, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(setting), build_show_if(c.get()), FALSE, FALSE, 0);
  PCD_AppendNotebookPage(panel->notebook, setting, "Setting");

  PCD_AppendNotebookPage(panel->notebook, PCD_NewTextPage(&panel->summary), "Summary");
  panel->load = [c](const PcdStudyObject* study) { load(c.get(), study); };
  panel->store = [c](PcdStudyObject* study) { store(c.get(), study); };
  panel->controls = c;
  return panel;
}
