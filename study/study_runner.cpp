#include "study/study_runner.h"

#include <cmath>
#include <cstdio>
#include <mutex>

#include "dti/dti_check.h"
#include "fiber/tracking.h"
#include "io/file_util.h"
#include "study/fiber_dump.h"

namespace {

int seeds_per_voxel(int32_t density) { return density == kPcdSeedDensityHigh ? 8 : 1; }

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
  const float x = std::floor(current->x), y = std::floor(current->y), z = std::floor(current->z);
  if (!(x >= 0 && y >= 0 && z >= 0 && x < g_marking_size.x && y < g_marking_size.y &&
        z < g_marking_size.z))
    return 0;
  const size_t at = static_cast<size_t>(x) +
                    static_cast<size_t>(g_marking_size.x) *
                        (static_cast<size_t>(y) + static_cast<size_t>(g_marking_size.y) *
                                                      static_cast<size_t>(z));
  return g_marking_mask[at] != 0;
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
  const int perVoxel = seeds_per_voxel(t->seedDensity);
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

int PCD_RunFiberTrackingStudy(PcdWorkSession* session, PcdStudyObject* study,
                              const PcdTrackingRunOptions& options) {
  if (study == nullptr || study->type != PCD_STUDY_FIBER_TRACKING || !study->tract) return -1;
  if (!PCDdti_CheckDataSetForAnalysis(session->dti, PCD_DTI_INTERPOLATED)) return -1;
  const PcdIntSize3D size = PCD_GetSessionMatrixSize(session);
  std::vector<PcdVector3D> seeds = PCD_GenerateStudySeeds(study, &session->rois, &size);

  const PcdTractSettings& t = *study->tract;
  PcdFibeTrakContext context;
  context.limits = t.limits;
  context.nodeLimit = t.nodeLimit;
  context.step = t.step;
  context.scheme = t.scheme;
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();
  PcdFibeTrakBuffer* result = PCDdti_FiberTracking(session->dti, &context, kPcdStudyThreads);
  if (result == nullptr) {
    std::fputs("No result obtained\n", stderr);
    return -1;
  }
  const int drawn = PCD_SelectFibersByMasks(
      result, PCD_GetRegionConditionMasks(&t.regions[1], &session->rois, &size),
      PCD_GetRegionConditionMasks(&t.regions[2], &session->rois, &size), &size, kPcdStudyThreads);
  if (drawn < 0) {
    PCDdti_DeleteFibeTrakBuffer(result);
    return -1;
  }
  if (options.draw) options.draw(result, drawn);
  PCD_SetStudySummary(study, pcd_format("Seed Points:   %d\nTracked Lines:   %d\nDrawn Lines:   "
                                        "%d\nBuffer Size:   %3.1f Mb\n",
                                        result->seedCount, result->lineCount, drawn,
                                        static_cast<double>(PCD_GetFibeTrakBufferMegabytes(result))));
  study->analysed = 1;
  if (options.dump)  // a file that cannot be written is skipped silently
    PCDdti_DumpFibeTrakBufferToFile(result, session->dti->reserved, options.dumpFile.c_str());
  PCDdti_DeleteFibeTrakBuffer(result);
  return 0;
}

int PCD_RunStudy(PcdWorkSession* session, PcdStudyObject* study, const PcdStudyRunOptions& options) {
  if (session == nullptr || study == nullptr) return -1;
  switch (study->type) {
    case PCD_STUDY_FIBER_TRACKING: {
      PcdTrackingRunOptions tracking;
      tracking.dump = options.dump;
      if (!options.dumpFile.empty()) tracking.dumpFile = options.dumpFile;
      if (options.drawFibers)
        tracking.draw = [&](const PcdFibeTrakBuffer* buffer, int drawn) {
          options.drawFibers(study, buffer, drawn);
        };
      return PCD_RunFiberTrackingStudy(session, study, tracking);
    }
    default:
      std::fputs("Err: this kind of study cannot be analysed yet\n", stderr);
      return -1;
  }
}
