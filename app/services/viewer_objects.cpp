#include "app/services/viewer_objects.h"

#include <cstdio>
#include <map>

#include "app/services/app_state.h"
#include "app/services/status_line.h"
#include "app/services/viewer_link.h"
#include "ipc/ipc.h"
#include "study/roi_edit.h"

namespace {

struct KeptResult {
  std::vector<PcdPolyline> lines;
  bool tubular = false;
};
// The selected half-lines of each study's last fiber run, by study.
std::map<const PcdStudyObject*, KeptResult> g_results;

bool study_exists(const PcdStudyObject* study) {
  for (const auto& s : pcd_app->session.studies.items)
    if (s.get() == study) return true;
  return false;
}

void send_study(const PcdStudyObject* study) {
  if (study->viewerObjectGroup < 0) return;
  const auto kept = g_results.find(study);
  const PcdObjectGroup group = kept != g_results.end() && study->visible == 1
                                   ? PCD_BuildPolylineObjectGroup(kept->second.lines, kept->second.tubular)
                                   : PcdObjectGroup{};
  PCD_SendObjectGroupToViewer(study->label, group, study->viewerObjectGroup);
}

}  // namespace

int PCD_SendObjectGroupToViewer(const char* what, const PcdObjectGroup& group, int32_t groupId) {
  if (pcd_app->ipcLink == nullptr || groupId < 0) return -1;
  std::fprintf(stderr, "Sending object for (%s) with ID (%d) ...", what, groupId);
  std::fflush(stderr);
  if (PCDipc_SendConnectionRequest() != 0) {
    std::fputs("\n", stderr);
    return -1;
  }
  const int sent = PCDipc_SendObjectGroupTo(&group, groupId);
  PCDipc_SendDisconnectionRequest();
  std::fputs(sent == 0 ? "done\n" : "\n", stderr);
  return sent;
}

void PCD_ShowRoi3DObjects() {
  pcd_app->roiObjectsShown = 1;
  PCD_UpdateRoi3DObjects();
}

void PCD_HideRoi3DObjects() {
  pcd_app->roiObjectsShown = 0;
  PCD_SendObjectGroupToViewer("ROI", PcdObjectGroup{}, pcd_app->viewerObjectId);
}

void PCD_UpdateRoi3DObjects() {
  if (pcd_app->roiObjectsShown != 1) return;
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(&pcd_app->session);
  PCD_SendObjectGroupToViewer("ROI", PCD_BuildRoiObjectGroup(&pcd_app->session.rois, &size),
                              pcd_app->viewerObjectId);
}

void PCD_AutoUpdateRoi3DObjects() {
  if (pcd_app->roiAutoUpdate == 1) PCD_UpdateRoi3DObjects();
}

int32_t PCD_AllocateStudyObjectGroup() {
  const int32_t id = pcd_viewer_allocate_object_group();
  if (id >= 0) std::fprintf(stderr, "Assigned object group ID: %d\n", id);
  else std::fputs("Faile in PCDipc_TransferObjectGroup()\n", stderr);
  return id;
}

void PCD_TakeStudyFiberResult(const PcdStudyObject* study, const PcdFibeTrakBuffer* buffer) {
  KeptResult kept;
  kept.lines = PCD_GetSelectedHalfLines(buffer);
  kept.tubular = study->tract && study->tract->primitive == kPcdPrimitiveTubular;
  char status[128];
  std::snprintf(status, sizeof status, "Seed:%d, Lines:%d/%d", buffer->seedCount,
                static_cast<int>(kept.lines.size()), 2 * buffer->lineCount);
  PCD_SetStatus(status);
  g_results[study] = std::move(kept);
  send_study(study);
}

void PCD_UpdateStudy3DObjects() {
  PCD_ForgetRemovedStudyResults();
  for (const auto& study : pcd_app->session.studies.items) send_study(study.get());
}

void PCD_ForgetRemovedStudyResults() {
  for (auto it = g_results.begin(); it != g_results.end();)
    it = study_exists(it->first) ? std::next(it) : g_results.erase(it);
}

std::vector<PcdPolyline> PCD_GetVisibleTrackLines() {
  PCD_ForgetRemovedStudyResults();
  std::vector<PcdPolyline> lines;
  for (const auto& [study, kept] : g_results)
    if (study->visible == 1) lines.insert(lines.end(), kept.lines.begin(), kept.lines.end());
  return lines;
}
