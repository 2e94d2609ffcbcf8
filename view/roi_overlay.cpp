#include "view/roi_overlay.h"

#include <algorithm>
#include <cmath>

namespace {

uint32_t FreehandKey(int32_t x, int32_t y, int32_t z) {
  return uint32_t(x) | uint32_t(y) << 8 | uint32_t(z) << 16;
}

void SetRoiColour(cairo_t* cr, const PcdRoiObject* roi, double alpha) {
  cairo_set_source_rgba(cr, (roi->red >> 8) / 255.0, (roi->green >> 8) / 255.0,
                        (roi->blue >> 8) / 255.0, alpha);
}

// The pane's pixels whose voxel the ROI takes, as one rectangle per run of a row.
void AddCoveredPixels(cairo_t* cr, const PcdPaneGeometry& g, const PcdRoiVoxelTest& test) {
  for (int y = 0; y < g.height; ++y) {
    int runStart = -1;
    for (int x = 0; x <= g.width; ++x) {
      bool inside = false;
      if (x < g.width) {
        const PcdVector3D p = PCDview_PixelToVoxel(g, x + 0.5, y + 0.5);
        inside = p.x >= 0 && p.y >= 0 && p.z >= 0 && p.x < 65536 && p.y < 65536 && p.z < 65536 &&
                 test.Contains(int32_t(p.x), int32_t(p.y), int32_t(p.z));
      }
      if (inside && runStart < 0) runStart = x;
      if (!inside && runStart >= 0) {
        cairo_rectangle(cr, runStart, y, x - runStart, 1);
        runStart = -1;
      }
    }
  }
}

void DrawSphereCircle(cairo_t* cr, const PcdPaneGeometry& g, const PcdRoiShape& s) {
  double px, py, depth;
  if (!PCDview_VoxelToPixel(g, s.centre, &px, &py, &depth)) return;
  const double r = s.radius;
  if (!(std::fabs(depth) < r)) return;
  const double rr = std::sqrt(r * r - depth * depth) * g.pixelsPerVoxel;
  cairo_new_sub_path(cr);
  cairo_arc(cr, px, py, rr, 0, 2 * M_PI);
}

}  // namespace

bool PcdRoiVoxelTest::Contains(int32_t x, int32_t y, int32_t z) const {
  if (roi == nullptr) return false;
  switch (roi->type) {
    case PCD_ROI_SPHERICAL: {
      if (!roi->shape) return false;
      const PcdVector3D& c = roi->shape->centre;
      const double dx = x + 0.5 - c.x, dy = y + 0.5 - c.y, dz = z + 0.5 - c.z;
      const double r = roi->shape->radius;
      return dx * dx + dy * dy + dz * dz <= r * r;
    }
    case PCD_ROI_FREEHAND:
      if (x > 255 || y > 255 || z > 65535) return false;
      return std::binary_search(freehandKeys.begin(), freehandKeys.end(), FreehandKey(x, y, z));
    case PCD_ROI_VOXELGROUP: {
      const PcdVoxelGroup* group = roi->voxelGroup.get();
      return group != nullptr &&
             PCD_GetVoxelOfVoxelGroup(group, x - group->origin.x, y - group->origin.y,
                                      z - group->origin.z) != 0;
    }
    default:
      return false;
  }
}

PcdRoiVoxelTest PCDview_MakeRoiVoxelTest(const PcdRoiObject* roi) {
  PcdRoiVoxelTest test;
  test.roi = roi;
  if (roi != nullptr && roi->type == PCD_ROI_FREEHAND && roi->shape) {
    for (const PcdRoiPoint& p : roi->shape->points) test.freehandKeys.push_back(FreehandKey(p.x, p.y, p.z));
    std::sort(test.freehandKeys.begin(), test.freehandKeys.end());
  }
  return test;
}

void PCDview_DrawRoiOverlays(cairo_t* cr, const PcdPaneGeometry& g, const PcdRoiList* rois) {
  if (rois == nullptr) return;
  cairo_save(cr);
  cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
  for (const auto& item : rois->items) {
    const PcdRoiObject* roi = item.get();
    if (roi == nullptr || roi->visible != 1) continue;
    const bool selected = roi->id == rois->selectedId;
    AddCoveredPixels(cr, g, PCDview_MakeRoiVoxelTest(roi));
    SetRoiColour(cr, roi, selected ? 0.5 : 0.35);
    cairo_fill(cr);
    if (roi->type == PCD_ROI_SPHERICAL && roi->shape) {
      cairo_set_antialias(cr, CAIRO_ANTIALIAS_DEFAULT);
      DrawSphereCircle(cr, g, *roi->shape);
      SetRoiColour(cr, roi, 1.0);
      cairo_set_line_width(cr, selected ? 2.0 : 1.0);
      cairo_stroke(cr);
      cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    }
  }
  cairo_restore(cr);
}

void PCDview_DrawBoxVoi(cairo_t* cr, const PcdPaneGeometry& g, const PcdIntVector3D& o,
                        const PcdIntSize3D& s) {
  if (g.kind == PCD_PANE_SPHERICAL || s.x <= 0 || s.y <= 0 || s.z <= 0) return;
  // the section passes the box when its centre lies within the box across the section
  const PcdVector3D c = g.centre;
  const int axis = PCDview_PaneNormalAxis(g.kind);
  if (axis == 0 && !(c.x >= o.x && c.x < o.x + s.x)) return;
  if (axis == 1 && !(c.y >= o.y && c.y < o.y + s.y)) return;
  if (axis == 2 && !(c.z >= o.z && c.z < o.z + s.z)) return;
  if (axis < 0) return;
  double x0, y0, x1, y1;
  PcdVector3D a = {float(o.x), float(o.y), float(o.z)};
  PcdVector3D b = {float(o.x + s.x), float(o.y + s.y), float(o.z + s.z)};
  PCDview_VoxelToPixel(g, a, &x0, &y0, nullptr);
  PCDview_VoxelToPixel(g, b, &x1, &y1, nullptr);
  cairo_save(cr);
  const double dash[] = {4.0, 3.0};
  cairo_set_dash(cr, dash, 2, 0);
  cairo_set_line_width(cr, 1.0);
  cairo_set_source_rgb(cr, 0.2, 1.0, 1.0);
  cairo_rectangle(cr, std::min(x0, x1) + 0.5, std::min(y0, y1) + 0.5, std::fabs(x1 - x0) - 1,
                  std::fabs(y1 - y0) - 1);
  cairo_stroke(cr);
  cairo_restore(cr);
}
