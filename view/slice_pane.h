// One slice view pane without the toolkit: which section it shows, how its pixels map to
// voxel positions and back, and how the section of a channel becomes pixels through the
// grey mapping or the directional colours. The overlays (ROIs, fibers, glyphs) and the
// window draw on top of what is made here; the benchmark renders the same way off-screen.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <vector>

#include "vol/raw_volume.h"

enum PcdPaneKind : int32_t {
  PCD_PANE_AXIAL = 0,
  PCD_PANE_SAGITTAL = 1,
  PCD_PANE_CORONAL = 2,
  PCD_PANE_OBLIQUE = 3,
  PCD_PANE_SPHERICAL = 4,
};
constexpr int kPcdPaneKindCount = 5;

struct PcdSlicePane {
  int32_t kind = PCD_PANE_AXIAL;
  int32_t zoom = 1;            // index into the display scales
  float obliqueTilt = 30.0f;   // degrees about the x axis, then
  float obliqueTurn = 0.0f;    // degrees about the z axis
  bool obliqueAlongE1 = false; // cut across e1 at the cursor instead
  float sphereRadius = 6.0f;   // voxels, spherical pane
};

// What every pane of the window shares when it draws.
struct PcdSliceScene {
  const PcdRawVolumeData* volume = nullptr;
  int32_t channel = 0;
  PcdIntVector3D cursor{0, 0, 0};
  float voxelsPerPixel = 1.0f;           // the pane's display scale
  PcdVector3D voxelMm{1.0f, 1.0f, 1.0f}; // voxel size per axis: the aspect on screen
  float greyLow = 0.0f;                  // value shown black
  float greyHigh = 254.0f;               // value shown at greyMax
  float greyMax = 255.0f;                // brightest grey
  PcdVector3D e1{0.0f, 0.0f, 1.0f};      // principal direction at the cursor, when known
};

// Pixel (px, py) has its centre at origin + (px + 0.5) u + (py + 0.5) v; normal is the
// unit vector across the section (voxel units). Spherical panes unroll a sphere instead:
// longitude along x, latitude along y, around centre.
struct PcdPaneGeometry {
  int32_t kind = PCD_PANE_AXIAL;
  int width = 0, height = 0;
  PcdVector3D origin{0, 0, 0};
  PcdVector3D u{1, 0, 0}, v{0, 1, 0}, normal{0, 0, 1};
  PcdVector3D centre{0, 0, 0};  // the point the section passes through (voxel units)
  float radius = 0.0f;          // spherical panes
  float pixelsPerVoxel = 1.0f;  // along u (for radii and brushes)
};

PcdPaneGeometry PCDview_GetPaneGeometry(const PcdSlicePane& pane, const PcdSliceScene& scene,
                                        int width, int height);

// The voxel position (voxel units, voxel i spans [i, i+1)) under pane pixel coordinates.
PcdVector3D PCDview_PixelToVoxel(const PcdPaneGeometry& g, double px, double py);
// Where a voxel position falls in the pane, and its distance across the section (voxel
// units along the normal); false for spherical panes.
bool PCDview_VoxelToPixel(const PcdPaneGeometry& g, const PcdVector3D& p, double* px, double* py,
                          double* depth);
// The axis (0 x, 1 y, 2 z) across an axis-aligned pane, -1 for the others.
int PCDview_PaneNormalAxis(int32_t kind);
// The cursor coordinate that a pane's slice control moves, and its range.
int32_t PCDview_PaneSlice(int32_t kind, const PcdIntVector3D& cursor);
int32_t PCDview_PaneSliceCount(int32_t kind, const PcdIntSize4D& size);

// Value of a channel at a voxel as a float (colour channels: the packed word); false
// outside the volume or for a channel that is not there.
bool PCDview_GetVoxelValue(const PcdRawVolumeData* volume, int32_t channel, int32_t x, int32_t y,
                           int32_t z, double* value);

// The grey mapping as a table for 8- and 16-bit channels: entry v - offset holds the grey
// of value v. Made once per change of channel or mapping.
struct PcdGreyTable {
  int32_t dataType = -1;
  float low = 0, high = 0, max = 0;
  int32_t offset = 0;
  std::vector<uint8_t> grey;
};
uint8_t PCDview_MapGrey(double value, float low, float high, float greyMax);
void PCDview_PrepareGreyTable(PcdGreyTable* table, int32_t dataType, float low, float high,
                              float greyMax);

// Fills an ARGB32 image surface with the section of the scene's channel (black outside
// the volume). The table is made or reused as needed.
void PCDview_RenderSection(cairo_surface_t* image, const PcdPaneGeometry& g,
                           const PcdSliceScene& scene, PcdGreyTable* table);

// Robust grey mapping of a channel: the lowQuantile and highQuantile percentiles of its
// non-zero values (low and high); false for an empty or colour channel.
bool PCDview_FitGreyMapping(const PcdRawVolumeData* volume, int32_t channel, float* low,
                            float* high, double lowQuantile = 0.005, double highQuantile = 0.995);
