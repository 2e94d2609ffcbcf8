#include "dti/dti_check.h"

#include <cstdio>

namespace {

std::string Format(const char* format, int a, int b = 0, int c = 0, int d = 0) {
  char line[256];
  std::snprintf(line, sizeof line, format, a, b, c, d);
  return line;
}

// The first thing wrong with the data set, or "" when it fits.
std::string FindProblem(const PcdDtiData* dti, PcdDtiAccess access) {
  if (dti == nullptr || dti->volume == nullptr || dti->volume->matrixSize == nullptr ||
      dti->volume->data == nullptr || dti->volume->dataType == nullptr ||
      dti->volume->colorFormat == nullptr)
    return "Err: no DTI data set is loaded\n";
  if (dti->isReady != 1) return "Err: MPG setting NOT ready. Analysis NOT executable.\n";
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  if (s.x < 1 || s.y < 1 || s.z < 1 || s.channels < 1)
    return Format("Err: the volume size %d x %d x %d x %d is not valid\n", s.x, s.y, s.z,
                  s.channels);
  const int32_t n = dti->channelCount, so = dti->soCount;
  if (so < 0 || n > kPcdDtiMaxChannels || n - so < kPcdDtiMinDwi || n - so > kPcdDtiMaxDwi)
    return Format("Err: the MPG setting has %d channels with %d So; 6 to 129 DWI channels are needed\n",
                  n, so);
  if (n > s.channels)
    return Format("Err: the MPG setting describes %d channels but the volume holds %d\n", n,
                  s.channels);
  for (int32_t c = 0; c < n; ++c) {
    if (dti->volume->data[c] == nullptr || dti->volume->dataType[c] != SINT16 ||
        dti->volume->colorFormat[c] != PCD_MONOCHROME)
      return Format("Err: channel %d is not signed 16-bit monochrome as DTI channels must be\n",
                    c + 1);
  }
  if (access == PCD_DTI_INTERPOLATED && (s.x < 2 || s.y < 2 || s.z < 2))
    return Format("Err: the volume is %d x %d x %d; this analysis needs at least 2 voxels along every axis\n",
                  s.x, s.y, s.z);
  return "";
}

}  // namespace

int PCDdti_CheckDataSetForAnalysis(const PcdDtiData* dti, PcdDtiAccess access,
                                   std::string* problem) {
  std::string found = FindProblem(dti, access);
  if (problem != nullptr) *problem = found;
  if (found.empty()) return 1;
  std::fputs(found.c_str(), stderr);
  return 0;
}
