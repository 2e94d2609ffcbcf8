// quorix-batch session: what a work session file holds.
#include <cstdio>
#include <cstring>
#include <string>

#include "io/session_file.h"
#include "tools/batch/batch.h"

namespace {

const char* StatusText(int32_t analysed) {
  switch (analysed) {
    case 0: return "not analysed";
    case 1: return "analysed";
    case 2: return "analysed in an earlier session";
  }
  return "unknown status";
}

std::string Label(const char* label, size_t size) {
  return std::string(label, strnlen(label, size));
}

std::string Name(const PcdChoiceTable& table, int32_t code) {
  char scratch[32];
  return PCD_ChoiceName(table, code, scratch, sizeof scratch);
}

void PrintRegion(const char* role, const PcdStudyRegion& r, const PcdChoiceTable& kinds) {
  std::printf("    %s: %s, %s", role, r.use == kPcdRegionInUse ? "used" : "not used",
              Name(kinds, r.kind).c_str());
  if (r.shape && r.kind == kPcdRegionSphere)
    std::printf(", centre (%g, %g, %g) radius %g", r.shape->centre.x, r.shape->centre.y,
                r.shape->centre.z, r.shape->radius);
  if (r.shape && r.kind == kPcdRegionFreehand)
    std::printf(", %zu points", r.shape->points.size());
  if (r.idCount > 0) {
    std::printf(", ROIs");
    for (int32_t i = 0; i < r.idCount; ++i) std::printf(" %u", r.ids[i]);
  }
  std::printf("\n");
}

void PrintLimit(const char* name, int32_t enabled, float value) {
  std::printf("    stop if %s %g (%s)\n", name, value, enabled == 1 ? "on" : "off");
}

void PrintTract(const PcdTractSettings& t) {
  PrintLimit("FA <", t.limits.useFAmin, t.limits.FAmin);
  PrintLimit("ADC >", t.limits.useADCmax, t.limits.ADCmax);
  PrintLimit("So <", t.limits.useSoMin, t.limits.SoMin);
  PrintLimit("So >", t.limits.useSoMax, t.limits.SoMax);
  PrintLimit("angle (deg.) >", t.limits.useAngleMax, t.limits.AngleMax);
  std::printf("    node limit %d, step %g voxels, scheme %s\n", t.nodeLimit, t.step,
              Name(kPcdTrackingSchemeChoices, t.scheme).c_str());
  std::printf("    seed density %s, seeds from %s, primitive %s, coloring %s\n",
              Name(kPcdSeedDensityChoices, t.seedDensity).c_str(),
              Name(kPcdSeedSourceChoices, t.seedSource).c_str(),
              Name(kPcdPrimitiveTypeChoices, t.primitive).c_str(),
              Name(kPcdFiberColoringChoices, t.coloring).c_str());
  const char* roles[] = {"seed", "target", "avoidance"};
  for (int i = 0; i < 3; ++i) PrintRegion(roles[i], t.regions[i], kPcdTractRegionChoices);
}

void PrintProfile(const PcdProfileSettings& p) {
  std::printf("    show if %g < FA < %g, %g < ADC < %g, %g < So < %g\n", p.FAmin, p.FAmax,
              p.ADCmin, p.ADCmax, p.SoMin, p.SoMax);
  std::printf("    symbol density %s, primitive %s, coloring %s, anisotropy emphasis %s\n",
              Name(kPcdSymbolDensityChoices, p.symbolDensity).c_str(),
              Name(kPcdProfilePrimitiveChoices, p.primitive).c_str(),
              Name(kPcdProfileColoringChoices, p.coloring).c_str(),
              Name(kPcdEmphasisChoices, p.emphasis).c_str());
  PrintRegion("region", p.region, kPcdVoxelRegionChoices);
}

void PrintRoi(const PcdRoiObject& roi) {
  const PcdRoiTypeInfo* type = PCD_FindRoiType(roi.type);
  std::printf("ROI %u: %s \"%s\", %s, %s\n", roi.id, type ? type->name : "?",
              Label(roi.label, sizeof roi.label).c_str(), roi.status == 1 ? "locked" : "free",
              roi.visible == 1 ? "visible" : "hidden");
  if (roi.type == PCD_ROI_SPHERICAL)
    std::printf("    centre (%g, %g, %g) radius %g\n", roi.shape->centre.x, roi.shape->centre.y,
                roi.shape->centre.z, roi.shape->radius);
  if (roi.type == PCD_ROI_FREEHAND) std::printf("    %zu points\n", roi.shape->points.size());
  if (const PcdVoxelGroup* g = roi.voxelGroup.get()) {
    int64_t n = 0;
    if (PCD_GetVoxelGroupDataSize(&g->size, kPcdVoxelGroupOneByte) > 0)
      for (int32_t z = 0; z < g->size.z; ++z)
        for (int32_t y = 0; y < g->size.y; ++y)
          for (int32_t x = 0; x < g->size.x; ++x) n += PCD_GetVoxelOfVoxelGroup(g, x, y, z);
    std::printf("    voxel group at (%d, %d, %d), %d x %d x %d, %lld voxels set\n", g->origin.x,
                g->origin.y, g->origin.z, g->size.x, g->size.y, g->size.z,
                static_cast<long long>(n));
  }
}

void PrintStudy(const PcdStudyObject& s) {
  std::printf("Study %u: %s \"%s\", %s, %s\n", s.id, Name(kPcdStudyTypeChoices, s.type).c_str(),
              Label(s.label, sizeof s.label).c_str(), StatusText(s.analysed),
              s.visible == 1 ? "visible" : "hidden");
  if (s.tract) PrintTract(*s.tract);
  if (s.profile) PrintProfile(*s.profile);
  if (s.statistics) {
    std::printf("    coloring %s\n",
                Name(kPcdStatisticsColoringChoices, s.statistics->coloring).c_str());
    PrintRegion("region", s.statistics->region, kPcdVoxelRegionChoices);
  }
}

int run_session(BatchArgs& args) {
  if (!args.Finish(2, 2)) return kBatchUsageError;
  if (args.positional()[0] != "info") {
    args.Fail("unknown subcommand '" + args.positional()[0] + "' (try 'info')");
    return kBatchUsageError;
  }
  PcdWorkSession session;
  if (ReadWorkSessionFile(&session, args.positional()[1].c_str()) != 0) return kBatchFailed;
  const PcdIntSize4D& size = *session.volume->matrixSize;
  std::printf("%s", session.information.c_str());
  if (!session.information.empty() && session.information.back() != '\n') std::printf("\n");
  std::printf("Matrix: %d x %d x %d, %d channels (%d DTI channels, %d So)\n", size.x, size.y,
              size.z, size.channels, session.dti->channelCount, session.dti->soCount);
  std::printf("ROIs: %zu, studies: %zu\n", session.rois.items.size(),
              session.studies.items.size());
  for (const auto& roi : session.rois.items) PrintRoi(*roi);
  for (const auto& study : session.studies.items) PrintStudy(*study);
  return kBatchOk;
}

}  // namespace

extern const BatchCommand kBatchSessionCommand = {
    "session", "print what a work session file holds",
    "Usage: quorix-batch session info FILE\n"
    "\n"
    "Reads the work session file FILE as the desktop program does (its console lines go to\n"
    "standard error) and prints on standard output the data set's information text and\n"
    "matrix, then every ROI (id, type, label, status, visibility, geometry) and every study\n"
    "(id, type, label, status, visibility and settings, choices by name).\n",
    run_session};
