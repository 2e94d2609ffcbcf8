// The "Voxel statistics" panel: its region and colouring ("ROI") and the summary.
#include <memory>

#include "study/gui/gui_util.h"
#include "study/gui/region_page.h"
#include "study/gui/study_performer.h"

namespace {

struct StatisticsControls {
  std::unique_ptr<PcdRegionPage> region;
  PcdRadioGroup coloring;
};

}  // namespace

std::unique_ptr<PcdStudyPanel> PCD_NewStatisticsPanel() {
  auto panel = std::make_unique<PcdStudyPanel>();
  auto c = std::make_shared<StatisticsControls>();
  panel->widget = gtk_frame_new("Voxel statistics");
  panel->notebook = PCD_NewSmallNotebook();
  gtk_container_add(GTK_CONTAINER(panel->widget), panel->notebook);
  c->region = PCD_NewRegionPage(false, false);
  c->coloring = PCD_NewRadioGroup("Coloring", kPcdStatisticsColoringChoices, true);
  gtk_box_pack_start(GTK_BOX(c->region->widget), c->coloring.widget, FALSE, FALSE, 0);
  PCD_AppendNotebookPage(panel->notebook, c->region->widget, "ROI");
  PCD_AppendNotebookPage(panel->notebook, PCD_NewTextPage(&panel->summary), "Summary");
  panel->load = [c](const PcdStudyObject* study) {
    const PcdStatisticsSettings* s = study->statistics.get();
    if (s == nullptr) return;
    PCD_LoadRegionPage(c->region.get(), s->region, s->region.kind != 0 ? s->region.kind : s->mode);
    PCD_SetRadioCode(c->coloring, s->coloring);
  };
  // the mode code is the region's kind (3564, the box VOI, when created)
  panel->store = [c](PcdStudyObject* study) {
    PcdStatisticsSettings* s = study->statistics.get();
    if (s == nullptr) return;
    s->mode = s->region.kind = PCD_StoreRegionPage(c->region.get(), &s->region);
    s->region.use = kPcdRegionInUse;
    s->coloring = PCD_GetRadioCode(c->coloring);
  };
  panel->controls = c;
  return panel;
}
