// The state that a work session file saves and restores: the data set (volume and DTI
// record), its information text and the ROI and study lists. The desktop program keeps
// one; the command-line tool makes one per session file it reads.
#pragma once

#include <cstdlib>
#include <functional>
#include <string>

#include "dti/dti_data.h"
#include "study/roi_object.h"
#include "study/study_object.h"
#include "vol/raw_volume.h"

constexpr size_t kPcdInformationBytes = 5120;

struct PcdWorkSession {
  PcdRawVolumeData* volume = nullptr;  // owned
  PcdDtiData* dti = nullptr;           // owned (std::free); points at volume
  std::string information;             // the data set's information text
  PcdRoiList rois;
  PcdStudyList studies;
  // Called after a session file replaced the data set (the desktop program sends the
  // volume and the voxel size to the viewer and refreshes the views); may be empty.
  std::function<void(PcdWorkSession*)> dataSetReplaced;

  PcdWorkSession() = default;
  PcdWorkSession(const PcdWorkSession&) = delete;
  PcdWorkSession& operator=(const PcdWorkSession&) = delete;
  ~PcdWorkSession() {
    studies.items.clear();  // studies go before the ROIs they refer to
    rois.items.clear();
    std::free(dti);
    PCD_DeleteRawVolumeData(volume);
  }
};

// Matrix size x, y, z of the session's volume; zeros without one.
inline PcdIntSize3D PCD_GetSessionMatrixSize(const PcdWorkSession* session) {
  if (session->volume == nullptr || session->volume->matrixSize == nullptr) return {0, 0, 0};
  const PcdIntSize4D& s = *session->volume->matrixSize;
  return {s.x, s.y, s.z};
}
