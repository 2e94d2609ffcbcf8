// ROI objects: the regions of interest that the user draws or grows and that studies use
// as seed, target, avoidance or statistics region; the ROI list with its ids, names,
// colours, selection and locking; and the serialized form that ROI object files and work
// session files carry.
//
// Serialized ROI object (little-endian, no padding, no alignment):
//
//   offset  size       field
//   0       4          type: 0 spherical, 1 freehand, 2 voxelgroup
//   4       112 + 4 P  the shape record (below) with P points
//   ...     4          voxel group word: 1 when a voxel group follows, 0 when not
//   ...     40 + D     the voxel group (below), only when the word is non-zero
//   ...     80         the growing core (PcdDtiRegionGrowingCore, its own layout)
//   ...     4          status: 0 free, 1 locked
//   ...     4          visible: 1 shown, 0 hidden
//   ...     256        label, NUL-padded
//   ...     2, 2, 2    red, green, blue
//
// Shape record, 112 + 4 P bytes:
//
//   0    12   origin of the section plane, 3 floats (voxel units)
//   12   60   five geometry vectors, 3 floats each; (1,0,0), (1,0,0), (0,0,0), (-1,0,0),
//             (1,0,0) when created
//   72   20   settings: float 1.0, int32 123, float 0.4, int32 246, float 3.0
//   92   12   spherical ROI: centre x, y, z, 3 floats in voxel units (voxel i spans
//             [i, i+1) on each axis, so its centre is i + 0.5)
//   104  4    spherical ROI: radius, float, in voxels
//   108  4    point count P (0 .. 4119)
//   112  4 P  the freehand points, 4 bytes each: byte 0 = voxel x (0..255), byte 1 =
//             voxel y (0..255), bytes 2..3 = voxel z (unsigned 16-bit). A freehand ROI
//             is the set of its points; x and y fit a byte because the drawing planes
//             are 256 by 256.
//
// The in-memory shape record takes 16,588 bytes as a whole, which bounds the points to
// (16,588 - 112) / 4 = 4119. The three 256 by 256 planes (one signed 16-bit, two
// unsigned 8-bit) are working images of the slice views: not serialized, and allocated
// by PCD_EnsureRoiShapePlanes when a view first draws into them, since the records
// read from files and the study regions mostly never need them.
//
// Voxel group, 40 + D bytes: origin x, y, z (int32), size nx, ny, nz (int32), a second
// triple carried unchanged (3 words), storage kind (6354 bit-packed or 1465 one byte a
// voxel), then D data bytes: nx*ny*nz/8 + 1 bit-packed (voxel i = x + nx*(y + ny*z) is
// bit i%8, least significant first, of byte i/8), nx*ny*nz otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "dti/region_growing.h"
#include "vol/raw_volume.h"

constexpr uint16_t kPcdNoObject = 65535;  // no ROI / no study selected

enum PcdRoiType : int32_t {
  PCD_ROI_SPHERICAL = 0,
  PCD_ROI_FREEHAND = 1,
  PCD_ROI_VOXELGROUP = 2,
};

// One row per ROI type: code, name (files, command line), label (GUI), label format of a
// new ROI.
struct PcdRoiTypeInfo {
  int32_t code;
  const char* name;
  const char* label;
  const char* newLabelFormat;
};
extern const PcdRoiTypeInfo kPcdRoiTypes[3];
const PcdRoiTypeInfo* PCD_FindRoiType(int32_t code);  // null for an invalid code

// ---- shape record ------------------------------------------------------------------
constexpr int kPcdShapePlaneSize = 256;
constexpr size_t kPcdShapeRecordBytes = 16588;
constexpr size_t kPcdShapeHeadBytes = 112;
constexpr int32_t kPcdShapeMaxPoints = (kPcdShapeRecordBytes - kPcdShapeHeadBytes) / 4;

struct PcdRoiPoint {
  uint8_t x, y;
  uint16_t z;
};

struct PcdRoiShape {
  std::vector<int16_t> signalPlane;  // 256 x 256, element type code 3
  std::vector<uint8_t> drawPlane;    // 256 x 256, element type code 0
  std::vector<uint8_t> workPlane;    // 256 x 256, element type code 0
  PcdVector3D origin{0, 0, 0};
  PcdVector3D geometry[5]{{1, 0, 0}, {1, 0, 0}, {0, 0, 0}, {-1, 0, 0}, {1, 0, 0}};
  float setting1 = 1.0f;
  int32_t setting2 = 123;
  float setting3 = 0.4f;
  int32_t setting4 = 246;
  float setting5 = 3.0f;
  PcdVector3D centre{1, 1, 1};
  float radius = 1.0f;
  std::vector<PcdRoiPoint> points;  // at most kPcdShapeMaxPoints
};

std::unique_ptr<PcdRoiShape> PCD_NewRoiShape();  // null when memory runs out
// Allocates the three zero-filled planes when they are not there yet. 0, or -1.
int PCD_EnsureRoiShapePlanes(PcdRoiShape* shape);
size_t PCD_GetSerializedSizeOfRoiShape(const PcdRoiShape* shape);
void PCD_SerializeRoiShape(const PcdRoiShape* shape, uint8_t* buffer);
struct PcdByteReader;
// Reads a shape at the reader's position; null when it does not fit or claims more
// points than the record holds.
std::unique_ptr<PcdRoiShape> PCD_ReadRoiShape(PcdByteReader* reader);
// Places the section plane and the sphere at the centre of a volume of this size.
void PCD_FitRoiShapeToVolume(PcdRoiShape* shape, const PcdIntSize3D* size);

// ---- voxel group ---------------------------------------------------------------------
constexpr int32_t kPcdVoxelGroupBitPacked = 6354;
constexpr int32_t kPcdVoxelGroupOneByte = 1465;
constexpr size_t kPcdVoxelGroupHeadBytes = 40;

struct PcdVoxelGroup {
  PcdIntVector3D origin{0, 0, 0};
  PcdIntSize3D size{0, 0, 0};
  uint32_t second[3]{0, 0, 0};
  int32_t storage = kPcdVoxelGroupOneByte;
  std::vector<uint8_t> data;  // zero-filled at creation
};

// Data bytes of a group of this size and kind; -1 for an unknown kind, a negative size or
// more than 2^31 voxels.
int64_t PCD_GetVoxelGroupDataSize(const PcdIntSize3D* size, int32_t storage);
// Null for an unknown storage kind or a size PCD_GetVoxelGroupDataSize refuses.
std::unique_ptr<PcdVoxelGroup> PCD_NewVoxelGroup(const PcdIntVector3D* origin,
                                                 const PcdIntSize3D* size,
                                                 const uint32_t second[3], int32_t storage);
size_t PCD_GetSerializedSizeOfVoxelGroup(const PcdVoxelGroup* group);  // 0 for null
// Voxel (x, y, z) of the group's own box: 0 or 1 (0 outside the box).
int PCD_GetVoxelOfVoxelGroup(const PcdVoxelGroup* group, int32_t x, int32_t y, int32_t z);
void PCD_SetVoxelOfVoxelGroup(PcdVoxelGroup* group, int32_t x, int32_t y, int32_t z, int on);

// ---- growing core --------------------------------------------------------------------
// A ROI keeps the core of a region growing context (dti/region_growing.h), serialized as
// its 80 bytes. A new ROI's: mode 654, FA 0.2, angle 5.0, 10 generations, channel 0,
// signal 1.0 to 10000.0, the other criteria words zero.
PcdDtiRegionGrowingCore PCD_DefaultRoiGrowingCore();
// The two criteria words that growing reads, by name.
inline float PCD_GetGrowingFAmin(const PcdDtiRegionGrowingCore* core) {
  return core->tensorCriteria[kPcdGrowingFAminWord];
}
inline void PCD_SetGrowingFAmin(PcdDtiRegionGrowingCore* core, float value) {
  core->tensorCriteria[kPcdGrowingFAminWord] = value;
}
inline float PCD_GetGrowingAngleMax(const PcdDtiRegionGrowingCore* core) {
  return core->tensorCriteria[kPcdGrowingAngleMaxWord];
}
inline void PCD_SetGrowingAngleMax(PcdDtiRegionGrowingCore* core, float value) {
  core->tensorCriteria[kPcdGrowingAngleMaxWord] = value;
}

// ---- the ROI object --------------------------------------------------------------------
struct PcdRoiObject {
  uint16_t id = 0;
  int32_t type = PCD_ROI_SPHERICAL;
  std::unique_ptr<PcdRoiShape> shape;
  std::unique_ptr<PcdVoxelGroup> voxelGroup;  // voxelgroup ROIs only
  PcdDtiRegionGrowingCore growing;
  int32_t status = 0;   // 0 free, 1 locked (a study refers to it)
  int32_t visible = 1;
  char label[256] = {};
  uint16_t red = 0, green = 0, blue = 0;
};

// The drawing colour of a ROI with this id, each component shifted left by 8 bits.
void PCD_GetRoiColor(uint16_t id, uint16_t* red, uint16_t* green, uint16_t* blue);

// A bare record of a valid type with every default (label and colour left empty), or
// null with "Err: Invalid ROI object type\n" (or "Err: new_roi_object\n" when memory
// runs out).
PcdRoiObject* new_roi_object(int32_t type);
void delete_roi_object(PcdRoiObject* roi);
// Deep copy of shape and voxel group, label "copy of <source label>"; status,
// visibility, colour and growing core stay as they are.
int PCD_CopyRoiObject(PcdRoiObject* dest, const PcdRoiObject* source);
// Sets label to text, cut to 255 characters.
void PCD_SetRoiLabel(PcdRoiObject* roi, const char* text);

// Serialized size; the public one prints "ROI_OBJECT: size = %ld bytes\n".
size_t PCD_GetSerializedSizeOfRoiObject(const PcdRoiObject* roi);
size_t pcd_roi_serialized_size(const PcdRoiObject* roi);
void PCD_SerializeRoiObject(const PcdRoiObject* roi, uint8_t* buffer);
// A new record from length bytes; the form must fill them exactly. Null with an "Err: "
// line on anything that does not fit: an unknown type or storage kind, counts beyond the
// record, a form shorter or longer than length. The id is left 0.
PcdRoiObject* PCD_NewRoiObjectFromSerializedData(const uint8_t* buffer, size_t length);

// The ROI's voxels in a volume of this size, one byte per voxel (x fastest), 1 inside.
// Spheres take the voxels whose centre lies within the radius; freehand ROIs their
// points; voxelgroups their set voxels shifted by the origin. Outside parts are clipped.
std::vector<uint8_t> PCD_RasterizeRoiObject(const PcdRoiObject* roi, const PcdIntSize3D* size);
// The same for a bare shape read as a sphere (PCD_ROI_SPHERICAL) or as freehand points.
std::vector<uint8_t> PCD_RasterizeRoiShape(const PcdRoiShape* shape, int32_t type,
                                           const PcdIntSize3D* size);

// ---- the ROI list ----------------------------------------------------------------------
struct PcdRoiList {
  std::vector<std::unique_ptr<PcdRoiObject>> items;  // creation order
  uint16_t selectedId = kPcdNoObject;
  uint16_t idCounter = 0;
  uint16_t nameCounters[3] = {0, 0, 0};
};

// Creates a ROI with the next id, the type's next name and the colour of its id, appends
// it, selects it and fits its shape to the volume (size may be null). Null when the list
// is null or the type invalid (with the creator's line).
PcdRoiObject* PCD_NewRoiObject(PcdRoiList* list, int32_t type, const PcdIntSize3D* volumeSize);
// Appends an existing record (the list takes it). 0, or -1 with
// "Err: PCD_NewNodeAddedToList\n" (the record is then deleted).
int PCD_AppendRoiObject(PcdRoiList* list, PcdRoiObject* roi);
PcdRoiObject* PCD_FindRoiObject(const PcdRoiList* list, uint16_t id);
// The id counter moved on past ids that live ROIs hold (a session that was read leaves it
// at its last id); that id, for a new ROI. The caller counts it up once the ROI is in.
uint16_t PCD_TakeFreeRoiId(PcdRoiList* list);
PcdRoiObject* PCD_GetSelectedRoiObject(const PcdRoiList* list);
// Removes and frees the ROI with that id, locked or not. 0, or -1 when none has it.
int PCD_DeleteRoiObjectById(PcdRoiList* list, uint16_t id);
// The "Delete" command: a locked ROI prints "Undeletable ROI refered by study(ies)\n"
// and stays. 0 when a ROI was deleted, else -1.
int PCD_DeleteSelectedRoiObject(PcdRoiList* list);
// The "Duplicate" command: a new ROI of the selected one's type, copied from it.
PcdRoiObject* PCD_DuplicateSelectedRoiObject(PcdRoiList* list, const PcdIntSize3D* volumeSize);
// Locks every listed ROI that exists (a study announcing the ROIs it uses).
void PCD_LockRoiObjects(PcdRoiList* list, const uint16_t* ids, int32_t count);
// "Force locked" / "Force unlocked" on the selected ROI.
void PCD_ForceStatusOfSelectedRoi(PcdRoiList* list, int32_t status);
// Deletes every ROI and resets the id counter and the name counters to 0.
void PCD_CleanUpRoiObjects(PcdRoiList* list);

// Visibility commands, shared by ROIs and studies. "Hide only" a type shows every other
// object: it is the exact complement of "Show only".
enum PcdVisibilityCommand : int32_t {
  PCD_SHOW_ALL,
  PCD_SHOW_ONLY_TYPE,
  PCD_SHOW_ONLY_SELECTED,
  PCD_HIDE_ALL,
  PCD_HIDE_ONLY_TYPE,
  PCD_HIDE_ONLY_SELECTED,
  PCD_INVERT_VISIBILITY,
};
// New visible flag of one object under a command.
int32_t pcd_visibility_after(PcdVisibilityCommand command, int32_t visible, bool ofType,
                             bool selected);
void PCD_SetRoiVisibility(PcdRoiList* list, PcdVisibilityCommand command, int32_t type = 0);

// Masking of the selected voxelgroup ROI by the box VOI (origin and size in voxels of the
// volume): inside = 1 clears the voxels inside the box, 0 those outside. A locked ROI
// prints "Uneditable ROI refered by study(ies)\n", any other type "Thi function is only
// for voxelgroup ROIs\n"; a box one voxel thin on an axis does nothing. 0 when the mask
// was changed, else -1.
int PCD_MaskSelectedVoxelGroupByBox(PcdRoiList* list, const PcdIntVector3D* boxOrigin,
                                    const PcdIntSize3D* boxSize, int inside);
