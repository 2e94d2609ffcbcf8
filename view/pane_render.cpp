#include "view/pane_render.h"

#include "view/roi_overlay.h"

namespace {

void DrawCursor(cairo_t* cr, const PcdPaneGeometry& g, const PcdIntVector3D& c) {
  double px, py;
  if (g.kind == PCD_PANE_SPHERICAL) return;
  if (!PCDview_VoxelToPixel(g, {c.x + 0.5f, c.y + 0.5f, c.z + 0.5f}, &px, &py, nullptr)) return;
  cairo_save(cr);
  cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
  cairo_set_line_width(cr, 1.0);
  cairo_set_source_rgba(cr, 1.0, 0.2, 0.2, 0.8);
  const double x = double(int(px)) + 0.5, y = double(int(py)) + 0.5;
  // a cross with a gap, so that the voxel under it stays visible
  cairo_move_to(cr, 0, y), cairo_line_to(cr, x - 4, y);
  cairo_move_to(cr, x + 4, y), cairo_line_to(cr, g.width, y);
  cairo_move_to(cr, x, 0), cairo_line_to(cr, x, y - 4);
  cairo_move_to(cr, x, y + 4), cairo_line_to(cr, x, g.height);
  cairo_stroke(cr);
  cairo_restore(cr);
}

}  // namespace

PcdPaneGeometry PCDview_RenderPane(cairo_surface_t* image, const PcdSlicePane& pane,
                                   const PcdSliceScene& scene, const PcdPaneOverlays& overlays,
                                   PcdGreyTable* table) {
  const int w = cairo_image_surface_get_width(image), h = cairo_image_surface_get_height(image);
  const PcdPaneGeometry g = PCDview_GetPaneGeometry(pane, scene, w, h);
  PCDview_RenderSection(image, g, scene, table);
  cairo_t* cr = cairo_create(image);
  PCDview_DrawRoiOverlays(cr, g, overlays.rois);
  PCDview_DrawRoiOverlays(cr, g, overlays.regions);
  for (const PcdFiberLayer* layer : overlays.fibers)
    if (layer) {
      cairo_surface_flush(image);
      PCDview_DrawFiberLayer(image, cr, g, *layer);
    }
  for (const PcdGlyphLayer* layer : overlays.glyphs)
    if (layer) PCDview_DrawGlyphLayer(cr, g, *layer);
  if (overlays.showBox) PCDview_DrawBoxVoi(cr, g, overlays.boxOrigin, overlays.boxSize);
  if (overlays.showCursor) DrawCursor(cr, g, scene.cursor);
  cairo_destroy(cr);
  cairo_surface_flush(image);
  return g;
}
