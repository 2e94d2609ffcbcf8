// The figures of the reports, drawn with cairo into image surfaces and written as PNG:
// section mosaics through the views' renderer (with a mask's outline and a painted voxel
// set on top), fibers projected over a section, the MPG directions on a sphere, and bar
// plots of per-volume values. No window and no display are needed.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dti/dti_data.h"
#include "view/fiber_overlay.h"
#include "view/slice_pane.h"

struct PcdSurfaceDeleter {
  void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
using PcdSurface = std::unique_ptr<cairo_surface_t, PcdSurfaceDeleter>;

// What a mosaic shows: one channel of a volume through the grey mapping (or its colours),
// and optionally per voxel (x fastest) a mask whose edge is drawn in yellow and a set of
// voxels painted red.
struct PcdMosaicLayout {
  const PcdRawVolumeData* volume = nullptr;
  int32_t channel = 0;
  PcdVector3D voxelMm{1.0f, 1.0f, 1.0f};
  float greyLow = 0.0f, greyHigh = 254.0f;
  const std::vector<uint8_t>* outline = nullptr;
  const std::vector<uint8_t>* painted = nullptr;
  bool blankOutside = false;  // pixels outside the outline's mask black (maps without meaning there)
  int tiles = 8;          // sections, evenly spread over the outline's extent (or the volume)
  int tileSize = 160;     // pixels along a tile's longer side
};

// A row of sections of one orientation (PCD_PANE_AXIAL, _SAGITTAL or _CORONAL), each
// labelled with its slice number.
PcdSurface PCDreport_Mosaic(const PcdMosaicLayout& layout, int32_t kind);
// The middle section of each orientation (of the outline's extent), dimmed, with every
// fiber of the layer projected onto it in its colours: three panels side by side.
PcdSurface PCDreport_TractPicture(const PcdMosaicLayout& layout, const PcdFiberLayer& layer);
// The directions of the DWI channels seen from above (z >= 0) and from below (z <= 0):
// each direction appears in both, as itself (filled) or as its opposite (hollow).
PcdSurface PCDreport_GradientSphere(const PcdDtiData* dti);
// One bar per value (volume 0 on the left), the marked ones in red.
PcdSurface PCDreport_BarPlot(const std::vector<double>& values, const std::vector<bool>& marked,
                             const std::string& title);
// 0, or -1 when the file cannot be written.
int PCDreport_WritePng(cairo_surface_t* surface, const std::string& path);

// Frees what cairo's text leaves cached (cairo's own caches and fontconfig's), so that a
// process ends clean under a leak checker. Call it last: nothing may be drawn afterwards.
void PCDreport_ReleaseFontCaches();

// The slices a mosaic of the given orientation shows.
std::vector<int32_t> PCDreport_MosaicSlices(const PcdMosaicLayout& layout, int32_t kind);
