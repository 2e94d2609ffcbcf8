#include "study/study_runner.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "dti/dti_check.h"
#include "dti/diffusion_profile.h"
#include "fiber/tracking.h"
#include "io/file_util.h"
#include "study/fiber_dump.h"
#include "study/modeling_controls.h"

namespace {

int points_per_voxel(int32_t densityCode, int32_t highCode) { return densityCode == highCode ? 8 : 1; }

// Appends the seeds of a mask's voxels, stopping at limit seeds in all.
void add_seeds(const std::vector<uint8_t>& mask, const PcdIntSize3D* size, int perVoxel,
               size_t limit, std::vector<PcdVector3D>* seeds) {
  size_t at = 0;
  for (int32_t z = 0; z < size->z; ++z)
    for (int32_t y = 0; y < size->y; ++y)
      for (int32_t x = 0; x < size->x; ++x, ++at) {
        if (at >= mask.size() || mask[at] == 0) continue;
        for (int k = 0; k < perVoxel; ++k) {
          if (seeds->size() >= limit) return;
          seeds->push_back(PCDdti_SeedInVoxel(x, y, z, k));
        }
      }
}

// The marking test receives only the two points, so the mask it tests against is set
// here for the duration of one marking call; the lock keeps two runs apart.
std::mutex g_marking_lock;
const uint8_t* g_marking_mask = nullptr;
PcdIntSize3D g_marking_size{0, 0, 0};

int node_in_mask(PcdVector3D* current, PcdVector3D* /*previous*/) {
  size_t at = 0;
  return PCDdti_VoxelIndexOfPoint(current->x, current->y, current->z, g_marking_size, &at) &&
         g_marking_mask[at] != 0;
}

void mark_slot(PcdFibeTrakBuffer* buffer, int slot, const std::vector<std::vector<uint8_t>>& masks,
               int threads) {
  PCDdti_ClearMarkOfFibeTrakBuffer(buffer, slot);
  for (size_t bit = 0; bit < masks.size(); ++bit) {
    g_marking_mask = masks[bit].data();
    PCDdti_TrakLineNodeMarking(buffer, slot, static_cast<int>(bit), threads, &node_in_mask);
  }
}

int pair_flags(const PcdTrakLinePair* pair, int slot) {
  int flags = 0;
  if (pair->forward) flags |= static_cast<uint16_t>(pair->forward->markFlags[slot]);
  if (pair->backward) flags |= static_cast<uint16_t>(pair->backward->markFlags[slot]);
  return flags;
}

}  // namespace

std::vector<PcdVector3D> PCD_GenerateStudySeeds(const PcdStudyObject* study,
                                                const PcdRoiList* rois,
                                                const PcdIntSize3D* size) {
  std::vector<PcdVector3D> seeds;
  const PcdTractSettings* t = study->tract.get();
  if (t == nullptr) return seeds;
  const int perVoxel = points_per_voxel(t->seedDensity, kPcdSeedDensityHigh);
  const PcdStudyRegion& region = t->regions[0];
  if (t->seedSource == kPcdSeedFromList) {
    const int32_t count = std::min(region.idCount, kPcdRegionMaxIds);
    for (int32_t i = 0; i < count; ++i)
      if (const PcdRoiObject* roi = PCD_FindRoiObject(rois, region.ids[i]))
        add_seeds(PCD_RasterizeRoiObject(roi, size), size, perVoxel, kPcdMaxSeeds, &seeds);
  } else {
    const bool freehand =
        t->seedSource == kPcdSeedFromFreehand || t->seedSource == kPcdSeedFromFreehandToo;
    add_seeds(PCD_RasterizeRoiShape(region.shape.get(),
                                    freehand ? PCD_ROI_FREEHAND : PCD_ROI_SPHERICAL, size),
              size, perVoxel, kPcdMaxSeeds, &seeds);
  }
  return seeds;
}

std::vector<std::vector<uint8_t>> PCD_GetRegionConditionMasks(const PcdStudyRegion* region,
                                                              const PcdRoiList* rois,
                                                              const PcdIntSize3D* size) {
  std::vector<std::vector<uint8_t>> masks;
  if (region == nullptr || region->use != kPcdRegionInUse) return masks;
  if (region->kind == kPcdRegionListed) {
    const int32_t count = std::min(region->idCount, kPcdRegionMaxIds);
    for (int32_t i = 0; i < count; ++i)
      if (const PcdRoiObject* roi = PCD_FindRoiObject(rois, region->ids[i]))
        masks.push_back(PCD_RasterizeRoiObject(roi, size));
  } else if (region->kind == kPcdRegionSphere || region->kind == kPcdRegionFreehand) {
    masks.push_back(PCD_RasterizeRoiShape(
        region->shape.get(), region->kind == kPcdRegionSphere ? PCD_ROI_SPHERICAL : PCD_ROI_FREEHAND,
        size));
  }
  return masks;
}

int PCD_SelectFibersByMasks(PcdFibeTrakBuffer* buffer,
                            const std::vector<std::vector<uint8_t>>& targets,
                            const std::vector<std::vector<uint8_t>>& avoidances,
                            const PcdIntSize3D* size, int threads) {
  if (targets.size() > 16 || avoidances.size() > 16) {
    std::fputs("Err: at most 16 target and 16 avoidance regions\n", stderr);
    return -1;
  }
  const size_t voxels = static_cast<size_t>(std::max(size->x, 0)) * std::max(size->y, 0) *
                        std::max(size->z, 0);
  for (const auto* list : {&targets, &avoidances})
    for (const std::vector<uint8_t>& mask : *list)
      if (mask.size() != voxels) {
        std::fputs("Err: a region mask does not have the size of the volume\n", stderr);
        return -1;
      }
  {
    std::lock_guard<std::mutex> lock(g_marking_lock);
    g_marking_size = *size;
    mark_slot(buffer, 0, targets, threads);
    mark_slot(buffer, 1, avoidances, threads);
    g_marking_mask = nullptr;
  }
  const int all = static_cast<int>((1u << targets.size()) - 1);
  int selected = 0;
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    PcdTrakLinePair* pair = buffer->pairs[i];
    pair->selection = (pair_flags(pair, 0) & all) == all && pair_flags(pair, 1) == 0 ? 1 : 0;
    selected += pair->selection;
  }
  return selected;
}

float PCD_GetFibeTrakBufferMegabytes(const PcdFibeTrakBuffer* buffer) {
  float bytes = 0.0f;
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    const PcdTrakLinePair* p = buffer->pairs[i];
    const int nodes = (p->forward ? p->forward->nodeCount : 0) +
                      (p->backward ? p->backward->nodeCount : 0);
    bytes += static_cast<float>(32 * nodes + 24);
  }
  return bytes * 9.536743e-7f;
}

namespace {

// Checks the study and its data set, gathers the seeds and sets the context's stop
// criteria, node limit, step and seeds from the study: what tracking and modeling do
// before their core is called. False when the study cannot run.
template <typename Context>
bool prepare_fiber_study(PcdWorkSession* session, const PcdStudyObject* study, int32_t type,
                         std::vector<PcdVector3D>* seeds, Context* context) {
  if (session == nullptr || study == nullptr || study->type != type || !study->tract) return false;
  if (!PCDdti_CheckDataSetForAnalysis(session->dti, PCD_DTI_INTERPOLATED)) return false;
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  *seeds = PCD_GenerateStudySeeds(study, &session->rois, &size);
  const PcdTractSettings& t = *study->tract;
  context->limits = t.limits;
  context->nodeLimit = t.nodeLimit;
  context->step = t.step;
  context->seedCount = static_cast<int32_t>(seeds->size());
  context->seedPoints = seeds->data();
  return true;
}

// What tracking and modeling share once their core has answered: the ROI conditions, the
// hand-over to the drawing side and the summary. The result stays the caller's.
int conclude_fiber_study(PcdWorkSession* session, PcdStudyObject* study,
                         PcdFibeTrakBuffer* result, const PcdStudyRunOptions& options) {
  if (result == nullptr) {
    std::fputs("No result obtained\n", stderr);
    return -1;
  }
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  const PcdTractSettings& t = *study->tract;
  const int drawn = PCD_SelectFibersByMasks(
      result, PCD_GetRegionConditionMasks(&t.regions[1], &session->rois, &size),
      PCD_GetRegionConditionMasks(&t.regions[2], &session->rois, &size), &size, kPcdStudyThreads);
  if (drawn < 0) return -1;
  if (options.drawFibers) options.drawFibers(study, result, drawn);
  PCD_SetStudySummary(study, pcd_format("Seed Points:   %d\nTracked Lines:   %d\nDrawn Lines:   "
                                        "%d\nBuffer Size:   %3.1f Mb\n",
                                        result->seedCount, result->lineCount, drawn,
                                        static_cast<double>(PCD_GetFibeTrakBufferMegabytes(result))));
  study->analysed = 1;
  return 0;
}

}  // namespace

int PCD_RunFiberTrackingStudy(PcdWorkSession* session, PcdStudyObject* study,
                              const PcdStudyRunOptions& options) {
  std::vector<PcdVector3D> seeds;
  PcdFibeTrakContext context;
  if (!prepare_fiber_study(session, study, PCD_STUDY_FIBER_TRACKING, &seeds, &context)) return -1;
  context.scheme = study->tract->scheme;
  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(session->dti, &context, kPcdStudyThreads);
  const int status = conclude_fiber_study(session, study, result, options);
  // the file is asked for once the result is there; a cancelled question skips the dump
  std::string dumpFile = options.dumpFile.empty() ? kPcdFiberDumpDefaultName : options.dumpFile;
  const bool dump = status == 0 && options.dump && (!options.askTrackingDumpFile || options.askTrackingDumpFile(&dumpFile));
  if (dump)  // a file that cannot be written is skipped silently
    PCDdti_DumpFibeTrakBufferToFile(result, session->dti->reserved, dumpFile.c_str());
  PCDdti_DeleteFibeTrakBuffer(result);
  return status;
}

int PCD_RunFiberModelingStudy(PcdWorkSession* session, PcdStudyObject* study,
                              const PcdStudyRunOptions& options) {
  std::vector<PcdVector3D> seeds;
  PcdFibeModelContext context;
  if (!prepare_fiber_study(session, study, PCD_STUDY_FIBER_MODELING, &seeds, &context)) return -1;
  std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)> made(nullptr, PCD_DeleteRawVolumeData);
  const PcdRawVolumeData* controls = options.modelingControls;
  if (controls == nullptr) {
    // tissue near the seeds and the targets: the voxels in between are what a fiber
    // from one to the other runs through
    const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
    std::vector<uint8_t> near = PCD_MaskOfPoints(seeds, size);
    for (const std::vector<uint8_t>& target :
         PCD_GetRegionConditionMasks(&study->tract->regions[1], &session->rois, &size))
      for (size_t i = 0; i < near.size() && i < target.size(); ++i) near[i] |= target[i];
    made.reset(PCD_NewBoundedModelingControlVolume(session->dti, &context.limits, near));
    if (!made) return -1;
    controls = made.get();
  }
  const std::string dumpFile =
      options.dumpFile.empty() ? std::string(kPcdModelDumpDefaultName) : options.dumpFile;
  PcdFibeTrakBuffer* result = PCDdti_FiberModeling(session->dti, &context, controls, kPcdStudyThreads,
                                                   options.dump ? dumpFile.c_str() : nullptr);
  const int status = conclude_fiber_study(session, study, result, options);
  PCDdti_DeleteFibeTrakBuffer(result);
  return status;
}

std::vector<uint8_t> PCD_GetStudyRegionVoxels(const PcdStudyRegion* region,
                                              const PcdRoiList* rois,
                                              const PcdIntSize3D* size,
                                              const PcdIntVector3D* boxOrigin,
                                              const PcdIntSize3D* boxSize) {
  const size_t voxels = static_cast<size_t>(std::max(size->x, 0)) * std::max(size->y, 0) *
                        std::max(size->z, 0);
  if (region == nullptr || region->use != kPcdRegionInUse) return std::vector<uint8_t>(voxels, 0);
  if (region->kind == kPcdRegionSphere || region->kind == kPcdRegionFreehand)
    return PCD_RasterizeRoiShape(region->shape.get(),
                                 region->kind == kPcdRegionSphere ? PCD_ROI_SPHERICAL : PCD_ROI_FREEHAND,
                                 size);
  std::vector<uint8_t> mask(voxels, 0);
  if (region->kind == kPcdRegionListed) {
    const int32_t count = std::clamp(region->idCount, 0, kPcdRegionMaxIds);
    for (int32_t i = 0; i < count; ++i) {
      const PcdRoiObject* roi = rois ? PCD_FindRoiObject(rois, region->ids[i]) : nullptr;
      if (roi == nullptr) continue;
      const std::vector<uint8_t> voxelsOfRoi = PCD_RasterizeRoiObject(roi, size);
      for (size_t k = 0; k < voxelsOfRoi.size() && k < mask.size(); ++k) mask[k] |= voxelsOfRoi[k];
    }
    return mask;
  }
  if (region->kind != kPcdRegionBoxVoi) return mask;
  // the box spans origin .. origin + size - 1, clipped to the volume; in 64 bits, since
  // the viewer's numbers are not ours to trust
  int64_t lo[3] = {0, 0, 0}, hi[3] = {size->x, size->y, size->z};
  if (boxOrigin != nullptr && boxSize != nullptr) {
    const int64_t o[3] = {boxOrigin->x, boxOrigin->y, boxOrigin->z};
    const int64_t n[3] = {boxSize->x, boxSize->y, boxSize->z};
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::max<int64_t>(o[k], 0);
      hi[k] = std::min<int64_t>(o[k] + n[k], hi[k]);
    }
  }
  for (int64_t z = lo[2]; z < hi[2]; ++z)
    for (int64_t y = lo[1]; y < hi[1]; ++y)
      for (int64_t x = lo[0]; x < hi[0]; ++x)
        mask[static_cast<size_t>(x + size->x * (y + size->y * z))] = 1;
  return mask;
}

namespace {

std::vector<uint8_t> region_voxels(const PcdWorkSession* session, const PcdStudyRegion* region,
                                   const PcdStudyRunOptions& options) {
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  return PCD_GetStudyRegionVoxels(region, &session->rois, &size, options.hasBoxVoi ? &options.boxOrigin : nullptr,
                                  options.hasBoxVoi ? &options.boxSize : nullptr);
}

}  // namespace

int PCD_RunVoxelStatisticsStudy(PcdWorkSession* session, PcdStudyObject* study,
                                const PcdStudyRunOptions& options) {
  if (session == nullptr || study == nullptr || study->type != PCD_STUDY_VOXEL_STATISTICS || !study->statistics)
    return -1;
  if (!PCDdti_CheckDataSetForAnalysis(session->dti, PCD_DTI_AT_VOXELS)) return -1;
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)> mask(
      PCD_NewSingleChannelRawVolumeData(&size, UINT8, PCD_MONOCHROME), PCD_DeleteRawVolumeData);
  if (!mask) {
    std::fputs("insufficient memory\n", stderr);
    return -1;
  }
  const std::vector<uint8_t> voxels = region_voxels(session, &study->statistics->region, options);
  std::copy(voxels.begin(), voxels.end(), static_cast<uint8_t*>(mask->data[0]));
  PcdDiffusionTensorStatistics* result = PCDdti_GetDiffusionTensorStatistics(session->dti, mask.get());
  if (result == nullptr) {
    std::fputs("No result obtained\n", stderr);
    return -1;
  }
  if (options.statistics) options.statistics(study, result);
  PCD_SetStudySummary(study, PCDdti_FormatDiffusionTensorStatistics(result));
  study->analysed = 1;
  std::free(result);
  return 0;
}

int PCD_RunDiffusionProfileStudy(PcdWorkSession* session, PcdStudyObject* study,
                                 const PcdStudyRunOptions& options) {
  if (session == nullptr || study == nullptr || study->type != PCD_STUDY_DIFFUSION_PROFILE || !study->profile)
    return -1;
  if (!PCDdti_CheckDataSetForAnalysis(session->dti, PCD_DTI_INTERPOLATED)) return -1;
  const PcdProfileSettings& p = *study->profile;
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  std::vector<PcdVector3D> points;
  add_seeds(region_voxels(session, &p.region, options), &size,
            points_per_voxel(p.symbolDensity, kPcdSymbolDensityHigh), kPcdMaxSeeds, &points);
  PCDdti_KeepPointsInsideVolume(&points, size);
  PcdDifProfContext context;
  context.FAcheckA = p.useFAmin, context.FAmin = p.FAmin;
  context.FAcheckB = p.useFAmax, context.FAmax = p.FAmax;
  context.ADCcheckA = p.useADCmin, context.ADCmin = p.ADCmin;
  context.ADCcheckB = p.useADCmax, context.ADCmax = p.ADCmax;
  context.SocheckA = p.useSoMin, context.SoMin = p.SoMin;
  context.SocheckB = p.useSoMax, context.SoMax = p.SoMax;
  context.pointCount = static_cast<int32_t>(points.size());
  context.points = points.data();
  // the core draws nothing without a drawing function; a caller that draws nothing still
  // wants the summary
  const PcdDifProfDrawFunction draw = [&](const PcdVector3D* point, const PcdDiffusionTensorData* tensor) {
    if (options.drawProfile) options.drawProfile(study, point, tensor);
  };
  std::vector<char> text(kPcdStudySummaryBytes, '\0');
  PCDdti_DiffusionProfileDisplay(session->dti, &context, draw, text.data(), text.size());
  if (text[0] == '\0') {
    std::fputs("No result obtained\n", stderr);
    return -1;
  }
  PCD_SetStudySummary(study, text.data());
  study->analysed = 1;
  return 0;
}

int PCD_RunStudy(PcdWorkSession* session, PcdStudyObject* study, const PcdStudyRunOptions& options) {
  if (session == nullptr || study == nullptr) return -1;
  if (PCD_CheckStudySettings(study) != 0) return -1;
  switch (study->type) {
    case PCD_STUDY_FIBER_TRACKING:
      return PCD_RunFiberTrackingStudy(session, study, options);
    case PCD_STUDY_FIBER_MODELING:
      return PCD_RunFiberModelingStudy(session, study, options);
    case PCD_STUDY_VOXEL_STATISTICS:
      return PCD_RunVoxelStatisticsStudy(session, study, options);
    case PCD_STUDY_DIFFUSION_PROFILE:
      return PCD_RunDiffusionProfileStudy(session, study, options);
    default:
      std::fputs("Err: Invalid study object type\n", stderr);
      return -1;
  }
}
