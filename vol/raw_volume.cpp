// The raw volume record: data types, typed arrays (mapped where large), the multi-channel
// volume and 2D images with their allocation and size checks.
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

#include "vol/raw_volume_detail.h"

using pcd_raw_volume_detail::HasChannel;

bool pcd_raw_volume_detail::HasChannel(const PcdRawVolumeData* v, int32_t channel) {
  return v != nullptr && v->matrixSize != nullptr && channel >= 0 &&
         channel < v->matrixSize->channels;
}

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
