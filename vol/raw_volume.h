// Multi-channel raw volumes, typed 2D/3D arrays, point readers and small vectors.
//
// Plain records with C-style lifetimes: every New* returns a record the caller owns and
// frees with the matching Delete*. Allocation failures return null (or -1) and leave
// nothing half-built behind.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- data type and colour format codes --------------------------------------
enum PcdDataType : int32_t {
  UINT8 = 0,
  SINT8 = 1,
  UINT16 = 2,
  SINT16 = 3,
  UINT32 = 4,
  SINT32 = 5,
  FLOAT32 = 6,
  FLOAT64 = 7,
};

enum PcdColorFormat : int32_t {
  PCD_MONOCHROME = 0,
  PCD_RGBA_PACKED = 2,  // UINT32, red in bits 31..24, alpha in bits 7..0
};

// One row per data type code: the code, its name and its element size. Shared by the
// readers, writers, the command-line tool and the GUI so a code is named the same way
// everywhere.
struct PcdDataTypeInfo {
  int32_t code;
  const char* name;
  int32_t size;
};
extern const PcdDataTypeInfo kPcdDataTypes[8];

int32_t PCD_SizeOfDataType(int32_t type);  // 0 for an invalid code
int PCD_IsValidDataType(int32_t type);     // 1 for 0..7, else 0
const char* PCD_NameOfDataType(int32_t type);  // "UINT8" ... or "?" for an invalid code

// ---- small records -----------------------------------------------------------
struct PcdVector2D {
  float x, y;
};
struct PcdVector3D {
  float x, y, z;
};
struct PcdIntVector3D {
  int32_t x, y, z;
};
struct PcdIntSize3D {
  int32_t x, y, z;
};
struct PcdIntSize4D {
  int32_t x, y, z, channels;
};

// ---- typed arrays ------------------------------------------------------------
// A 2D handle is `T**` indexed [y][x]; a 3D handle is `T***` indexed [z][y][x]. Both point
// into one contiguous, zero-filled block (x fastest) reached through row 0 / plane 0 row 0.
using Pcd2DArray = void**;
using Pcd3DArray = void***;

Pcd2DArray PCD_New2DArray(int32_t sizeX, int32_t sizeY, int32_t type);
// Asks for huge pages for the whole 2 MB pages inside a large heap block before its first
// touch: fewer, cheaper page faults for matrices of hundreds of MB. A hint, never an error.
void PCD_AdviseHugePages(void* block, size_t bytes);
void PCD_Delete2DArray(Pcd2DArray handle, int32_t sizeX, int32_t sizeY, int32_t type);
Pcd3DArray PCD_New3DArray(int32_t sizeX, int32_t sizeY, int32_t sizeZ, int32_t type);
void PCD_Delete3DArray(Pcd3DArray handle, int32_t sizeX, int32_t sizeY, int32_t sizeZ,
                       int32_t type);
// Blocks of 1 MB and more (and the channels of a volume that large together) lie in an
// anonymous memory mapping instead of the heap; a 3D handle made here records which, and
// deleting the last handle on a mapping unmaps it. 1 for a handle on such a block.
int PCD_IsMapped3DArray(Pcd3DArray handle, int32_t sizeZ);

// ---- the multi-channel volume ------------------------------------------------
struct PcdRawVolumeData {
  PcdIntSize4D* matrixSize = nullptr;  // x, y, z, channel count (kept current)
  int32_t* dataType = nullptr;         // one code per channel
  int32_t* colorFormat = nullptr;      // one code per channel
  void** data = nullptr;               // first element of each channel's block
  Pcd3DArray* array3D = nullptr;       // [z][y][x] handle of each channel
};

// The 2D counterpart: size is (x, y, channel count) held in a PcdIntSize3D.
struct PcdRawImageData {
  PcdIntSize3D* matrixSize = nullptr;
  int32_t* dataType = nullptr;
  int32_t* colorFormat = nullptr;
  void** data = nullptr;
  Pcd2DArray* array2D = nullptr;
};

PcdRawVolumeData* PCD_NewRawVolumeData(const PcdIntSize4D* size, const int32_t* dataType,
                                       const int32_t* colorFormat);
PcdRawVolumeData* PCD_NewSingleChannelRawVolumeData(const PcdIntSize3D* size,
                                                    int32_t dataType, int32_t colorFormat);
void PCD_DeleteRawVolumeData(PcdRawVolumeData* volume);
// A volume over a mapping the caller made with mmap (bytes long from base): channel c's
// block starts offsets[c] bytes into it, on a boundary of its element size. The volume
// takes the mapping over: it is unmapped, never freed, when the last channel on it is
// deleted (converting or deleting channels works as for any volume). Null, with the
// mapping still the caller's, when a size, code or offset does not fit or memory for the
// handles runs out.
PcdRawVolumeData* PCD_NewRawVolumeDataOnMapping(const PcdIntSize4D* size, const int32_t* dataType,
                                                const int32_t* colorFormat, void* base,
                                                size_t bytes, const size_t* offsets);
int PCD_AddNewChannelOfRawVolumeData(PcdRawVolumeData* dest, const PcdRawVolumeData* src,
                                     int32_t srcChannel);
PcdRawVolumeData* PCD_CopyChannelOfRawVolumeData(const PcdRawVolumeData* volume,
                                                 int32_t channel);
PcdRawVolumeData* PCD_DuplicateRawVolumeData(const PcdRawVolumeData* volume);
void PCD_ClearChannelOfRawVolumeData(PcdRawVolumeData* volume, int32_t channel);
int64_t PCD_GetNumberOfVoxels(const PcdRawVolumeData* volume);
int PCD_IsSameSize3D(const PcdIntSize3D* a, const PcdIntSize3D* b);
// What one allocation by a size read from a file may take: half of the machine's memory,
// or less when QUORIX_MEMORY_LIMIT_MB says so.
size_t PCD_MaxAllocationBytes();
// x * y * z of a size whose sides are all positive and whose voxels, at bytesPerVoxel
// each, fit in PCD_MaxAllocationBytes(); -1 for any other size.
int64_t PCD_CheckedVoxelCount(const PcdIntSize3D& size, int64_t bytesPerVoxel);

PcdRawImageData* PCD_NewRawImageData(const PcdIntSize3D* size, const int32_t* dataType,
                                     const int32_t* colorFormat);
void PCD_DeleteRawImageData(PcdRawImageData* image);
void PCD_NonInterleavedCopyRgbaRawImageData(const PcdRawImageData* image, int32_t channel,
                                            PcdRawImageData* target);

// ---- point readers -------------------------------------------------------------
// 3D nearest: truncate each coordinate; 0 outside the volume.
int32_t PCD_GetValueOf3DArray8bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                  float y, float z, bool isSigned);
int32_t PCD_GetValueOf3DArray16bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z, bool isSigned);
int64_t PCD_GetValueOf3DArray32bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z, bool isSigned);
float PCD_GetValueOf3DArrayFLOAT32(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z);
double PCD_GetValueOf3DArrayFLOAT64(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z);

// 3D trilinear with edge clamping; integer types truncate the blended value.
int32_t PCD_GetValueOf3DArrayUINT8i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z);
int32_t PCD_GetValueOf3DArraySINT8i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z);
int32_t PCD_GetValueOf3DArrayUINT16i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z);
int32_t PCD_GetValueOf3DArraySINT16i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z);
int64_t PCD_GetValueOf3DArrayUINT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z);
int32_t PCD_GetValueOf3DArraySINT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z);
float PCD_GetValueOf3DArrayFLOAT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z);
float PCD_GetValueOf3DArrayFLOAT64i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z);
// The eight sample offsets (into a channel's block, x fastest; order x, then y, then z)
// and the three fractions of a clamped trilinear read at one point. Reading several
// channels of the same size at one point needs the stencil only once; the values are
// those of the readers above.
struct PcdTrilinearStencil {
  size_t offset[8];
  double fx, fy, fz;
};
PcdTrilinearStencil PCD_GetTrilinearStencil(int32_t nx, int32_t ny, int32_t nz, float x, float y,
                                            float z);
int32_t PCD_GetValueOfSINT16BlockByStencil(const void* block, const PcdTrilinearStencil& stencil);

// Any type by code, as double (integer types already truncated).
double PCD_GetInterpolatedValueOf3DArray(Pcd3DArray a, int32_t type, int32_t nx, int32_t ny,
                                         int32_t nz, float x, float y, float z);

// 2D nearest (no range check) and bilinear (no clamping, no range check).
int32_t PCD_GetValueOf2DArray8bit(Pcd2DArray a, int32_t nx, int32_t ny, float x, float y,
                                  bool isSigned);
int32_t PCD_GetValueOf2DArray16bit(Pcd2DArray a, int32_t nx, int32_t ny, float x, float y,
                                   bool isSigned);
int64_t PCD_GetValueOf2DArray32bit(Pcd2DArray a, int32_t nx, int32_t ny, float x, float y,
                                   bool isSigned);
float PCD_GetValueOf2DArrayFLOAT32(Pcd2DArray a, int32_t nx, int32_t ny, float x, float y);
double PCD_GetValueOf2DArrayFLOAT64(Pcd2DArray a, int32_t nx, int32_t ny, float x, float y);
double PCD_GetInterpolatedValueOf2DArray(Pcd2DArray a, int32_t type, int32_t nx, int32_t ny,
                                         float x, float y);
uint32_t PCD_GetValueOf2DArrayRGBAi(Pcd2DArray a, int32_t nx, int32_t ny, float x, float y);

// ---- vectors -----------------------------------------------------------------------
PcdVector2D* PCD_NewVector2D(float x, float y);
PcdVector3D* PCD_NewVector3D(float x, float y, float z);
PcdIntSize3D* PCD_NewIntSize3D(int32_t x, int32_t y, int32_t z);
PcdIntVector3D* PCD_NewIntVector3D(int32_t x, int32_t y, int32_t z);
PcdIntSize4D* PCD_NewIntSize4D(int32_t x, int32_t y, int32_t z, int32_t channels);
void PCD_DeleteVector2D(PcdVector2D* v);
void PCD_DeleteVector3D(PcdVector3D* v);
void PCD_DeleteIntSize3D(PcdIntSize3D* v);
void PCD_DeleteIntVector3D(PcdIntVector3D* v);
void PCD_DeleteIntSize4D(PcdIntSize4D* v);

double PCD_InnerProduct3D(const PcdVector3D* a, const PcdVector3D* b);
void PCD_OuterProduct3D(const PcdVector3D* a, const PcdVector3D* b, PcdVector3D* result);
double PCD_VectorLength3D(const PcdVector3D* v);
double PCD_NormalizeVector3D(PcdVector3D* v);

// ---- channel utilities used by later subsystems ----------------------------------
// Thresholding in place: every voxel of the channel whose value, read as a float, is at
// least the threshold becomes 1, every other voxel 0; the channel keeps its type.
// 0, or -1 for a bad channel index or a packed colour channel.
int PCD_ThresholdingBySingleFloat32Value(PcdRawVolumeData* volume, int32_t channel,
                                         float threshold);

// In-place conversion of a monochrome channel to another type.
enum PcdConvertMode : int32_t {
  PCD_CONVERT_CLAMP = 0,     // values clamped to the target range
  PCD_CONVERT_WRAP = 1,      // C conversion with 16/8-bit wrap-around
  PCD_CONVERT_LINEAR = 2,    // v * p1 + p2 (both must be non-zero)
  PCD_CONVERT_WINDOW = 3,    // maps [p1, p2] onto the full target range (p1 != p2)
};
int PCD_ConvertChannelDataType(PcdRawVolumeData* volume, int32_t channel, int32_t newType,
                               int32_t mode, double p1, double p2);
