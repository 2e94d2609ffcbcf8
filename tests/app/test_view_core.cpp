// The drawing core of the slice views, off-screen: section geometry, the grey mapping's
// table against the plain mapping, the slice buckets of fiber results against the plain
// test of every segment, ROI edits and their undo, glyph shapes. No display needed.
#include <gtest/gtest.h>

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "fiber/trakline.h"
#include "study/roi_object.h"
#include "study/study_settings.h"
#include "view/fiber_overlay.h"
#include "view/glyph_overlay.h"
#include "view/palette_frame.h"
#include "view/pane_render.h"
#include "view/roi_drawing.h"
#include "view/view_context.h"

namespace {

struct Volume {
  PcdRawVolumeData* v;
  Volume(int x, int y, int z, int32_t type) {
    const PcdIntSize3D size{x, y, z};
    v = PCD_NewSingleChannelRawVolumeData(&size, type, 0);
  }
  ~Volume() { PCD_DeleteRawVolumeData(v); }
};

struct Image {
  cairo_surface_t* s;
  explicit Image(int w = 256, int h = 256) : s(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h)) {}
  ~Image() { cairo_surface_destroy(s); }
  uint32_t At(int x, int y) const {
    cairo_surface_flush(s);
    return reinterpret_cast<const uint32_t*>(cairo_image_surface_get_data(s) + y * cairo_image_surface_get_stride(s))[x];
  }
  bool SameAs(const Image& o) const {
    cairo_surface_flush(s);
    cairo_surface_flush(o.s);
    const size_t bytes = size_t(cairo_image_surface_get_stride(s)) * size_t(cairo_image_surface_get_height(s));
    return std::memcmp(cairo_image_surface_get_data(s), cairo_image_surface_get_data(o.s), bytes) == 0;
  }
  int Drawn() const {  // pixels that are not the black of an empty section
    int n = 0;
    for (int y = 0; y < cairo_image_surface_get_height(s); ++y)
      for (int x = 0; x < cairo_image_surface_get_width(s); ++x) n += At(x, y) != 0xff000000u;
    return n;
  }
};

// Renders one scene twice, as two panes with their overlays: true when the images are the
// same; adds the first one's drawn pixels to *drawn.
bool SameRenders(const PcdSliceScene& scene, const PcdSlicePane& paneA, const PcdPaneOverlays& a,
                 const PcdSlicePane& paneB, const PcdPaneOverlays& b, int* drawn) {
  Image imageA, imageB;
  PcdGreyTable tableA, tableB;
  PCDview_RenderPane(imageA.s, paneA, scene, a, &tableA);
  PCDview_RenderPane(imageB.s, paneB, scene, b, &tableB);
  *drawn += imageA.Drawn();
  return imageA.SameAs(imageB);
}

TEST(SliceGeometry, PanesMapVoxelsToPixelsAsWorkedOutByHand) {
  Volume vol(64, 32, 16, 0);
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.cursor = {10, 20, 5};
  scene.voxelsPerPixel = 0.25f;  // 4 pixels a voxel: the 64 voxels fill 256 pixels
  PcdSlicePane pane;
  // axial: x right, y down, centred on the volume's middle (32, 16)
  PcdPaneGeometry g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  PcdVector3D p = PCDview_PixelToVoxel(g, 0, 0);
  EXPECT_FLOAT_EQ(p.x, 0.0f);
  EXPECT_FLOAT_EQ(p.y, 16.0f - 32.0f);
  EXPECT_FLOAT_EQ(p.z, 5.5f);
  double px, py, depth;
  ASSERT_TRUE(PCDview_VoxelToPixel(g, {10.5f, 20.5f, 7.5f}, &px, &py, &depth));
  EXPECT_DOUBLE_EQ(px, 42.0);
  EXPECT_DOUBLE_EQ(py, 128.0 + 4.5 * 4);
  EXPECT_DOUBLE_EQ(depth, 2.0);
  // sagittal: y right, z up
  pane.kind = PCD_PANE_SAGITTAL;
  g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  ASSERT_TRUE(PCDview_VoxelToPixel(g, {3.0f, 0.0f, 16.0f}, &px, &py, &depth));
  EXPECT_DOUBLE_EQ(px, 128.0 - 16 * 4);
  EXPECT_DOUBLE_EQ(py, 128.0 - 8 * 4);
  EXPECT_DOUBLE_EQ(depth, 3.0 - 10.5);
  EXPECT_EQ(PCDview_PaneSlice(PCD_PANE_SAGITTAL, scene.cursor), 10);
  EXPECT_EQ(PCDview_PaneSliceCount(PCD_PANE_CORONAL, *vol.v->matrixSize), 32);
  // zoomed in beyond the whole section, the pane centres on the cursor
  scene.voxelsPerPixel = 0.125f;
  pane.kind = PCD_PANE_CORONAL;
  g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  ASSERT_TRUE(PCDview_VoxelToPixel(g, {10.5f, 0.0f, 5.5f}, &px, &py, &depth));
  EXPECT_DOUBLE_EQ(px, 128.0);
  EXPECT_DOUBLE_EQ(py, 128.0);
  // an oblique pane without tilt is the axial section through the cursor
  pane.kind = PCD_PANE_OBLIQUE;
  pane.obliqueTilt = 0;
  g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  EXPECT_FLOAT_EQ(g.normal.z, 1.0f);
  EXPECT_FLOAT_EQ(g.u.x, 0.125f);
  EXPECT_FLOAT_EQ(g.v.y, 0.125f);
  // tilted by 90 degrees about x it looks along y
  pane.obliqueTilt = 90;
  g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  EXPECT_NEAR(std::fabs(g.normal.y), 1.0, 1e-6);
  // the spherical pane: the top row is the sphere's north pole, the middle its equator
  pane.kind = PCD_PANE_SPHERICAL;
  pane.sphereRadius = 4;
  g = PCDview_GetPaneGeometry(pane, scene, 256, 128);
  p = PCDview_PixelToVoxel(g, 128, 0);
  EXPECT_NEAR(p.z, 5.5 + 4, 1e-5);
  p = PCDview_PixelToVoxel(g, 128, 64);
  EXPECT_NEAR(p.x, 10.5 + 4, 1e-5);  // longitude 0 at the middle column
  EXPECT_FALSE(PCDview_VoxelToPixel(g, p, &px, &py, &depth));
}

// The box VOI's outline where the section passes through the box, worked out by hand:
// 4 pixels a voxel, axial pixel (4 x, 4 y + 64), sagittal pixel (4 y + 64, 4 (16 - z) + 96).
TEST(SliceGeometry, TheBoxVoiIsOutlinedInTheSectionsThatPassThroughIt) {
  Volume vol(64, 32, 16, 0);
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.voxelsPerPixel = 0.25f;
  PcdPaneOverlays overlays;
  overlays.showCursor = false;
  overlays.showBox = true;
  overlays.boxOrigin = {10, 4, 3};
  overlays.boxSize = {20, 8, 4};
  constexpr uint32_t kCyan = 0xff33ffffu, kBlack = 0xff000000u;
  const auto render = [&](int32_t kind, PcdIntVector3D cursor, Image* image) {
    scene.cursor = cursor;
    PcdSlicePane pane;
    pane.kind = kind;
    PcdGreyTable table;
    PCDview_RenderPane(image->s, pane, scene, overlays, &table);
  };
  {
    Image a;  // slice z 5 lies in z 3 .. 6: corners (40, 80) and (120, 112)
    render(PCD_PANE_AXIAL, {12, 6, 5}, &a);
    EXPECT_EQ(a.At(41, 80), kCyan);   // the top edge's first dash
    EXPECT_EQ(a.At(42, 80), kCyan);
    EXPECT_EQ(a.At(46, 80), kBlack);  // its first gap
    EXPECT_EQ(a.At(41, 79), kBlack);  // outside
    EXPECT_EQ(a.At(42, 81), kBlack);  // inside
    int right = 0, bottom = 0;
    for (int y = 81; y < 111; ++y) right += a.At(119, y) == kCyan;
    for (int x = 41; x < 119; ++x) bottom += a.At(x, 111) == kCyan;
    EXPECT_GT(right, 10);  // dashed: about four in seven
    EXPECT_GT(bottom, 30);
    for (int x = 0; x < 256; ++x) EXPECT_NE(a.At(x, 112), kCyan) << x;  // nothing past the box
  }
  {
    Image a;  // slice z 7 is past the box
    render(PCD_PANE_AXIAL, {12, 6, 7}, &a);
    for (int y = 0; y < 256; ++y)
      for (int x = 0; x < 256; ++x) ASSERT_NE(a.At(x, y), kCyan) << x << " " << y;
  }
  {
    Image s;  // sagittal at x 10, the box's first slice: corners (80, 148) and (112, 132)
    render(PCD_PANE_SAGITTAL, {10, 6, 5}, &s);
    EXPECT_EQ(s.At(81, 132), kCyan);  // the top edge (z 7) from the left
    EXPECT_EQ(s.At(81, 131), kBlack);
    int left = 0;
    for (int y = 133; y < 147; ++y) left += s.At(80, y) == kCyan;
    EXPECT_GT(left, 3);
    Image t;  // at x 9 it is not
    render(PCD_PANE_SAGITTAL, {9, 6, 5}, &t);
    EXPECT_NE(t.At(81, 132), kCyan);
  }
}

// The status line's voxel value: every data type read as itself, nothing outside.
TEST(SliceGeometry, VoxelValuesOfEveryTypeAndNoneOutside) {
  const double values[8] = {200, -100, 60000, -30000, 4000000000.0, -2000000000, 0.25, 1e-300};
  for (int32_t type = 0; type < 8; ++type) {
    Volume vol(2, 3, 2, type);
    const size_t at = 1 + 2 * (2 + 3 * 1);  // voxel (1, 2, 1)
    void* d = vol.v->data[0];
    switch (type) {
      case 0: static_cast<uint8_t*>(d)[at] = 200; break;
      case 1: static_cast<int8_t*>(d)[at] = -100; break;
      case 2: static_cast<uint16_t*>(d)[at] = 60000; break;
      case 3: static_cast<int16_t*>(d)[at] = -30000; break;
      case 4: static_cast<uint32_t*>(d)[at] = 4000000000u; break;
      case 5: static_cast<int32_t*>(d)[at] = -2000000000; break;
      case 6: static_cast<float*>(d)[at] = 0.25f; break;
      default: static_cast<double*>(d)[at] = 1e-300; break;
    }
    double v = 0;
    ASSERT_TRUE(PCDview_GetVoxelValue(vol.v, 0, 1, 2, 1, &v)) << type;
    EXPECT_EQ(v, values[type]) << type;
    EXPECT_FALSE(PCDview_GetVoxelValue(vol.v, 0, 2, 2, 1, &v)) << type;
    EXPECT_FALSE(PCDview_GetVoxelValue(vol.v, 0, 1, 3, 1, &v)) << type;
    EXPECT_FALSE(PCDview_GetVoxelValue(vol.v, 0, 1, 2, -1, &v)) << type;
    EXPECT_FALSE(PCDview_GetVoxelValue(vol.v, 1, 1, 2, 1, &v)) << type;
  }
}

// The display scales of a 128-voxel-wide volume: s = 0.5, and 1.5 s, s, s, 0.5 s, 2 s,
// 3 s, 4 s; a context that was never made takes every call.
TEST(SliceGeometry, DisplayScalesFollowTheVolumesWidth) {
  PcdViewContext* context = new PcdViewContext();
  context->font = pango_font_description_from_string("Sans 9");
  PCD_SetViewScales(context, 128);
  const float expected[kPcdViewScaleCount] = {0.75f, 0.5f, 0.5f, 0.25f, 1.0f, 1.5f, 2.0f};
  for (int i = 0; i < kPcdViewScaleCount; ++i) EXPECT_EQ(context->scales[i], expected[i]) << i;
  PCD_DeleteViewContext(context);
  EXPECT_EQ(PCD_NewViewContext(nullptr, nullptr), nullptr);
  PCD_SetViewScales(nullptr, 128);
  PCD_DeleteViewContext(nullptr);
}

TEST(SliceGeometry, VoxelSizeKeepsTheAspectOnScreen) {
  Volume vol(64, 64, 16, 0);
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.voxelsPerPixel = 0.25f;
  scene.voxelMm = {1.0f, 1.0f, 4.0f};  // thick slices
  PcdSlicePane pane;
  pane.kind = PCD_PANE_CORONAL;
  const PcdPaneGeometry g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  // a pixel is 0.25 mm both ways: a quarter voxel along x, a sixteenth along z
  EXPECT_FLOAT_EQ(g.u.x, 0.25f);
  EXPECT_FLOAT_EQ(g.v.z, -0.0625f);
}

// The table made once per mapping gives every 16-bit value the grey of the plain mapping.
TEST(GreyMapping, TheTableGivesThePlainMappingsGreyForEveryValue) {
  PcdGreyTable table;
  PCDview_PrepareGreyTable(&table, 3, -100.0f, 1300.0f, 200.0f);
  ASSERT_EQ(table.grey.size(), 65536u);
  for (int32_t v = -32768; v <= 32767; ++v)
    ASSERT_EQ(table.grey[size_t(v + 32768)], PCDview_MapGrey(v, -100.0f, 1300.0f, 200.0f)) << v;
  // worked out: (600 + 100) * 200 / 1400 = 100; beyond the top the grey maximum; below black
  EXPECT_EQ(PCDview_MapGrey(600, -100, 1300, 200), 100);
  EXPECT_EQ(PCDview_MapGrey(5000, -100, 1300, 200), 200);
  EXPECT_EQ(PCDview_MapGrey(-500, -100, 1300, 200), 0);
  EXPECT_EQ(PCDview_MapGrey(5000, 0, 10, 1000), 255);  // a grey maximum above white is cut
}

// A signed 16-bit channel drawn through the table and a float channel of the same values
// drawn through the plain mapping give the same pixels.
TEST(GreyMapping, SectionsThroughTheTableEqualThePlainPath) {
  Volume shorts(40, 30, 3, 3), floats(40, 30, 3, 6);
  std::mt19937 random(7);
  std::uniform_int_distribution<int> value(-3000, 3000);
  for (int i = 0; i < 40 * 30 * 3; ++i) {
    const int v = value(random);
    static_cast<int16_t*>(shorts.v->data[0])[i] = int16_t(v);
    static_cast<float*>(floats.v->data[0])[i] = float(v);
  }
  PcdSliceScene scene;
  scene.cursor = {3, 4, 1};
  scene.voxelsPerPixel = 0.3f;
  scene.greyLow = -500;
  scene.greyHigh = 2500;
  for (int32_t kind : {PCD_PANE_AXIAL, PCD_PANE_SAGITTAL, PCD_PANE_OBLIQUE, PCD_PANE_SPHERICAL}) {
    PcdSlicePane pane;
    pane.kind = kind;
    Image a, b;
    PcdGreyTable ta, tb;
    scene.volume = shorts.v;
    PCDview_RenderSection(a.s, PCDview_GetPaneGeometry(pane, scene, 256, 256), scene, &ta);
    scene.volume = floats.v;
    PCDview_RenderSection(b.s, PCDview_GetPaneGeometry(pane, scene, 256, 256), scene, &tb);
    EXPECT_TRUE(a.SameAs(b)) << "kind " << kind;
  }
}

TEST(GreyMapping, ColourChannelsShowTheirPackedColoursAndTheFitTakesPercentiles) {
  const PcdIntSize3D size{4, 4, 1};
  PcdRawVolumeData* colour = PCD_NewSingleChannelRawVolumeData(&size, 4, 2);
  static_cast<uint32_t*>(colour->data[0])[5] = 0x11223344u;  // red 0x11, green 0x22, blue 0x33
  PcdSliceScene scene;
  scene.volume = colour;
  scene.voxelsPerPixel = 4.0f / 256;
  PcdSlicePane pane;
  Image image;
  PcdGreyTable table;
  PCDview_RenderSection(image.s, PCDview_GetPaneGeometry(pane, scene, 256, 256), scene, &table);
  EXPECT_EQ(image.At(64 + 10, 64 + 10), 0xff112233u);  // voxel (1, 1)
  EXPECT_EQ(image.At(10, 10), 0xff000000u);
  float low, high;
  EXPECT_FALSE(PCDview_FitGreyMapping(colour, 0, &low, &high));
  PCD_DeleteRawVolumeData(colour);

  // 1000 voxels holding 1 .. 1000 (and zeros, which do not count): the 0.5 % and 99.5 %
  // points are the values at ranks round(0.005 * 999) = 5 and round(0.995 * 999) = 994
  Volume ramp(50, 25, 1, 3);
  for (int i = 0; i < 1000; ++i) static_cast<int16_t*>(ramp.v->data[0])[(i * 7) % 1250] = int16_t(i + 1);
  ASSERT_TRUE(PCDview_FitGreyMapping(ramp.v, 0, &low, &high));
  EXPECT_EQ(low, 6.0f);
  EXPECT_EQ(high, 995.0f);
}

PcdFibeTrakBuffer* RandomFibers(int count, std::vector<PcdVector3D>* seeds, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  seeds->resize(size_t(count));
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(count, seeds->data(), 60);
  for (int f = 0; f < count; ++f) {
    (*seeds)[size_t(f)] = {20 + 8 * unit(random), 20 + 8 * unit(random), 6 + 3 * unit(random)};
    PcdTrakLinePair* pair = new_trakline_pair(&(*seeds)[size_t(f)]);
    pair->selection = f % 5 != 0;  // every fifth one is not selected
    for (int half = 0; half < 2; ++half) {
      PcdTrakLineBuffer* line = new_trakline_buffer(60);
      PcdVector3D p = (*seeds)[size_t(f)], d = {unit(random), unit(random), 0.4f * unit(random)};
      const int n = 5 + f % 50;
      for (int i = 0; i < n; ++i) {
        line->x[i] = p.x, line->y[i] = p.y, line->z[i] = p.z;
        line->L1[i] = 1.5e-3f, line->L2[i] = 0.5e-3f, line->L3[i] = 0.2e-3f + 1e-5f * float(i);
        const float sign = half ? -0.7f : 0.7f;
        p = {p.x + sign * d.x, p.y + sign * d.y, p.z + sign * d.z};
        d = {d.x + 0.1f * unit(random), d.y + 0.1f * unit(random), d.z + 0.05f * unit(random)};
      }
      line->nodeCount = int16_t(n);
      (half ? pair->backward : pair->forward) = line;
    }
    buffer->pairs[f] = pair;
  }
  pack_fibetrak_buffer(buffer);
  return buffer;
}

// The slice buckets are a fast path: the pixels they give are those of testing every
// segment of every fiber against the section (the oblique pane's path) in an oblique pane
// that cuts the same section.
TEST(FiberOverlay, SliceBucketsDrawWhatTestingEverySegmentDraws) {
  std::vector<PcdVector3D> seeds;
  PcdFibeTrakBuffer* buffer = RandomFibers(400, &seeds, 3);
  for (int32_t coloring : {kPcdColorAnisotropy, kPcdColorDirection, kPcdColorDistance, kPcdColorUnique, kPcdColorUniform}) {
    auto layer = PCDview_MakeFiberLayer(buffer, coloring, kPcdPrimitiveHairline);
    ASSERT_EQ(layer->fiberStart.size(), 400u - 80u + 1u);  // the selected ones
    Volume vol(40, 40, 12, 0);
    PcdSliceScene scene;
    scene.volume = vol.v;
    scene.voxelsPerPixel = 0.125f;
    PcdPaneOverlays overlays;
    overlays.fibers = {layer.get()};
    overlays.showCursor = false;
    int drawn = 0;
    for (int z = 0; z < 12; ++z) {
      scene.cursor = {20, 20, z};  // the middle: both panes centre on the cursor
      PcdSlicePane axial, oblique;
      oblique.kind = PCD_PANE_OBLIQUE;
      oblique.obliqueTilt = 0;
      ASSERT_TRUE(SameRenders(scene, axial, overlays, oblique, overlays, &drawn)) << "slice " << z << " coloring " << coloring;
    }
    EXPECT_GT(drawn, 1000) << coloring;
  }
  PCDdti_DeleteFibeTrakBuffer(buffer);
}

// The oblique pane skips chunks of segments by their boxes: at any angle it draws what
// it draws when no chunk can be skipped (every box widened past the volume).
TEST(FiberOverlay, ObliqueChunkSkippingDrawsWhatTestingEverySegmentDraws) {
  std::vector<PcdVector3D> seeds;
  PcdFibeTrakBuffer* buffer = RandomFibers(400, &seeds, 5);
  auto layer = PCDview_MakeFiberLayer(buffer, kPcdColorUnique, kPcdPrimitiveHairline);
  PCDdti_DeleteFibeTrakBuffer(buffer);
  auto plain = std::make_unique<PcdFiberLayer>(*layer);
  for (PcdFiberChunk& chunk : plain->chunks) chunk.half = {1e6f, 1e6f, 1e6f};
  Volume vol(40, 40, 12, 0);
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.voxelsPerPixel = 0.125f;
  PcdPaneOverlays fast, slow;
  fast.fibers = {layer.get()};
  slow.fibers = {plain.get()};
  fast.showCursor = slow.showCursor = false;
  int drawn = 0;
  for (float tilt : {0.0f, 25.0f, 60.0f, 90.0f})
    for (float turn : {0.0f, 40.0f, 135.0f}) {
      scene.cursor = {18 + int(turn) % 5, 21, 5};
      PcdSlicePane pane;
      pane.kind = PCD_PANE_OBLIQUE;
      pane.obliqueTilt = tilt, pane.obliqueTurn = turn;
      ASSERT_TRUE(SameRenders(scene, pane, fast, pane, slow, &drawn)) << "tilt " << tilt << " turn " << turn;
    }
  EXPECT_GT(drawn, 1000);
  // the chunks cover every segment of every fiber once, in order, none across two fibers
  uint32_t next = 0;
  size_t fiber = 0;
  for (const PcdFiberChunk& chunk : layer->chunks) {
    if (chunk.first != next) {  // a new fiber: its first node
      ++fiber;
      ASSERT_LT(fiber, layer->fiberStart.size());
      EXPECT_EQ(chunk.first, layer->fiberStart[fiber]);
    }
    EXPECT_LE(chunk.segments, kPcdFiberChunkSegments);
    next = chunk.first + chunk.segments;
    EXPECT_LT(next, layer->fiberStart[fiber + 1]);
  }
  EXPECT_EQ(next + 1, layer->nodes.size());
}

// A fiber lying in an oblique section (turned and tilted, or across an e1 near x, whose
// pixel rows are not square to x) is drawn on the pixels that the pane's own
// voxel-to-pixel mapping gives for its nodes.
void ExpectFiberInSectionOnItsPixels(const PcdSlicePane& pane, const PcdVector3D& e1) {
  Volume vol(40, 40, 12, 0);
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.cursor = {20, 20, 6};
  scene.voxelsPerPixel = 0.125f;
  scene.e1 = e1;
  const PcdPaneGeometry g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  // nodes every 0.3 voxels across the section, as the pane puts them (their layer
  // coordinates are the fiber's + 0.5)
  PcdVector3D seed = {g.centre.x - 0.5f, g.centre.y - 0.5f, g.centre.z - 0.5f};
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(1, &seed, 40);
  PcdTrakLinePair* pair = new_trakline_pair(&seed);
  pair->selection = 1;
  const double uu = std::sqrt(double(g.u.x) * g.u.x + double(g.u.y) * g.u.y + double(g.u.z) * g.u.z);
  const double vv = std::sqrt(double(g.v.x) * g.v.x + double(g.v.y) * g.v.y + double(g.v.z) * g.v.z);
  const PcdVector3D dir = {float((g.u.x / uu + g.v.x / vv) * 0.3 / std::sqrt(2.0)),
                           float((g.u.y / uu + g.v.y / vv) * 0.3 / std::sqrt(2.0)),
                           float((g.u.z / uu + g.v.z / vv) * 0.3 / std::sqrt(2.0))};
  pair->forward = new_trakline_buffer(40);
  for (int i = 0; i < 40; ++i) {
    pair->forward->x[i] = seed.x + dir.x * float(i), pair->forward->y[i] = seed.y + dir.y * float(i);
    pair->forward->z[i] = seed.z + dir.z * float(i);
    pair->forward->L1[i] = 1, pair->forward->L2[i] = pair->forward->L3[i] = 0.1f;
  }
  pair->forward->nodeCount = 40;
  buffer->pairs[0] = pair;
  pack_fibetrak_buffer(buffer);
  auto layer = PCDview_MakeFiberLayer(buffer, kPcdColorUniform, kPcdPrimitiveHairline);
  PCDdti_DeleteFibeTrakBuffer(buffer);
  PcdPaneOverlays overlays;
  overlays.fibers = {layer.get()};
  overlays.showCursor = false;
  Image image;
  PcdGreyTable table;
  PCDview_RenderPane(image.s, pane, scene, overlays, &table);
  for (size_t i = 1; i < layer->nodes.size(); ++i) {
    const PcdFiberNode& n = layer->nodes[i];
    double px, py, depth;
    ASSERT_TRUE(PCDview_VoxelToPixel(g, {n.x, n.y, n.z}, &px, &py, &depth));
    EXPECT_NEAR(depth, 0.0, 1e-3);
    ASSERT_TRUE(px >= 0 && py >= 0 && px < 256 && py < 256) << i;
    EXPECT_EQ(image.At(int(px), int(py)), n.colour) << i;
  }
}

TEST(FiberOverlay, ObliquePanesDrawNodesWhereTheirGeometryPutsThem) {
  PcdSlicePane pane;
  pane.kind = PCD_PANE_OBLIQUE;
  pane.obliqueTilt = 35, pane.obliqueTurn = 50;
  ExpectFiberInSectionOnItsPixels(pane, {0, 0, 1});
  pane.obliqueAlongE1 = true;
  ExpectFiberInSectionOnItsPixels(pane, {0.95f, 0.25f, 0.2f});
}

TEST(FiberOverlay, ColoursFollowTheStudysColoring) {
  // one fiber along x: seed at x 10, forward to 12.1, backward to 7.9; the panes draw it
  // half a voxel on, through the centres of the voxel boxes (10.5, 5.5, 2.5)
  PcdVector3D seed{10.0f, 5.0f, 2.0f};
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(1, &seed, 4);
  PcdTrakLinePair* pair = new_trakline_pair(&seed);
  pair->selection = 1;
  for (int half = 0; half < 2; ++half) {
    PcdTrakLineBuffer* line = new_trakline_buffer(4);
    for (int i = 0; i < 4; ++i) {
      line->x[i] = seed.x + (half ? -0.7f : 0.7f) * float(i), line->y[i] = seed.y, line->z[i] = seed.z;
      line->L1[i] = 1.0f, line->L2[i] = 1.0f, line->L3[i] = 1.0f;  // isotropic: FA 0
    }
    line->nodeCount = 4;
    (half ? pair->backward : pair->forward) = line;
  }
  buffer->pairs[0] = pair;
  pack_fibetrak_buffer(buffer);
  auto direction = PCDview_MakeFiberLayer(buffer, kPcdColorDirection, kPcdPrimitiveHairline);
  ASSERT_EQ(direction->nodes.size(), 7u);  // 3 backward, the seed, 3 forward
  EXPECT_FLOAT_EQ(direction->nodes[0].x, seed.x - 2.1f + 0.5f);  // drawn at the centre of its voxel box
  EXPECT_FLOAT_EQ(direction->nodes[3].x, seed.x + 0.5f);
  for (const PcdFiberNode& n : direction->nodes) EXPECT_EQ(n.colour, 0xffff0000u);  // along x: red
  auto anisotropy = PCDview_MakeFiberLayer(buffer, kPcdColorAnisotropy, kPcdPrimitiveHairline);
  for (const PcdFiberNode& n : anisotropy->nodes) EXPECT_EQ(n.colour, 0xff0000ffu);  // FA 0: the ramp's blue end
  auto distance = PCDview_MakeFiberLayer(buffer, kPcdColorDistance, kPcdPrimitiveHairline);
  EXPECT_EQ(distance->nodes[3].colour, 0xff0000ffu);  // the seed: distance 0
  EXPECT_EQ(distance->nodes[0].colour, distance->nodes[6].colour);  // both ends 2.1 voxels away
  // the buckets: along z all segments lie at 2.5, so slices 2 and 3 hold them, 1 and 4 not
  ASSERT_GE(direction->buckets[2].size(), 4u);
  EXPECT_EQ(direction->buckets[2][2].size(), 1u);
  EXPECT_EQ(direction->buckets[2][2][0].segments, 6u);
  EXPECT_EQ(direction->buckets[2][3][0].segments, 6u);
  EXPECT_TRUE(direction->buckets[2][1].empty());
  EXPECT_EQ(direction->buckets[2].size(), 4u);
  // along y all lie at 5.5: slices 5 and 6; along x the nodes run from 8.4 to 12.6, so
  // slices 7 (8.4 is within half a voxel of its voxels) to 13 hold some, 6 none
  EXPECT_EQ(direction->buckets[1].size(), 7u);
  EXPECT_EQ(direction->buckets[1][5][0].segments, 6u);
  EXPECT_TRUE(direction->buckets[1][4].empty());
  EXPECT_EQ(direction->buckets[0].size(), 14u);
  EXPECT_TRUE(direction->buckets[0][6].empty());
  EXPECT_FALSE(direction->buckets[0][7].empty());
  EXPECT_FALSE(direction->buckets[0][13].empty());
  // the ramp and FA by hand
  EXPECT_EQ(PCDview_RampColour(0.5), 0xff00ff00u);
  EXPECT_EQ(PCDview_RampColour(1.0), 0xffff0000u);
  EXPECT_NEAR(PCDview_FAofEigenvalues(1.0, 0.0, 0.0), 1.0, 1e-12);
  EXPECT_NEAR(PCDview_FAofEigenvalues(3.0, 1.0, 1.0), std::sqrt(1.5 * (16.0 / 9 + 2 * 4.0 / 9) / 11.0), 1e-12);
  PCDdti_DeleteFibeTrakBuffer(buffer);
  // a fiber of its seed alone has no direction: mid grey
  PcdFibeTrakBuffer* single = new_fibetrak_buffer(1, &seed, 2);
  single->pairs[0] = new_trakline_pair(&seed);
  single->pairs[0]->selection = 1;
  single->pairs[0]->forward = new_trakline_buffer(2);
  single->pairs[0]->forward->x[0] = seed.x, single->pairs[0]->forward->y[0] = seed.y;
  single->pairs[0]->forward->z[0] = seed.z;
  single->pairs[0]->forward->nodeCount = 1;
  pack_fibetrak_buffer(single);
  auto dot = PCDview_MakeFiberLayer(single, kPcdColorDirection, kPcdPrimitiveHairline);
  ASSERT_EQ(dot->nodes.size(), 1u);
  EXPECT_EQ(dot->nodes[0].colour, 0xff808080u);  // 0.5 of 255, rounded
  PCDdti_DeleteFibeTrakBuffer(single);
  // a result without lines makes an empty layer
  auto empty = PCDview_MakeFiberLayer(nullptr, kPcdColorDirection, kPcdPrimitiveHairline);
  EXPECT_TRUE(empty->nodes.empty());
}

PcdPaneGeometry AxialThrough(int z, const PcdRawVolumeData* volume) {
  PcdSliceScene scene;
  scene.volume = volume;
  scene.cursor = {0, 0, z};
  scene.voxelsPerPixel = 0.125f;
  PcdSlicePane pane;
  return PCDview_GetPaneGeometry(pane, scene, 256, 256);
}

TEST(RoiDrawing, EditsAreUndoneAndRedoneAndLockedRoisRefused) {
  Volume vol(32, 32, 8, 0);
  const PcdIntSize3D size{32, 32, 8};
  PcdRoiList rois;
  PcdRoiObject* group = PCD_NewRoiObject(&rois, PCD_ROI_VOXELGROUP, &size);
  PcdRoiObject* sphere = PCD_NewRoiObject(&rois, PCD_ROI_SPHERICAL, &size);
  const PcdPaneGeometry g = AxialThrough(3, vol.v);
  PcdRoiEditHistory history;

  ASSERT_TRUE(PCDview_BeginRoiEdit(&history, group));
  // radius 2 on slice 3 around voxel (10, 10): the lattice points of a disc of radius 2
  // are 1 + 4 + 4 + 4 = 13
  EXPECT_EQ(PCDview_PaintRoiVoxels(group, size, g, {10.5f, 10.5f, 3.5f}, 2.0f, 1), 13);
  EXPECT_EQ(PCDview_PaintRoiVoxels(group, size, g, {10.5f, 10.5f, 3.5f}, 2.0f, 1), 0);  // already there
  PCDview_EndRoiEdit(&history, group);
  ASSERT_TRUE(PCDview_BeginRoiEdit(&history, group));
  EXPECT_EQ(PCDview_PaintRoiVoxels(group, size, g, {10.5f, 10.5f, 3.5f}, 0.5f, 0), 1);
  PCDview_EndRoiEdit(&history, group);
  ASSERT_TRUE(PCDview_BeginRoiEdit(&history, sphere));
  PCDview_SetRoiSphere(sphere, {4.5f, 5.5f, 6.5f}, 0.2f);
  PCDview_EndRoiEdit(&history, sphere);
  EXPECT_FLOAT_EQ(sphere->shape->radius, 1.0f);  // the editor's lowest radius
  // an edit that changes nothing is no step
  ASSERT_TRUE(PCDview_BeginRoiEdit(&history, sphere));
  PCDview_EndRoiEdit(&history, sphere);
  EXPECT_EQ(history.undo.size(), 3u);
  // a group in a box of its own grows to the volume with its voxels where they were
  PcdRoiObject* boxed = PCD_NewRoiObject(&rois, PCD_ROI_VOXELGROUP, &size);
  const PcdIntVector3D corner{2, 1, 3};
  const PcdIntSize3D box{3, 2, 1};
  const uint32_t second[3] = {0, 0, 0};
  boxed->voxelGroup = PCD_NewVoxelGroup(&corner, &box, second, kPcdVoxelGroupOneByte);
  PCD_SetVoxelOfVoxelGroup(boxed->voxelGroup.get(), 0, 0, 0, 1);  // (2, 1, 3) in the volume
  PCD_SetVoxelOfVoxelGroup(boxed->voxelGroup.get(), 2, 1, 0, 1);  // (4, 2, 3)
  EXPECT_EQ(PCDview_PaintRoiVoxels(boxed, size, g, {20.5f, 20.5f, 3.5f}, 0.5f, 1), 1);
  const auto boxedMask = PCD_RasterizeRoiObject(boxed, &size);
  EXPECT_EQ(std::count(boxedMask.begin(), boxedMask.end(), 1), 3);
  EXPECT_EQ(boxedMask[2 + 32 * (1 + 32 * 3)], 1);
  EXPECT_EQ(boxedMask[4 + 32 * (2 + 32 * 3)], 1);
  EXPECT_EQ(boxedMask[20 + 32 * (20 + 32 * 3)], 1);

  const auto count = [&](const PcdRoiObject* roi) {
    const auto mask = PCD_RasterizeRoiObject(roi, &size);
    return std::count(mask.begin(), mask.end(), 1);
  };
  EXPECT_EQ(count(group), 12);
  ASSERT_TRUE(PCDview_UndoRoiEdit(&history, &rois));
  EXPECT_FLOAT_EQ(sphere->shape->centre.x, 16.0f);  // fitted to the middle of the volume at creation
  ASSERT_TRUE(PCDview_UndoRoiEdit(&history, &rois));
  EXPECT_EQ(count(group), 13);
  ASSERT_TRUE(PCDview_UndoRoiEdit(&history, &rois));
  EXPECT_EQ(count(group), 0);
  EXPECT_FALSE(PCDview_UndoRoiEdit(&history, &rois));
  ASSERT_TRUE(PCDview_RedoRoiEdit(&history, &rois));
  EXPECT_EQ(count(group), 13);
  // a new edit drops what could be redone
  ASSERT_TRUE(PCDview_BeginRoiEdit(&history, group));
  PCDview_PaintRoiVoxels(group, size, g, {20.5f, 20.5f, 3.5f}, 0.5f, 1);
  PCDview_EndRoiEdit(&history, group);
  EXPECT_FALSE(PCDview_RedoRoiEdit(&history, &rois));
  EXPECT_EQ(count(group), 14);
  // a deleted ROI's steps do nothing
  PCD_DeleteRoiObjectById(&rois, group->id);
  EXPECT_FALSE(PCDview_UndoRoiEdit(&history, &rois));

  sphere->status = 1;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(PCDview_BeginRoiEdit(&history, sphere));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Uneditable ROI refered by study(ies)\n");
}

TEST(RoiDrawing, AFreehandContourTakesTheVoxelsInsideItInItsSection) {
  Volume vol(32, 32, 8, 0);
  const PcdIntSize3D size{32, 32, 8};
  PcdRoiList rois;
  PcdRoiObject* freehand = PCD_NewRoiObject(&rois, PCD_ROI_FREEHAND, &size);
  // sagittal section x = 7: a triangle with corners at (y, z) = (2, 1), (10, 1), (2, 5)
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.cursor = {7, 0, 0};
  scene.voxelsPerPixel = 0.125f;
  PcdSlicePane pane;
  pane.kind = PCD_PANE_SAGITTAL;
  const PcdPaneGeometry g = PCDview_GetPaneGeometry(pane, scene, 256, 256);
  std::vector<PcdVector2D> contour;
  for (const PcdVector3D& corner : {PcdVector3D{7, 2, 1}, PcdVector3D{7, 10, 1}, PcdVector3D{7, 2, 5}}) {
    double px, py;
    PCDview_VoxelToPixel(g, corner, &px, &py, nullptr);
    contour.push_back({float(px), float(py)});
  }
  // voxel centres (y + 0.5, z + 0.5) inside z < 5 - (y - 2) / 2: by rows z = 1: y 2..8,
  // z = 2: y 2..6, z = 3: y 2..4, z = 4: y 2 -> 7 + 5 + 3 + 1 = 16
  ASSERT_EQ(PCDview_SetRoiFreehand(freehand, size, g, contour), 16);
  for (const PcdRoiPoint& p : freehand->shape->points) {
    EXPECT_EQ(p.x, 7);
    EXPECT_LT(p.z + 0.5, 5 - (p.y + 0.5 - 2) / 2);
  }
  // at the volume's edges: voxels at index 0 are taken, those past it or past 255 (a
  // point's x and y are bytes) are not
  {
    Volume wide(300, 8, 4, 0);
    const PcdIntSize3D wideSize{300, 8, 4};
    PcdSliceScene edge;
    edge.volume = wide.v;
    edge.cursor = {0, 0, 3};
    edge.voxelsPerPixel = 1.0f;
    const PcdPaneGeometry axial = PCDview_GetPaneGeometry(PcdSlicePane{}, edge, 256, 256);
    const auto square = [&](float x0, float y0, float x1, float y1) {
      std::vector<PcdVector2D> c;
      for (const PcdVector3D& corner : {PcdVector3D{x0, y0, 3}, PcdVector3D{x1, y0, 3}, PcdVector3D{x1, y1, 3},
                                        PcdVector3D{x0, y1, 3}}) {
        double px, py;
        PCDview_VoxelToPixel(axial, corner, &px, &py, nullptr);
        c.push_back({float(px), float(py)});
      }
      return c;
    };
    PcdRoiObject* corner = PCD_NewRoiObject(&rois, PCD_ROI_FREEHAND, &wideSize);
    ASSERT_EQ(PCDview_SetRoiFreehand(corner, wideSize, axial, square(-1.0f, -1.0f, 2.0f, 2.0f)), 4);
    EXPECT_EQ(corner->shape->points[0].x, 0);  // (0, 0, 3) first
    EXPECT_EQ(corner->shape->points[0].y, 0);
    EXPECT_EQ(corner->shape->points[0].z, 3);
    // voxels 254 to 258 of row 0: the point format holds x up to 255, the other three
    // are left out with a warning
    testing::internal::CaptureStderr();
    ASSERT_EQ(PCDview_SetRoiFreehand(corner, wideSize, axial, square(254.0f, 0.0f, 259.0f, 1.0f)), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Warning: a freehand ROI holds voxels with x and y up to 255 and z up to 65535; 3 voxels of the "
              "contour beyond that are left out\n");
    EXPECT_EQ(corner->shape->points[1].x, 255);
    testing::internal::CaptureStderr();  // wholly inside the format: no word
    ASSERT_EQ(PCDview_SetRoiFreehand(corner, wideSize, axial, square(250.0f, 0.0f, 256.0f, 2.0f)), 12);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
  // a contour around more voxels than a freehand ROI holds is refused, the ROI kept
  Volume big(256, 256, 2, 0);
  const PcdIntSize3D bigSize{256, 256, 2};
  PcdSliceScene whole;
  whole.volume = big.v;
  const PcdPaneGeometry axial = PCDview_GetPaneGeometry(PcdSlicePane{}, whole, 256, 256);
  const std::vector<PcdVector2D> all = {{0, 0}, {256, 0}, {256, 256}, {0, 256}};
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDview_SetRoiFreehand(freehand, bigSize, axial, all), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Warning: a freehand ROI holds at most 4119 voxels", 0), 0u);
  EXPECT_EQ(freehand->shape->points.size(), 16u);
  // the brush leaves other ROI types alone
  EXPECT_EQ(PCDview_PaintRoiVoxels(freehand, size, g, {7.5f, 3.5f, 2.5f}, 2.0f, 1), -1);
  // an oblique section has no voxel rows to fill: refused with a warning, the ROI kept
  PcdSlicePane oblique;
  oblique.kind = PCD_PANE_OBLIQUE;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCDview_SetRoiFreehand(freehand, size, PCDview_GetPaneGeometry(oblique, scene, 256, 256), contour), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: a freehand ROI is drawn in an axial, sagittal or coronal pane\n");
  EXPECT_EQ(freehand->shape->points.size(), 16u);
}

TEST(RoiPalette, ChannelStepsAndExportedRois) {
  EXPECT_EQ(PCDview_StepChannel(5, 11, PCD_CHANNEL_FIRST), 0);
  EXPECT_EQ(PCDview_StepChannel(5, 11, PCD_CHANNEL_LAST), 10);
  EXPECT_EQ(PCDview_StepChannel(5, 11, PCD_CHANNEL_NEXT), 6);
  EXPECT_EQ(PCDview_StepChannel(10, 11, PCD_CHANNEL_NEXT), 10);
  EXPECT_EQ(PCDview_StepChannel(0, 11, PCD_CHANNEL_PREVIOUS), 0);
  EXPECT_EQ(PCDview_StepChannel(3, 0, PCD_CHANNEL_NEXT), 0);

  PcdRoiPalette palette;
  palette.size = {4, 3, 2};
  for (auto& mask : palette.masks) mask.assign(24, 0);
  palette.masks[PCD_PALETTE_AVOIDANCE][1 + 4 * (2 + 3 * 1)] = 1;  // voxel (1, 2, 1)
  palette.masks[PCD_PALETTE_ROI][0] = 1;
  PcdRoiList rois;
  EXPECT_EQ(PCDview_ExportPaletteToRois(&palette, &rois, "FA"), 2);
  ASSERT_EQ(rois.items.size(), 2u);
  EXPECT_STREQ(rois.items[0]->label, "Imported avoidance of FA");
  EXPECT_STREQ(rois.items[1]->label, "Imported ROI of FA");
  EXPECT_EQ(rois.items[0]->type, PCD_ROI_VOXELGROUP);
  const auto mask = PCD_RasterizeRoiObject(rois.items[0].get(), &palette.size);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), 1);
  EXPECT_EQ(mask[1 + 4 * (2 + 3 * 1)], 1);
}

PcdGlyph Glyph(float l1, float l2, float l3) {
  PcdGlyph glyph{};
  glyph.lambda[0] = l1, glyph.lambda[1] = l2, glyph.lambda[2] = l3;
  glyph.axes[0] = {1, 0, 0}, glyph.axes[1] = {0, 1, 0}, glyph.axes[2] = {0, 0, 1};
  glyph.fa = float(PCDview_FAofEigenvalues(l1, l2, l3));
  return glyph;
}

TEST(Glyphs, ShapesFollowTheTensorAsWorkedOutByHand) {
  const PcdGlyph g = Glyph(3e-3f, 1e-3f, 1e-3f);
  const PcdVector3D x{1, 0, 0}, y{0, 1, 0};
  const float r = float(std::sqrt(0.5));
  const PcdVector3D diagonal{r, r, 0};
  // along e1 every shape reaches its full size
  for (int32_t primitive : {kPcdGlyphAdcProfile, kPcdGlyphEllipsoid, kPcdGlyphEnvelope})
    EXPECT_NEAR(PCDview_GlyphRadius(g, primitive, x), 1.0, 1e-6) << primitive;
  EXPECT_NEAR(PCDview_GlyphRadius(g, kPcdGlyphAdcProfile, y), 1.0 / 3, 1e-6);
  EXPECT_NEAR(PCDview_GlyphRadius(g, kPcdGlyphEllipsoid, y), 1.0 / 3, 1e-6);
  // at 45 degrees: ADC (3 + 1) / 2 / 3; ellipsoid (semi-axes 3, 1, 1)
  // 1 / sqrt((1/9 + 1) / 2) / 3 = 1 / sqrt(5); envelope sqrt((9 + 1) / 2) / 3
  EXPECT_NEAR(PCDview_GlyphRadius(g, kPcdGlyphAdcProfile, diagonal), 2.0 / 3, 1e-6);
  EXPECT_NEAR(PCDview_GlyphRadius(g, kPcdGlyphEllipsoid, diagonal), 1.0 / std::sqrt(5.0), 1e-6);
  EXPECT_NEAR(PCDview_GlyphRadius(g, kPcdGlyphEnvelope, diagonal), std::sqrt(5.0) / 3, 1e-6);
  EXPECT_EQ(PCDview_GlyphRadius(Glyph(0, 0, 0), kPcdGlyphAdcProfile, x), 0.0);

  // drawn in a pane: an ellipse three times wider than tall, coloured by direction
  Volume vol(32, 32, 8, 0);
  PcdGlyphLayer layer;
  layer.primitive = kPcdGlyphEllipsoid;
  layer.coloring = kPcdColorDirection;
  PcdGlyph at = g;
  at.position = {15.5f, 15.5f, 3.5f};
  layer.glyphs = {at};
  Image image;
  PcdPaneOverlays overlays;
  overlays.glyphs = {&layer};
  overlays.showCursor = false;
  PcdSliceScene scene;
  scene.volume = vol.v;
  scene.cursor = {15, 15, 3};
  scene.voxelsPerPixel = 1.0f / 64;  // 64 pixels a voxel, the glyph 32 pixels across e1
  PcdGreyTable table;
  PcdSlicePane pane;
  PCDview_RenderPane(image.s, pane, scene, overlays, &table);
  int width = 0, height = 0;
  for (int i = 0; i < 256; ++i) {
    width += image.At(i, 128) == 0xffff0000u;
    height += image.At(128, i) == 0xffff0000u;
  }
  EXPECT_NEAR(width, 64, 3);   // 2 x 32
  EXPECT_NEAR(height, 21, 3);  // a third of it
  // the star: the three axes, e1 two half-widths long, the others a third of that
  // (one-pixel lines on a pixel boundary: half red on the two rows or columns beside it)
  layer.primitive = kPcdGlyphStar;
  PCDview_RenderPane(image.s, pane, scene, overlays, &table);
  const auto reddish = [](uint32_t p) { return (p >> 16 & 255) > 60 && (p >> 8 & 255) < 30; };
  width = height = 0;
  for (int i = 0; i < 256; ++i) {
    width += reddish(image.At(i, 128));
    height += reddish(image.At(128, i));
  }
  EXPECT_NEAR(width, 64, 3);
  EXPECT_NEAR(height, 21, 3);
  layer.primitive = kPcdGlyphEllipsoid;
  // a glyph a voxel away from the section is not drawn; emphasis scales by FA
  layer.glyphs[0].position.z = 4.5f;
  PCDview_RenderPane(image.s, pane, scene, overlays, &table);
  EXPECT_NE(image.At(128, 128), 0xffff0000u);
  layer.glyphs[0].position.z = 3.5f;
  layer.emphasis = true;
  PCDview_RenderPane(image.s, pane, scene, overlays, &table);
  width = 0;
  for (int i = 0; i < 256; ++i) width += image.At(i, 128) == 0xffff0000u;
  EXPECT_NEAR(width, 64 * g.fa, 3);
}

}  // namespace
