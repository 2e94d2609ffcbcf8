#include "view/glyph_overlay.h"

#include <cmath>
#include <map>
#include <memory>

#include "study/study_settings.h"
#include "view/fiber_overlay.h"

namespace {

std::map<uint16_t, std::unique_ptr<PcdGlyphLayer>> g_glyphs;

double Dot(const PcdVector3D& a, const PcdVector3D& b) {
  return double(a.x) * b.x + double(a.y) * b.y + double(a.z) * b.z;
}

PcdVector3D Unit(PcdVector3D v) {
  const double n = std::sqrt(Dot(v, v));
  if (n == 0) return v;
  return {float(v.x / n), float(v.y / n), float(v.z / n)};
}

void SetGlyphColour(cairo_t* cr, const PcdGlyphLayer& layer, const PcdGlyph& glyph) {
  if (layer.coloring == kPcdColorDirection) {
    const PcdVector3D& e = glyph.axes[0];
    cairo_set_source_rgb(cr, std::fabs(e.x), std::fabs(e.y), std::fabs(e.z));
    return;
  }
  const uint32_t c = PCDview_RampColour(glyph.fa);
  cairo_set_source_rgb(cr, ((c >> 16) & 255) / 255.0, ((c >> 8) & 255) / 255.0, (c & 255) / 255.0);
}

}  // namespace

PcdDifProfDrawFunction PCDview_CollectGlyphs(std::vector<PcdGlyph>* glyphs) {
  return [glyphs](const PcdVector3D* point, const PcdDiffusionTensorData* t) {
    if (point == nullptr || t == nullptr || t->tensor == nullptr) return;
    PcdGlyph glyph;
    // the point's sample lies at the centre of the voxel box the panes draw
    glyph.position = {point->x + kPcdVoxelCentreFromCorner, point->y + kPcdVoxelCentreFromCorner,
                      point->z + kPcdVoxelCentreFromCorner};
    for (int k = 0; k < 3; ++k) {
      const int column = 3 - k;  // eigenvalues ascending: column 3 is the largest
      glyph.lambda[k] = t->eigenvalues[column];
      glyph.axes[k] = Unit({t->tensor[1][column], t->tensor[2][column], t->tensor[3][column]});
    }
    glyph.fa = float(PCDview_FAofEigenvalues(glyph.lambda[0], glyph.lambda[1], glyph.lambda[2]));
    glyphs->push_back(glyph);
  };
}

double PCDview_GlyphRadius(const PcdGlyph& glyph, int32_t primitive, const PcdVector3D& d) {
  const double l1 = glyph.lambda[0];
  if (!(l1 > 0)) return 0.0;
  double adc = 0, inverse = 0, stretch = 0;
  for (int k = 0; k < 3; ++k) {
    const double c = Dot(d, glyph.axes[k]), l = glyph.lambda[k];
    adc += c * c * l;
    stretch += c * c * l * l;
    if (l > 0) inverse += c * c / (l * l);
    else if (c != 0) return 0.0;  // a flat ellipsoid has no extent off its plane
  }
  switch (primitive) {
    case kPcdGlyphEllipsoid: return inverse > 0 ? 1.0 / std::sqrt(inverse) / l1 : 0.0;  // semi-axes l1, l2, l3
    case kPcdGlyphEnvelope: return std::sqrt(stretch) / l1;
    default: return std::max(0.0, adc / l1);
  }
}

void PCDview_DrawGlyphLayer(cairo_t* cr, const PcdPaneGeometry& g, const PcdGlyphLayer& layer) {
  if (g.kind == PCD_PANE_SPHERICAL) return;
  const PcdVector3D right = Unit(g.u), down = Unit(g.v);
  cairo_save(cr);
  cairo_set_line_width(cr, 1.0);
  for (const PcdGlyph& glyph : layer.glyphs) {
    double px, py, depth;
    if (!PCDview_VoxelToPixel(g, glyph.position, &px, &py, &depth) || !(std::fabs(depth) < 0.5)) continue;
    if (px < -g.pixelsPerVoxel || py < -g.pixelsPerVoxel || px > g.width + g.pixelsPerVoxel ||
        py > g.height + g.pixelsPerVoxel)
      continue;
    const double size = 0.5 * g.pixelsPerVoxel * (layer.emphasis ? glyph.fa : 1.0);
    SetGlyphColour(cr, layer, glyph);
    if (layer.primitive == kPcdGlyphStar) {
      for (int k = 0; k < 3; ++k) {
        const double len = size * glyph.lambda[k] / glyph.lambda[0];
        const double ax = Dot(glyph.axes[k], right) * len, ay = Dot(glyph.axes[k], down) * len;
        cairo_move_to(cr, px - ax, py - ay);
        cairo_line_to(cr, px + ax, py + ay);
      }
      cairo_stroke(cr);
      continue;
    }
    constexpr int kSteps = 36;
    for (int i = 0; i < kSteps; ++i) {
      const double a = 2 * M_PI * i / kSteps, c = std::cos(a), s = std::sin(a);
      const PcdVector3D d = {float(c * right.x + s * down.x), float(c * right.y + s * down.y),
                             float(c * right.z + s * down.z)};
      const double r = size * PCDview_GlyphRadius(glyph, layer.primitive, d);
      if (i == 0) cairo_move_to(cr, px + r * c, py + r * s);
      else cairo_line_to(cr, px + r * c, py + r * s);
    }
    cairo_close_path(cr);
    cairo_fill(cr);
  }
  cairo_restore(cr);
}

void PCDview_SetStudyGlyphs(const PcdStudyObject* study, std::vector<PcdGlyph> glyphs) {
  if (study == nullptr) return;
  auto layer = std::make_unique<PcdGlyphLayer>();
  if (study->profile) {
    layer->primitive = study->profile->primitive;
    layer->coloring = study->profile->coloring;
    layer->emphasis = study->profile->emphasis == kPcdOptionOn;
  }
  layer->glyphs = std::move(glyphs);
  g_glyphs[study->id] = std::move(layer);
}

void PCDview_DropStudyGlyphs(uint16_t studyId) { g_glyphs.erase(studyId); }
void PCDview_DropAllStudyGlyphs() { g_glyphs.clear(); }

const PcdGlyphLayer* PCDview_GetStudyGlyphs(uint16_t studyId) {
  const auto found = g_glyphs.find(studyId);
  return found == g_glyphs.end() ? nullptr : found->second.get();
}
