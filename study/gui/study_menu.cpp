// The "/Study" menu: one row per item-factory entry, separators included, and its
// commands. There is no entry for a new fiber modeling study: such studies come from
// study object files.
#include <cstring>

#include "app/services/app_state.h"
#include "app/services/viewer_objects.h"
#include "study/gui/study_performer.h"
#include "view/fiber_overlay.h"
#include "view/glyph_overlay.h"
#include "app/services/notices.h"

namespace {

constexpr PcdMenuKind kItem = PcdMenuKind::Item;
constexpr PcdMenuKind kBranch = PcdMenuKind::Branch;
constexpr PcdMenuKind kSep = PcdMenuKind::Separator;

PcdStudyList* studies() { return &pcd_app->session.studies; }

void cmd_study_new(gpointer, guint type, GtkWidget*) { PCD_NewStudyFromPerformer(static_cast<int32_t>(type)); }

void cmd_study_duplicate(gpointer, guint, GtkWidget*) {
  PcdStudyObject* source = PCD_GetSelectedStudyObject(studies());
  if (source == nullptr) return;
  PCD_StoreStudyPanel();
  PcdStudyPerformer* p = PCD_GetStudyPerformer();
  if (p != nullptr) p->shownId = kPcdNoObject;  // the new study's panel is not stored into
  const uint16_t sourceId = source->id;
  PcdStudyObject* copy = PCD_NewStudyFromPerformer(source->type);
  if (copy != nullptr) PCD_CopyStudyObject(copy, PCD_FindStudyObject(studies(), sourceId));
  PCD_RefreshStudyPerformer();
}

void cmd_study_delete(gpointer, guint, GtkWidget*) {
  PcdStudyObject* study = PCD_GetSelectedStudyObject(studies());
  if (study == nullptr) return;
  const uint16_t id = study->id;
  PCD_DeleteStudyObjectById(studies(), id);
  PCD_ForgetRemovedStudyResults();
  if (PCD_FindStudyObject(studies(), id) == nullptr) {  // gone from the slice views too
    PCDview_DropStudyFibers(id);
    PCDview_DropStudyGlyphs(id);
    PCD_NoticeStudyResult();
  }
  PCD_RefreshStudyPerformer();
}

void cmd_study_analyze(gpointer, guint action, GtkWidget*) {
  if (action == 0) {
    PCD_AnalyzeSelectedStudy(true);
    return;
  }
  PCD_StoreStudyPanel();
  PCD_AnalyzeAllStudies(studies(), action == 2, [](PcdStudyObject*) { PCD_AnalyzeSelectedStudy(false); });
  PCD_RefreshStudyPerformer();
}

// action: command * 4 + study type
void cmd_study_visibility(gpointer, guint action, GtkWidget*) {
  PCD_StoreStudyPanel();
  PCD_SetStudyVisibility(studies(), static_cast<PcdVisibilityCommand>(action / 4), static_cast<int32_t>(action % 4));
  PCD_RefreshStudyPerformer();
  PCD_UpdateStudy3DObjects();
}

void cmd_study_preset_label(gpointer, guint which, GtkWidget*) { PCD_SetStudyLabelEntry(kPcdStudyPresetLabels[which]); }

void cmd_study_summary(gpointer, guint restore, GtkWidget*) {
  PcdStudyObject* study = PCD_GetSelectedStudyObject(studies());
  if (study == nullptr) return;
  if (restore) PCD_SetSummaryPageText(PCD_GetStudySummary(study));
  else PCD_SetStudySummary(study, PCD_GetSummaryPageText());  // cut to 10,240 characters
}

constexpr guint vis(PcdVisibilityCommand command, int32_t type = 0) {
  return static_cast<guint>(command) * 4 + static_cast<guint>(type);
}
constexpr guint kTracking = PCD_STUDY_FIBER_TRACKING;
constexpr guint kProfile = PCD_STUDY_DIFFUSION_PROFILE;
constexpr guint kStatistics = PCD_STUDY_VOXEL_STATISTICS;

}  // namespace

const PcdMenuEntry kPcdStudyMenu[kPcdStudyMenuEntryCount] = {
    {"/Study", nullptr, kBranch, nullptr, 0, nullptr},
    {"/Study/New/Fiber tracking", nullptr, kItem, cmd_study_new, kTracking, nullptr},
    {"/Study/New/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/New/Diffusion profile", nullptr, kItem, cmd_study_new, kProfile, nullptr},
    {"/Study/New/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/New/Voxel statistics", nullptr, kItem, cmd_study_new, kStatistics, nullptr},
    {"/Study/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Duplicate", nullptr, kItem, cmd_study_duplicate, 0, nullptr},
    {"/Study/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Delete", nullptr, kItem, cmd_study_delete, 0, nullptr},
    {"/Study/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Special/Analyze and dump result", nullptr, kItem, cmd_study_analyze, 0, nullptr},
    {"/Study/Special/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Special/Analyze all studies", nullptr, kItem, cmd_study_analyze, 1, nullptr},
    {"/Study/Special/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Special/Analyze all studies but done", nullptr, kItem, cmd_study_analyze, 2, nullptr},
    {"/Study/sep4", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Show/All", nullptr, kItem, cmd_study_visibility, vis(PCD_SHOW_ALL), nullptr},
    {"/Study/Visibility/Show/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Show/Only/Fiber tracking", nullptr, kItem, cmd_study_visibility,
     vis(PCD_SHOW_ONLY_TYPE, kTracking), nullptr},
    {"/Study/Visibility/Show/Only/Diffusion profile", nullptr, kItem, cmd_study_visibility,
     vis(PCD_SHOW_ONLY_TYPE, kProfile), nullptr},
    {"/Study/Visibility/Show/Only/Voxel statistics", nullptr, kItem, cmd_study_visibility,
     vis(PCD_SHOW_ONLY_TYPE, kStatistics), nullptr},
    {"/Study/Visibility/Show/Only/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Show/Only/Selected", nullptr, kItem, cmd_study_visibility, vis(PCD_SHOW_ONLY_SELECTED),
     nullptr},
    {"/Study/Visibility/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Hide/All", nullptr, kItem, cmd_study_visibility, vis(PCD_HIDE_ALL), nullptr},
    {"/Study/Visibility/Hide/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Hide/Only/Fiber tracking", nullptr, kItem, cmd_study_visibility,
     vis(PCD_HIDE_ONLY_TYPE, kTracking), nullptr},
    {"/Study/Visibility/Hide/Only/Diffusion profile", nullptr, kItem, cmd_study_visibility,
     vis(PCD_HIDE_ONLY_TYPE, kProfile), nullptr},
    {"/Study/Visibility/Hide/Only/Voxel statistics", nullptr, kItem, cmd_study_visibility,
     vis(PCD_HIDE_ONLY_TYPE, kStatistics), nullptr},
    {"/Study/Visibility/Hide/Only/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Hide/Only/Selected", nullptr, kItem, cmd_study_visibility, vis(PCD_HIDE_ONLY_SELECTED),
     nullptr},
    {"/Study/Visibility/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Visibility/Invert", nullptr, kItem, cmd_study_visibility, vis(PCD_INVERT_VISIBILITY), nullptr},
    {"/Study/sep5", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Preset labels/L. Pyramidal Tract", nullptr, kItem, cmd_study_preset_label, 0, nullptr},
    {"/Study/Preset labels/R. Pyramidal Tract", nullptr, kItem, cmd_study_preset_label, 1, nullptr},
    {"/Study/Preset labels/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Preset labels/Corpse Callosum", nullptr, kItem, cmd_study_preset_label, 2, nullptr},
    {"/Study/sep6", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Summary string/Record current", nullptr, kItem, cmd_study_summary, 0, nullptr},
    {"/Study/Summary string/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Study/Summary string/Restore", nullptr, kItem, cmd_study_summary, 1, nullptr},
};
