// The diffusion profile study's glyphs over the panes. The study's draw function hands
// each accepted point with its diagonalised tensor to a collector made here, which keeps
// what drawing needs (the record is reused for the next point); the pane then draws the
// cross-section of each glyph near its section: the ADC profile, the tensor ellipsoid,
// the envelope surface or the star of the three eigenvectors, coloured by anisotropy or
// direction, scaled by FA when "Anisotropy emphasis" is on.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <vector>

#include "dti/diffusion_profile.h"
#include "study/study_object.h"
#include "view/slice_pane.h"

constexpr int32_t kPcdGlyphAdcProfile = 978;
constexpr int32_t kPcdGlyphEllipsoid = 354;
constexpr int32_t kPcdGlyphEnvelope = 1234;
constexpr int32_t kPcdGlyphStar = 2468;

struct PcdGlyph {
  PcdVector3D position;
  float lambda[3];          // largest first
  PcdVector3D axes[3];      // the eigenvectors in the same order, unit length
  float fa;
};

struct PcdGlyphLayer {
  int32_t primitive = kPcdGlyphAdcProfile;
  int32_t coloring = 651;
  bool emphasis = false;
  std::vector<PcdGlyph> glyphs;
};

// A draw function for PCDdti_DiffusionProfileDisplay that appends every point it is
// given to glyphs.
PcdDifProfDrawFunction PCDview_CollectGlyphs(std::vector<PcdGlyph>* glyphs);

// The glyph's extent along a unit direction d (voxel units), relative to its largest:
// dT D d / l1 for the ADC profile, the radius of the ellipsoid with semi-axes l1, l2, l3
// (1 / sqrt(dT D^-2 d) / l1), and
// |D d| / l1 for the envelope. 0 for a degenerate tensor.
double PCDview_GlyphRadius(const PcdGlyph& glyph, int32_t primitive, const PcdVector3D& d);

// Draws the glyphs within half a voxel of the section, each at most half a voxel across
// its largest axis.
void PCDview_DrawGlyphLayer(cairo_t* cr, const PcdPaneGeometry& g, const PcdGlyphLayer& layer);

// The glyphs the desktop program shows, one set per study, with the study's primitive,
// coloring and emphasis.
void PCDview_SetStudyGlyphs(const PcdStudyObject* study, std::vector<PcdGlyph> glyphs);
void PCDview_DropStudyGlyphs(uint16_t studyId);
void PCDview_DropAllStudyGlyphs();
const PcdGlyphLayer* PCDview_GetStudyGlyphs(uint16_t studyId);
