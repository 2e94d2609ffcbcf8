#include "vol/raw_volume.h"

const PcdDataTypeInfo kPcdDataTypes[8] = {
    {UINT8, "UINT8", 1},   {SINT8, "SINT8", 1},     {UINT16, "UINT16", 2},
    {SINT16, "SINT16", 2}, {UINT32, "UINT32", 4},   {SINT32, "SINT32", 4},
    {FLOAT32, "FLOAT32", 4}, {FLOAT64, "FLOAT64", 8},
};

int PCD_IsValidDataType(int32_t type) { return type >= 0 && type <= 7 ? 1 : 0; }

int32_t PCD_SizeOfDataType(int32_t type) {
  return PCD_IsValidDataType(type) ? kPcdDataTypes[type].size : 0;
}

const char* PCD_NameOfDataType(int32_t type) {
  return PCD_IsValidDataType(type) ? kPcdDataTypes[type].name : "?";
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// Element count x*y*z, or -1 when a size is not positive or the byte count of the block
// would not fit in memory addressing.
int64_t ElementCount(int32_t sx, int32_t sy, int32_t sz, int32_t type) {
  const int32_t size = PCD_SizeOfDataType(type);
  if (sx <= 0 || sy <= 0 || sz <= 0 || size == 0) return -1;
  const int64_t n = static_cast<int64_t>(sx) * sy;
  if (n > std::numeric_limits<int64_t>::max() / sz) return -1;
  const int64_t count = n * sz;
  if (count > static_cast<int64_t>(std::numeric_limits<size_t>::max() / 16) / size) return -1;
  return count;
}

size_t ChannelBytes(const PcdRawVolumeData* v, int32_t channel) {
  const PcdIntSize4D& s = *v->matrixSize;
  return static_cast<size_t>(s.x) * s.y * s.z *
         static_cast<size_t>(PCD_SizeOfDataType(v->dataType[channel]));
}

bool HasChannel(const PcdRawVolumeData* v, int32_t channel) {
  return v != nullptr && v->matrixSize != nullptr && channel >= 0 &&
         channel < v->matrixSize->channels;
}

// Truncation toward zero of a float coordinate, kept in range for the int conversion.
int32_t Trunc(float v) {
  if (!(v > -2147483648.0f)) return std::numeric_limits<int32_t>::min();
  if (!(v < 2147483648.0f)) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(v);
}

// One axis of the clamped trilinear read: lower sample index and fraction.
struct AxisSample {
  int32_t base;
  double f;
  int32_t next = 1;  // index step to the upper sample
};
// An axis of one sample has no upper neighbour: both samples are that one, weight 0 on
// the second, so the read stays inside the block and gives the sample itself.
AxisSample ClampAxis(float p, int32_t n) {
  if (n < 2) return {0, 0.0, 0};
  const int32_t i = Trunc(p);
  if (i >= n - 1) return {n - 2, static_cast<double>(static_cast<float>(n - 1) - (n - 2))};
  if (i < 0) return {0, 0.0};
  return {i, static_cast<double>(p - static_cast<float>(i))};
}

template <typename T>
double SampleAsDouble(const void* row, int32_t x) {
  return static_cast<double>(static_cast<const T*>(row)[x]);
}

template <typename T>
double BlendByStencil(const void* block, const PcdTrilinearStencil& st) {
  const T* b = static_cast<const T*>(block);
  auto at = [&](int i) { return static_cast<double>(b[st.offset[i]]); };
  double plane[2];
  for (int dz = 0; dz < 2; ++dz) {
    const int o = 4 * dz;
    const double r0 = at(o + 0) * (1.0 - st.fx) + at(o + 1) * st.fx;
    const double r1 = at(o + 2) * (1.0 - st.fx) + at(o + 3) * st.fx;
    plane[dz] = r0 * (1.0 - st.fy) + r1 * st.fy;
  }
  return plane[0] * (1.0 - st.fz) + plane[1] * st.fz;
}

// The handle points into one contiguous block, so reading the block by offsets gives the
// samples the handle would.
template <typename T>
double Trilinear(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x, float y,
                 float z) {
  return BlendByStencil<T>(a[0][0], PCD_GetTrilinearStencil(nx, ny, nz, x, y, z));
}

template <typename T>
double Bilinear(Pcd2DArray a, float x, float y) {
  const int32_t i = Trunc(x), j = Trunc(y);
  const double fx = x - static_cast<float>(i), fy = y - static_cast<float>(j);
  const double r0 = SampleAsDouble<T>(a[j], i) * (1.0 - fx) + SampleAsDouble<T>(a[j], i + 1) * fx;
  const double r1 =
      SampleAsDouble<T>(a[j + 1], i) * (1.0 - fx) + SampleAsDouble<T>(a[j + 1], i + 1) * fx;
  return r0 * (1.0 - fy) + r1 * fy;
}

// Truncation of a blended value to the 64-bit integer every integer reader returns
// through; values beyond the range saturate instead of being undefined.
int64_t TruncToInt64(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (v <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

bool InsideVolume(int32_t nx, int32_t ny, int32_t nz, float x, float y, float z, int32_t* ix,
                  int32_t* iy, int32_t* iz) {
  *ix = Trunc(x);
  *iy = Trunc(y);
  *iz = Trunc(z);
  return *ix >= 0 && *ix < nx && *iy >= 0 && *iy < ny && *iz >= 0 && *iz < nz;
}

template <typename T>
T NearestRead3D(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x, float y, float z) {
  int32_t ix, iy, iz;
  if (!InsideVolume(nx, ny, nz, x, y, z, &ix, &iy, &iz)) return T(0);
  return static_cast<T*>(a[iz][iy])[ix];
}

template <typename T>
T NearestRead2D(Pcd2DArray a, float x, float y) {
  return static_cast<T*>(a[Trunc(y)])[Trunc(x)];
}

}  // namespace

// ---- typed arrays ------------------------------------------------------------------

Pcd2DArray PCD_New2DArray(int32_t sizeX, int32_t sizeY, int32_t type) {
  const int64_t count = ElementCount(sizeX, sizeY, 1, type);
  if (count < 0) return nullptr;
  const size_t elem = static_cast<size_t>(PCD_SizeOfDataType(type));
  auto* block = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(count), elem));
  auto rows = static_cast<void**>(std::malloc(sizeof(void*) * static_cast<size_t>(sizeY)));
  if (block == nullptr || rows == nullptr) {
    std::free(block);
    std::free(rows);
    return nullptr;
  }
  PCD_AdviseHugePages(block, static_cast<size_t>(count) * elem);
  for (int32_t y = 0; y < sizeY; ++y) rows[y] = block + static_cast<size_t>(y) * sizeX * elem;
  return rows;
}

void PCD_AdviseHugePages(void* block, size_t bytes) {
#ifdef MADV_HUGEPAGE
  constexpr size_t kHuge = size_t{2} << 20;
  if (block == nullptr || bytes < 2 * kHuge) return;
  const auto start = reinterpret_cast<uintptr_t>(block);
  const uintptr_t first = (start + kHuge - 1) / kHuge * kHuge, last = (start + bytes) / kHuge * kHuge;
  if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
  (void)block;
  (void)bytes;
#endif
}

void PCD_Delete2DArray(Pcd2DArray handle, int32_t, int32_t, int32_t) {
  if (handle == nullptr) return;
  std::free(handle[0]);
  std::free(handle);
}

namespace {

// Large blocks live in anonymous mappings of their own instead of the heap: the memory
// comes in huge pages where the system offers them, which on a virtual machine makes the
// first touch of a volume many times cheaper than page by page. Every 3D handle has one
// slot after its last plane; for a block in such a mapping it points at the mapping's
// record, which counts the handles using it. The mapping is unmapped, never freed, when
// the last of them is deleted.
struct MappedBlock {
  void* base;
  size_t bytes;
  int32_t users;
};

constexpr size_t kMappedBlockMinimum = size_t{1} << 20;  // smaller blocks stay on the heap
constexpr size_t kHugePage = size_t{2} << 20;

// A zero-filled mapping of at least bytes, its length a whole number of huge pages and its
// start on a huge-page boundary, followed by one inaccessible page that stops a run-away
// read or write at once. Null when the system refuses.
MappedBlock* MapBlock(size_t bytes) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (bytes > std::numeric_limits<size_t>::max() / 2 - 2 * kHugePage) return nullptr;
  const size_t length = (bytes + kHugePage - 1) / kHugePage * kHugePage;
  const size_t reserve = length + page + kHugePage;  // room to move the start to a boundary
  void* raw = mmap(nullptr, reserve, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const auto start = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t aligned = (start + kHugePage - 1) / kHugePage * kHugePage;
  // give back what lies before the boundary and after the guard page
  if (aligned > start) munmap(raw, aligned - start);
  const uintptr_t end = start + reserve, used = aligned + length + page;
  if (end > used) munmap(reinterpret_cast<void*>(used), end - used);
  void* base = reinterpret_cast<void*>(aligned);
  auto* block = static_cast<MappedBlock*>(std::malloc(sizeof(MappedBlock)));
  if (block == nullptr || mprotect(base, length, PROT_READ | PROT_WRITE) != 0) {
    std::free(block);
    munmap(base, length + page);
    return nullptr;
  }
#ifdef MADV_HUGEPAGE
  madvise(base, length, MADV_HUGEPAGE);
#endif
  *block = {base, length + page, 0};
  return block;
}

void ReleaseBlock(MappedBlock* block) {
  if (--block->users > 0) return;
  munmap(block->base, block->bytes);
  std::free(block);
}

// The plane and row handles of a 3D array over a block that is already there; the extra
// slot holds owner (null: the block came from the heap and is freed with the handle).
Pcd3DArray HandleOnBlock(uint8_t* block, int32_t sizeX, int32_t sizeY, int32_t sizeZ,
                         size_t elem, MappedBlock* owner) {
  auto planes = static_cast<void***>(std::calloc(static_cast<size_t>(sizeZ) + 1, sizeof(void**)));
  if (planes == nullptr) return nullptr;
  const size_t rowBytes = static_cast<size_t>(sizeX) * elem;
  for (int32_t z = 0; z < sizeZ; ++z) {
    planes[z] = static_cast<void**>(std::malloc(sizeof(void*) * static_cast<size_t>(sizeY)));
    if (planes[z] == nullptr) {
      for (int32_t k = 0; k < z; ++k) std::free(planes[k]);
      std::free(planes);
      return nullptr;
    }
    for (int32_t y = 0; y < sizeY; ++y)
      planes[z][y] = block + (static_cast<size_t>(z) * sizeY + y) * rowBytes;
  }
  planes[sizeZ] = reinterpret_cast<void**>(owner);
  if (owner != nullptr) ++owner->users;
  return planes;
}

}  // namespace

Pcd3DArray PCD_New3DArray(int32_t sizeX, int32_t sizeY, int32_t sizeZ, int32_t type) {
  const int64_t count = ElementCount(sizeX, sizeY, sizeZ, type);
  if (count < 0) return nullptr;
  const size_t elem = static_cast<size_t>(PCD_SizeOfDataType(type));
  const size_t bytes = static_cast<size_t>(count) * elem;
  if (bytes >= kMappedBlockMinimum) {
    if (MappedBlock* mapped = MapBlock(bytes)) {
      Pcd3DArray a = HandleOnBlock(static_cast<uint8_t*>(mapped->base), sizeX, sizeY, sizeZ,
                                   elem, mapped);
      if (a == nullptr) {
        ++mapped->users;
        ReleaseBlock(mapped);
      }
      return a;
    }
  }
  auto* block = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(count), elem));
  if (block == nullptr) return nullptr;
  Pcd3DArray a = HandleOnBlock(block, sizeX, sizeY, sizeZ, elem, nullptr);
  if (a == nullptr) std::free(block);
  return a;
}

void PCD_Delete3DArray(Pcd3DArray handle, int32_t, int32_t, int32_t sizeZ, int32_t) {
  if (handle == nullptr) return;
  auto* owner = reinterpret_cast<MappedBlock*>(handle[sizeZ]);
  if (owner != nullptr)
    ReleaseBlock(owner);
  else
    std::free(handle[0][0]);
  for (int32_t z = 0; z < sizeZ; ++z) std::free(handle[z]);
  std::free(handle);
}

int PCD_IsMapped3DArray(Pcd3DArray handle, int32_t sizeZ) {
  return handle != nullptr && handle[sizeZ] != nullptr ? 1 : 0;
}

// ---- the multi-channel volume ------------------------------------------------------

namespace {

void FreeVolumeShell(PcdRawVolumeData* v) {
  std::free(v->matrixSize);
  std::free(v->dataType);
  std::free(v->colorFormat);
  std::free(v->data);
  std::free(v->array3D);
  delete v;
}

// Every channel's block in one mapping (see MapBlock), one after the other, each starting
// on a 64-byte boundary. False, with nothing allocated, for small volumes, invalid codes
// or when the system refuses the mapping: the channels then get blocks of their own.
bool NewChannelsInOneMapping(PcdRawVolumeData* v, const int32_t* dataType,
                             const int32_t* colorFormat) {
  const PcdIntSize4D& s = *v->matrixSize;
  std::vector<size_t> start(static_cast<size_t>(s.channels));
  size_t total = 0;
  for (int32_t c = 0; c < s.channels; ++c) {
    const int64_t count = ElementCount(s.x, s.y, s.z, dataType[c]);
    if (count < 0) return false;
    const size_t bytes = static_cast<size_t>(count) * static_cast<size_t>(PCD_SizeOfDataType(dataType[c]));
    total = (total + 63) / 64 * 64;
    start[static_cast<size_t>(c)] = total;
    if (bytes > std::numeric_limits<size_t>::max() / 4 - total) return false;
    total += bytes;
  }
  if (total < kMappedBlockMinimum) return false;
  MappedBlock* mapped = MapBlock(total);
  if (mapped == nullptr) return false;
  ++mapped->users;  // held while the handles are made
  bool ok = true;
  for (int32_t c = 0; c < s.channels && ok; ++c) {
    auto* block = static_cast<uint8_t*>(mapped->base) + start[static_cast<size_t>(c)];
    Pcd3DArray a = HandleOnBlock(block, s.x, s.y, s.z,
                                 static_cast<size_t>(PCD_SizeOfDataType(dataType[c])), mapped);
    ok = a != nullptr;
    if (!ok) {
      for (int32_t k = 0; k < c; ++k) PCD_Delete3DArray(v->array3D[k], s.x, s.y, s.z, dataType[k]);
      break;
    }
    v->array3D[c] = a;
    v->data[c] = a[0][0];
    v->dataType[c] = dataType[c];
    v->colorFormat[c] = colorFormat[c];
  }
  ReleaseBlock(mapped);
  return ok;
}

}  // namespace

PcdRawVolumeData* PCD_NewRawVolumeData(const PcdIntSize4D* size, const int32_t* dataType,
                                       const int32_t* colorFormat) {
  if (size == nullptr || dataType == nullptr || colorFormat == nullptr) return nullptr;
  if (size->x <= 0 || size->y <= 0 || size->z <= 0 || size->channels <= 0) return nullptr;
  auto* v = new (std::nothrow) PcdRawVolumeData;
  if (v == nullptr) return nullptr;
  const auto n = static_cast<size_t>(size->channels);
  v->matrixSize = static_cast<PcdIntSize4D*>(std::malloc(sizeof(PcdIntSize4D)));
  v->dataType = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  v->colorFormat = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  v->data = static_cast<void**>(std::calloc(n, sizeof(void*)));
  v->array3D = static_cast<Pcd3DArray*>(std::calloc(n, sizeof(Pcd3DArray)));
  if (!v->matrixSize || !v->dataType || !v->colorFormat || !v->data || !v->array3D) {
    FreeVolumeShell(v);
    return nullptr;
  }
  *v->matrixSize = *size;
  if (!NewChannelsInOneMapping(v, dataType, colorFormat)) {
    for (int32_t c = 0; c < size->channels; ++c) {
      Pcd3DArray a = PCD_New3DArray(size->x, size->y, size->z, dataType[c]);
      if (a == nullptr) {
        for (int32_t k = 0; k < c; ++k)
          PCD_Delete3DArray(v->array3D[k], size->x, size->y, size->z, v->dataType[k]);
        FreeVolumeShell(v);
        return nullptr;
      }
      v->array3D[c] = a;
      v->data[c] = a[0][0];
      v->dataType[c] = dataType[c];
      v->colorFormat[c] = colorFormat[c];
    }
  }
  return v;
}

PcdRawVolumeData* PCD_NewRawVolumeDataOnMapping(const PcdIntSize4D* size, const int32_t* dataType,
                                                const int32_t* colorFormat, void* base,
                                                size_t bytes, const size_t* offsets) {
  if (size == nullptr || dataType == nullptr || colorFormat == nullptr || base == nullptr ||
      offsets == nullptr || size->x <= 0 || size->y <= 0 || size->z <= 0 || size->channels <= 0)
    return nullptr;
  for (int32_t c = 0; c < size->channels; ++c) {
    const int64_t count = ElementCount(size->x, size->y, size->z, dataType[c]);
    const auto elem = static_cast<size_t>(PCD_SizeOfDataType(dataType[c]));
    if (count < 0 || offsets[c] > bytes || static_cast<size_t>(count) > (bytes - offsets[c]) / elem ||
        (reinterpret_cast<uintptr_t>(base) + offsets[c]) % elem != 0)
      return nullptr;
  }
  auto* v = new (std::nothrow) PcdRawVolumeData;
  if (v == nullptr) return nullptr;
  const auto n = static_cast<size_t>(size->channels);
  v->matrixSize = static_cast<PcdIntSize4D*>(std::malloc(sizeof(PcdIntSize4D)));
  v->dataType = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  v->colorFormat = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  v->data = static_cast<void**>(std::calloc(n, sizeof(void*)));
  v->array3D = static_cast<Pcd3DArray*>(std::calloc(n, sizeof(Pcd3DArray)));
  auto* mapped = static_cast<MappedBlock*>(std::malloc(sizeof(MappedBlock)));
  if (!v->matrixSize || !v->dataType || !v->colorFormat || !v->data || !v->array3D || !mapped) {
    std::free(mapped);
    FreeVolumeShell(v);
    return nullptr;
  }
  *v->matrixSize = *size;
  *mapped = {base, bytes, 1};  // held while the handles are made
  for (int32_t c = 0; c < size->channels; ++c) {
    Pcd3DArray a = HandleOnBlock(static_cast<uint8_t*>(base) + offsets[c], size->x, size->y, size->z,
                                 static_cast<size_t>(PCD_SizeOfDataType(dataType[c])), mapped);
    if (a == nullptr) {
      // the mapping goes back to the caller untouched
      for (int32_t k = 0; k < c; ++k) {
        for (int32_t z = 0; z < size->z; ++z) std::free(v->array3D[k][z]);
        std::free(v->array3D[k]);
      }
      std::free(mapped);
      FreeVolumeShell(v);
      return nullptr;
    }
    v->array3D[c] = a;
    v->data[c] = a[0][0];
    v->dataType[c] = dataType[c];
    v->colorFormat[c] = colorFormat[c];
  }
  ReleaseBlock(mapped);
  return v;
}

PcdRawVolumeData* PCD_NewSingleChannelRawVolumeData(const PcdIntSize3D* size,
                                                    int32_t dataType, int32_t colorFormat) {
  if (size == nullptr) return nullptr;
  const PcdIntSize4D s4{size->x, size->y, size->z, 1};
  return PCD_NewRawVolumeData(&s4, &dataType, &colorFormat);
}

void PCD_DeleteRawVolumeData(PcdRawVolumeData* volume) {
  if (volume == nullptr) return;
  if (volume->matrixSize != nullptr && volume->array3D != nullptr) {
    const PcdIntSize4D& s = *volume->matrixSize;
    for (int32_t c = 0; c < s.channels; ++c)
      PCD_Delete3DArray(volume->array3D[c], s.x, s.y, s.z, volume->dataType[c]);
  }
  FreeVolumeShell(volume);
}

int PCD_AddNewChannelOfRawVolumeData(PcdRawVolumeData* dest, const PcdRawVolumeData* src,
                                     int32_t srcChannel) {
  if (dest == nullptr || dest->matrixSize == nullptr || !HasChannel(src, srcChannel)) return -1;
  const int32_t type = src->dataType[srcChannel];
  const int32_t format = src->colorFormat[srcChannel];
  const PcdIntSize4D& s = *dest->matrixSize;
  const auto n = static_cast<size_t>(s.channels) + 1;
  auto* types = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  auto* formats = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  auto* data = static_cast<void**>(std::calloc(n, sizeof(void*)));
  auto* arrays = static_cast<Pcd3DArray*>(std::calloc(n, sizeof(Pcd3DArray)));
  Pcd3DArray a = PCD_New3DArray(s.x, s.y, s.z, type);
  if (!types || !formats || !data || !arrays || !a) {
    std::free(types);
    std::free(formats);
    std::free(data);
    std::free(arrays);
    PCD_Delete3DArray(a, s.x, s.y, s.z, type);
    return -1;
  }
  for (int32_t c = 0; c < s.channels; ++c) {
    types[c] = dest->dataType[c];
    formats[c] = dest->colorFormat[c];
    data[c] = dest->data[c];
    arrays[c] = dest->array3D[c];
  }
  types[s.channels] = type;
  formats[s.channels] = format;
  data[s.channels] = a[0][0];
  arrays[s.channels] = a;
  std::free(dest->dataType);
  std::free(dest->colorFormat);
  std::free(dest->data);
  std::free(dest->array3D);
  dest->dataType = types;
  dest->colorFormat = formats;
  dest->data = data;
  dest->array3D = arrays;
  dest->matrixSize->channels += 1;
  // both records have the same x, y, z: the caller guarantees it
  std::memcpy(a[0][0], src->data[srcChannel], ChannelBytes(dest, dest->matrixSize->channels - 1));
  return 0;
}

PcdRawVolumeData* PCD_CopyChannelOfRawVolumeData(const PcdRawVolumeData* volume,
                                                 int32_t channel) {
  if (!HasChannel(volume, channel)) return nullptr;
  const PcdIntSize3D s{volume->matrixSize->x, volume->matrixSize->y, volume->matrixSize->z};
  PcdRawVolumeData* copy = PCD_NewSingleChannelRawVolumeData(&s, volume->dataType[channel],
                                                             volume->colorFormat[channel]);
  if (copy != nullptr) std::memcpy(copy->data[0], volume->data[channel], ChannelBytes(copy, 0));
  return copy;
}

PcdRawVolumeData* PCD_DuplicateRawVolumeData(const PcdRawVolumeData* volume) {
  if (volume == nullptr || volume->matrixSize == nullptr) return nullptr;
  PcdRawVolumeData* copy =
      PCD_NewRawVolumeData(volume->matrixSize, volume->dataType, volume->colorFormat);
  if (copy == nullptr) return nullptr;
  for (int32_t c = 0; c < volume->matrixSize->channels; ++c)
    std::memcpy(copy->data[c], volume->data[c], ChannelBytes(copy, c));
  return copy;
}

void PCD_ClearChannelOfRawVolumeData(PcdRawVolumeData* volume, int32_t channel) {
  if (!HasChannel(volume, channel)) return;
  std::memset(volume->data[channel], 0, ChannelBytes(volume, channel));
}

int64_t PCD_GetNumberOfVoxels(const PcdRawVolumeData* volume) {
  if (volume == nullptr || volume->matrixSize == nullptr) return 0;
  const PcdIntSize4D& s = *volume->matrixSize;
  return static_cast<int64_t>(s.x) * s.y * s.z;
}

size_t PCD_MaxAllocationBytes() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
  size_t limit = pages <= 0 || pageSize <= 0 ? size_t{1} << 30
                                             : static_cast<size_t>(pages) / 2 * static_cast<size_t>(pageSize);
  // a job that shares the machine (a cluster task, a fuzzer) may be given less
  if (const char* mb = std::getenv("QUORIX_MEMORY_LIMIT_MB")) {
    char* end = nullptr;
    const unsigned long long v = std::strtoull(mb, &end, 10);
    if (end != mb && *end == '\0' && v > 0 && v < (size_t{1} << 43)) limit = std::min<size_t>(limit, v << 20);
  }
  return limit;
}

int64_t PCD_CheckedVoxelCount(const PcdIntSize3D& size, int64_t bytesPerVoxel) {
  if (size.x <= 0 || size.y <= 0 || size.z <= 0 || bytesPerVoxel <= 0) return -1;
  int64_t count = 0;
  if (__builtin_mul_overflow(int64_t{size.x} * size.y, int64_t{size.z}, &count)) return -1;
  const auto limit = static_cast<int64_t>(std::min<size_t>(PCD_MaxAllocationBytes(), INT64_MAX));
  return count <= limit / bytesPerVoxel ? count : -1;
}

int PCD_IsSameSize3D(const PcdIntSize3D* a, const PcdIntSize3D* b) {
  return a != nullptr && b != nullptr && a->x == b->x && a->y == b->y && a->z == b->z ? 1 : 0;
}

// ---- 2D images -----------------------------------------------------------------------

PcdRawImageData* PCD_NewRawImageData(const PcdIntSize3D* size, const int32_t* dataType,
                                     const int32_t* colorFormat) {
  if (size == nullptr || dataType == nullptr || colorFormat == nullptr) return nullptr;
  if (size->x <= 0 || size->y <= 0 || size->z <= 0) return nullptr;
  auto* im = new (std::nothrow) PcdRawImageData;
  if (im == nullptr) return nullptr;
  const auto n = static_cast<size_t>(size->z);
  im->matrixSize = static_cast<PcdIntSize3D*>(std::malloc(sizeof(PcdIntSize3D)));
  im->dataType = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  im->colorFormat = static_cast<int32_t*>(std::calloc(n, sizeof(int32_t)));
  im->data = static_cast<void**>(std::calloc(n, sizeof(void*)));
  im->array2D = static_cast<Pcd2DArray*>(std::calloc(n, sizeof(Pcd2DArray)));
  bool ok = im->matrixSize && im->dataType && im->colorFormat && im->data && im->array2D;
  for (int32_t c = 0; ok && c < size->z; ++c) {
    im->array2D[c] = PCD_New2DArray(size->x, size->y, dataType[c]);
    if (im->array2D[c] == nullptr) {
      ok = false;
      break;
    }
    im->data[c] = im->array2D[c][0];
    im->dataType[c] = dataType[c];
    im->colorFormat[c] = colorFormat[c];
  }
  if (!ok) {
    for (size_t c = 0; im->array2D != nullptr && c < n; ++c)
      PCD_Delete2DArray(im->array2D[c], 0, 0, 0);
    std::free(im->matrixSize);
    std::free(im->dataType);
    std::free(im->colorFormat);
    std::free(im->data);
    std::free(im->array2D);
    delete im;
    return nullptr;
  }
  *im->matrixSize = *size;
  return im;
}

void PCD_DeleteRawImageData(PcdRawImageData* image) {
  if (image == nullptr) return;
  for (int32_t c = 0; image->matrixSize != nullptr && c < image->matrixSize->z; ++c)
    PCD_Delete2DArray(image->array2D[c], 0, 0, 0);
  std::free(image->matrixSize);
  std::free(image->dataType);
  std::free(image->colorFormat);
  std::free(image->data);
  std::free(image->array2D);
  delete image;
}

void PCD_NonInterleavedCopyRgbaRawImageData(const PcdRawImageData* image, int32_t channel,
                                            PcdRawImageData* target) {
  const bool sourceOk = image != nullptr && image->matrixSize != nullptr && channel >= 0 &&
                        channel < image->matrixSize->z && image->dataType[channel] == UINT32 &&
                        image->colorFormat[channel] == PCD_RGBA_PACKED;
  bool targetOk = target != nullptr && target->matrixSize != nullptr &&
                  target->matrixSize->z == 4;
  for (int32_t c = 0; targetOk && c < 4; ++c)
    targetOk = target->dataType[c] == UINT8 && target->colorFormat[c] == PCD_MONOCHROME;
  if (!sourceOk || !targetOk || target->matrixSize->x != image->matrixSize->x ||
      target->matrixSize->y != image->matrixSize->y) {
    std::fputs("Err:PCD_NonInterleavedCopyRgbaRawImageData\n", stderr);
    return;
  }
  const size_t n = static_cast<size_t>(image->matrixSize->x) * image->matrixSize->y;
  const auto* words = static_cast<const uint32_t*>(image->data[channel]);
  for (size_t i = 0; i < n; ++i) {
    for (int c = 0; c < 4; ++c)
      static_cast<uint8_t*>(target->data[c])[i] =
          static_cast<uint8_t>(words[i] >> (24 - 8 * c));
  }
}

PcdTrilinearStencil PCD_GetTrilinearStencil(int32_t nx, int32_t ny, int32_t nz, float x, float y,
                                            float z) {
  const AxisSample ax = ClampAxis(x, nx), ay = ClampAxis(y, ny), az = ClampAxis(z, nz);
  PcdTrilinearStencil st;
  st.fx = ax.f;
  st.fy = ay.f;
  st.fz = az.f;
  const auto sx = static_cast<int64_t>(nx), plane = static_cast<int64_t>(nx) * ny;
  for (int i = 0; i < 8; ++i) {
    const int64_t dx = (i & 1) * ax.next, dy = ((i >> 1) & 1) * ay.next, dz = ((i >> 2) & 1) * az.next;
    st.offset[i] = static_cast<size_t>((az.base + dz) * plane + (ay.base + dy) * sx + ax.base + dx);
  }
  return st;
}

int32_t PCD_GetValueOfSINT16BlockByStencil(const void* block, const PcdTrilinearStencil& stencil) {
  return static_cast<int32_t>(TruncToInt64(BlendByStencil<int16_t>(block, stencil)));
}

// ---- 3D readers ------------------------------------------------------------------------

int32_t PCD_GetValueOf3DArray8bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                  float y, float z, bool isSigned) {
  return isSigned ? NearestRead3D<int8_t>(a, nx, ny, nz, x, y, z)
                  : NearestRead3D<uint8_t>(a, nx, ny, nz, x, y, z);
}
int32_t PCD_GetValueOf3DArray16bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z, bool isSigned) {
  return isSigned ? NearestRead3D<int16_t>(a, nx, ny, nz, x, y, z)
                  : NearestRead3D<uint16_t>(a, nx, ny, nz, x, y, z);
}
int64_t PCD_GetValueOf3DArray32bit(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z, bool isSigned) {
  // each branch widened on its own: a common type of int32/uint32 would be unsigned
  if (isSigned) return NearestRead3D<int32_t>(a, nx, ny, nz, x, y, z);
  return NearestRead3D<uint32_t>(a, nx, ny, nz, x, y, z);
}
float PCD_GetValueOf3DArrayFLOAT32(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                   float y, float z) {
  return NearestRead3D<float>(a, nx, ny, nz, x, y, z);
}
double PCD_GetValueOf3DArrayFLOAT64(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return NearestRead3D<double>(a, nx, ny, nz, x, y, z);
}

int32_t PCD_GetValueOf3DArrayUINT8i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<uint8_t>(a, nx, ny, nz, x, y, z)));
}
int32_t PCD_GetValueOf3DArraySINT8i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<int8_t>(a, nx, ny, nz, x, y, z)));
}
int32_t PCD_GetValueOf3DArrayUINT16i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<uint16_t>(a, nx, ny, nz, x, y, z)));
}
int32_t PCD_GetValueOf3DArraySINT16i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<int16_t>(a, nx, ny, nz, x, y, z)));
}
// A UINT32 sample is read unsigned: all 32 bits set is 4294967295, never -1.
int64_t PCD_GetValueOf3DArrayUINT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return TruncToInt64(Trilinear<uint32_t>(a, nx, ny, nz, x, y, z));
}
int32_t PCD_GetValueOf3DArraySINT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                     float y, float z) {
  return static_cast<int32_t>(TruncToInt64(Trilinear<int32_t>(a, nx, ny, nz, x, y, z)));
}
float PCD_GetValueOf3DArrayFLOAT32i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<float>(Trilinear<float>(a, nx, ny, nz, x, y, z));
}
float PCD_GetValueOf3DArrayFLOAT64i(Pcd3DArray a, int32_t nx, int32_t ny, int32_t nz, float x,
                                    float y, float z) {
  return static_cast<float>(Trilinear<double>(a, nx, ny, nz, x, y, z));
}

double PCD_GetInterpolatedValueOf3DArray(Pcd3DArray a, int32_t type, int32_t nx, int32_t ny,
                                         int32_t nz, float x, float y, float z) {
  switch (type) {
    case UINT8: return PCD_GetValueOf3DArrayUINT8i(a, nx, ny, nz, x, y, z);
    case SINT8: return PCD_GetValueOf3DArraySINT8i(a, nx, ny, nz, x, y, z);
    case UINT16: return PCD_GetValueOf3DArrayUINT16i(a, nx, ny, nz, x, y, z);
    case SINT16: return PCD_GetValueOf3DArraySINT16i(a, nx, ny, nz, x, y, z);
    case UINT32: return static_cast<double>(PCD_GetValueOf3DArrayUINT32i(a, nx, ny, nz, x, y, z));
    case SINT32: return PCD_GetValueOf3DArraySINT32i(a, nx, ny, nz, x, y, z);
    case FLOAT32: return PCD_GetValueOf3DArrayFLOAT32i(a, nx, ny, nz, x, y, z);
    case FLOAT64: return PCD_GetValueOf3DArrayFLOAT64i(a, nx, ny, nz, x, y, z);
    default: return 0.0;
  }
}

// ---- 2D readers ------------------------------------------------------------------------

int32_t PCD_GetValueOf2DArray8bit(Pcd2DArray a, int32_t, int32_t, float x, float y,
                                  bool isSigned) {
  return isSigned ? NearestRead2D<int8_t>(a, x, y) : NearestRead2D<uint8_t>(a, x, y);
}
int32_t PCD_GetValueOf2DArray16bit(Pcd2DArray a, int32_t, int32_t, float x, float y,
                                   bool isSigned) {
  return isSigned ? NearestRead2D<int16_t>(a, x, y) : NearestRead2D<uint16_t>(a, x, y);
}
int64_t PCD_GetValueOf2DArray32bit(Pcd2DArray a, int32_t, int32_t, float x, float y,
                                   bool isSigned) {
  return isSigned ? static_cast<int64_t>(NearestRead2D<int32_t>(a, x, y))
                  : static_cast<int64_t>(NearestRead2D<uint32_t>(a, x, y));
}
float PCD_GetValueOf2DArrayFLOAT32(Pcd2DArray a, int32_t, int32_t, float x, float y) {
  return NearestRead2D<float>(a, x, y);
}
double PCD_GetValueOf2DArrayFLOAT64(Pcd2DArray a, int32_t, int32_t, float x, float y) {
  return NearestRead2D<double>(a, x, y);
}

double PCD_GetInterpolatedValueOf2DArray(Pcd2DArray a, int32_t type, int32_t, int32_t, float x,
                                         float y) {
  switch (type) {
    case UINT8: return static_cast<double>(TruncToInt64(Bilinear<uint8_t>(a, x, y)));
    case SINT8: return static_cast<double>(TruncToInt64(Bilinear<int8_t>(a, x, y)));
    case UINT16: return static_cast<double>(TruncToInt64(Bilinear<uint16_t>(a, x, y)));
    case SINT16: return static_cast<double>(TruncToInt64(Bilinear<int16_t>(a, x, y)));
    case UINT32: return static_cast<double>(TruncToInt64(Bilinear<uint32_t>(a, x, y)));
    case SINT32: return static_cast<double>(TruncToInt64(Bilinear<int32_t>(a, x, y)));
    case FLOAT32: return static_cast<float>(Bilinear<float>(a, x, y));
    case FLOAT64: return static_cast<float>(Bilinear<double>(a, x, y));
    default: return 0.0;
  }
}

uint32_t PCD_GetValueOf2DArrayRGBAi(Pcd2DArray a, int32_t, int32_t, float x, float y) {
  const int32_t i = Trunc(x), j = Trunc(y);
  const double fx = x - static_cast<float>(i), fy = y - static_cast<float>(j);
  const uint32_t s00 = static_cast<uint32_t*>(a[j])[i], s01 = static_cast<uint32_t*>(a[j])[i + 1];
  const uint32_t s10 = static_cast<uint32_t*>(a[j + 1])[i];
  const uint32_t s11 = static_cast<uint32_t*>(a[j + 1])[i + 1];
  uint32_t packed = 0;
  for (int shift = 24; shift >= 0; shift -= 8) {
    auto comp = [shift](uint32_t w) { return static_cast<double>((w >> shift) & 0xFFu); };
    const double r0 = comp(s00) * (1.0 - fx) + comp(s01) * fx;
    const double r1 = comp(s10) * (1.0 - fx) + comp(s11) * fx;
    const auto v = static_cast<uint32_t>(TruncToInt64(r0 * (1.0 - fy) + r1 * fy)) & 0xFFu;
    packed |= v << shift;
  }
  return packed;
}

// ---- vectors -----------------------------------------------------------------------------

namespace {
template <typename T, typename... Args>
T* NewRecord(Args... values) {
  auto* r = static_cast<T*>(std::malloc(sizeof(T)));
  if (r != nullptr) *r = T{values...};
  return r;
}
}  // namespace

PcdVector2D* PCD_NewVector2D(float x, float y) { return NewRecord<PcdVector2D>(x, y); }
PcdVector3D* PCD_NewVector3D(float x, float y, float z) {
  return NewRecord<PcdVector3D>(x, y, z);
}
PcdIntSize3D* PCD_NewIntSize3D(int32_t x, int32_t y, int32_t z) {
  return NewRecord<PcdIntSize3D>(x, y, z);
}
PcdIntVector3D* PCD_NewIntVector3D(int32_t x, int32_t y, int32_t z) {
  return NewRecord<PcdIntVector3D>(x, y, z);
}
PcdIntSize4D* PCD_NewIntSize4D(int32_t x, int32_t y, int32_t z, int32_t channels) {
  return NewRecord<PcdIntSize4D>(x, y, z, channels);
}
void PCD_DeleteVector2D(PcdVector2D* v) { std::free(v); }
void PCD_DeleteVector3D(PcdVector3D* v) { std::free(v); }
void PCD_DeleteIntSize3D(PcdIntSize3D* v) { std::free(v); }
void PCD_DeleteIntVector3D(PcdIntVector3D* v) { std::free(v); }
void PCD_DeleteIntSize4D(PcdIntSize4D* v) { std::free(v); }

double PCD_InnerProduct3D(const PcdVector3D* a, const PcdVector3D* b) {
  return static_cast<double>(a->x) * b->x + static_cast<double>(a->y) * b->y +
         static_cast<double>(a->z) * b->z;
}

void PCD_OuterProduct3D(const PcdVector3D* a, const PcdVector3D* b, PcdVector3D* result) {
  const PcdVector3D r{a->y * b->z - a->z * b->y, a->z * b->x - a->x * b->z,
                      a->x * b->y - a->y * b->x};
  *result = r;  // result may be a or b
}

double PCD_VectorLength3D(const PcdVector3D* v) {
  return std::sqrt(static_cast<double>(v->x) * v->x + static_cast<double>(v->y) * v->y +
                   static_cast<double>(v->z) * v->z);
}

double PCD_NormalizeVector3D(PcdVector3D* v) {
  const double length = PCD_VectorLength3D(v);
  if (length == 0.0) return length;
  const double inv = 1.0 / length;
  v->x = static_cast<float>(v->x * inv);
  v->y = static_cast<float>(v->y * inv);
  v->z = static_cast<float>(v->z * inv);
  return length;
}

// ---- channel utilities -------------------------------------------------------------------

namespace {

double ReadAsDouble(const void* block, int32_t type, size_t i) {
  switch (type) {
    case UINT8: return static_cast<const uint8_t*>(block)[i];
    case SINT8: return static_cast<const int8_t*>(block)[i];
    case UINT16: return static_cast<const uint16_t*>(block)[i];
    case SINT16: return static_cast<const int16_t*>(block)[i];
    case UINT32: return static_cast<const uint32_t*>(block)[i];
    case SINT32: return static_cast<const int32_t*>(block)[i];
    case FLOAT32: return static_cast<const float*>(block)[i];
    default: return static_cast<const double*>(block)[i];
  }
}

struct TypeRange {
  double lo, hi;
};
TypeRange RangeOf(int32_t type) {
  switch (type) {
    case UINT8: return {0, 255};
    case SINT8: return {-128, 127};
    case UINT16: return {0, 65535};
    case SINT16: return {-32768, 32767};
    case UINT32: return {0, 4294967295.0};
    case SINT32: return {-2147483648.0, 2147483647.0};
    case FLOAT32: return {-3.4028234663852886e38, 3.4028234663852886e38};
    default: return {-1.7976931348623157e308, 1.7976931348623157e308};
  }
}

// Writes v into element i of a block of the given type. Integer targets truncate; with
// wrap the low bits of the 64-bit truncation are kept, otherwise v is clamped first.
void WriteFromDouble(void* block, int32_t type, size_t i, double v, bool wrap) {
  const TypeRange r = RangeOf(type);
  if (std::isnan(v)) v = 0.0;
  if (!wrap || type == FLOAT32 || type == FLOAT64) v = v < r.lo ? r.lo : (v > r.hi ? r.hi : v);
  const auto bits = static_cast<uint64_t>(TruncToInt64(v));
  switch (type) {
    case UINT8: static_cast<uint8_t*>(block)[i] = static_cast<uint8_t>(bits); break;
    case SINT8: static_cast<int8_t*>(block)[i] = static_cast<int8_t>(bits); break;
    case UINT16: static_cast<uint16_t*>(block)[i] = static_cast<uint16_t>(bits); break;
    case SINT16: static_cast<int16_t*>(block)[i] = static_cast<int16_t>(bits); break;
    case UINT32: static_cast<uint32_t*>(block)[i] = static_cast<uint32_t>(bits); break;
    case SINT32: static_cast<int32_t*>(block)[i] = static_cast<int32_t>(bits); break;
    case FLOAT32: static_cast<float*>(block)[i] = static_cast<float>(v); break;
    default: static_cast<double*>(block)[i] = v; break;
  }
}

}  // namespace

int PCD_ThresholdingBySingleFloat32Value(PcdRawVolumeData* volume, int32_t channel,
                                         float threshold) {
  if (!HasChannel(volume, channel) || volume->colorFormat[channel] == PCD_RGBA_PACKED)
    return -1;
  const int32_t type = volume->dataType[channel];
  const auto n = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  void* block = volume->data[channel];
  for (size_t i = 0; i < n; ++i) {
    const float v = static_cast<float>(ReadAsDouble(block, type, i));
    WriteFromDouble(block, type, i, v >= threshold ? 1.0 : 0.0, false);
  }
  return 0;
}

int PCD_ConvertChannelDataType(PcdRawVolumeData* volume, int32_t channel, int32_t newType,
                               int32_t mode, double p1, double p2) {
  if (!HasChannel(volume, channel) || !PCD_IsValidDataType(newType) ||
      volume->colorFormat[channel] != PCD_MONOCHROME)
    return -1;
  if (mode == PCD_CONVERT_LINEAR && (p1 == 0.0 || p2 == 0.0)) return -1;
  if (mode == PCD_CONVERT_WINDOW && p1 == p2) return -1;
  if (mode < PCD_CONVERT_CLAMP || mode > PCD_CONVERT_WINDOW) return -1;
  const PcdIntSize4D& s = *volume->matrixSize;
  const int32_t oldType = volume->dataType[channel];
  Pcd3DArray a = PCD_New3DArray(s.x, s.y, s.z, newType);
  if (a == nullptr) return -1;
  const auto n = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  const TypeRange r = RangeOf(newType);
  for (size_t i = 0; i < n; ++i) {
    double v = ReadAsDouble(volume->data[channel], oldType, i);
    if (mode == PCD_CONVERT_LINEAR) v = v * p1 + p2;
    if (mode == PCD_CONVERT_WINDOW) v = r.lo + (v - p1) / (p2 - p1) * (r.hi - r.lo);
    WriteFromDouble(a[0][0], newType, i, v, mode == PCD_CONVERT_WRAP);
  }
  PCD_Delete3DArray(volume->array3D[channel], s.x, s.y, s.z, oldType);
  volume->array3D[channel] = a;
  volume->data[channel] = a[0][0];
  volume->dataType[channel] = newType;
  return 0;
}
