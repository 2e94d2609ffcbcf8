#include "app/services/notices.h"

std::function<void()> pcd_notice_study_result;
std::function<bool(PcdIntVector3D*, PcdIntSize3D*)> pcd_notice_box_voi;
std::function<void(PcdRoiObject*)> pcd_view_roi_edited;
std::function<void()> pcd_view_rois_added;
std::function<void()> pcd_notice_rois_changed;
std::function<void()> pcd_notice_studies_changed;
std::function<void()> pcd_view_study_edit_begins;
std::function<void(PcdStudyObject*)> pcd_view_study_edited;

void PCD_NoticeStudyResult() {
  if (pcd_notice_study_result) pcd_notice_study_result();
}

bool PCD_NoticeBoxVoi(PcdIntVector3D* origin, PcdIntSize3D* size) {
  return pcd_notice_box_voi && pcd_notice_box_voi(origin, size);
}

void PCD_NoticeRoisChanged() {
  if (pcd_notice_rois_changed) pcd_notice_rois_changed();
}

void PCD_NoticeStudiesChanged() {
  if (pcd_notice_studies_changed) pcd_notice_studies_changed();
}
