#include "report/figures.h"

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>

#include <fontconfig/fontconfig.h>
#include <png.h>

#include "view/pane_render.h"

namespace {

constexpr uint32_t kOutline = 0xffffd700;  // yellow
constexpr int kLabelHeight = 16;

size_t VoxelIndex(const PcdIntSize4D& s, int32_t x, int32_t y, int32_t z) {
  return static_cast<size_t>(x) + static_cast<size_t>(s.x) * (static_cast<size_t>(y) + static_cast<size_t>(s.y) * static_cast<size_t>(z));
}

// The range of slices along an axis where the mask has voxels, or the whole axis.
void Extent(const PcdMosaicLayout& layout, int axis, int32_t* lo, int32_t* hi) {
  const PcdIntSize4D& s = *layout.volume->matrixSize;
  const int32_t n = axis == 0 ? s.x : axis == 1 ? s.y : s.z;
  *lo = 0, *hi = n - 1;
  if (layout.outline == nullptr) return;
  int32_t first = n, last = -1;
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at)
        if ((*layout.outline)[at]) {
          const int32_t i = axis == 0 ? x : axis == 1 ? y : z;
          first = std::min(first, i), last = std::max(last, i);
        }
  if (last >= first) *lo = first, *hi = last;
}

PcdSliceScene SceneAt(const PcdMosaicLayout& layout, int32_t kind, int32_t slice, int* width, int* height) {
  const PcdIntSize4D& s = *layout.volume->matrixSize;
  PcdSliceScene scene;
  scene.volume = layout.volume;
  scene.channel = layout.channel;
  scene.voxelMm = layout.voxelMm;
  scene.greyLow = layout.greyLow;
  scene.greyHigh = layout.greyHigh;
  scene.cursor = {s.x / 2, s.y / 2, s.z / 2};
  const int axis = PCDview_PaneNormalAxis(kind);
  (axis == 0 ? scene.cursor.x : axis == 1 ? scene.cursor.y : scene.cursor.z) = slice;
  // the section's extent in units of the smallest voxel side, fitted to the tile size
  const double minMm = std::min({layout.voxelMm.x, layout.voxelMm.y, layout.voxelMm.z});
  const double ex = s.x * layout.voxelMm.x / minMm, ey = s.y * layout.voxelMm.y / minMm, ez = s.z * layout.voxelMm.z / minMm;
  const double right = kind == PCD_PANE_SAGITTAL ? ey : ex, down = kind == PCD_PANE_AXIAL ? ey : ez;
  const double perPixel = std::max(right, down) / std::max(layout.tileSize, 16);
  scene.voxelsPerPixel = static_cast<float>(perPixel);
  *width = std::max(1, static_cast<int>(std::ceil(right / perPixel - 1e-6)));
  *height = std::max(1, static_cast<int>(std::ceil(down / perPixel - 1e-6)));
  return scene;
}

// The mask's edge in yellow and the painted voxels in red, pixel by pixel over a tile.
void MarkPixels(cairo_surface_t* tile, const PcdPaneGeometry& g, const PcdMosaicLayout& layout) {
  if (layout.outline == nullptr && layout.painted == nullptr) return;
  const PcdIntSize4D& s = *layout.volume->matrixSize;
  const int w = g.width, h = g.height;
  std::vector<int64_t> voxelOf(static_cast<size_t>(w) * static_cast<size_t>(h), -1);
  for (int py = 0; py < h; ++py)
    for (int px = 0; px < w; ++px) {
      const PcdVector3D p = PCDview_PixelToVoxel(g, px + 0.5, py + 0.5);
      const int32_t x = static_cast<int32_t>(std::floor(p.x)), y = static_cast<int32_t>(std::floor(p.y)),
                    z = static_cast<int32_t>(std::floor(p.z));
      if (x >= 0 && y >= 0 && z >= 0 && x < s.x && y < s.y && z < s.z)
        voxelOf[static_cast<size_t>(py) * static_cast<size_t>(w) + static_cast<size_t>(px)] = static_cast<int64_t>(VoxelIndex(s, x, y, z));
    }
  auto inMask = [&](int px, int py) {
    if (px < 0 || py < 0 || px >= w || py >= h) return false;
    const int64_t v = voxelOf[static_cast<size_t>(py) * static_cast<size_t>(w) + static_cast<size_t>(px)];
    return v >= 0 && (*layout.outline)[static_cast<size_t>(v)] != 0;
  };
  cairo_surface_flush(tile);
  unsigned char* data = cairo_image_surface_get_data(tile);
  const int stride = cairo_image_surface_get_stride(tile);
  for (int py = 0; py < h; ++py) {
    auto* row = reinterpret_cast<uint32_t*>(data + static_cast<ptrdiff_t>(py) * stride);
    for (int px = 0; px < w; ++px) {
      const int64_t v = voxelOf[static_cast<size_t>(py) * static_cast<size_t>(w) + static_cast<size_t>(px)];
      if (v < 0) continue;
      if (layout.blankOutside && layout.outline != nullptr && (*layout.outline)[static_cast<size_t>(v)] == 0) {
        row[px] = 0xff000000u;
        continue;
      }
      if (layout.painted != nullptr && (*layout.painted)[static_cast<size_t>(v)] != 0) {
        const uint32_t c = row[px];
        const uint32_t r = ((c >> 16) & 0xff) / 3 + 170, gr = ((c >> 8) & 0xff) / 3, b = (c & 0xff) / 3;
        row[px] = 0xff000000u | (r << 16) | (gr << 8) | b;
      }
      if (layout.outline != nullptr && inMask(px, py) &&
          !(inMask(px - 1, py) && inMask(px + 1, py) && inMask(px, py - 1) && inMask(px, py + 1)))
        row[px] = kOutline;
    }
  }
  cairo_surface_mark_dirty(tile);
}

PcdSurface RenderTile(const PcdMosaicLayout& layout, int32_t kind, int32_t slice, PcdGreyTable* table,
                      PcdPaneGeometry* geometry) {
  int w = 0, h = 0;
  const PcdSliceScene scene = SceneAt(layout, kind, slice, &w, &h);
  PcdSurface tile(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h));
  PcdSlicePane pane;
  pane.kind = kind;
  PcdPaneOverlays overlays;
  overlays.showCursor = false;
  *geometry = PCDview_RenderPane(tile.get(), pane, scene, overlays, table);
  MarkPixels(tile.get(), *geometry, layout);
  return tile;
}

void Label(cairo_t* cr, double x, double y, const std::string& text, double size = 11.0) {
  cairo_set_source_rgb(cr, 0.85, 0.85, 0.85);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, size);
  cairo_move_to(cr, x, y);
  cairo_show_text(cr, text.c_str());
}

const char* KindName(int32_t kind) {
  return kind == PCD_PANE_SAGITTAL ? "sagittal" : kind == PCD_PANE_CORONAL ? "coronal" : "axial";
}

// Every segment as a one-pixel line blended half over the image, pixel by pixel: a picture
// holds hundreds of thousands of segments, which cairo would stroke one path at a time.
void DrawFibersFlat(cairo_surface_t* image, const PcdPaneGeometry& g, const PcdFiberLayer& layer) {
  cairo_surface_flush(image);
  unsigned char* data = cairo_image_surface_get_data(image);
  const int stride = cairo_image_surface_get_stride(image);
  const int w = cairo_image_surface_get_width(image), h = cairo_image_surface_get_height(image);
  auto blend = [&](int x, int y, uint32_t colour) {
    if (x < 0 || y < 0 || x >= w || y >= h) return;
    uint32_t& p = reinterpret_cast<uint32_t*>(data + static_cast<ptrdiff_t>(y) * stride)[x];
    const uint32_t rb = (((p & 0xff00ffu) + (colour & 0xff00ffu)) >> 1) & 0xff00ffu;
    const uint32_t gg = (((p & 0x00ff00u) + (colour & 0x00ff00u)) >> 1) & 0x00ff00u;
    p = 0xff000000u | rb | gg;
  };
  for (size_t f = 0; f + 1 < layer.fiberStart.size(); ++f)
    for (uint32_t n = layer.fiberStart[f] + 1; n < layer.fiberStart[f + 1] && n < layer.nodes.size(); ++n) {
      const PcdFiberNode& a = layer.nodes[n - 1];
      const PcdFiberNode& b = layer.nodes[n];
      double ax, ay, bx, by;
      if (!PCDview_VoxelToPixel(g, {a.x, a.y, a.z}, &ax, &ay, nullptr) ||
          !PCDview_VoxelToPixel(g, {b.x, b.y, b.z}, &bx, &by, nullptr))
        continue;
      const int steps = static_cast<int>(std::min(4096.0, std::ceil(std::max(std::fabs(bx - ax), std::fabs(by - ay)))));
      for (int k = 1; k <= std::max(steps, 1); ++k) {
        const double t = static_cast<double>(k) / std::max(steps, 1);
        blend(static_cast<int>(std::floor(ax + t * (bx - ax))), static_cast<int>(std::floor(ay + t * (by - ay))), b.colour);
      }
    }
  cairo_surface_mark_dirty(image);
}

}  // namespace

std::vector<int32_t> PCDreport_MosaicSlices(const PcdMosaicLayout& layout, int32_t kind) {
  int32_t lo = 0, hi = 0;
  Extent(layout, PCDview_PaneNormalAxis(kind), &lo, &hi);
  const int n = std::clamp(layout.tiles, 1, hi - lo + 1);
  std::vector<int32_t> slices;
  for (int i = 0; i < n; ++i)
    slices.push_back(lo + static_cast<int32_t>((hi - lo + 1) * (i + 0.5) / n));
  return slices;
}

PcdSurface PCDreport_Mosaic(const PcdMosaicLayout& layout, int32_t kind) {
  const std::vector<int32_t> slices = PCDreport_MosaicSlices(layout, kind);
  PcdGreyTable table;
  std::vector<PcdSurface> tiles;
  PcdPaneGeometry g;
  for (int32_t slice : slices) tiles.push_back(RenderTile(layout, kind, slice, &table, &g));
  const int w = cairo_image_surface_get_width(tiles[0].get()), h = cairo_image_surface_get_height(tiles[0].get());
  PcdSurface out(cairo_image_surface_create(CAIRO_FORMAT_RGB24, w * static_cast<int>(tiles.size()) + 2 * static_cast<int>(tiles.size() - 1), h + kLabelHeight));
  cairo_t* cr = cairo_create(out.get());
  cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
  cairo_paint(cr);
  for (size_t i = 0; i < tiles.size(); ++i) {
    const double x = static_cast<double>(i) * (w + 2);
    cairo_set_source_surface(cr, tiles[i].get(), x, kLabelHeight);
    cairo_paint(cr);
    Label(cr, x + 3, 12, std::string(KindName(kind)) + " " + std::to_string(slices[i]));
  }
  cairo_destroy(cr);
  return out;
}

PcdSurface PCDreport_TractPicture(const PcdMosaicLayout& layout, const PcdFiberLayer& layer) {
  const int32_t kinds[3] = {PCD_PANE_AXIAL, PCD_PANE_CORONAL, PCD_PANE_SAGITTAL};
  std::vector<PcdSurface> panels;
  PcdGreyTable table;
  for (int32_t kind : kinds) {
    int32_t lo = 0, hi = 0;
    Extent(layout, PCDview_PaneNormalAxis(kind), &lo, &hi);
    PcdPaneGeometry g;
    PcdSurface tile = RenderTile(layout, kind, (lo + hi) / 2, &table, &g);
    cairo_t* cr = cairo_create(tile.get());
    // the section dimmed, so that the fibers stand out; then every fiber flattened onto it
    cairo_set_source_rgba(cr, 0, 0, 0, 0.55);
    cairo_paint(cr);
    cairo_destroy(cr);
    DrawFibersFlat(tile.get(), g, layer);
    panels.push_back(std::move(tile));
  }
  int width = 0, height = 0;
  for (const PcdSurface& p : panels) {
    width += cairo_image_surface_get_width(p.get()) + 4;
    height = std::max(height, cairo_image_surface_get_height(p.get()));
  }
  PcdSurface out(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height + kLabelHeight));
  cairo_t* cr = cairo_create(out.get());
  cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
  cairo_paint(cr);
  double x = 0;
  for (size_t i = 0; i < panels.size(); ++i) {
    cairo_set_source_surface(cr, panels[i].get(), x, kLabelHeight);
    cairo_paint(cr);
    Label(cr, x + 3, 12, KindName(kinds[i]));
    x += cairo_image_surface_get_width(panels[i].get()) + 4;
  }
  cairo_destroy(cr);
  return out;
}

PcdSurface PCDreport_GradientSphere(const PcdDtiData* dti) {
  constexpr int kPanel = 220;
  constexpr double kRadius = 95.0;
  PcdSurface out(cairo_image_surface_create(CAIRO_FORMAT_RGB24, 2 * kPanel + 10, kPanel + kLabelHeight));
  cairo_t* cr = cairo_create(out.get());
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_paint(cr);
  for (int panel = 0; panel < 2; ++panel) {
    const double cx = panel * (kPanel + 10) + kPanel / 2.0, cy = kLabelHeight + kPanel / 2.0;
    cairo_set_source_rgb(cr, 0.93, 0.93, 0.93);
    cairo_new_path(cr);
    cairo_arc(cr, cx, cy, kRadius, 0, 2 * M_PI);
    cairo_fill_preserve(cr);
    cairo_set_source_rgb(cr, 0.5, 0.5, 0.5);
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, 11);
    cairo_move_to(cr, panel * (kPanel + 10) + 4, 12);
    cairo_show_text(cr, panel == 0 ? "from above (z >= 0)" : "from below (z <= 0)");
    const int32_t n = std::clamp(dti->channelCount, 0, kPcdDtiMaxChannels);
    for (int32_t c = std::clamp(dti->soCount, 0, n); c < n; ++c) {
      PcdVector3D g = dti->mpgVectors[c];
      const double len = std::sqrt(double(g.x) * g.x + double(g.y) * g.y + double(g.z) * g.z);
      if (!(len > 0)) continue;
      double x = g.x / len, y = g.y / len, z = g.z / len;
      const bool opposite = panel == 0 ? z < 0 : z > 0;
      if (opposite) x = -x, y = -y, z = -z;
      // seen from below, x runs the other way
      const double px = cx + (panel == 0 ? x : -x) * kRadius, py = cy - y * kRadius;
      cairo_new_path(cr);  // no line from the label's end to the mark
      cairo_arc(cr, px, py, 4.5, 0, 2 * M_PI);
      cairo_set_source_rgb(cr, std::fabs(x) * 0.9, std::fabs(y) * 0.9, std::fabs(z) * 0.9);
      if (opposite) {
        cairo_set_line_width(cr, 1.8);
        cairo_stroke(cr);
      } else {
        cairo_fill(cr);
      }
    }
  }
  cairo_destroy(cr);
  return out;
}

PcdSurface PCDreport_BarPlot(const std::vector<double>& values, const std::vector<bool>& marked,
                             const std::string& title) {
  const int n = static_cast<int>(values.size());
  const int barWidth = std::clamp(600 / std::max(n, 1), 3, 14);
  const int left = 56, top = 24, plotHeight = 150, bottom = 22;
  const int width = std::max(360, left + n * barWidth + 16);
  PcdSurface out(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, top + plotHeight + bottom));
  cairo_t* cr = cairo_create(out.get());
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_paint(cr);
  double top_value = 0;
  for (double v : values)
    if (std::isfinite(v)) top_value = std::max(top_value, v);
  if (!(top_value > 0)) top_value = 1;
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, 11);
  cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
  cairo_move_to(cr, left, 14);
  cairo_show_text(cr, title.c_str());
  char text[32];
  std::snprintf(text, sizeof text, "%.3g", top_value);
  cairo_move_to(cr, 4, top + 10);
  cairo_show_text(cr, text);
  cairo_move_to(cr, 4, top + plotHeight);
  cairo_show_text(cr, "0");
  for (int i = 0; i < n; ++i) {
    const double v = std::isfinite(values[static_cast<size_t>(i)]) ? values[static_cast<size_t>(i)] : 0.0;
    const double h = plotHeight * std::clamp(v / top_value, 0.0, 1.0);
    const bool red = static_cast<size_t>(i) < marked.size() && marked[static_cast<size_t>(i)];
    cairo_set_source_rgb(cr, red ? 0.85 : 0.27, red ? 0.15 : 0.51, red ? 0.15 : 0.71);
    cairo_rectangle(cr, left + i * barWidth + 1, top + plotHeight - h, barWidth - 2, h);
    cairo_fill(cr);
    if (i % 5 == 0) {
      cairo_set_source_rgb(cr, 0.3, 0.3, 0.3);
      cairo_move_to(cr, left + i * barWidth, top + plotHeight + 14);
      cairo_show_text(cr, std::to_string(i).c_str());
    }
  }
  cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
  cairo_set_line_width(cr, 1);
  cairo_move_to(cr, left - 0.5, top);
  cairo_line_to(cr, left - 0.5, top + plotHeight + 0.5);
  cairo_line_to(cr, width - 8, top + plotHeight + 0.5);
  cairo_stroke(cr);
  cairo_destroy(cr);
  return out;
}

int PCDreport_WritePng(cairo_surface_t* surface, const std::string& path) {
  // libpng directly rather than cairo's writer: the figures are written at zlib's fastest
  // level, which makes files about a third larger in a fraction of the time
  cairo_surface_flush(surface);
  const int w = cairo_image_surface_get_width(surface), h = cairo_image_surface_get_height(surface);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  if (data == nullptr || w <= 0 || h <= 0) return -1;
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!file) return -1;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
  if (info == nullptr) {
    png_destroy_write_struct(&png, nullptr);
    return -1;
  }
  std::vector<png_byte> row(static_cast<size_t>(w) * 3);
  // libpng reports a failure by jumping back here
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return -1;
  }
  png_init_io(png, file.get());
  png_set_compression_level(png, 1);
  png_set_IHDR(png, info, static_cast<png_uint_32>(w), static_cast<png_uint_32>(h), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < h; ++y) {
    const auto* pixels = reinterpret_cast<const uint32_t*>(data + static_cast<ptrdiff_t>(y) * stride);
    for (int x = 0; x < w; ++x) {
      // the figures are opaque: RGB24 and ARGB32 hold the colour in the low three bytes
      row[static_cast<size_t>(x) * 3] = static_cast<png_byte>(pixels[x] >> 16);
      row[static_cast<size_t>(x) * 3 + 1] = static_cast<png_byte>(pixels[x] >> 8);
      row[static_cast<size_t>(x) * 3 + 2] = static_cast<png_byte>(pixels[x]);
    }
    png_write_row(png, row.data());
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return std::fflush(file.get()) == 0 ? 0 : -1;
}

void PCDreport_ReleaseFontCaches() {
  cairo_debug_reset_static_data();
  FcFini();
}
