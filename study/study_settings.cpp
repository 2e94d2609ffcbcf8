#include "study/study_settings.h"

#include <cstdio>
#include <cstring>

namespace {

template <size_t N>
constexpr PcdChoiceTable table(const char* title, const PcdChoice (&choices)[N]) {
  return {title, choices, static_cast<int32_t>(N)};
}

const PcdChoice kStudyTypes[] = {
    {PCD_STUDY_FIBER_TRACKING, "tracking", "Fiber tracking"},
    {PCD_STUDY_DIFFUSION_PROFILE, "profile", "Diffusion profile"},
    {PCD_STUDY_VOXEL_STATISTICS, "statistics", "Voxel statistics"},
    {PCD_STUDY_FIBER_MODELING, "modeling", "Fiber modeling"},
};
const PcdChoice kSchemes[] = {
    {PCD_TRACK_BY_E1, "basic", "basic"},
    {PCD_TRACK_BY_ANISOTROPIC_COMPOSITION, "advanced", "advanced"},
};
const PcdChoice kSeedDensities[] = {
    {kPcdSeedDensityNormal, "normal", "normal"},
    {kPcdSeedDensityHigh, "high", "high"},
};
const PcdChoice kSeedSources[] = {
    {kPcdSeedFromSphere, "sphere", "Sphere"},
    {kPcdSeedFromFreehand, "freehand", "Freehand"},
    {kPcdSeedFromList, "listed", "Listed"},
    {kPcdSeedFromFreehandToo, "freehand2", "Freehand"},
};
const PcdChoice kPrimitives[] = {
    {kPcdPrimitiveHairline, "hairline", "hairline"},
    {kPcdPrimitiveTubular, "tubular", "tubular"},
};
const PcdChoice kFiberColorings[] = {
    {kPcdColorAnisotropy, "anisotropy", "anisotropy coding"},
    {kPcdColorDistance, "distance", "distance coding"},
    {kPcdColorDirection, "directional", "directional coding"},
    {kPcdColorUnique, "unique", "unique color"},
    {kPcdColorUniform, "uniform", "uniform color"},
};
const PcdChoice kTractRegions[] = {
    {kPcdRegionSphere, "sphere", "Sphere"},
    {kPcdRegionFreehand, "freehand", "Freehand"},
    {kPcdRegionListed, "listed", "Listed"},
};
const PcdChoice kVoxelRegions[] = {
    {kPcdRegionBoxVoi, "box", "Box VOI"},
    {kPcdRegionSphere, "sphere", "Sphere"},
    {kPcdRegionFreehand, "freehand", "Freehand"},
    {kPcdRegionListed, "listed", "Listed"},  // the ROIs ticked in the region's list
};
const PcdChoice kSymbolDensities[] = {
    {kPcdSymbolDensityNormal, "normal", "normal"},
    {kPcdSymbolDensityHigh, "high", "high"},
};
const PcdChoice kProfilePrimitives[] = {
    {978, "adc-profile", "ADC profile primitive"},
    {354, "ellipsoid", "tensor ellipsoid"},
    {1234, "envelope", "envelope surface"},
    {2468, "star", "star"},
};
const PcdChoice kProfileColorings[] = {
    {kPcdColorAnisotropy, "anisotropy", "anisotropy coding"},
    {kPcdColorDirection, "directional", "directional coding"},
};
const PcdChoice kEmphasis[] = {
    {kPcdOptionOff, "off", "off"},
    {kPcdOptionOn, "on", "Anisotropy emphasis"},
};
const PcdChoice kStatisticsColorings[] = {
    {kPcdColorDirection, "direction", "direction coding"},
    {kPcdColorAnisotropy, "anisotropy", "anisotropy coding"},
    {kPcdColorDistance, "distance", "distance coding"},
    {kPcdColorUniform, "uniform", "uniform"},
};

}  // namespace

const PcdChoiceTable kPcdStudyTypeChoices = table("study type", kStudyTypes);
const PcdChoiceTable kPcdTrackingSchemeChoices = table("Tracking scheme", kSchemes);
const PcdChoiceTable kPcdSeedDensityChoices = table("Seed density", kSeedDensities);
const PcdChoiceTable kPcdSeedSourceChoices = table("seed source", kSeedSources);
const PcdChoiceTable kPcdPrimitiveTypeChoices = table("Primitive type", kPrimitives);
const PcdChoiceTable kPcdFiberColoringChoices = table("Coloring", kFiberColorings);
const PcdChoiceTable kPcdTractRegionChoices = table("region", kTractRegions);
const PcdChoiceTable kPcdVoxelRegionChoices = table("region", kVoxelRegions);
const PcdChoiceTable kPcdSymbolDensityChoices = table("Symbol density", kSymbolDensities);
const PcdChoiceTable kPcdProfilePrimitiveChoices = table("primitive", kProfilePrimitives);
const PcdChoiceTable kPcdProfileColoringChoices = table("Coloring", kProfileColorings);
const PcdChoiceTable kPcdEmphasisChoices = table("Anisotropy emphasis", kEmphasis);
const PcdChoiceTable kPcdStatisticsColoringChoices = table("Coloring", kStatisticsColorings);

const PcdChoice* PCD_FindChoiceByCode(const PcdChoiceTable& t, int32_t code) {
  for (int32_t i = 0; i < t.count; ++i)
    if (t.choices[i].code == code) return &t.choices[i];
  return nullptr;
}

const PcdChoice* PCD_FindChoiceByName(const PcdChoiceTable& t, const char* name) {
  for (int32_t i = 0; i < t.count; ++i)
    if (std::strcmp(t.choices[i].name, name) == 0) return &t.choices[i];
  return nullptr;
}

const char* PCD_ChoiceName(const PcdChoiceTable& t, int32_t code, char* scratch,
                           size_t scratchSize) {
  if (const PcdChoice* c = PCD_FindChoiceByCode(t, code)) return c->name;
  std::snprintf(scratch, scratchSize, "code %d", code);
  return scratch;
}

size_t PCD_GetSettingsBlockSize(int32_t type) {
  switch (type) {
    case PCD_STUDY_FIBER_TRACKING:
    case PCD_STUDY_FIBER_MODELING: return kPcdTractSettingsBytes;
    case PCD_STUDY_DIFFUSION_PROFILE: return kPcdProfileSettingsBytes;
    case PCD_STUDY_VOXEL_STATISTICS: return kPcdStatisticsSettingsBytes;
  }
  return 0;
}
