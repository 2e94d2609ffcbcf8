#include "app/loading.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/services/app_state.h"
#include "view/view_context.h"
#include "app/services/dialogs.h"
#include "app/services/status_line.h"
#include "app/services/viewer_link.h"
#include "app/object_commands.h"
#include "app/services/viewer_objects.h"
#include "study/gui/roi_editor.h"
#include "study/gui/study_performer.h"
#include "io/dicom_directory.h"
#include "io/dti_file.h"
#include "io/raw_volume_file.h"

std::string PCD_RecognitionText(const PcdDtiData* dti) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  char text[2048];
  std::snprintf(text, sizeof text, kPcdRecognitionFormat, s.x, s.y, s.z, s.channels, dti->soCount,
                dti->soCount + 1, dti->channelCount, dti->channelCount - dti->soCount,
                static_cast<double>(PCDdti_GetUniformBvalueOfDTI(dti)));
  return text;
}


void PCD_CreateDtiData() {
  PcdAppState* app = pcd_app;
  std::free(app->session.dti);
  app->session.dti = nullptr;
  int32_t count = 0;
  if (app->session.volume != nullptr)
    while (count < app->session.volume->matrixSize->channels && app->session.volume->dataType[count] == SINT16 &&
           app->session.volume->colorFormat[count] == PCD_MONOCHROME)
      ++count;
  app->session.dti = PCDdti_NewDiffusionTensorImageData(app->session.volume, count);
  if (app->session.dti == nullptr) {
    std::fputs("Err: failed to create DTI data\n", stderr);
    return;
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(app->session.dti, count);
  PCDdti_DumpMPGvectorSetting(app->session.dti);
}

void PCD_ShowRecognitionNotice() {
  if (!PCD_MpgReady()) return;
  PCD_ShowNotice(kPcdNoticeTitle, PCD_RecognitionText(pcd_app->session.dti).c_str(), 400, 320);
}

void PCD_ShowMpgNotReadyNotice() { PCD_ShowNotice(kPcdNoticeTitle, kPcdMpgNotReadyText); }

void PCD_UpdatePanels() {
  PcdAppState* app = pcd_app;
  const bool haveVolume = app->session.volume != nullptr;
  if (app->studyPage) gtk_widget_set_sensitive(app->studyPage, haveVolume);
  if (app->roiPage) gtk_widget_set_sensitive(app->roiPage, haveVolume);
  if (haveVolume && app->viewContext) PCD_SetViewScales(app->viewContext, app->session.volume->matrixSize->x);
  if (PCD_MpgReady()) PCD_ShowRecognitionNotice();
}


namespace {

// Takes a read volume as the current one; the voxel size is asked for when the data set
// carries none (voxelSize 0).
void TakeVolume(PcdRawVolumeData* read, float voxelSize = 0.0f) {
  std::fputs("Volume data OK. Replacing.\n", stderr);
  std::free(pcd_app->session.dti);
  pcd_app->session.dti = nullptr;
  PCD_DeleteRawVolumeData(pcd_app->session.volume);
  pcd_app->session.volume = read;
  PCD_CreateDtiData();
  if (pcd_app->session.dti != nullptr && voxelSize > 0.0f) pcd_app->session.dti->reserved = voxelSize;
  if (pcd_app->session.dti != nullptr && !(pcd_app->session.dti->reserved > 0.0f)) {
    std::string value;
    float size = 0.0f;
    // a cancelled dialog, or an answer that is no positive number, keeps what the data had
    if (PCD_AskValue(kPcdNoticeTitle, "voxel size(mm)", "1.0", &value) == kPcdValueOk &&
        std::sscanf(value.c_str(), "%f", &size) == 1 && size > 0.0f) {
      pcd_app->session.dti->reserved = size;
      std::fprintf(stderr, "Voxel size is specified as %f mm.\n", static_cast<double>(size));
    }
  }
}

}  // namespace

void PCD_LoadVolume(int importKind, const char* fileName) {
  PcdAppState* app = pcd_app;
  if (importKind != PCD_IMPORT_DTI_FILE && importKind != PCD_IMPORT_RAW_VOLUME &&
      importKind != PCD_IMPORT_DICOM) {
    PCD_ShowNotice(kPcdNoticeTitle, kPcdNotImplemented);
    return;
  }
  if (PCD_MpgReady() &&
      PCD_AskConfirmation(kPcdNoticeTitle, "Discard current session data?", 240, 100) != kPcdConfirmYes)
    return;
  std::string path = fileName ? fileName : "";
  const PcdDialogKind chooser = importKind == PCD_IMPORT_DICOM ? PcdDialogKind::SelectFolder : PcdDialogKind::OpenFile;
  if (path.empty() && !PCD_ChooseFile(chooser, "Open", nullptr, &path)) return;
  if (importKind == PCD_IMPORT_DICOM) {
    std::string info;
    PcdDicomSeries series;
    PcdRawVolumeData* read = ReadDicomDirectory(path.c_str(), &info, &series);
    if (read == nullptr) {  // the console says why; the current data set stays
      PCD_SetStatus("DICOM import failed.");
      return;
    }
    app->memo = info;
    TakeVolume(read, series.voxelSize);
    if (series.hasDiffusion) {  // the files' own setting replaces the default
      PCD_SetDicomMpgSetting(app->session.dti, series);
      PCDdti_DumpMPGvectorSetting(app->session.dti);
    }
  } else if (importKind == PCD_IMPORT_DTI_FILE) {
    std::string info;
    PcdDtiData* read = ReadDtiFile(path.c_str(), &info);
    if (read == nullptr) return;  // refused: the current data set stays
    std::free(app->session.dti);
    PCD_DeleteRawVolumeData(app->session.volume);
    app->session.dti = read;
    app->session.volume = read->volume;
    app->memo = info;
    PCDdti_DumpMPGvectorSetting(app->session.dti);
  } else {
    std::string info;
    PcdRawVolumeData* read = ReadRawVolumeFile(path.c_str(), &info);
    if (read == nullptr) return;
    app->memo = info;
    TakeVolume(read);
  }
  if (app->roiObjectsShown == 1) PCD_SendObjectGroupToViewer("ROI", PcdObjectGroup{}, app->viewerObjectId);
  std::fputs("ROI cleaned in PELLUCID.\n", stderr);
  PCD_CleanUpObjects();
  PCD_RefreshMemo();
  pcd_viewer_send_volume(app->session.volume);
  PCD_CreateDefaultObjects();
  PCD_UpdatePanels();
  PcdWorkSession& s = app->session;
  s.studies.selectedId = s.studies.items.empty() ? kPcdNoObject : s.studies.items.front()->id;
  s.rois.selectedId = s.rois.items.empty() ? kPcdNoObject : s.rois.items.front()->id;
  PCD_RefreshStudyPerformer();
  PCD_RefreshRoiEditor();
  app->levelSetting = kPcdLevelSettingDefault;
  if (app->session.dti && pcd_viewer_send_voxel_size(app->session.dti->reserved) != 0)
    std::fputs("Warning: Voxel size is not specified in PELLUCID.\n", stderr);
  PCD_SetStatus(" initialized.");
}
