#include "view/roi_drawing.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>

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
  h->openBefore = Snapshot(roi);
  return true;
}

void PCDview_EndRoiEdit(PcdRoiEditHistory* h, const PcdRoiObject* roi) {
  if (!h->open || roi == nullptr || roi->id != h->openId) {
    h->open = false;
    return;
  }
  h->open = false;
  std::vector<uint8_t> after = Snapshot(roi);
  if (after == h->openBefore) return;
  h->undo.push_back({roi->id, std::move(h->openBefore), std::move(after)});
  h->redo.clear();
}

bool PCDview_UndoRoiEdit(PcdRoiEditHistory* h, PcdRoiList* rois) {
  if (h->undo.empty()) return false;
  PcdRoiEditHistory::Step step = std::move(h->undo.back());
  h->undo.pop_back();
  if (!Restore(rois, step.roiId, step.before)) return false;
  h->redo.push_back(std::move(step));
  return true;
}

bool PCDview_RedoRoiEdit(PcdRoiEditHistory* h, PcdRoiList* rois) {
  if (h->redo.empty()) return false;
  PcdRoiEditHistory::Step step = std::move(h->redo.back());
  h->redo.pop_back();
  if (!Restore(rois, step.roiId, step.after)) return false;
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

int PCDview_SetRoiFreehand(PcdRoiObject* roi, const PcdIntSize3D& volume, const PcdPaneGeometry& g,
                           const std::vector<PcdVector2D>& contour) {
  const int axis = PCDview_PaneNormalAxis(g.kind);
  if (roi == nullptr || !roi->shape || roi->type != PCD_ROI_FREEHAND || !UsableSize(volume)) return -1;
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
  roi->shape->points = std::move(points);
  return int(roi->shape->points.size());
}
