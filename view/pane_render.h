// A whole pane as the user sees it, drawn into an image surface: the section, then the
// visible ROIs, the fiber results, the glyphs, the box VOI and the cursor. The window draws its panes
// with it; the benchmark times it off-screen.
#pragma once

#include <cairo.h>

#include <vector>

#include "study/roi_object.h"
#include "view/fiber_overlay.h"
#include "view/glyph_overlay.h"
#include "view/slice_pane.h"

struct PcdPaneOverlays {
  const PcdRoiList* rois = nullptr;
  const PcdRoiList* regions = nullptr;  // a study's drawn regions, drawn over the ROIs
  std::vector<const PcdFiberLayer*> fibers;
  std::vector<const PcdGlyphLayer*> glyphs;
  bool showBox = false;
  PcdIntVector3D boxOrigin{0, 0, 0};
  PcdIntSize3D boxSize{0, 0, 0};
  bool showCursor = true;
};

// The image must be an ARGB32 surface; the geometry is that of its whole size.
PcdPaneGeometry PCDview_RenderPane(cairo_surface_t* image, const PcdSlicePane& pane,
                                   const PcdSliceScene& scene, const PcdPaneOverlays& overlays,
                                   PcdGreyTable* table);
