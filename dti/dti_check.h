// The one check every analysis makes before it touches a data set: the DTI setting must
// fit the volume it points at. Settings come from files, the viewer and the user, and
// the setting operations themselves do not compare an explicit setting with the volume,
// so a ready flag alone does not make a data set safe to read.
#pragma once

#include <string>

#include "dti/dti_data.h"

enum PcdDtiAccess : int {
  PCD_DTI_AT_VOXELS = 0,     // reads whole voxels only
  PCD_DTI_INTERPOLATED = 1,  // reads between voxels: every axis needs two samples
};

// 1 when the data set can be analysed: a volume with positive sizes and channel blocks,
// the ready flag 1, 6 to 129 DWI channels after 0 or more So channels, no more channels
// than the volume holds, every one of them signed 16-bit monochrome, and (for
// interpolated reads) at least two voxels along every axis. Otherwise 0, with one
// "Err: ..." line on stderr; the same line (with its line break) goes to *problem when
// given, for a dialog. Nothing is changed either way.
int PCDdti_CheckDataSetForAnalysis(const PcdDtiData* dti, PcdDtiAccess access,
                                   std::string* problem = nullptr);
