#include "view/roi_drawing.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>

#include "study/byte_cursor.h"

namespace {

std::vector<uint8_t> Snapshot(const PcdRoiObject* roi) {
  std::vector<uint8_t> bytes(pcd_roi_serialized_size(roi));
  PCD_SerializeRoiObject(roi, bytes.data());
  return bytes;
}

bool Restore(PcdRoiList* rois, uint16_t id, const std::vector<uint8_t>& bytes) {
  PcdRoiObject* roi = PCD_FindRoiObject(rois, id);
  if (roi == nullptr) return false;
  PcdRoiObject* saved = PCD_NewRoiObjectFromSerializedData(bytes.data(), bytes.size());
  if (saved == nullptr) return false;
  roi->type = saved->type;
  roi->shape = std::move(saved->shape);
  roi->voxelGroup = std::move(saved->voxelGroup);
  delete_roi_object(saved);
  return true;
}

// A region's state as bytes: use, kind, the setting that follows the kind (the seed
// source of a tracking seed region, the mode of a statistics region, else 0), the shape.
int32_t* FollowerOf(PcdStudyObject* study, int32_t region) {
  if (study->tract && region == 0) return &study->tract->seedSource;
  if (study->statistics) return &study->statistics->mode;
  return nullptr;
}

std::vector<uint8_t> RegionSnapshot(const PcdStudyObject* study, int32_t index) {
  const PcdStudyRegion* region = PCD_GetStudyRegion(study, index);
  if (region == nullptr) return {};
  const int32_t* follower = FollowerOf(const_cast<PcdStudyObject*>(study), index);
  PcdRoiShape none;
  const PcdRoiShape& shape = region->shape ? *region->shape : none;
  std::vector<uint8_t> bytes(12 + PCD_GetSerializedSizeOfRoiShape(&shape));
  PcdByteWriter w{bytes.data()};
  w.Int32(region->use);
  w.Int32(region->kind);
  w.Int32(follower ? *follower : 0);
  PCD_SerializeRoiShape(&shape, w.at);
  return bytes;
}

bool RestoreRegion(PcdStudyList* studies, uint16_t id, int32_t index, const std::vector<uint8_t>& bytes) {
  PcdStudyObject* study = studies ? PCD_FindStudyObject(studies, id) : nullptr;
  PcdStudyRegion* region = study ? PCD_GetStudyRegion(study, index) : nullptr;
  if (region == nullptr) return false;
  PcdByteReader r{bytes.data(), bytes.size()};
  const int32_t use = r.Int32(), kind = r.Int32(), follows = r.Int32();
  std::unique_ptr<PcdRoiShape> shape = PCD_ReadRoiShape(&r);
  if (!shape || !r.ok()) return false;
  region->use = use;
  region->kind = kind;
  if (int32_t* follower = FollowerOf(study, index)) *follower = follows;
  region->shape = std::move(shape);
  return true;
}

// Makes the group cover the whole volume, one byte a voxel, keeping the voxels it had.
bool CoverVolume(PcdRoiObject* roi, const PcdIntSize3D& volume) {
  PcdVoxelGroup* old = roi->voxelGroup.get();
  if (old != nullptr && old->origin.x == 0 && old->origin.y == 0 && old->origin.z == 0 &&
      old->size.x == volume.x && old->size.y == volume.y && old->size.z == volume.z)
    return true;
  const PcdIntVector3D origin{0, 0, 0};
  const uint32_t second[3] = {0, 0, 0};
  auto group = PCD_NewVoxelGroup(&origin, &volume,
                                 old ? old->second : second, old ? old->storage : kPcdVoxelGroupOneByte);
  if (!group) return false;
  if (old != nullptr)
    for (int32_t z = 0; z < old->size.z; ++z)
      for (int32_t y = 0; y < old->size.y; ++y)
        for (int32_t x = 0; x < old->size.x; ++x)
          if (PCD_GetVoxelOfVoxelGroup(old, x, y, z))
            PCD_SetVoxelOfVoxelGroup(group.get(), x + old->origin.x, y + old->origin.y, z + old->origin.z, 1);
  roi->voxelGroup = std::move(group);
  return true;
}

bool UsableSize(const PcdIntSize3D& s) { return s.x > 0 && s.y > 0 && s.z > 0; }

bool PointInPolygon(double x, double y, const std::vector<PcdVector2D>& poly) {
  bool inside = false;
  for (size_t i = 0, j = poly.size() - 1; i < poly.size(); j = i++) {
    const double xi = poly[i].x, yi = poly[i].y, xj = poly[j].x, yj = poly[j].y;
    if ((yi > y) != (yj > y) && x < (xj - xi) * (y - yi) / (yj - yi) + xi) inside = !inside;
  }
  return inside;
}

}  // namespace

bool PCDview_BeginRoiEdit(PcdRoiEditHistory* h, const PcdRoiObject* roi) {
  if (roi == nullptr) return false;
  if (roi->status == 1) {
    std::fputs("Uneditable ROI refered by study(ies)\n", stderr);
    return false;
  }
  h->open = true;
  h->openId = roi->id;
  h->openRegion = -1;
  h->openBefore = Snapshot(roi);
  return true;
}

void PCDview_EndRoiEdit(PcdRoiEditHistory* h, const PcdRoiObject* roi) {
  if (!h->open || roi == nullptr || roi->id != h->openId || h->openRegion >= 0) {
    h->open = false;
    return;
  }
  h->open = false;
  std::vector<uint8_t> after = Snapshot(roi);
  if (after == h->openBefore) return;
  h->undo.push_back({roi->id, std::move(h->openBefore), std::move(after)});
  h->redo.clear();
}

namespace {

bool Apply(const PcdRoiEditHistory::Step& step, const std::vector<uint8_t>& bytes, PcdRoiList* rois,
           PcdStudyList* studies, bool* studied) {
  if (studied) *studied = step.region >= 0;
  return step.region >= 0 ? RestoreRegion(studies, step.roiId, step.region, bytes)
                          : Restore(rois, step.roiId, bytes);
}

}  // namespace

bool PCDview_UndoRoiEdit(PcdRoiEditHistory* h, PcdRoiList* rois, PcdStudyList* studies, bool* studied) {
  if (h->undo.empty()) return false;
  PcdRoiEditHistory::Step step = std::move(h->undo.back());
  h->undo.pop_back();
  if (!Apply(step, step.before, rois, studies, studied)) return false;
  h->redo.push_back(std::move(step));
  return true;
}

bool PCDview_RedoRoiEdit(PcdRoiEditHistory* h, PcdRoiList* rois, PcdStudyList* studies, bool* studied) {
  if (h->redo.empty()) return false;
  PcdRoiEditHistory::Step step = std::move(h->redo.back());
  h->redo.pop_back();
  if (!Apply(step, step.after, rois, studies, studied)) return false;
  h->undo.push_back(std::move(step));
  return true;
}

void PCDview_ClearRoiEditHistory(PcdRoiEditHistory* h) {
  h->undo.clear();
  h->redo.clear();
  h->open = false;
  h->openBefore.clear();
}

void PCDview_SetRoiSphere(PcdRoiObject* roi, const PcdVector3D& centre, float radius) {
  if (roi == nullptr || !roi->shape) return;
  roi->shape->centre = centre;
  roi->shape->radius = std::clamp(radius, 1.0f, 256.0f);
}

void PCDview_ForBrushVoxels(const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                            const PcdVector3D& centre, float radius,
                            const std::function<void(int32_t, int32_t, int32_t)>& visit) {
  if (!UsableSize(volume) || g.kind == PCD_PANE_SPHERICAL || !(radius >= 0) || !std::isfinite(centre.x) ||
      !std::isfinite(centre.y) || !std::isfinite(centre.z))
    return;
  const int r = int(std::ceil(std::min(radius, 256.0f))) + 1;
  const int cx = int(std::floor(centre.x)), cy = int(std::floor(centre.y)), cz = int(std::floor(centre.z));
  for (int z = std::max(0, cz - r); z <= std::min(volume.z - 1, cz + r); ++z)
    for (int y = std::max(0, cy - r); y <= std::min(volume.y - 1, cy + r); ++y)
      for (int x = std::max(0, cx - r); x <= std::min(volume.x - 1, cx + r); ++x) {
        const double dx = x + 0.5 - centre.x, dy = y + 0.5 - centre.y, dz = z + 0.5 - centre.z;
        const double across = dx * g.normal.x + dy * g.normal.y + dz * g.normal.z;
        if (std::fabs(across) >= 0.5) continue;  // only the section's own voxels
        if (dx * dx + dy * dy + dz * dz - across * across > double(radius) * radius) continue;
        visit(x, y, z);
      }
}

int PCDview_PaintRoiVoxels(PcdRoiObject* roi, const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                           const PcdVector3D& centre, float radius, int on) {
  if (roi == nullptr || roi->type != PCD_ROI_VOXELGROUP || !UsableSize(volume) ||
      g.kind == PCD_PANE_SPHERICAL)
    return -1;
  if (!CoverVolume(roi, volume)) return -1;
  PcdVoxelGroup* group = roi->voxelGroup.get();
  int changed = 0;
  PCDview_ForBrushVoxels(volume, g, centre, radius, [&](int32_t x, int32_t y, int32_t z) {
    if (PCD_GetVoxelOfVoxelGroup(group, x, y, z) != (on ? 1 : 0)) {
      PCD_SetVoxelOfVoxelGroup(group, x, y, z, on);
      ++changed;
    }
  });
  return changed;
}

namespace {

int SetShapeFreehand(PcdRoiShape* shape, const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                     const std::vector<PcdVector2D>& contour) {
  const int axis = PCDview_PaneNormalAxis(g.kind);
  if (shape == nullptr || !UsableSize(volume)) return -1;
  if (axis < 0) {
    std::fputs("Warning: a freehand ROI is drawn in an axial, sagittal or coronal pane\n", stderr);
    return -1;
  }
  if (contour.size() < 3) return -1;
  const int slice = int(std::floor(axis == 0 ? g.centre.x : axis == 1 ? g.centre.y : g.centre.z));
  std::vector<PcdRoiPoint> points;
  const int32_t limitX = std::min(volume.x, 256), limitY = std::min(volume.y, 256);
  const int32_t limitZ = std::min(volume.z, 65536);
  const int32_t n0 = axis == 0 ? volume.y : volume.x;
  const int32_t n1 = axis == 2 ? volume.y : volume.z;
  int64_t beyond = 0;
  for (int32_t b = 0; b < n1; ++b)
    for (int32_t a = 0; a < n0; ++a) {
      PcdIntVector3D v = axis == 0 ? PcdIntVector3D{slice, a, b}
                         : axis == 1 ? PcdIntVector3D{a, slice, b}
                                     : PcdIntVector3D{a, b, slice};
      if (v.x < 0 || v.y < 0 || v.z < 0) continue;
      double px, py;
      PCDview_VoxelToPixel(g, {v.x + 0.5f, v.y + 0.5f, v.z + 0.5f}, &px, &py, nullptr);
      if (!PointInPolygon(px, py, contour)) continue;
      // a stored point keeps x and y in one byte each and z in two
      if (v.x >= limitX || v.y >= limitY || v.z >= limitZ) {
        ++beyond;
        continue;
      }
      points.push_back({uint8_t(v.x), uint8_t(v.y), uint16_t(v.z)});
    }
  if (beyond > 0)
    std::fprintf(stderr,
                 "Warning: a freehand ROI holds voxels with x and y up to 255 and z up to 65535; "
                 "%lld voxels of the contour beyond that are left out\n",
                 static_cast<long long>(beyond));
  if (int64_t(points.size()) > kPcdShapeMaxPoints) {
    std::fprintf(stderr, "Warning: a freehand ROI holds at most %d voxels; the contour takes %zu\n",
                 kPcdShapeMaxPoints, points.size());
    return -1;
  }
  std::sort(points.begin(), points.end(), [](const PcdRoiPoint& p, const PcdRoiPoint& q) {
    return std::tie(p.z, p.y, p.x) < std::tie(q.z, q.y, q.x);
  });
  shape->points = std::move(points);
  return int(shape->points.size());
}

}  // namespace

int PCDview_SetRoiFreehand(PcdRoiObject* roi, const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                           const std::vector<PcdVector2D>& contour) {
  if (roi == nullptr || !roi->shape || roi->type != PCD_ROI_FREEHAND) return -1;
  return SetShapeFreehand(roi->shape.get(), volume, g, contour);
}

int32_t PCDview_RegionOfPalette(const PcdStudyObject* study, int32_t palette) {
  if (study == nullptr || palette < 0 || palette > 2) return -1;  // seed, target, avoidance
  if (study->tract) return palette;
  return study->statistics || study->profile ? 0 : -1;
}

int32_t PCDview_DrawnRegionKind(const PcdStudyObject* study, int32_t index) {
  const PcdStudyRegion* region = PCD_GetStudyRegion(study, index);
  if (region == nullptr) return 0;
  if (study->tract && index == 0)
    return study->tract->seedSource == kPcdSeedFromFreehand || study->tract->seedSource == kPcdSeedFromFreehandToo
               ? kPcdRegionFreehand
               : kPcdRegionSphere;
  return region->kind == kPcdRegionFreehand ? kPcdRegionFreehand : kPcdRegionSphere;
}

bool PCDview_BeginRegionEdit(PcdRoiEditHistory* h, const PcdStudyObject* study, int32_t region) {
  if (PCD_GetStudyRegion(study, region) == nullptr) return false;
  h->open = true;
  h->openId = study->id;
  h->openRegion = region;
  h->openBefore = RegionSnapshot(study, region);
  return true;
}

void PCDview_EndRegionEdit(PcdRoiEditHistory* h, const PcdStudyObject* study) {
  const int32_t region = h->openRegion;
  h->open = false;
  h->openRegion = -1;
  if (study == nullptr || study->id != h->openId || region < 0) return;
  std::vector<uint8_t> after = RegionSnapshot(study, region);
  if (after == h->openBefore) return;
  h->undo.push_back({study->id, std::move(h->openBefore), std::move(after), region});
  h->redo.clear();
}

namespace {

// The region takes part as a drawn region of this kind; what follows the kind follows.
PcdStudyRegion* DrawnRegion(PcdStudyObject* study, int32_t index, int32_t kind) {
  PcdStudyRegion* region = PCD_GetStudyRegion(study, index);
  if (region == nullptr) return nullptr;
  if (!region->shape) region->shape = PCD_NewRoiShape();
  if (!region->shape) return nullptr;
  region->use = kPcdRegionInUse;
  region->kind = kind;
  if (study->tract && index == 0)
    study->tract->seedSource = kind == kPcdRegionFreehand ? kPcdSeedFromFreehand : kPcdSeedFromSphere;
  if (study->statistics) study->statistics->mode = kind;
  return region;
}

}  // namespace

void PCDview_SetRegionSphere(PcdStudyObject* study, int32_t index, const PcdVector3D& centre, float radius) {
  PcdStudyRegion* region = DrawnRegion(study, index, kPcdRegionSphere);
  if (region == nullptr) return;
  region->shape->centre = centre;
  region->shape->radius = std::clamp(radius, 1.0f, 256.0f);
}

int PCDview_SetRegionFreehand(PcdStudyObject* study, int32_t index, const PcdIntSize3D& volume,
                              const PcdPaneGeometry& g, const std::vector<PcdVector2D>& contour) {
  PcdStudyRegion* region = PCD_GetStudyRegion(study, index);
  if (region == nullptr) return -1;
  auto shape = region->shape ? std::make_unique<PcdRoiShape>(*region->shape) : PCD_NewRoiShape();
  if (!shape) return -1;
  const int n = SetShapeFreehand(shape.get(), volume, g, contour);
  if (n < 0) return n;  // the region stays as it was
  region = DrawnRegion(study, index, kPcdRegionFreehand);
  if (region == nullptr) return -1;
  region->shape = std::move(shape);
  return n;
}

void PCDview_GetRegionOverlays(const PcdStudyObject* study, PcdRoiList* out) {
  out->items.clear();
  out->selectedId = kPcdNoObject;
  if (study == nullptr) return;
  static const uint8_t kRoleColours[4][3] = {{25, 230, 25}, {51, 102, 255}, {255, 38, 38}, {255, 230, 25}};
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study); ++i) {
    const PcdStudyRegion* region = PCD_GetStudyRegion(study, i);
    if (region->use != kPcdRegionInUse || !region->shape) continue;
    const bool drawn = study->tract && i == 0 ? study->tract->seedSource != kPcdSeedFromList
                                              : region->kind == kPcdRegionSphere || region->kind == kPcdRegionFreehand;
    if (!drawn) continue;
    auto roi = std::make_unique<PcdRoiObject>();
    roi->id = uint16_t(i);
    roi->type = PCDview_DrawnRegionKind(study, i) == kPcdRegionFreehand ? PCD_ROI_FREEHAND : PCD_ROI_SPHERICAL;
    roi->shape = std::make_unique<PcdRoiShape>(*region->shape);
    const uint8_t* rgb = kRoleColours[study->tract ? i : 3];
    roi->red = uint16_t(rgb[0] << 8), roi->green = uint16_t(rgb[1] << 8), roi->blue = uint16_t(rgb[2] << 8);
    out->items.push_back(std::move(roi));
  }
}
