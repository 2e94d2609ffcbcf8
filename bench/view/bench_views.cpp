// Redraw times of the slice view panes, off-screen: a 256 x 256 x 64 volume, three ROIs
// (a sphere, a freehand region, a painted voxel group) and 20,000 fibers of 223 nodes in
// a bundle, drawn into 256 x 256 cairo image surfaces as the views window draws them.
// Prints the median milliseconds per redraw of each pane kind and of four panes (axial,
// sagittal, coronal, oblique) while the cursor moves through the bundle.
//
//   quorix-view-bench [ROUNDS]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "fiber/trakline.h"
#include "study/roi_object.h"
#include "study/study_settings.h"
#include "view/fiber_overlay.h"
#include "view/pane_render.h"

namespace {

constexpr int kSize = 256, kSlices = 64, kFibers = 20000, kHalfNodes = 112;

PcdRawVolumeData* MakeVolume() {
  const PcdIntSize3D size{kSize, kSize, kSlices};
  PcdRawVolumeData* volume = PCD_NewSingleChannelRawVolumeData(&size, 3, 0);
  auto* data = static_cast<int16_t*>(volume->data[0]);
  for (int z = 0; z < kSlices; ++z)
    for (int y = 0; y < kSize; ++y)
      for (int x = 0; x < kSize; ++x) {
        const double r = std::hypot(x - 128.0, y - 128.0, (z - 32.0) * 3.0);
        data[x + kSize * (y + kSize * z)] = int16_t(r < 110 ? 600 + (x * 7 + y * 3 + z) % 200 : 0);
      }
  return volume;
}

// A bundle along x through the middle, bending gently in y, 6 voxels across.
PcdFibeTrakBuffer* MakeFibers(std::vector<PcdVector3D>* seeds) {
  seeds->resize(kFibers);
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(kFibers, seeds->data(), kHalfNodes);
  uint32_t state = 12345;
  const auto random = [&state] {
    state = state * 1664525u + 1013904223u;
    return (state >> 8) / double(1 << 24);
  };
  for (int f = 0; f < kFibers; ++f) {
    const float dy = float(random() * 6 - 3), dz = float(random() * 6 - 3);
    (*seeds)[size_t(f)] = {128.0f, 128.0f + dy, 32.0f + dz};
    PcdTrakLinePair* pair = new_trakline_pair(&(*seeds)[size_t(f)]);
    pair->selection = 1;
    for (int half = 0; half < 2; ++half) {
      PcdTrakLineBuffer* line = new_trakline_buffer(kHalfNodes);
      for (int i = 0; i < kHalfNodes; ++i) {
        const float x = 128.0f + (half ? -0.7f : 0.7f) * float(i);
        line->x[i] = x;
        line->y[i] = 128.0f + dy + 10.0f * std::sin((x - 128.0f) / 40.0f);
        line->z[i] = 32.0f + dz;
        line->L1[i] = 1.7e-3f, line->L2[i] = 0.3e-3f + float(random()) * 1e-4f, line->L3[i] = 0.3e-3f;
      }
      line->nodeCount = kHalfNodes;
      (half ? pair->backward : pair->forward) = line;
    }
    buffer->pairs[f] = pair;
  }
  pack_fibetrak_buffer(buffer);
  return buffer;
}

void AddRois(PcdRoiList* rois, const PcdIntSize3D& size) {
  PcdRoiObject* sphere = PCD_NewRoiObject(rois, PCD_ROI_SPHERICAL, &size);
  sphere->shape->centre = {100.5f, 120.5f, 32.5f};
  sphere->shape->radius = 12.0f;
  PcdRoiObject* freehand = PCD_NewRoiObject(rois, PCD_ROI_FREEHAND, &size);
  for (int y = 60; y < 100; ++y)
    for (int x = 150; x < 190; ++x) freehand->shape->points.push_back({uint8_t(x), uint8_t(y), 32});
  PcdRoiObject* group = PCD_NewRoiObject(rois, PCD_ROI_VOXELGROUP, &size);
  const PcdIntVector3D origin{0, 0, 0};
  const uint32_t second[3] = {0, 0, 0};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &size, second, kPcdVoxelGroupBitPacked);
  for (int z = 20; z < 44; ++z)
    for (int y = 150; y < 200; ++y)
      for (int x = 60; x < 110; ++x) PCD_SetVoxelOfVoxelGroup(group->voxelGroup.get(), x, y, z, 1);
}

// The thread's CPU time: the machine is shared, wall time follows the others' load.
double CpuMs() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 64;
  PcdRawVolumeData* volume = MakeVolume();
  const PcdIntSize3D size{kSize, kSize, kSlices};
  PcdRoiList rois;
  AddRois(&rois, size);
  std::vector<PcdVector3D> seeds;
  PcdFibeTrakBuffer* buffer = MakeFibers(&seeds);
  const auto made = std::chrono::steady_clock::now();
  auto layer = PCDview_MakeFiberLayer(buffer, kPcdColorDirection, kPcdPrimitiveHairline);
  const double copyMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - made).count();
  PCDdti_DeleteFibeTrakBuffer(buffer);

  PcdPaneOverlays overlays;
  overlays.rois = &rois;
  overlays.fibers = {layer.get()};
  overlays.showBox = true;
  overlays.boxOrigin = {20, 20, 10};
  overlays.boxSize = {200, 200, 40};
  const int32_t kinds[4] = {PCD_PANE_AXIAL, PCD_PANE_SAGITTAL, PCD_PANE_CORONAL, PCD_PANE_OBLIQUE};
  cairo_surface_t* images[4];
  PcdGreyTable tables[4];
  for (auto& image : images) image = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 256, 256);
  std::vector<double> perKind[4], four;
  for (int r = 0; r < rounds; ++r) {
    PcdSliceScene scene;
    scene.volume = volume;
    scene.cursor = {100 + r % 56, 110 + (r * 3) % 36, 29 + r % 7};  // through the bundle
    scene.voxelsPerPixel = 1.0f;  // s = 256 / 256
    scene.greyHigh = 800.0f;
    double total = 0;
    for (int k = 0; k < 4; ++k) {
      PcdSlicePane pane;
      pane.kind = kinds[k];
      const double start = CpuMs();
      PCDview_RenderPane(images[k], pane, scene, overlays, &tables[k]);
      const double ms = CpuMs() - start;
      perKind[k].push_back(ms);
      total += ms;
    }
    four.push_back(total);
  }
  if (const char* dir = std::getenv("QUORIX_VIEW_BENCH_PNG")) {
    const char* names[4] = {"axial", "sagittal", "coronal", "oblique"};
    for (int k = 0; k < 4; ++k) {
      char path[512];
      std::snprintf(path, sizeof path, "%s/bench-%s.png", dir, names[k]);
      cairo_surface_write_to_png(images[k], path);
    }
  }
  std::printf("fibers %d, nodes %zu, copied and bucketed in %.1f ms\n", kFibers, layer->nodes.size(), copyMs);
  std::printf("median CPU ms per redraw over %d rounds: axial %.2f  sagittal %.2f  coronal %.2f  oblique %.2f  four panes %.2f\n",
              rounds, Median(perKind[0]), Median(perKind[1]), Median(perKind[2]), Median(perKind[3]), Median(four));
  for (auto& image : images) cairo_surface_destroy(image);
  PCD_DeleteRawVolumeData(volume);
  return 0;
}
