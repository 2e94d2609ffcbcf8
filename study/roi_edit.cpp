#include "study/roi_edit.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "dti/region_growing.h"
#include "vol/binary_volume.h"

namespace {

bool refuse_locked(const PcdRoiObject* roi) {
  if (roi->status != 1) return false;
  std::fputs("Uneditable ROI refered by study(ies)\n", stderr);
  return true;
}

size_t voxel_count(const PcdIntSize3D* size) {
  if (size == nullptr || size->x <= 0 || size->y <= 0 || size->z <= 0) return 0;
  return static_cast<size_t>(size->x) * static_cast<size_t>(size->y) * static_cast<size_t>(size->z);
}

// A one-channel UINT8 volume holding the group's voxels (1) of a whole-volume group.
PcdRawVolumeData* group_as_volume(const PcdVoxelGroup& group) {
  PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&group.size, 0, 0);
  if (v != nullptr) std::memcpy(v->data[0], group.data.data(), group.data.size());
  return v;
}

void take_volume(PcdVoxelGroup* group, const PcdRawVolumeData* v) {
  const uint8_t* bytes = static_cast<const uint8_t*>(v->data[0]);
  for (size_t i = 0; i < group->data.size(); ++i) group->data[i] = bytes[i] != 0 ? 1 : 0;
}

}  // namespace

int PCD_EnsureWholeVolumeVoxelGroup(PcdRoiObject* roi, const PcdIntSize3D* size) {
  if (roi == nullptr || roi->type != PCD_ROI_VOXELGROUP || voxel_count(size) == 0) return -1;
  const PcdVoxelGroup* g = roi->voxelGroup.get();
  if (g != nullptr && g->storage == kPcdVoxelGroupOneByte && g->origin.x == 0 && g->origin.y == 0 &&
      g->origin.z == 0 && PCD_IsSameSize3D(&g->size, size))
    return 0;
  const std::vector<uint8_t> voxels = PCD_RasterizeRoiObject(roi, size);
  const PcdIntVector3D origin{0, 0, 0};
  const uint32_t second[3] = {0, 0, 0};
  std::unique_ptr<PcdVoxelGroup> whole = PCD_NewVoxelGroup(&origin, size, second, kPcdVoxelGroupOneByte);
  if (!whole || whole->data.size() != voxels.size()) return -1;
  if (g != nullptr) std::copy(std::begin(g->second), std::end(g->second), whole->second);
  whole->data = voxels;
  roi->voxelGroup = std::move(whole);
  return 0;
}

int PCD_GrowVoxelGroupRoi(const PcdDtiData* dti, PcdRoiObject* roi) {
  if (roi == nullptr || dti == nullptr || dti->volume == nullptr || refuse_locked(roi)) return -1;
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdIntSize3D size{s.x, s.y, s.z};
  if (PCD_EnsureWholeVolumeVoxelGroup(roi, &size) != 0) return -1;
  PcdVoxelGroup* g = roi->voxelGroup.get();
  bool seeded = false;
  for (uint8_t v : g->data) seeded = seeded || v != 0;
  if (!seeded) return -1;
  PcdRawVolumeData* mask = group_as_volume(*g);
  if (mask == nullptr) return -1;
  PcdDtiRegionGrowingContext context;
  static_cast<PcdDtiRegionGrowingCore&>(context) = roi->growing;
  context.mask = mask;
  PCDdti_RegionGrowing(dti, &context);
  take_volume(g, mask);
  PCD_DeleteRawVolumeData(mask);
  return 0;
}

int PCD_MorphVoxelGroupRoi(PcdRoiObject* roi, const PcdIntSize3D* size, bool dilate) {
  if (roi == nullptr || refuse_locked(roi) || PCD_EnsureWholeVolumeVoxelGroup(roi, size) != 0) return -1;
  PcdRawVolumeData* v = group_as_volume(*roi->voxelGroup);
  if (v == nullptr) return -1;
  const int done = dilate ? PCD_DilateBinaryVolume(v, 0) : PCD_ErodeBinaryVolume(v, 0);
  if (done == 0) take_volume(roi->voxelGroup.get(), v);
  PCD_DeleteRawVolumeData(v);
  return done;
}

int PCD_ClearRoiRegion(PcdRoiObject* roi) {
  if (roi == nullptr || refuse_locked(roi)) return -1;
  if (roi->voxelGroup) std::fill(roi->voxelGroup->data.begin(), roi->voxelGroup->data.end(), 0);
  if (roi->shape) roi->shape->points.clear();
  return 0;
}

int PCD_MorphFreehandRoi(PcdRoiObject* roi, bool dilate) {
  if (roi == nullptr || refuse_locked(roi) || roi->type != PCD_ROI_FREEHAND || !roi->shape) return -1;
  constexpr int32_t n = kPcdShapePlaneSize;
  std::map<uint16_t, std::vector<PcdRoiPoint>> planes;  // by z, in z order
  for (const PcdRoiPoint& p : roi->shape->points) planes[p.z].push_back(p);
  std::vector<PcdRoiPoint> result;
  for (const auto& [z, points] : planes) {
    Pcd2DArray plane = PCD_New2DArray(n, n, 0);
    if (plane == nullptr) return -1;
    auto** rows = reinterpret_cast<uint8_t**>(plane);
    for (const PcdRoiPoint& p : points) rows[p.y][p.x] = 1;
    if (dilate) PCD_DilateBinary2DArray(plane, n, n, 0);
    else PCD_ErodeBinary2DArray(plane, n, n, 0);
    for (int32_t y = 0; y < n; ++y)
      for (int32_t x = 0; x < n; ++x)
        if (rows[y][x] != 0) result.push_back({static_cast<uint8_t>(x), static_cast<uint8_t>(y), z});
    PCD_Delete2DArray(plane, n, n, 0);
  }
  if (result.size() > static_cast<size_t>(kPcdShapeMaxPoints)) return -1;
  roi->shape->points = std::move(result);
  return 0;
}

int64_t PCD_CountRoiVoxels(const PcdRoiObject* roi, const PcdIntSize3D* size) {
  if (roi == nullptr || voxel_count(size) == 0) return 0;
  int64_t count = 0;
  for (uint8_t v : PCD_RasterizeRoiObject(roi, size)) count += v != 0;
  return count;
}

PcdObjectGroup PCD_BuildRoiObjectGroup(const PcdRoiList* rois, const PcdIntSize3D* size) {
  PcdObjectGroup group;
  group.hasColors = true;
  for (const auto& roi : rois->items) {
    if (roi->visible != 1) continue;
    PcdDisplayObject o;
    o.value = roi->id;
    o.color[0] = roi->red / 65535.0f;
    o.color[1] = roi->green / 65535.0f;
    o.color[2] = roi->blue / 65535.0f;
    o.color[3] = 1.0f;
    std::vector<float> words;
    if (roi->type == PCD_ROI_SPHERICAL && roi->shape) {
      o.type = 13;
      const PcdRoiShape& s = *roi->shape;
      words = {s.centre.x, s.centre.y, s.centre.z, s.radius, 0, 0, 0, 0, 0, 0};
      o.payload.resize(40);
      std::memcpy(o.payload.data(), words.data(), 40);
    } else {
      o.type = 61;
      const std::vector<uint8_t> voxels = voxel_count(size) ? PCD_RasterizeRoiObject(roi.get(), size)
                                                             : std::vector<uint8_t>{};
      size_t at = 0;
      for (int32_t z = 0; z < (voxels.empty() ? 0 : size->z); ++z)
        for (int32_t y = 0; y < size->y; ++y)
          for (int32_t x = 0; x < size->x; ++x, ++at)
            if (voxels[at]) words.insert(words.end(), {x + 0.5f, y + 0.5f, z + 0.5f});
      o.k = static_cast<int32_t>(words.size() / 3);
      o.payload.assign(5 + 4 * words.size(), 0);
      std::memcpy(o.payload.data(), &o.k, 4);
      if (!words.empty()) std::memcpy(o.payload.data() + 5, words.data(), 4 * words.size());
    }
    group.objects.push_back(std::move(o));
  }
  return group;
}
