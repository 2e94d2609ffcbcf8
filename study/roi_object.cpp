#include "study/roi_object.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "study/byte_cursor.h"

const PcdRoiTypeInfo kPcdRoiTypes[3] = {
    {PCD_ROI_SPHERICAL, "spherical", "Spherical", "Spherical %d"},
    {PCD_ROI_FREEHAND, "freehand", "Freehand", "Freehand %d"},
    {PCD_ROI_VOXELGROUP, "voxelgroup", "Voxelgroup", "Voxelgroup %d"},
};

const PcdRoiTypeInfo* PCD_FindRoiType(int32_t code) {
  for (const PcdRoiTypeInfo& info : kPcdRoiTypes)
    if (info.code == code) return &info;
  return nullptr;
}

// ---- shape ------------------------------------------------------------------------------

std::unique_ptr<PcdRoiShape> PCD_NewRoiShape() {
  try {
    return std::make_unique<PcdRoiShape>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int PCD_EnsureRoiShapePlanes(PcdRoiShape* shape) {
  const size_t n = static_cast<size_t>(kPcdShapePlaneSize) * kPcdShapePlaneSize;
  try {
    if (shape->signalPlane.size() != n) shape->signalPlane.assign(n, 0);
    if (shape->drawPlane.size() != n) shape->drawPlane.assign(n, 0);
    if (shape->workPlane.size() != n) shape->workPlane.assign(n, 0);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

size_t PCD_GetSerializedSizeOfRoiShape(const PcdRoiShape* shape) {
  return shape == nullptr ? 0 : kPcdShapeHeadBytes + 4 * shape->points.size();
}

static void put_vector(PcdByteWriter& w, const PcdVector3D& v) {
  w.Float32(v.x);
  w.Float32(v.y);
  w.Float32(v.z);
}

static PcdVector3D get_vector(PcdByteReader& r) {
  PcdVector3D v;
  v.x = r.Float32();
  v.y = r.Float32();
  v.z = r.Float32();
  return v;
}

void PCD_SerializeRoiShape(const PcdRoiShape* shape, uint8_t* buffer) {
  PcdByteWriter w{buffer};
  put_vector(w, shape->origin);
  for (const PcdVector3D& v : shape->geometry) put_vector(w, v);
  w.Float32(shape->setting1);
  w.Int32(shape->setting2);
  w.Float32(shape->setting3);
  w.Int32(shape->setting4);
  w.Float32(shape->setting5);
  put_vector(w, shape->centre);
  w.Float32(shape->radius);
  w.Int32(static_cast<int32_t>(shape->points.size()));
  for (const PcdRoiPoint& p : shape->points) {
    w.Bytes(&p.x, 1);
    w.Bytes(&p.y, 1);
    w.UInt16(p.z);
  }
}

std::unique_ptr<PcdRoiShape> PCD_ReadRoiShape(PcdByteReader* reader) {
  PcdByteReader& r = *reader;
  if (r.left() < kPcdShapeHeadBytes) {
    r.bad = true;
    return nullptr;
  }
  std::unique_ptr<PcdRoiShape> shape = PCD_NewRoiShape();
  if (!shape) {
    r.bad = true;
    return nullptr;
  }
  shape->origin = get_vector(r);
  for (PcdVector3D& v : shape->geometry) v = get_vector(r);
  shape->setting1 = r.Float32();
  shape->setting2 = r.Int32();
  shape->setting3 = r.Float32();
  shape->setting4 = r.Int32();
  shape->setting5 = r.Float32();
  shape->centre = get_vector(r);
  shape->radius = r.Float32();
  const int32_t count = r.Int32();
  if (count < 0 || count > kPcdShapeMaxPoints || static_cast<size_t>(count) * 4 > r.left()) {
    r.bad = true;
    return nullptr;
  }
  shape->points.resize(count);
  for (PcdRoiPoint& p : shape->points) {
    const uint8_t* b = r.Take(4);
    p.x = b[0];
    p.y = b[1];
    p.z = static_cast<uint16_t>(b[2] | (b[3] << 8));
  }
  return shape;
}

void PCD_FitRoiShapeToVolume(PcdRoiShape* shape, const PcdIntSize3D* size) {
  if (shape == nullptr || size == nullptr) return;
  const PcdVector3D middle{size->x * 0.5f, size->y * 0.5f, size->z * 0.5f};
  shape->origin = middle;
  shape->centre = middle;
}

// ---- voxel group ---------------------------------------------------------------------

int64_t PCD_GetVoxelGroupDataSize(const PcdIntSize3D* size, int32_t storage) {
  if (size->x < 0 || size->y < 0 || size->z < 0) return -1;
  const int64_t xy = static_cast<int64_t>(size->x) * size->y;  // < 2^62: cannot overflow
  if (xy != 0 && size->z > INT32_MAX / xy) return -1;
  const int64_t n = xy * size->z;
  if (storage == kPcdVoxelGroupBitPacked) return n / 8 + 1;  // one byte more, deliberately
  if (storage == kPcdVoxelGroupOneByte) return n;
  return -1;
}

std::unique_ptr<PcdVoxelGroup> PCD_NewVoxelGroup(const PcdIntVector3D* origin,
                                                 const PcdIntSize3D* size,
                                                 const uint32_t second[3], int32_t storage) {
  const int64_t bytes = PCD_GetVoxelGroupDataSize(size, storage);
  if (bytes < 0) return nullptr;
  try {
    auto group = std::make_unique<PcdVoxelGroup>();
    group->origin = *origin;
    group->size = *size;
    for (int i = 0; i < 3; ++i) group->second[i] = second ? second[i] : 0;
    group->storage = storage;
    group->data.assign(static_cast<size_t>(bytes), 0);
    return group;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

size_t PCD_GetSerializedSizeOfVoxelGroup(const PcdVoxelGroup* group) {
  return group == nullptr ? 0 : kPcdVoxelGroupHeadBytes + group->data.size();
}

static bool voxel_index(const PcdVoxelGroup* g, int32_t x, int32_t y, int32_t z, size_t* index) {
  if (x < 0 || y < 0 || z < 0 || x >= g->size.x || y >= g->size.y || z >= g->size.z)
    return false;
  *index = static_cast<size_t>(x) +
           static_cast<size_t>(g->size.x) * (static_cast<size_t>(y) +
                                             static_cast<size_t>(g->size.y) * z);
  return true;
}

int PCD_GetVoxelOfVoxelGroup(const PcdVoxelGroup* group, int32_t x, int32_t y, int32_t z) {
  size_t i;
  if (group == nullptr || !voxel_index(group, x, y, z, &i)) return 0;
  if (group->storage == kPcdVoxelGroupBitPacked) return (group->data[i >> 3] >> (i & 7)) & 1;
  return group->data[i] != 0 ? 1 : 0;
}

void PCD_SetVoxelOfVoxelGroup(PcdVoxelGroup* group, int32_t x, int32_t y, int32_t z, int on) {
  size_t i;
  if (group == nullptr || !voxel_index(group, x, y, z, &i)) return;
  if (group->storage == kPcdVoxelGroupBitPacked) {
    const uint8_t bit = static_cast<uint8_t>(1u << (i & 7));
    if (on) group->data[i >> 3] |= bit;
    else group->data[i >> 3] &= static_cast<uint8_t>(~bit);
  } else {
    group->data[i] = on ? 1 : 0;
  }
}

static void serialize_voxel_group(const PcdVoxelGroup* g, PcdByteWriter& w) {
  w.Int32(g->origin.x);
  w.Int32(g->origin.y);
  w.Int32(g->origin.z);
  w.Int32(g->size.x);
  w.Int32(g->size.y);
  w.Int32(g->size.z);
  for (uint32_t s : g->second) w.Word(s);
  w.Int32(g->storage);
  w.Bytes(g->data.data(), g->data.size());
}

static std::unique_ptr<PcdVoxelGroup> read_voxel_group(PcdByteReader& r) {
  PcdIntVector3D origin;
  PcdIntSize3D size;
  uint32_t second[3];
  origin.x = r.Int32();
  origin.y = r.Int32();
  origin.z = r.Int32();
  size.x = r.Int32();
  size.y = r.Int32();
  size.z = r.Int32();
  for (uint32_t& s : second) s = r.Word();
  const int32_t storage = r.Int32();
  if (!r.ok()) return nullptr;
  const int64_t bytes = PCD_GetVoxelGroupDataSize(&size, storage);
  if (bytes < 0 || static_cast<uint64_t>(bytes) > r.left()) return nullptr;
  std::unique_ptr<PcdVoxelGroup> group = PCD_NewVoxelGroup(&origin, &size, second, storage);
  if (group) r.Bytes(group->data.data(), group->data.size());
  return group;
}

// ---- growing core ----------------------------------------------------------------------

PcdDtiRegionGrowingCore PCD_DefaultRoiGrowingCore() {
  PcdDtiRegionGrowingCore core;
  core.mode = kPcdGrowByTensorProperty;
  PCD_SetGrowingFAmin(&core, 0.2f);
  PCD_SetGrowingAngleMax(&core, 5.0f);
  core.generationLimit = 10;
  core.channel = 0;
  core.lowerBound = 1.0f;
  core.upperBound = 10000.0f;
  return core;
}

// ---- the ROI object --------------------------------------------------------------------

void PCD_GetRoiColor(uint16_t id, uint16_t* red, uint16_t* green, uint16_t* blue) {
  const unsigned n = (static_cast<unsigned>(id) + 1) & 0xff;
  unsigned r = (n & 1) ? 159 : 31;
  unsigned g = (n & 2) ? 159 : 31;
  unsigned b = (n & 4) ? 191 : 63;
  if (n & 8) r |= 64;
  if (n & 16) g |= 64;
  if (n & 32) b |= 64;
  if (n & 64) r |= 32;
  if (n & 128) g |= 32;  // blue never gets the 32
  *red = static_cast<uint16_t>(r << 8);
  *green = static_cast<uint16_t>(g << 8);
  *blue = static_cast<uint16_t>(b << 8);
}

PcdRoiObject* new_roi_object(int32_t type) {
  if (PCD_FindRoiType(type) == nullptr) {
    std::fputs("Err: Invalid ROI object type\n", stderr);
    return nullptr;
  }
  PcdRoiObject* roi = new (std::nothrow) PcdRoiObject;
  if (roi != nullptr) roi->shape = PCD_NewRoiShape();
  if (roi == nullptr || !roi->shape) {
    delete roi;
    std::fputs("Err: new_roi_object\n", stderr);
    return nullptr;
  }
  roi->type = type;
  roi->growing = PCD_DefaultRoiGrowingCore();
  return roi;
}

void delete_roi_object(PcdRoiObject* roi) { delete roi; }

void PCD_SetRoiLabel(PcdRoiObject* roi, const char* text) {
  std::memset(roi->label, 0, sizeof roi->label);
  std::snprintf(roi->label, sizeof roi->label, "%s", text);
}

int PCD_CopyRoiObject(PcdRoiObject* dest, const PcdRoiObject* source) {
  if (dest == nullptr || source == nullptr || dest == source) return -1;
  try {
    dest->shape = source->shape ? std::make_unique<PcdRoiShape>(*source->shape) : nullptr;
    if (source->type == PCD_ROI_VOXELGROUP && source->voxelGroup)
      dest->voxelGroup = std::make_unique<PcdVoxelGroup>(*source->voxelGroup);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  std::string label = "copy of ";
  label.append(source->label, strnlen(source->label, sizeof source->label));
  PCD_SetRoiLabel(dest, label.c_str());
  return 0;
}

size_t pcd_roi_serialized_size(const PcdRoiObject* roi) {
  return PCD_GetSerializedSizeOfRoiShape(roi->shape.get()) + 8 +
         PCD_GetSerializedSizeOfVoxelGroup(roi->voxelGroup.get()) + kPcdRegionGrowingCoreSize + 270;
}

size_t PCD_GetSerializedSizeOfRoiObject(const PcdRoiObject* roi) {
  const size_t size = pcd_roi_serialized_size(roi);
  std::fprintf(stderr, "ROI_OBJECT: size = %ld bytes\n", static_cast<long>(size));
  return size;
}

void PCD_SerializeRoiObject(const PcdRoiObject* roi, uint8_t* buffer) {
  PcdByteWriter w{buffer};
  w.Int32(roi->type);
  std::unique_ptr<PcdRoiShape> fresh;
  const PcdRoiShape* shape = roi->shape.get();
  if (shape == nullptr) {  // every ROI has a shape; a missing one is written as created
    fresh = std::make_unique<PcdRoiShape>();
    shape = fresh.get();
  }
  PCD_SerializeRoiShape(shape, w.at);
  w.at += PCD_GetSerializedSizeOfRoiShape(shape);
  w.Int32(roi->voxelGroup ? 1 : 0);
  if (roi->voxelGroup) serialize_voxel_group(roi->voxelGroup.get(), w);
  PCDdti_SerializeRegionGrowingContextCore(&roi->growing, w.at);
  w.at += kPcdRegionGrowingCoreSize;
  w.Int32(roi->status);
  w.Int32(roi->visible);
  w.Bytes(roi->label, sizeof roi->label);
  w.UInt16(roi->red);
  w.UInt16(roi->green);
  w.UInt16(roi->blue);
}

PcdRoiObject* PCD_NewRoiObjectFromSerializedData(const uint8_t* buffer, size_t length) {
  PcdByteReader r{buffer, length};
  const int32_t type = r.Int32();
  if (!r.ok()) {
    std::fputs("Err: ROI object too short\n", stderr);
    return nullptr;
  }
  std::unique_ptr<PcdRoiObject> roi(new_roi_object(type));
  if (!roi) return nullptr;
  roi->shape = PCD_ReadRoiShape(&r);
  if (!roi->shape) {
    std::fputs("Err: ROI object: shape record does not fit\n", stderr);
    return nullptr;
  }
  const int32_t hasGroup = r.Int32();
  if (hasGroup != 0 && r.ok()) {
    roi->voxelGroup = read_voxel_group(r);
    if (!roi->voxelGroup) {
      std::fputs("Err: ROI object: voxel group does not fit\n", stderr);
      return nullptr;
    }
  }
  if (const uint8_t* core = r.Take(kPcdRegionGrowingCoreSize))
    PCDdti_GetRegionGrowingContextCoreFromSerializedData(&roi->growing, core);
  roi->status = r.Int32();
  roi->visible = r.Int32();
  r.Bytes(roi->label, sizeof roi->label);
  roi->red = r.UInt16();
  roi->green = r.UInt16();
  roi->blue = r.UInt16();
  if (!r.ok() || r.left() != 0) {
    std::fprintf(stderr, "Err: ROI object: %zu bytes do not hold one ROI object\n", length);
    return nullptr;
  }
  return roi.release();
}

namespace {

// No mask for a size that no volume of this machine can have (the caller says so).
std::vector<uint8_t> empty_mask(const PcdIntSize3D* size) {
  const int64_t voxels = PCD_CheckedVoxelCount(*size, 1);
  if (voxels < 0) return {};
  return std::vector<uint8_t>(static_cast<size_t>(voxels), 0);
}

void mark(std::vector<uint8_t>& mask, const PcdIntSize3D* size, int64_t x, int64_t y, int64_t z) {
  if (x < 0 || y < 0 || z < 0 || x >= size->x || y >= size->y || z >= size->z) return;
  mask[static_cast<size_t>(x + size->x * (y + int64_t{size->y} * z))] = 1;
}

}  // namespace

std::vector<uint8_t> PCD_RasterizeRoiShape(const PcdRoiShape* shape, int32_t type,
                                           const PcdIntSize3D* size) {
  std::vector<uint8_t> mask = empty_mask(size);
  if (mask.empty() || shape == nullptr) return mask;
  if (type == PCD_ROI_SPHERICAL) {
    const PcdVector3D c = shape->centre;
    const double r = shape->radius;
    if (!(r >= 0) || !std::isfinite(c.x) || !std::isfinite(c.y) || !std::isfinite(c.z)) return mask;
    for (int32_t z = 0; z < size->z; ++z)
      for (int32_t y = 0; y < size->y; ++y)
        for (int32_t x = 0; x < size->x; ++x) {
          const double dx = x + 0.5 - c.x, dy = y + 0.5 - c.y, dz = z + 0.5 - c.z;
          if (dx * dx + dy * dy + dz * dz <= r * r) mark(mask, size, x, y, z);
        }
  } else if (type == PCD_ROI_FREEHAND) {
    for (const PcdRoiPoint& p : shape->points) mark(mask, size, p.x, p.y, p.z);
  }
  return mask;
}

std::vector<uint8_t> PCD_RasterizeRoiObject(const PcdRoiObject* roi, const PcdIntSize3D* size) {
  if (roi == nullptr) return empty_mask(size);
  if (roi->type != PCD_ROI_VOXELGROUP) return PCD_RasterizeRoiShape(roi->shape.get(), roi->type, size);
  std::vector<uint8_t> mask = empty_mask(size);
  const PcdVoxelGroup* g = roi->voxelGroup.get();
  if (mask.empty() || g == nullptr) return mask;
  // only the part of the group's box inside the volume: a box of 0 x 2^31 x 2^31 voxels
  // holds nothing but would take forever to walk
  auto range = [](int32_t origin, int32_t groupSize, int32_t volumeSize, int64_t* from,
                  int64_t* to) {
    *from = std::max<int64_t>(0, -int64_t{origin});
    *to = std::min<int64_t>(groupSize, int64_t{volumeSize} - origin);
  };
  int64_t x0, x1, y0, y1, z0, z1;
  range(g->origin.x, g->size.x, size->x, &x0, &x1);
  range(g->origin.y, g->size.y, size->y, &y0, &y1);
  range(g->origin.z, g->size.z, size->z, &z0, &z1);
  for (int64_t z = z0; z < z1; ++z)
    for (int64_t y = y0; y < y1; ++y)
      for (int64_t x = x0; x < x1; ++x)
        if (PCD_GetVoxelOfVoxelGroup(g, static_cast<int32_t>(x), static_cast<int32_t>(y),
                                     static_cast<int32_t>(z)))
          mark(mask, size, g->origin.x + x, g->origin.y + y, g->origin.z + z);
  return mask;
}

// ---- the ROI list ----------------------------------------------------------------------

int PCD_AppendRoiObject(PcdRoiList* list, PcdRoiObject* roi) {
  try {
    list->items.emplace_back(roi);
  } catch (const std::bad_alloc&) {
    delete roi;
    std::fputs("Err: PCD_NewNodeAddedToList\n", stderr);
    return -1;
  }
  return 0;
}

uint16_t PCD_TakeFreeRoiId(PcdRoiList* list) {
  // the counter as it stands, unless a live ROI holds that id (after a session was read,
  // the counter equals its last id)
  for (int tries = 0; tries < 65536; ++tries, ++list->idCounter)
    if (PCD_FindRoiObject(list, list->idCounter) == nullptr) break;
  return list->idCounter;
}

PcdRoiObject* PCD_NewRoiObject(PcdRoiList* list, int32_t type, const PcdIntSize3D* volumeSize) {
  if (list == nullptr) return nullptr;
  PcdRoiObject* roi = new_roi_object(type);
  if (roi == nullptr) return nullptr;
  roi->id = PCD_TakeFreeRoiId(list);
  char label[64];
  std::snprintf(label, sizeof label, kPcdRoiTypes[type].newLabelFormat,
                list->nameCounters[type] + 1);
  PCD_SetRoiLabel(roi, label);
  PCD_GetRoiColor(roi->id, &roi->red, &roi->green, &roi->blue);
  if (PCD_AppendRoiObject(list, roi) != 0) return nullptr;
  ++list->idCounter;  // 16 bits: wraps to 0 after 65535
  ++list->nameCounters[type];
  list->selectedId = roi->id;
  PCD_FitRoiShapeToVolume(roi->shape.get(), volumeSize);
  return roi;
}

PcdRoiObject* PCD_FindRoiObject(const PcdRoiList* list, uint16_t id) {
  if (list == nullptr) return nullptr;
  for (const auto& roi : list->items)
    if (roi->id == id) return roi.get();
  return nullptr;
}

PcdRoiObject* PCD_GetSelectedRoiObject(const PcdRoiList* list) {
  // 65535 means none, even when a ROI or study carries that id after the ids wrapped
  if (list == nullptr || list->items.empty() || list->selectedId == kPcdNoObject) return nullptr;
  return PCD_FindRoiObject(list, list->selectedId);
}

int PCD_DeleteRoiObjectById(PcdRoiList* list, uint16_t id) {
  if (list == nullptr) return -1;
  for (auto it = list->items.begin(); it != list->items.end(); ++it) {
    if ((*it)->id == id) {
      list->items.erase(it);
      return 0;
    }
  }
  return -1;
}

int PCD_DeleteSelectedRoiObject(PcdRoiList* list) {
  PcdRoiObject* roi = PCD_GetSelectedRoiObject(list);
  if (roi == nullptr) return -1;
  if (roi->status == 1) {
    std::fputs("Undeletable ROI refered by study(ies)\n", stderr);
    return -1;
  }
  PCD_DeleteRoiObjectById(list, roi->id);
  if (list->items.empty()) list->selectedId = kPcdNoObject;
  return 0;
}

PcdRoiObject* PCD_DuplicateSelectedRoiObject(PcdRoiList* list, const PcdIntSize3D* volumeSize) {
  const PcdRoiObject* source = PCD_GetSelectedRoiObject(list);
  if (source == nullptr) return nullptr;
  PcdRoiObject* copy = PCD_NewRoiObject(list, source->type, volumeSize);
  if (copy != nullptr) PCD_CopyRoiObject(copy, source);
  return copy;
}

void PCD_LockRoiObjects(PcdRoiList* list, const uint16_t* ids, int32_t count) {
  for (int32_t i = 0; i < count; ++i)
    if (PcdRoiObject* roi = PCD_FindRoiObject(list, ids[i])) roi->status = 1;
}

void PCD_ForceStatusOfSelectedRoi(PcdRoiList* list, int32_t status) {
  if (PcdRoiObject* roi = PCD_GetSelectedRoiObject(list)) roi->status = status;
}

void PCD_CleanUpRoiObjects(PcdRoiList* list) {
  list->items.clear();
  list->selectedId = kPcdNoObject;
  list->idCounter = 0;
  for (uint16_t& c : list->nameCounters) c = 0;
}

int32_t pcd_visibility_after(PcdVisibilityCommand command, int32_t visible, bool ofType,
                             bool selected) {
  switch (command) {
    case PCD_SHOW_ALL: return 1;
    case PCD_SHOW_ONLY_TYPE: return ofType ? 1 : 0;
    case PCD_SHOW_ONLY_SELECTED: return selected ? 1 : 0;
    case PCD_HIDE_ALL: return 0;
    case PCD_HIDE_ONLY_TYPE: return ofType ? 0 : 1;
    case PCD_HIDE_ONLY_SELECTED: return selected ? 0 : 1;
    case PCD_INVERT_VISIBILITY: return visible == 1 ? 0 : 1;
  }
  return visible;
}

void PCD_SetRoiVisibility(PcdRoiList* list, PcdVisibilityCommand command, int32_t type) {
  for (auto& roi : list->items)
    roi->visible = pcd_visibility_after(command, roi->visible, roi->type == type,
                                        roi->id == list->selectedId);
}

int PCD_MaskSelectedVoxelGroupByBox(PcdRoiList* list, const PcdIntVector3D* boxOrigin,
                                    const PcdIntSize3D* boxSize, int inside) {
  PcdRoiObject* roi = PCD_GetSelectedRoiObject(list);
  if (roi == nullptr) return -1;
  if (roi->status == 1) {
    std::fputs("Uneditable ROI refered by study(ies)\n", stderr);
    return -1;
  }
  if (roi->type != PCD_ROI_VOXELGROUP) {
    std::fputs("Thi function is only for voxelgroup ROIs\n", stderr);
    return -1;
  }
  if (boxSize->x <= 1 || boxSize->y <= 1 || boxSize->z <= 1) return -1;
  PcdVoxelGroup* g = roi->voxelGroup.get();
  if (g == nullptr) return -1;
  if (PCD_GetVoxelGroupDataSize(&g->size, kPcdVoxelGroupOneByte) == 0) return 0;  // no voxels
  auto within = [](int64_t v, int32_t origin, int32_t size) {
    return v >= origin && v <= int64_t{origin} + size - 1;
  };
  for (int32_t z = 0; z < g->size.z; ++z)
    for (int32_t y = 0; y < g->size.y; ++y)
      for (int32_t x = 0; x < g->size.x; ++x) {
        const bool in = within(int64_t{g->origin.x} + x, boxOrigin->x, boxSize->x) &&
                        within(int64_t{g->origin.y} + y, boxOrigin->y, boxSize->y) &&
                        within(int64_t{g->origin.z} + z, boxOrigin->z, boxSize->z);
        if (in == (inside != 0)) PCD_SetVoxelOfVoxelGroup(g, x, y, z, 0);
      }
  return 0;
}
