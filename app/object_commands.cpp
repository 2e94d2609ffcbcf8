#include "app/object_commands.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/services/status_line.h"
#include "app/services/viewer_link.h"
#include "app/services/viewer_objects.h"
#include "dti/tensor.h"
#include "io/object_files.h"
#include "io/session_file.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "study/roi_edit.h"

namespace {

PcdWorkSession* session() { return &pcd_app->session; }

// Everything the pages hold goes into the objects before they are saved.
void store_pages() {
  PCD_StoreRoiEditor();
  PCD_StoreStudyPanel();
  session()->information = pcd_app->memo;
}

// Studies read from files get an object group of their own in the viewer.
void give_groups_to_new_studies() {
  for (auto& study : session()->studies.items)
    if (study->viewerObjectGroup < 0) study->viewerObjectGroup = PCD_AllocateStudyObjectGroup();
}

void send_data_set_to_viewer(PcdWorkSession* s) {
  PCD_CleanUpObjects();  // the discarded session's objects go before the file's arrive
  pcd_viewer_send_volume(s->volume);
  if (s->dti == nullptr || pcd_viewer_send_voxel_size(s->dti->reserved) != 0)
    std::fputs("Warning: Voxel size is not specified in PELLUCID.\n", stderr);
}

void send_channel(PcdRawVolumeData* volume) {
  std::fputs("Sending a computational channel to PELLUCID...", stderr);
  std::fflush(stderr);
  pcd_viewer_send_channel(volume, 0);
  std::fputs("done.\n", stderr);
}

}  // namespace

void PCD_ConnectSessionToViewer() {
  session()->studies.removeViewerObject = [](int32_t group) { pcd_viewer_remove_object(group); };
  session()->dataSetReplaced = send_data_set_to_viewer;
}

void PCD_CreateDefaultObjects() {
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session());
  for (int32_t type : {PCD_STUDY_FIBER_TRACKING, PCD_STUDY_DIFFUSION_PROFILE, PCD_STUDY_VOXEL_STATISTICS})
    if (PcdStudyObject* study = PCD_NewStudyObject(&session()->studies, type, &size))
      study->viewerObjectGroup = PCD_AllocateStudyObjectGroup();
  for (int32_t type : {PCD_ROI_SPHERICAL, PCD_ROI_FREEHAND, PCD_ROI_VOXELGROUP})
    PCD_NewRoiObject(&session()->rois, type, &size);
}

void cmd_open_work_data(gpointer, guint, GtkWidget*) {
  if (PCD_MpgReady() &&
      PCD_AskConfirmation(kPcdNoticeTitle, "Discard current session data?", 240, 100) != kPcdConfirmYes)
    return;
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::OpenFile, "Open work data", nullptr, &path)) return;
  if (ReadWorkSessionFile(session(), path.c_str()) != 0) return;  // refused: nothing changed
  pcd_app->memo = session()->information;
  PCD_RefreshMemo();
  give_groups_to_new_studies();
  PcdWorkSession* s = session();
  s->studies.selectedId = s->studies.items.empty() ? kPcdNoObject : s->studies.items.front()->id;
  s->rois.selectedId = s->rois.items.empty() ? kPcdNoObject : s->rois.items.front()->id;
  PCD_RefreshStudyPerformer();
  PCD_AnnounceStudyRois();  // the listed ROIs are locked; refreshes the ROI editor
  PCD_SetStatus("Session data loaded.");
}

void cmd_save_work_data(gpointer, guint, GtkWidget*) {
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::SaveFile, "Save work data", "work_session.qws", &path)) return;
  store_pages();
  if (WriteWorkSessionFile(session(), path.c_str()) == 0) PCD_SetStatus("Session data saved.");
}

void cmd_import_study_object(gpointer, guint, GtkWidget*) {
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::OpenFile, "Study object", nullptr, &path)) return;
  PCD_StoreStudyPanel();
  if (ReadStudyObjectFile(session(), path.c_str()) != 0) return;
  give_groups_to_new_studies();
  session()->studies.selectedId = session()->studies.items.back()->id;
  PCD_RefreshStudyPerformer();
  PCD_AnnounceStudyRois();
}

void cmd_import_roi_object(gpointer, guint, GtkWidget*) {
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::OpenFile, "ROI object", nullptr, &path)) return;
  PCD_StoreRoiEditor();
  if (ReadRoiObjectFile(session(), path.c_str()) != 0) return;
  session()->rois.selectedId = session()->rois.items.back()->id;
  PCD_RefreshRoiEditor();
  PCD_RefreshStudyPerformer();  // the region pages list the new ROI
  PCD_UpdateRoi3DObjects();
}

void cmd_export_study_object(gpointer, guint, GtkWidget*) {
  if (PCD_GetSelectedStudyObject(&session()->studies) == nullptr) return;
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::SaveFile, "Study object", "study.obj", &path)) return;
  store_pages();
  WriteStudyObjectFile(session(), path.c_str());
}

void cmd_export_roi_object(gpointer, guint, GtkWidget*) {
  if (PCD_GetSelectedRoiObject(&session()->rois) == nullptr) return;
  std::string path;
  if (!PCD_ChooseFile(PcdDialogKind::SaveFile, "ROI object", "roi.obj", &path)) return;
  store_pages();
  WriteRoiObjectFile(session(), path.c_str());
}

void cmd_roi_3d_hide(gpointer, guint, GtkWidget*) { PCD_HideRoi3DObjects(); }

void cmd_roi_3d_show(gpointer, guint, GtkWidget*) {
  PCD_StoreRoiEditor();
  PCD_ShowRoi3DObjects();
}

void cmd_voxelize(gpointer, guint kind, GtkWidget*) {
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session());
  if (size.x <= 0 || size.y <= 0 || size.z <= 0) return;
  const std::vector<PcdPolyline> lines = PCD_GetVisibleTrackLines();
  std::fprintf(stderr, "Voxelizing %d visible tracklines\n", static_cast<int>(lines.size()));
  if (kind == PCD_VOXELIZE_VOXELGROUP) {
    const std::vector<uint32_t> counts = PCD_CountLinesPerVoxel(lines, &size);
    PcdRoiObject* roi = PCD_NewRoiFromEditor(PCD_ROI_VOXELGROUP);
    if (roi == nullptr || PCD_EnsureWholeVolumeVoxelGroup(roi, &size) != 0) return;
    std::transform(counts.begin(), counts.end(), roi->voxelGroup->data.begin(),
                   [](uint32_t c) { return static_cast<uint8_t>(c != 0); });
    PCD_SetRoiLabel(roi, kPcdVoxelizedLabel);
    PCD_RefreshRoiEditor();
    PCD_UpdateRoi3DObjects();
    return;
  }
  const bool color = kind == PCD_VOXELIZE_COLOR;
  PcdRawVolumeData* volume = PCD_NewSingleChannelRawVolumeData(&size, color ? 4 : 3, color ? 2 : 0);
  if (volume == nullptr) return;
  if (color) {
    const std::vector<uint32_t> rgba = PCD_DirectionColorsPerVoxel(lines, &size);
    std::memcpy(volume->data[0], rgba.data(), 4 * rgba.size());
  } else {
    const std::vector<uint32_t> counts = PCD_CountLinesPerVoxel(lines, &size);
    auto* out = static_cast<int16_t*>(volume->data[0]);
    for (size_t i = 0; i < counts.size(); ++i) out[i] = static_cast<int16_t>(std::min<uint32_t>(counts[i], 32767));
  }
  send_channel(volume);
  PCD_DeleteRawVolumeData(volume);
}

std::string PCD_DescribeTensorAtVoxel(const PcdDtiData* dti, const PcdIntVector3D& v) {
  if (dti == nullptr || dti->isReady != 1 || dti->volume == nullptr) return "";
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  if (v.x < 0 || v.y < 0 || v.z < 0 || v.x >= s.x || v.y >= s.y || v.z >= s.z) return "";
  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  if (record == nullptr) return "";
  char text[160];
  if (PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, record, &v) == 0) {
    std::snprintf(text, sizeof text, "(%d,%d,%d) no tensor", v.x, v.y, v.z);
  } else {
    std::snprintf(text, sizeof text, "(%d,%d,%d) FA:%4.3f ADC:%4.3f L:%4.3f/%4.3f/%4.3f (x1k)", v.x, v.y, v.z,
                  static_cast<double>(PCDdti_GetFA(record)), 1000.0 * PCDdti_GetADC(record),
                  1000.0 * PCDdti_GetLambda1(record), 1000.0 * PCDdti_GetLambda2(record),
                  1000.0 * PCDdti_GetLambda3(record));
  }
  PCDdti_DeleteDiffusionTensorData(record);
  return text;
}

void PCD_ServiceRealtimeAnalysis() {
  PcdIntVector3D position{0, 0, 0};
  if (pcd_app->realtimeAnalysis != 1 || pcd_viewer_get_position(&position) != 0) return;
  const std::string text = PCD_DescribeTensorAtVoxel(session()->dti, position);
  if (!text.empty()) PCD_SetStatus(text.c_str());
}

void PCD_CleanUpObjects() {
  PCD_CleanUpStudyObjects(&pcd_app->session.studies);  // studies before the ROIs they list
  PCD_CleanUpRoiObjects(&pcd_app->session.rois);
  PCD_ForgetRemovedStudyResults();
  PCD_ForgetShownObjects();  // ids restart at 0: the pages must not store into a new object
  std::fputs("Clean-up old objects OK\n", stderr);
}
