// Fiber results of tracking and modeling studies over the panes. A result is copied once
// when its study is run (the track-line buffer is released right after) into one
// polyline per selected fiber, coloured by the study's "Coloring", with the segments
// bucketed by slice along each axis: a redraw visits only the segments near its section.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "fiber/trakline.h"
#include "study/study_object.h"
#include "view/slice_pane.h"

// Consecutive segments of one fiber, nodes first .. first + segments.
struct PcdFiberRun {
  uint32_t first;
  uint32_t segments;
};

// Up to kPcdFiberChunkSegments consecutive segments of one fiber, with the centre and
// half extent of their box: the oblique pane skips whole chunks far from its section.
struct PcdFiberChunk {
  uint32_t first;
  uint32_t segments;
  PcdVector3D centre, half;
};
constexpr uint32_t kPcdFiberChunkSegments = 16;

// A node of a drawn fiber with the colour of the segment that ends there: one record,
// so that a redraw reads one stream.
struct PcdFiberNode {
  float x, y, z;
  uint32_t colour;  // 0xffRRGGBB
};

struct PcdFiberLayer {
  int32_t primitive = 0;  // hairline 287, tubular 782
  int32_t coloring = 0;
  std::vector<PcdFiberNode> nodes;   // every fiber backward end to forward end, in pane
                                     // coordinates (a node's coordinates + 0.5)
  std::vector<uint32_t> fiberStart;  // fiber f has nodes fiberStart[f] .. fiberStart[f + 1] - 1
  std::vector<PcdFiberChunk> chunks;  // every fiber's segments in order
  // buckets[axis][s]: the runs of segments within half a voxel of slice s's voxels
  std::vector<std::vector<PcdFiberRun>> buckets[3];
};

// The selected fibers (selection word non-zero) of a result, coloured by coloring
// (anisotropy 651, direction 824, distance 913, unique 914, uniform 915).
std::unique_ptr<PcdFiberLayer> PCDview_MakeFiberLayer(const PcdFibeTrakBuffer* buffer,
                                                      int32_t coloring, int32_t primitive);

// The colour ramp of the anisotropy and distance colourings: t from 0 (blue) to 1 (red).
uint32_t PCDview_RampColour(double t);
// FA from the three eigenvalues.
double PCDview_FAofEigenvalues(double l1, double l2, double l3);

// Draws the segments near the section: hairlines straight into the pane's image, tubes
// through cr (which must draw onto that image).
void PCDview_DrawFiberLayer(cairo_surface_t* image, cairo_t* cr, const PcdPaneGeometry& g,
                            const PcdFiberLayer& layer);

// The results the desktop program shows, one per study. The study runner's draw hook
// calls the first with the result before it is released; a study that is deleted or
// re-run without result drops its layer.
void PCDview_SetStudyFibers(const PcdStudyObject* study, const PcdFibeTrakBuffer* buffer,
                            int drawnLines);
void PCDview_DropStudyFibers(uint16_t studyId);
void PCDview_DropAllStudyFibers();
const PcdFiberLayer* PCDview_GetStudyFibers(uint16_t studyId);
