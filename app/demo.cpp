#include "app/demo.h"

#include <gtk/gtk.h>

#include <chrono>
#include <cstdio>
#include <functional>

#include "app/services/app_state.h"
#include "app/commands.h"
#include "app/loading.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "view/roi_drawing.h"
#include "view/views_window.h"

namespace {

void Settle() {
  for (int round = 0; round < 4; ++round) {
    gdk_display_sync(gdk_display_get_default());
    while (gtk_events_pending()) gtk_main_iteration();
  }
}

void SaveShot(GtkWidget* widget, const std::string& dir, const char* name) {
  if (dir.empty() || widget == nullptr) return;
  Settle();
  GdkWindow* w = gtk_widget_get_window(widget);
  if (w == nullptr) return;
  GdkPixbuf* shot = gdk_pixbuf_get_from_window(w, 0, 0, gdk_window_get_width(w), gdk_window_get_height(w));
  if (shot == nullptr) return;
  gdk_pixbuf_save(shot, (dir + "/" + name).c_str(), "png", nullptr, nullptr);
  g_object_unref(shot);
}

// The first study of the type, made when there is none.
PcdStudyObject* StudyOfType(int32_t type) {
  for (const auto& study : pcd_app->session.studies.items)
    if (study->type == type) return study.get();
  return PCD_NewStudyFromPerformer(type);
}

// Selects the study and presses " Analyze and Display ", timed.
void Analyze(PcdStudyObject* study) {
  PCD_SelectStudy(study->id);
  const auto start = std::chrono::steady_clock::now();
  gtk_button_clicked(GTK_BUTTON(pcd_app->analyzeButton));
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::string summary = PCD_GetStudySummary(study);
  std::fprintf(stderr, "Demo: %s: %.2f s (%s)\n", study->label, s, summary.substr(0, summary.find('\n')).c_str());
}

// The demonstration writes its settings into the study, not into its panel: the study is
// shown first (the panel of the one shown before goes back into that one), then edited,
// then shown again, so that " Analyze and Display " stores the edited settings back.
void Edit(PcdStudyObject* study, const std::function<void()>& edit) {
  PCD_SelectStudy(study->id);
  edit();
  PCD_RefreshStudyPerformer();
}

void UseListedSeed(PcdStudyObject* study, uint16_t roiId) {
  PcdStudyRegion& seed = study->tract->regions[0];
  study->tract->seedSource = kPcdSeedFromList;
  seed.use = kPcdRegionInUse;
  seed.kind = kPcdRegionListed;
  seed.idCount = 1;
  seed.ids[0] = roiId;
}

void UseBox(PcdStudyRegion* region) {
  region->use = kPcdRegionInUse;
  region->kind = kPcdRegionBoxVoi;
}

int32_t ColourChannel(const PcdRawVolumeData* volume) {
  for (int32_t c = 0; c < volume->matrixSize->channels; ++c)
    if (volume->colorFormat[c] == PCD_RGBA_PACKED) return c;
  return 0;
}

}  // namespace

bool PCD_RunDemo(const PcdDemoOptions& options) {
  if (!pcd_app || !pcd_views || !pcd_app->session.volume || !PCD_MpgReady()) {
    std::fputs("Warning: the demonstration needs a DWI data set with its MPG setting.\n", stderr);
    return false;
  }
  const PcdDtiData* dti = pcd_app->session.dti;
  if (dti && pcd_app->session.volume->matrixSize->channels <= dti->channelCount)  // no maps yet
    cmd_add_computational_channels(nullptr, 0, nullptr);
  const PcdIntSize4D size = *pcd_app->session.volume->matrixSize;
  // the straight bundle runs along x through the middle; the seed sits a fifth of the way in
  const PcdIntVector3D at{size.x / 5, size.y / 2, size.z / 2};
  PcdRoiObject* seed = nullptr;
  for (const auto& roi : pcd_app->session.rois.items)
    if (roi->type == PCD_ROI_SPHERICAL && roi->status != 1) seed = roi.get();
  if (seed == nullptr) seed = PCD_NewRoiFromEditor(PCD_ROI_SPHERICAL);
  if (seed == nullptr) return false;
  PCDview_SetRoiSphere(seed, {at.x + 0.5f, at.y + 0.5f, at.z + 0.5f}, 2.0f);
  PCD_SetRoiLabel(seed, "Seed in the straight bundle");
  pcd_app->session.rois.selectedId = seed->id;
  PCD_RefreshRoiEditor();

  PcdStudyObject* tracking = StudyOfType(PCD_STUDY_FIBER_TRACKING);
  if (tracking == nullptr) return false;
  Edit(tracking, [&] {
    UseListedSeed(tracking, seed->id);
    tracking->tract->coloring = kPcdColorUniform;  // yellow over the colour map
  });
  Analyze(tracking);

  // the box: 8 x 6 x 4 voxels around the seed
  PCDview_SetBoxVoi({at.x - 4, at.y - 3, at.z - 2}, {8, 6, 4});
  PcdStudyObject* statistics = StudyOfType(PCD_STUDY_VOXEL_STATISTICS);
  if (statistics == nullptr) return false;
  Edit(statistics, [&] { UseBox(&statistics->statistics->region); });
  Analyze(statistics);
  SaveShot(pcd_app->window, options.shotDir, "summary.png");

  if (options.allKinds) {
    PcdStudyObject* modeling = StudyOfType(PCD_STUDY_FIBER_MODELING);
    PcdStudyObject* profile = StudyOfType(PCD_STUDY_DIFFUSION_PROFILE);
    if (modeling == nullptr || profile == nullptr) return false;
    Edit(modeling, [&] { UseListedSeed(modeling, seed->id); });
    Analyze(modeling);
    Edit(profile, [&] {
      UseBox(&profile->profile->region);
      profile->profile->useSoMax = 0;  // So of this data set lies far above the default 900
    });
    Analyze(profile);
  }

  // the fibers over the directional colour map, the cursor on the seed
  PCD_SelectStudy(tracking->id);
  PCDview_SetChannel(ColourChannel(pcd_app->session.volume));
  PCDview_SetCursor(at, true);
  SaveShot(pcd_views->window, options.shotDir, "views-fibers.png");
  return true;
}
