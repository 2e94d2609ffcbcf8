#include "view/slice_pane.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kPi = 3.14159265358979323846;

PcdVector3D Add(const PcdVector3D& a, const PcdVector3D& b, double k) {
  return {static_cast<float>(a.x + k * b.x), static_cast<float>(a.y + k * b.y),
          static_cast<float>(a.z + k * b.z)};
}

PcdVector3D Normalized(PcdVector3D d) {
  const double n = std::sqrt(double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z);
  if (n == 0.0) return {0, 0, 0};
  return {static_cast<float>(d.x / n), static_cast<float>(d.y / n), static_cast<float>(d.z / n)};
}

PcdVector3D Cross(const PcdVector3D& a, const PcdVector3D& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// A direction in millimetres as a step of one pixel in voxel units.
PcdVector3D PixelStep(const PcdVector3D& dirMm, double mmPerPixel, const PcdVector3D& mm) {
  return {static_cast<float>(dirMm.x * mmPerPixel / mm.x),
          static_cast<float>(dirMm.y * mmPerPixel / mm.y),
          static_cast<float>(dirMm.z * mmPerPixel / mm.z)};
}

// The section's axes in millimetre space: right, down and across.
void SectionAxes(const PcdSlicePane& pane, const PcdSliceScene& scene, PcdVector3D* right,
                 PcdVector3D* down, PcdVector3D* across) {
  switch (pane.kind) {
    case PCD_PANE_SAGITTAL:
      *right = {0, 1, 0}, *down = {0, 0, -1}, *across = {1, 0, 0};
      return;
    case PCD_PANE_CORONAL:
      *right = {1, 0, 0}, *down = {0, 0, -1}, *across = {0, 1, 0};
      return;
    case PCD_PANE_OBLIQUE: {
      PcdVector3D n;
      if (pane.obliqueAlongE1) {
        n = Normalized(scene.e1);
        if (n.x == 0 && n.y == 0 && n.z == 0) n = {0, 0, 1};
      } else {
        const double t = pane.obliqueTilt * kPi / 180.0, r = pane.obliqueTurn * kPi / 180.0;
        // (0, 0, 1) tilted about x, then turned about z
        const double y = -std::sin(t), z = std::cos(t);
        n = {static_cast<float>(-y * std::sin(r)), static_cast<float>(y * std::cos(r)),
             static_cast<float>(z)};
      }
      PcdVector3D ref = std::fabs(n.x) < 0.9f ? PcdVector3D{1, 0, 0} : PcdVector3D{0, 1, 0};
      PcdVector3D u = Normalized(Add(ref, n, -(ref.x * n.x + ref.y * n.y + ref.z * n.z)));
      *right = u, *down = Normalized(Cross(n, u)), *across = n;
      return;
    }
    default:
      *right = {1, 0, 0}, *down = {0, 1, 0}, *across = {0, 0, 1};
      return;
  }
}

}  // namespace

int PCDview_PaneNormalAxis(int32_t kind) {
  switch (kind) {
    case PCD_PANE_AXIAL: return 2;
    case PCD_PANE_SAGITTAL: return 0;
    case PCD_PANE_CORONAL: return 1;
    default: return -1;
  }
}

int32_t PCDview_PaneSlice(int32_t kind, const PcdIntVector3D& c) {
  switch (PCDview_PaneNormalAxis(kind)) {
    case 0: return c.x;
    case 1: return c.y;
    case 2: return c.z;
    default: return 0;
  }
}

int32_t PCDview_PaneSliceCount(int32_t kind, const PcdIntSize4D& s) {
  switch (PCDview_PaneNormalAxis(kind)) {
    case 0: return s.x;
    case 1: return s.y;
    case 2: return s.z;
    default: return 0;
  }
}

PcdPaneGeometry PCDview_GetPaneGeometry(const PcdSlicePane& pane, const PcdSliceScene& scene,
                                        int width, int height) {
  PcdPaneGeometry g;
  g.kind = pane.kind;
  g.width = width;
  g.height = height;
  const PcdVector3D mm = {scene.voxelMm.x > 0 ? scene.voxelMm.x : 1.0f,
                          scene.voxelMm.y > 0 ? scene.voxelMm.y : 1.0f,
                          scene.voxelMm.z > 0 ? scene.voxelMm.z : 1.0f};
  const float minMm = std::min({mm.x, mm.y, mm.z});
  const double mmPerPixel = double(scene.voxelsPerPixel) * minMm;
  g.pixelsPerVoxel = scene.voxelsPerPixel > 0 ? 1.0f / scene.voxelsPerPixel : 1.0f;
  const PcdVector3D cursor = {scene.cursor.x + 0.5f, scene.cursor.y + 0.5f, scene.cursor.z + 0.5f};
  g.centre = cursor;
  if (pane.kind == PCD_PANE_SPHERICAL) {
    g.radius = pane.sphereRadius;
    return g;
  }
  PcdVector3D right, down, across;
  SectionAxes(pane, scene, &right, &down, &across);
  g.u = PixelStep(right, mmPerPixel, mm);
  g.v = PixelStep(down, mmPerPixel, mm);
  g.normal = across;
  // The whole section in view when it fits: centred on the volume; zoomed in beyond
  // that, centred on the cursor so that what is being looked at stays in the pane.
  PcdVector3D middle = cursor;
  if (scene.volume != nullptr && scene.volume->matrixSize != nullptr) {
    const PcdIntSize4D& s = *scene.volume->matrixSize;
    const double extentMm = std::max({s.x * mm.x, s.y * mm.y, s.z * mm.z});
    if (pane.kind != PCD_PANE_OBLIQUE && extentMm <= mmPerPixel * std::min(width, height) + 1e-6) {
      const PcdVector3D volumeMiddle = {s.x * 0.5f, s.y * 0.5f, s.z * 0.5f};
      // keep the cursor's coordinate across the section
      middle = {across.x != 0 ? cursor.x : volumeMiddle.x, across.y != 0 ? cursor.y : volumeMiddle.y,
                across.z != 0 ? cursor.z : volumeMiddle.z};
    }
  }
  g.origin = Add(Add(middle, g.u, -width / 2.0), g.v, -height / 2.0);
  return g;
}

PcdVector3D PCDview_PixelToVoxel(const PcdPaneGeometry& g, double px, double py) {
  if (g.kind == PCD_PANE_SPHERICAL) {
    const double lon = 2.0 * kPi * px / std::max(1, g.width) - kPi;
    const double lat = kPi / 2.0 - kPi * py / std::max(1, g.height);
    const PcdVector3D d = {static_cast<float>(std::cos(lat) * std::cos(lon)),
                           static_cast<float>(std::cos(lat) * std::sin(lon)),
                           static_cast<float>(std::sin(lat))};
    return Add(g.centre, d, g.radius);
  }
  return Add(Add(g.origin, g.u, px), g.v, py);
}

bool PCDview_VoxelToPixel(const PcdPaneGeometry& g, const PcdVector3D& p, double* px, double* py,
                          double* depth) {
  if (g.kind == PCD_PANE_SPHERICAL) return false;
  // u and v are orthogonal steps; the metric that makes them so is that of the voxel
  // size, which the steps carry: u_i = dir_i * k / mm_i.
  const PcdVector3D d = {p.x - g.origin.x, p.y - g.origin.y, p.z - g.origin.z};
  // recover the millimetre metric from the steps: dir_i = u_i mm_i / k is a unit vector
  const double uu = double(g.u.x) * g.u.x + double(g.u.y) * g.u.y + double(g.u.z) * g.u.z;
  const double vv = double(g.v.x) * g.v.x + double(g.v.y) * g.v.y + double(g.v.z) * g.v.z;
  if (uu == 0.0 || vv == 0.0) return false;
  // For the sections made here u and v lie along the voxel axes or the voxel size is the
  // same on every axis, so the plain dot product separates them.
  *px = (d.x * g.u.x + d.y * g.u.y + d.z * g.u.z) / uu;
  *py = (d.x * g.v.x + d.y * g.v.y + d.z * g.v.z) / vv;
  if (depth) {
    const PcdVector3D c = {p.x - g.centre.x, p.y - g.centre.y, p.z - g.centre.z};
    *depth = c.x * g.normal.x + c.y * g.normal.y + c.z * g.normal.z;
  }
  return true;
}

bool PCDview_GetVoxelValue(const PcdRawVolumeData* volume, int32_t channel, int32_t x, int32_t y,
                           int32_t z, double* value) {
  if (volume == nullptr || volume->matrixSize == nullptr) return false;
  const PcdIntSize4D& s = *volume->matrixSize;
  if (channel < 0 || channel >= s.channels || x < 0 || y < 0 || z < 0 || x >= s.x || y >= s.y ||
      z >= s.z)
    return false;
  const size_t i = size_t(x) + size_t(s.x) * (size_t(y) + size_t(s.y) * size_t(z));
  const void* d = volume->data[channel];
  switch (volume->dataType[channel]) {
    case 0: *value = static_cast<const uint8_t*>(d)[i]; return true;
    case 1: *value = static_cast<const int8_t*>(d)[i]; return true;
    case 2: *value = static_cast<const uint16_t*>(d)[i]; return true;
    case 3: *value = static_cast<const int16_t*>(d)[i]; return true;
    case 4: *value = static_cast<const uint32_t*>(d)[i]; return true;
    case 5: *value = static_cast<const int32_t*>(d)[i]; return true;
    case 6: *value = static_cast<const float*>(d)[i]; return true;
    case 7: *value = static_cast<const double*>(d)[i]; return true;
    default: return false;
  }
}

uint8_t PCDview_MapGrey(double value, float low, float high, float greyMax) {
  const double width = double(high) - double(low);
  double grey = width > 0 ? (value - low) * greyMax / width : (value > low ? greyMax : 0.0);
  grey = std::clamp(grey, 0.0, std::clamp(double(greyMax), 0.0, 255.0));
  return static_cast<uint8_t>(grey);
}

void PCDview_PrepareGreyTable(PcdGreyTable* t, int32_t dataType, float low, float high,
                              float greyMax) {
  if (t->dataType == dataType && t->low == low && t->high == high && t->max == greyMax) return;
  t->dataType = dataType;
  t->low = low, t->high = high, t->max = greyMax;
  int32_t first = 0, count = 0;
  switch (dataType) {
    case 0: first = 0, count = 256; break;
    case 1: first = -128, count = 256; break;
    case 2: first = 0, count = 65536; break;
    case 3: first = -32768, count = 65536; break;
    default: t->grey.clear(); return;
  }
  t->offset = first;
  t->grey.resize(size_t(count));
  for (int32_t i = 0; i < count; ++i) t->grey[size_t(i)] = PCDview_MapGrey(first + i, low, high, greyMax);
}

namespace {

// One pixel of the section: a grey, a directional colour or black outside.
struct SectionSampler {
  const PcdRawVolumeData* volume;
  int32_t channel;
  PcdIntSize4D size;
  const PcdGreyTable* table;
  const PcdSliceScene* scene;
  bool colour;

  uint32_t At(const PcdVector3D& p) const {
    const double fx = std::floor(p.x), fy = std::floor(p.y), fz = std::floor(p.z);
    if (!(fx >= 0 && fy >= 0 && fz >= 0 && fx < size.x && fy < size.y && fz < size.z)) return 0xff000000u;
    const size_t i = size_t(fx) + size_t(size.x) * (size_t(fy) + size_t(size.y) * size_t(fz));
    const void* d = volume->data[channel];
    if (colour) return 0xff000000u | (static_cast<const uint32_t*>(d)[i] >> 8);
    uint8_t g;
    switch (volume->dataType[channel]) {
      case 0: g = table->grey[static_cast<const uint8_t*>(d)[i]]; break;
      case 1: g = table->grey[size_t(static_cast<const int8_t*>(d)[i] + 128)]; break;
      case 2: g = table->grey[static_cast<const uint16_t*>(d)[i]]; break;
      case 3: g = table->grey[size_t(static_cast<const int16_t*>(d)[i] + 32768)]; break;
      default: {
        double value = 0;
        PCDview_GetVoxelValue(volume, channel, int32_t(fx), int32_t(fy), int32_t(fz), &value);
        g = PCDview_MapGrey(value, scene->greyLow, scene->greyHigh, scene->greyMax);
      }
    }
    return 0xff000000u | uint32_t(g) << 16 | uint32_t(g) << 8 | g;
  }
};

}  // namespace

void PCDview_RenderSection(cairo_surface_t* image, const PcdPaneGeometry& g,
                           const PcdSliceScene& scene, PcdGreyTable* table) {
  cairo_surface_flush(image);
  uint8_t* base = cairo_image_surface_get_data(image);
  const int stride = cairo_image_surface_get_stride(image);
  const int w = std::min(g.width, cairo_image_surface_get_width(image));
  const int h = std::min(g.height, cairo_image_surface_get_height(image));
  const PcdRawVolumeData* volume = scene.volume;
  const bool usable = volume != nullptr && volume->matrixSize != nullptr && scene.channel >= 0 &&
                      scene.channel < volume->matrixSize->channels;
  if (base == nullptr) return;
  if (!usable) {
    for (int y = 0; y < h; ++y) std::fill_n(reinterpret_cast<uint32_t*>(base + y * stride), w, 0xff000000u);
    cairo_surface_mark_dirty(image);
    return;
  }
  const bool colour = volume->colorFormat[scene.channel] == 2 && volume->dataType[scene.channel] == 4;
  if (!colour) PCDview_PrepareGreyTable(table, volume->dataType[scene.channel], scene.greyLow, scene.greyHigh, scene.greyMax);
  const SectionSampler sampler{volume, scene.channel, *volume->matrixSize, table, &scene, colour};
  for (int y = 0; y < h; ++y) {
    uint32_t* row = reinterpret_cast<uint32_t*>(base + y * stride);
    if (g.kind == PCD_PANE_SPHERICAL) {
      for (int x = 0; x < w; ++x) row[x] = sampler.At(PCDview_PixelToVoxel(g, x + 0.5, y + 0.5));
      continue;
    }
    PcdVector3D p = PCDview_PixelToVoxel(g, 0.5, y + 0.5);
    for (int x = 0; x < w; ++x) {
      row[x] = sampler.At(p);
      p.x += g.u.x, p.y += g.u.y, p.z += g.u.z;
    }
  }
  cairo_surface_mark_dirty(image);
}

bool PCDview_FitGreyMapping(const PcdRawVolumeData* volume, int32_t channel, float* low,
                            float* high, double lowQuantile, double highQuantile) {
  if (volume == nullptr || volume->matrixSize == nullptr || channel < 0 ||
      channel >= volume->matrixSize->channels || volume->colorFormat[channel] == 2)
    return false;
  const PcdIntSize4D& s = *volume->matrixSize;
  std::vector<float> values;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x) {
        double v = 0;
        if (PCDview_GetVoxelValue(volume, channel, x, y, z, &v) && v != 0.0) values.push_back(float(v));
      }
  if (values.empty()) return false;
  const auto at = [&](double q) {
    const size_t k = std::min(values.size() - 1, size_t(q * double(values.size() - 1) + 0.5));
    std::nth_element(values.begin(), values.begin() + long(k), values.end());
    return values[k];
  };
  *low = at(lowQuantile);
  *high = at(highQuantile);
  if (*high <= *low) *high = *low + 1.0f;
  return true;
}
