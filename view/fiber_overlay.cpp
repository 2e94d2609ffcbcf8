#include "view/fiber_overlay.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "study/study_settings.h"
#include "vol/raw_volume.h"

namespace {

std::map<uint16_t, std::unique_ptr<PcdFiberLayer>> g_layers;

uint32_t Rgb(double r, double g, double b) {
  const auto c = [](double v) { return uint32_t(std::clamp(v, 0.0, 1.0) * 255.0 + 0.5); };
  return 0xff000000u | c(r) << 16 | c(g) << 8 | c(b);
}

uint32_t UniqueColour(size_t fiber) {
  // golden-ratio hues: neighbouring fibers get clearly different colours
  const double h = std::fmod(double(fiber) * 0.618033988749895, 1.0) * 6.0;
  const double f = h - std::floor(h);
  switch (int(h)) {
    case 0: return Rgb(1, f, 0);
    case 1: return Rgb(1 - f, 1, 0);
    case 2: return Rgb(0, 1, f);
    case 3: return Rgb(0, 1 - f, 1);
    case 4: return Rgb(f, 0, 1);
    default: return Rgb(1, 0, 1 - f);
  }
}

constexpr double kDistanceSpan = 60.0;  // voxels from the seed to the red end of the ramp

// Appends one half-line's nodes (from index `from`, reversed when asked). A node at
// (x, y, z) reads the sample of voxel (x, y, z) whole, and the panes draw that voxel as
// the box x .. x + 1: the layer holds the nodes half a voxel on, where they are drawn.
void AppendHalf(const PcdTrakLineBuffer* line, bool reversed, int from, PcdFiberLayer* layer,
                std::vector<PcdVector3D>* eig) {
  if (line == nullptr) return;
  const int n = line->nodeCount;
  for (int k = 0; k < n - from; ++k) {
    const int i = reversed ? n - 1 - k : from + k;
    layer->nodes.push_back({line->x[i] + kPcdVoxelCentreFromCorner, line->y[i] + kPcdVoxelCentreFromCorner,
                             line->z[i] + kPcdVoxelCentreFromCorner, 0});
    eig->push_back({line->L1[i], line->L2[i], line->L3[i]});
  }
}

void ColourFiber(PcdFiberLayer* layer, size_t f, size_t seedNode, const std::vector<PcdVector3D>& eig) {
  const size_t a = layer->fiberStart[f], b = layer->nodes.size();
  std::vector<double> distance(b - a, 0.0);
  for (size_t i = seedNode + 1; i < b; ++i) {
    const PcdFiberNode &p = layer->nodes[i], &q = layer->nodes[i - 1];
    distance[i - a] = distance[i - 1 - a] + std::sqrt(double(p.x - q.x) * (p.x - q.x) + double(p.y - q.y) * (p.y - q.y) + double(p.z - q.z) * (p.z - q.z));
  }
  for (size_t i = seedNode; i-- > a;) {
    const PcdFiberNode &p = layer->nodes[i], &q = layer->nodes[i + 1];
    distance[i - a] = distance[i + 1 - a] + std::sqrt(double(p.x - q.x) * (p.x - q.x) + double(p.y - q.y) * (p.y - q.y) + double(p.z - q.z) * (p.z - q.z));
  }
  for (size_t i = a; i < b; ++i) {
    uint32_t c;
    switch (layer->coloring) {
      case kPcdColorDirection: {
        const PcdFiberNode& p = layer->nodes[i];
        const PcdFiberNode& q = layer->nodes[i > a ? i - 1 : std::min(i + 1, b - 1)];
        const double dx = p.x - q.x, dy = p.y - q.y, dz = p.z - q.z;
        const double n = std::sqrt(dx * dx + dy * dy + dz * dz);
        c = n > 0 ? Rgb(std::fabs(dx) / n, std::fabs(dy) / n, std::fabs(dz) / n) : Rgb(0.5, 0.5, 0.5);
        break;
      }
      case kPcdColorDistance: c = PCDview_RampColour(distance[i - a] / kDistanceSpan); break;
      case kPcdColorUnique: c = UniqueColour(f); break;
      case kPcdColorUniform: c = Rgb(1.0, 0.85, 0.0); break;
      default: c = PCDview_RampColour(PCDview_FAofEigenvalues(eig[i - a].x, eig[i - a].y, eig[i - a].z));
    }
    layer->nodes[i].colour = c;
  }
}

void AddToBucket(std::vector<PcdFiberRun>* bucket, uint32_t segment) {
  if (!bucket->empty()) {
    PcdFiberRun& last = bucket->back();
    if (last.first + last.segments == segment) {
      ++last.segments;
      return;
    }
  }
  bucket->push_back({segment, 1});
}

// A segment belongs to slice s when it comes within half a voxel of the voxels
// [s, s + 1) across the section.
void BucketSegments(PcdFiberLayer* layer) {
  for (int axis = 0; axis < 3; ++axis) {
    const auto coord = [axis](const PcdFiberNode& p) { return axis == 0 ? p.x : axis == 1 ? p.y : p.z; };
    auto& buckets = layer->buckets[axis];
    for (size_t f = 0; f + 1 < layer->fiberStart.size(); ++f) {
      for (uint32_t i = layer->fiberStart[f]; i + 1 < layer->fiberStart[f + 1]; ++i) {
        const double a = coord(layer->nodes[i]), b = coord(layer->nodes[i + 1]);
        const double lo = std::min(a, b), hi = std::max(a, b);
        if (!(hi >= -0.5) || !(lo < 32767.0)) continue;  // outside any volume, or not a number
        const int first = std::max(0, int(std::floor(lo - 1.5)) + 1);
        const int last = int(std::floor(hi + 0.5));
        if (last >= int(buckets.size())) buckets.resize(size_t(last) + 1);
        for (int s = first; s <= last; ++s) AddToBucket(&buckets[size_t(s)], i);
      }
    }
  }
}

void ChunkSegments(PcdFiberLayer* layer) {
  for (size_t f = 0; f + 1 < layer->fiberStart.size(); ++f) {
    const uint32_t end = layer->fiberStart[f + 1] - 1;  // the last node starts no segment
    for (uint32_t first = layer->fiberStart[f]; first < end; first += kPcdFiberChunkSegments) {
      const uint32_t segments = std::min(kPcdFiberChunkSegments, end - first);
      const PcdFiberNode& n = layer->nodes[first];
      PcdVector3D lo = {n.x, n.y, n.z}, hi = lo;
      for (uint32_t i = first + 1; i <= first + segments; ++i) {
        const PcdFiberNode& p = layer->nodes[i];
        lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
        hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
      }
      layer->chunks.push_back({first, segments, {(lo.x + hi.x) / 2, (lo.y + hi.y) / 2, (lo.z + hi.z) / 2},
                               {(hi.x - lo.x) / 2, (hi.y - lo.y) / 2, (hi.z - lo.z) / 2}});
    }
  }
}

struct Projector {
  PcdVector3D origin, ku, kv;
  explicit Projector(const PcdPaneGeometry& g) : origin(g.origin) {
    const double uu = double(g.u.x) * g.u.x + double(g.u.y) * g.u.y + double(g.u.z) * g.u.z;
    const double vv = double(g.v.x) * g.v.x + double(g.v.y) * g.v.y + double(g.v.z) * g.v.z;
    ku = {float(g.u.x / uu), float(g.u.y / uu), float(g.u.z / uu)};
    kv = {float(g.v.x / vv), float(g.v.y / vv), float(g.v.z / vv)};
  }
  template <class P>
  void At(const P& p, float* x, float* y) const {
    const float dx = p.x - origin.x, dy = p.y - origin.y, dz = p.z - origin.z;
    *x = dx * ku.x + dy * ku.y + dz * ku.z;
    *y = dx * kv.x + dy * kv.y + dz * kv.z;
  }
};

// A one-pixel line by equal steps along its longer side, clipped to the image.
void PlotLine(uint32_t* base, int stride, int w, int h, float x0, float y0, float x1, float y1,
              uint32_t colour) {
  if ((x0 < 0 && x1 < 0) || (y0 < 0 && y1 < 0) || (x0 >= w && x1 >= w) || (y0 >= h && y1 >= h)) return;
  const float dx = x1 - x0, dy = y1 - y0;
  if (std::fabs(dx) < 1.0f && std::fabs(dy) < 1.0f) {  // most segments: one pixel
    if (x1 >= 0 && y1 >= 0 && x1 < w && y1 < h) base[int(y1) * stride + int(x1)] = colour;
    return;
  }
  const int steps = int(std::max(std::fabs(dx), std::fabs(dy)));
  const float sx = steps > 0 ? dx / steps : 0, sy = steps > 0 ? dy / steps : 0;
  float x = x0, y = y0;
  for (int i = 0; i <= steps; ++i, x += sx, y += sy) {
    if (x >= 0 && y >= 0 && x < w && y < h) base[int(y) * stride + int(x)] = colour;
  }
}

void Tube(cairo_t* cr, float x0, float y0, float x1, float y1, uint32_t c) {
  cairo_set_source_rgb(cr, ((c >> 16) & 255) / 255.0, ((c >> 8) & 255) / 255.0, (c & 255) / 255.0);
  cairo_move_to(cr, x0, y0);
  cairo_line_to(cr, x1, y1);
  cairo_stroke(cr);
}

// Where a layer's segments go: hairlines straight into the image's pixels, tubes through
// cairo. Everything the segment loop needs sits here by value, so that the pixel stores
// cannot make the compiler reload it.
struct SegmentPainter {
  const PcdFiberNode* node;
  Projector project;
  uint32_t* base;
  int stride, w, h;
  cairo_t* tubes;  // null: hairlines

  void Segment(float x0, float y0, float x1, float y1, uint32_t c) const {
    if (tubes) {
      Tube(tubes, x0, y0, x1, y1, c);
    } else if (std::fabs(x1 - x0) < 1.0f && std::fabs(y1 - y0) < 1.0f) {  // most segments: one pixel
      if (x1 >= 0 && y1 >= 0 && x1 < float(w) && y1 < float(h)) base[int(y1) * stride + int(x1)] = c;
    } else {
      PlotLine(base, stride, w, h, x0, y0, x1, y1, c);
    }
  }

  // Segments first .. first + segments - 1 (segment i from node i to node i + 1, in the
  // colour of node i + 1) for which keep(i) holds; every node is projected once.
  template <class Keep>
  void Segments(uint32_t first, uint32_t segments, Keep keep) const {
    float x0, y0;
    project.At(node[first], &x0, &y0);
    for (uint32_t i = first; i < first + segments; ++i) {
      float x1, y1;
      project.At(node[i + 1], &x1, &y1);
      if (keep(i)) Segment(x0, y0, x1, y1, node[i + 1].colour);
      x0 = x1, y0 = y1;
    }
  }
};

}  // namespace

uint32_t PCDview_RampColour(double t) {
  if (!(t >= 0)) t = 0;
  if (t > 1) t = 1;
  const double s = t * 4.0;
  if (s < 1) return Rgb(0, s, 1);
  if (s < 2) return Rgb(0, 1, 2 - s);
  if (s < 3) return Rgb(s - 2, 1, 0);
  return Rgb(1, 4 - s, 0);
}

double PCDview_FAofEigenvalues(double l1, double l2, double l3) {
  const double m = (l1 + l2 + l3) / 3.0;
  const double den = l1 * l1 + l2 * l2 + l3 * l3;
  if (!(den > 0)) return 0.0;
  return std::sqrt(1.5 * ((l1 - m) * (l1 - m) + (l2 - m) * (l2 - m) + (l3 - m) * (l3 - m)) / den);
}

std::unique_ptr<PcdFiberLayer> PCDview_MakeFiberLayer(const PcdFibeTrakBuffer* buffer,
                                                      int32_t coloring, int32_t primitive) {
  auto layer = std::make_unique<PcdFiberLayer>();
  layer->coloring = coloring;
  layer->primitive = primitive;
  if (buffer == nullptr || buffer->pairs == nullptr) return layer;
  const int32_t lines = std::clamp(buffer->lineCount, 0, buffer->seedCount);
  // reserved whole and in huge pages where the system gives them: a redraw jumps from
  // run to run, and every jump to a fresh small page costs a page walk
  size_t total = 0;
  for (int32_t i = 0; i < lines; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair == nullptr || pair->selection == 0) continue;
    if (pair->backward) total += size_t(std::max(0, pair->backward->nodeCount - 1));
    if (pair->forward) total += size_t(std::max(0, int(pair->forward->nodeCount)));
  }
  layer->nodes.reserve(total);
  PCD_AdviseHugePages(layer->nodes.data(), total * sizeof(PcdFiberNode));
  std::vector<PcdVector3D> eig;
  for (int32_t i = 0; i < lines; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair == nullptr || pair->selection == 0) continue;
    const size_t start = layer->nodes.size();
    layer->fiberStart.push_back(uint32_t(start));
    eig.clear();
    // the backward half reversed, then the forward half; the seed node once
    AppendHalf(pair->backward, true, 1, layer.get(), &eig);
    const size_t seedNode = layer->nodes.size();
    AppendHalf(pair->forward, false, 0, layer.get(), &eig);
    if (layer->nodes.size() == start) {
      layer->fiberStart.pop_back();
      continue;
    }
    ColourFiber(layer.get(), layer->fiberStart.size() - 1, std::min(seedNode, layer->nodes.size() - 1), eig);
  }
  layer->fiberStart.push_back(uint32_t(layer->nodes.size()));
  ChunkSegments(layer.get());
  BucketSegments(layer.get());
  return layer;
}

void PCDview_DrawFiberLayer(cairo_surface_t* image, cairo_t* cr, const PcdPaneGeometry& g,
                            const PcdFiberLayer& layer) {
  if (g.kind == PCD_PANE_SPHERICAL || layer.nodes.empty()) return;
  const Projector project(g);
  const bool tubes = layer.primitive == kPcdPrimitiveTubular;
  cairo_surface_flush(image);
  uint32_t* base = reinterpret_cast<uint32_t*>(cairo_image_surface_get_data(image));
  const int stride = cairo_image_surface_get_stride(image) / 4;
  const int w = std::min(g.width, cairo_image_surface_get_width(image));
  const int h = std::min(g.height, cairo_image_surface_get_height(image));
  if (tubes) {
    cairo_save(cr);
    cairo_set_line_width(cr, std::max(2.0, 0.6 * g.pixelsPerVoxel));
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
  }
  const SegmentPainter paint{layer.nodes.data(), project, base, stride, w, h,
                             tubes ? cr : nullptr};
  const int axis = PCDview_PaneNormalAxis(g.kind);
  if (axis >= 0) {
    const float c = axis == 0 ? g.centre.x : axis == 1 ? g.centre.y : g.centre.z;
    const int s = int(std::floor(c));
    if (s >= 0 && size_t(s) < layer.buckets[axis].size()) {
      const std::vector<PcdFiberRun>& runs = layer.buckets[axis][size_t(s)];
      for (size_t r = 0; r < runs.size(); ++r) {
        // the next run lies elsewhere: ask for its start while this one is drawn
        if (r + 1 < runs.size()) __builtin_prefetch(&layer.nodes[runs[r + 1].first]);
        paint.Segments(runs[r].first, runs[r].segments, [](uint32_t) { return true; });
      }
    }
  } else {
    // oblique: the segments that come within a voxel of the section, chunks whose box
    // lies farther away skipped whole
    const auto depth = [&g](const auto& p) {
      return (p.x - g.centre.x) * g.normal.x + (p.y - g.centre.y) * g.normal.y + (p.z - g.centre.z) * g.normal.z;
    };
    const PcdVector3D n = {std::fabs(g.normal.x), std::fabs(g.normal.y), std::fabs(g.normal.z)};
    float d[kPcdFiberChunkSegments + 1];
    for (const PcdFiberChunk& chunk : layer.chunks) {
      const float reach = n.x * chunk.half.x + n.y * chunk.half.y + n.z * chunk.half.z + 1.0f;
      if (std::fabs(depth(chunk.centre)) > reach) continue;
      for (uint32_t k = 0; k <= chunk.segments; ++k) d[k] = depth(layer.nodes[chunk.first + k]);
      paint.Segments(chunk.first, chunk.segments, [&d, &chunk](uint32_t i) {
        const float a = d[i - chunk.first], b = d[i - chunk.first + 1];
        return std::min(a, b) < 1.0f && std::max(a, b) > -1.0f;
      });
    }
  }
  if (tubes) cairo_restore(cr);
  else cairo_surface_mark_dirty(image);
}

void PCDview_SetStudyFibers(const PcdStudyObject* study, const PcdFibeTrakBuffer* buffer, int) {
  if (study == nullptr) return;
  const int32_t coloring = study->tract ? study->tract->coloring : kPcdColorAnisotropy;
  const int32_t primitive = study->tract ? study->tract->primitive : kPcdPrimitiveHairline;
  g_layers[study->id] = PCDview_MakeFiberLayer(buffer, coloring, primitive);
}

void PCDview_DropStudyFibers(uint16_t studyId) { g_layers.erase(studyId); }
void PCDview_DropAllStudyFibers() { g_layers.clear(); }

const PcdFiberLayer* PCDview_GetStudyFibers(uint16_t studyId) {
  const auto found = g_layers.find(studyId);
  return found == g_layers.end() ? nullptr : found->second.get();
}
