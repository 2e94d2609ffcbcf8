// The study runners: fiber tracking and fiber modeling (seeds from the study's seed
// region, the core on 4 threads, the target and avoidance conditions, the summary, the
// dump), diffusion profile and voxel statistics on their region, and the one entry point
// PCD_RunStudy that " Analyze and Display " calls. Each hands its result to whoever
// draws it before releasing it.
//
// Seeds. Each seed voxel gets a fixed number of deterministic positions: 1 for "normal"
// density (542), 8 for "high" (723), position k being PCDdti_SeedInVoxel(x, y, z, k), so
// position 0 is the voxel's centre. Voxels are taken in z, y, x order; at most 1,000,000
// seeds. The seed source code picks the voxels: 435 (and any code not listed here) the
// sphere of the seed region's shape, 21 and 981 its freehand points, 54 the listed ROIs
// one after the other in list order, each given the room still left. The sample points
// of a diffusion profile are placed the same way: 1 per voxel for "normal" symbol density
// (347), 8 for "high" (836).
//
// Conditions. A target or avoidance region takes part when its use code is 432. A sphere
// or freehand region is one condition; a listed region gives one condition per listed
// ROI that exists. A fiber is selected when it meets every target condition and no
// avoidance condition. A condition is met when a node of either half-line lies in one of
// its voxels (voxel i spans [i, i+1)): the test is made at the nodes, not along the
// segments between them. Targets use mark slot 0 and avoidance slot 1, one bit per
// condition, so there are at most 16 of each.
//
// Regions of diffusion profile and voxel statistics: a "Box VOI" region is the viewer's
// box (origin to origin + size - 1 on each axis; the whole volume when the caller has no
// box), "Sphere" and "Freehand" the region's own shape, "Listed" the union of the listed
// ROIs that exist (each voxel counted once); any other kind, or a region whose use code
// is not 432, holds no voxel.
//
// Fiber modeling takes its control tensors where the caller says, or else at the voxels
// whose tensor is valid and passes the study's own FA minimum, ADC maximum and So range
// (each when enabled), that lie inside the head and near the seed and target regions
// (study/modeling_controls.h): the tissue a fiber may run through.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "dti/statistics.h"
#include "dti/tensor.h"
#include "fiber/modeling.h"
#include "fiber/trakline.h"
#include "study/fiber_dump.h"
#include "study/work_session.h"

constexpr int32_t kPcdMaxSeeds = 1000000;
constexpr int kPcdStudyThreads = 4;

// Seeds of a tracking or modeling study on a volume of this size.
std::vector<PcdVector3D> PCD_GenerateStudySeeds(const PcdStudyObject* study,
                                                const PcdRoiList* rois,
                                                const PcdIntSize3D* size);

// The voxel masks (x fastest, 1 inside) of one region's conditions; none when the region
// does not take part.
std::vector<std::vector<uint8_t>> PCD_GetRegionConditionMasks(const PcdStudyRegion* region,
                                                              const PcdRoiList* rois,
                                                              const PcdIntSize3D* size);

// Marks the packed result against the masks and sets every pair's selection word (1 when
// it meets every target and no avoidance mask). The number of selected fibers, or -1
// with an "Err: " line for more than 16 masks of a kind or a mask of another size.
int PCD_SelectFibersByMasks(PcdFibeTrakBuffer* buffer,
                            const std::vector<std::vector<uint8_t>>& targets,
                            const std::vector<std::vector<uint8_t>>& avoidances,
                            const PcdIntSize3D* size, int threads);

// Memory estimate of a result in Mb: sum over the pairs of 32 * (nodes of both halves)
// + 24 bytes, times 9.536743e-7, in float.
float PCD_GetFibeTrakBufferMegabytes(const PcdFibeTrakBuffer* buffer);

// What " Analyze and Display " needs from any runner. An empty dumpFile means the study
// kind's default name ("fibetrak_dump.txt", "fibemodel_dump.raw").
struct PcdStudyRunOptions {
  bool dump = false;
  std::string dumpFile;
  // Tracking: asked after the run, when a dump was requested, for the file (given the
  // default name); false skips the dump. Without it dumpFile (or the default) is written.
  std::function<bool(std::string* file)> askTrackingDumpFile;
  // Tracking and modeling results, before they are released, with the drawn-line count.
  std::function<void(const PcdStudyObject*, const PcdFibeTrakBuffer*, int drawnLines)> drawFibers;
  // Diffusion profile: every accepted point with its diagonalised tensor, in point order;
  // the record is valid only during the call.
  std::function<void(const PcdStudyObject*, const PcdVector3D*, const PcdDiffusionTensorData*)>
      drawProfile;
  // Voxel statistics: the numbers behind the summary, before they are released.
  std::function<void(const PcdStudyObject*, const PcdDiffusionTensorStatistics*)> statistics;
  // The viewer's box VOI in voxels, for "Box VOI" regions; without one the whole volume.
  bool hasBoxVoi = false;
  PcdIntVector3D boxOrigin{0, 0, 0};
  PcdIntSize3D boxSize{0, 0, 0};
  // Fiber modeling: where control tensors may be taken (one byte a voxel, 1 = yes, the
  // data set's size); null for the bounded default (see above).
  const PcdRawVolumeData* modelingControls = nullptr;
};

// The voxels (x fastest, 1 inside) of a diffusion profile or voxel statistics region in a
// volume of this size; box is the viewer's box VOI or null, rois the ROIs a listed region
// names (may be null: no listed ROI then).
std::vector<uint8_t> PCD_GetStudyRegionVoxels(const PcdStudyRegion* region,
                                              const PcdRoiList* rois,
                                              const PcdIntSize3D* size,
                                              const PcdIntVector3D* boxOrigin,
                                              const PcdIntSize3D* boxSize);

// Runs a fiber tracking study on the session's data set and writes its summary
// ("Seed Points:   %d\n", "Tracked Lines:   %d\n", "Drawn Lines:   %d\n",
// "Buffer Size:   %3.1f Mb\n") into the study, which becomes analysed; with dump, the
// selected fibers go to dumpFile ("fibetrak_dump.txt" when empty). 0, or -1 when the
// data set cannot be analysed (its check's line) or the core returns nothing ("No
// result obtained\n").
int PCD_RunFiberTrackingStudy(PcdWorkSession* session, PcdStudyObject* study,
                              const PcdStudyRunOptions& options);

// Runs a fiber modeling study: seeds, selection and summary as tracking, the fibers
// through PCDdti_FiberModeling on 4 threads; with dump, the interpolated field goes to
// dumpFile ("fibemodel_dump.raw" when empty). 0, or -1 as tracking.
int PCD_RunFiberModelingStudy(PcdWorkSession* session, PcdStudyObject* study,
                              const PcdStudyRunOptions& options);
// Runs a voxel statistics study over its region: "Tensors: %d\n", "Valid Tensors: %d\n",
// then the six "min. - max. (mean/stdev.)" lines or "No valid voxels.\n". 0, or -1.
int PCD_RunVoxelStatisticsStudy(PcdWorkSession* session, PcdStudyObject* study,
                                const PcdStudyRunOptions& options);
// Runs a diffusion profile study over the sample points of its region, filtered by its
// "Show if" ranges; the summary is the core's three lines. 0, or -1.
int PCD_RunDiffusionProfileStudy(PcdWorkSession* session, PcdStudyObject* study,
                                 const PcdStudyRunOptions& options);

// Runs one study of any kind on the session's data set and writes its summary into the
// study: the entry point of the desktop program and of the command-line tool. 0, or -1
// with the reason on the console (the study keeps its earlier summary and status).
int PCD_RunStudy(PcdWorkSession* session, PcdStudyObject* study, const PcdStudyRunOptions& options);
