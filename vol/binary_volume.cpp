#include "vol/binary_volume.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

bool HasChannel(const PcdRawVolumeData* v, int32_t channel) {
  return v != nullptr && v->matrixSize != nullptr && v->data != nullptr &&
         v->dataType != nullptr && channel >= 0 && channel < v->matrixSize->channels &&
         v->data[channel] != nullptr && v->matrixSize->x >= 0 && v->matrixSize->y >= 0 &&
         v->matrixSize->z >= 0;
}

size_t VoxelCount(const PcdRawVolumeData* v) {
  return static_cast<size_t>(v->matrixSize->x) * static_cast<size_t>(v->matrixSize->y) *
         static_cast<size_t>(v->matrixSize->z);
}

template <typename T>
T Load(const void* block, size_t i) {
  T value;
  std::memcpy(&value, static_cast<const uint8_t*>(block) + i * sizeof(T), sizeof(T));
  return value;
}

// Whether voxel i is 0/1 as the binary test reads it. Integer types are read unsigned.
bool IsBinaryValue(const void* block, int32_t type, size_t i) {
  switch (type) {
    case UINT8:
    case SINT8:
      return Load<uint8_t>(block, i) <= 1;
    case UINT16:
    case SINT16:
      return Load<uint16_t>(block, i) <= 1;
    case UINT32:
    case SINT32:
      return Load<uint32_t>(block, i) <= 1;
    case FLOAT32: {
      const float f = Load<float>(block, i);
      return f == 0.0f || f == 1.0f;
    }
    case FLOAT64: {
      const double f = Load<double>(block, i);
      return f == 0.0 || f == 1.0;
    }
    default:
      return false;
  }
}

bool IsBinaryBlock(const void* block, int32_t type, size_t n) {
  if (!PCD_IsValidDataType(type)) return false;
  for (size_t i = 0; i < n; ++i)
    if (!IsBinaryValue(block, type, i)) return false;
  return true;
}

// A voxel of a binary block as 0 or 1 (what converting it to UINT8 gives).
uint8_t BitOf(const void* block, int32_t type, size_t i) {
  switch (type) {
    case UINT8:
    case SINT8:
      return Load<uint8_t>(block, i) != 0;
    case UINT16:
    case SINT16:
      return Load<uint16_t>(block, i) != 0;
    case UINT32:
    case SINT32:
      return Load<uint32_t>(block, i) != 0;
    case FLOAT32:
      return Load<float>(block, i) != 0.0f;
    case FLOAT64:
      return Load<double>(block, i) != 0.0;
    default:
      return 0;
  }
}

template <typename T>
void Store(void* block, size_t i, T value) {
  std::memcpy(static_cast<uint8_t*>(block) + i * sizeof(T), &value, sizeof(T));
}

void WriteBit(void* block, int32_t type, size_t i, uint8_t bit) {
  switch (type) {
    case UINT8:
    case SINT8:
      Store<uint8_t>(block, i, bit);
      break;
    case UINT16:
    case SINT16:
      Store<uint16_t>(block, i, bit);
      break;
    case UINT32:
    case SINT32:
      Store<uint32_t>(block, i, bit);
      break;
    case FLOAT32:
      Store<float>(block, i, bit ? 1.0f : 0.0f);
      break;
    case FLOAT64:
      Store<double>(block, i, bit ? 1.0 : 0.0);
      break;
    default:
      break;
  }
}

// One step of erosion or dilation over a block of nx x ny x nz voxels; a plane (nz = 1)
// looks at its four in-plane neighbours only.
int Morphology(void* block, int32_t type, int32_t nx, int32_t ny, int32_t nz, bool erode,
               bool planar) {
  const size_t n = static_cast<size_t>(nx) * static_cast<size_t>(ny) * static_cast<size_t>(nz);
  if (block == nullptr || nx < 0 || ny < 0 || nz < 0 || !IsBinaryBlock(block, type, n)) {
    std::fputs("Err: erosion and dilation need a binary mask (every voxel 0 or 1)\n", stderr);
    return -1;
  }
  std::vector<uint8_t> before(n);
  for (size_t i = 0; i < n; ++i) before[i] = BitOf(block, type, i);
  const size_t sx = 1, sy = static_cast<size_t>(nx), sz = sy * static_cast<size_t>(ny);
  size_t at = 0;
  for (int32_t z = 0; z < nz; ++z)
    for (int32_t y = 0; y < ny; ++y)
      for (int32_t x = 0; x < nx; ++x, ++at) {
        // the neighbours' bits, outside the block counting as background
        const uint8_t nb[6] = {x + 1 < nx ? before[at + sx] : uint8_t{0},
                               y + 1 < ny ? before[at + sy] : uint8_t{0},
                               z + 1 < nz ? before[at + sz] : uint8_t{0},
                               x > 0 ? before[at - sx] : uint8_t{0},
                               y > 0 ? before[at - sy] : uint8_t{0},
                               z > 0 ? before[at - sz] : uint8_t{0}};
        const int count = planar ? 4 : 6;
        const int axes[4] = {0, 1, 3, 4};  // the in-plane neighbours
        bool all = true, any = false;
        for (int k = 0; k < count; ++k) {
          const uint8_t b = nb[planar ? axes[k] : k];
          all = all && b != 0;
          any = any || b != 0;
        }
        if (erode && before[at] && !all) WriteBit(block, type, at, 0);
        if (!erode && !before[at] && any) WriteBit(block, type, at, 1);
      }
  return 0;
}

int VolumeMorphology(PcdRawVolumeData* v, int32_t channel, bool erode) {
  if (!HasChannel(v, channel)) {
    std::fputs("Err: erosion and dilation need an existing mask channel\n", stderr);
    return -1;
  }
  const PcdIntSize4D& s = *v->matrixSize;
  return Morphology(v->data[channel], v->dataType[channel], s.x, s.y, s.z, erode, false);
}

int PlaneMorphology(Pcd2DArray a, int32_t nx, int32_t ny, int32_t type, bool erode) {
  return Morphology(a == nullptr ? nullptr : a[0], type, nx, ny, 1, erode, true);
}

}  // namespace

int PCD_IsBinaryChannel(const PcdRawVolumeData* volume, int32_t channel) {
  if (!HasChannel(volume, channel)) return 0;
  return IsBinaryBlock(volume->data[channel], volume->dataType[channel], VoxelCount(volume)) ? 1
                                                                                            : 0;
}

// Counted where the voxels lie: a round trip through UINT8 would carry 0 and 1 back
// unchanged, so the count is all that it changes.
int64_t PCD_CountBackgroundVoxelsOfBinaryVolume(PcdRawVolumeData* volume, int32_t channel) {
  if (PCD_IsBinaryChannel(volume, channel) != 1) return -1;
  const size_t n = VoxelCount(volume);
  int64_t zeros = 0;
  for (size_t i = 0; i < n; ++i)
    zeros += BitOf(volume->data[channel], volume->dataType[channel], i) == 0 ? 1 : 0;
  return zeros;
}

int64_t PCD_CountForegroundVoxelsOfBinaryVolume(PcdRawVolumeData* volume, int32_t channel) {
  const int64_t voxels = HasChannel(volume, channel) ? static_cast<int64_t>(VoxelCount(volume)) : 0;
  return voxels - PCD_CountBackgroundVoxelsOfBinaryVolume(volume, channel);
}

void PCD_BooleanOperationOfBinaryVolumes(PcdRawVolumeData* destination, int32_t destinationChannel,
                                         const PcdRawVolumeData* source, int32_t sourceChannel,
                                         const char* operatorText) {
  if (PCD_IsBinaryChannel(destination, destinationChannel) != 1 ||
      PCD_IsBinaryChannel(source, sourceChannel) != 1)
    return;
  const PcdIntSize4D& d = *destination->matrixSize;
  const PcdIntSize4D& s = *source->matrixSize;
  if (d.x != s.x || d.y != s.y || d.z != s.z) return;
  // the source as 0/1 bytes, taken before anything is written (it may be the destination)
  const size_t n = VoxelCount(destination);
  std::vector<uint8_t> src(n);
  for (size_t i = 0; i < n; ++i) src[i] = BitOf(source->data[sourceChannel], source->dataType[sourceChannel], i);

  enum { kOr, kXor, kAnd, kNand } op;
  const char* text = operatorText == nullptr ? "" : operatorText;
  if (std::strcmp(text, "OR") == 0) op = kOr;
  else if (std::strcmp(text, "XOR") == 0) op = kXor;
  else if (std::strcmp(text, "AND") == 0) op = kAnd;
  else if (std::strcmp(text, "NAND") == 0) op = kNand;
  else {
    std::fprintf(stderr, "Invalid operator <%s>\n", text);
    return;
  }
  void* block = destination->data[destinationChannel];
  const int32_t type = destination->dataType[destinationChannel];
  for (size_t i = 0; i < n; ++i) {
    const uint8_t dv = BitOf(block, type, i), sv = src[i];
    switch (op) {
      case kOr:
        if (sv == 1) WriteBit(block, type, i, 1);
        break;
      case kXor:
        if (sv != dv) WriteBit(block, type, i, 1);
        break;
      case kAnd:
        WriteBit(block, type, i, sv == 1 && dv == 1);
        break;
      case kNand:
        WriteBit(block, type, i, dv == 1 && sv != 1);
        break;
    }
  }
}

int PCD_ErodeBinaryVolume(PcdRawVolumeData* volume, int32_t channel) {
  return VolumeMorphology(volume, channel, true);
}

int PCD_DilateBinaryVolume(PcdRawVolumeData* volume, int32_t channel) {
  return VolumeMorphology(volume, channel, false);
}

int PCD_ErodeBinary2DArray(Pcd2DArray array, int32_t sizeX, int32_t sizeY, int32_t type) {
  return PlaneMorphology(array, sizeX, sizeY, type, true);
}

int PCD_DilateBinary2DArray(Pcd2DArray array, int32_t sizeX, int32_t sizeY, int32_t type) {
  return PlaneMorphology(array, sizeX, sizeY, type, false);
}

std::string PCD_FindMaskProblem(const PcdRawVolumeData* mask, const PcdIntSize4D& size) {
  char line[200];
  if (mask == nullptr || mask->matrixSize == nullptr || mask->data == nullptr ||
      mask->dataType == nullptr || mask->matrixSize->channels < 1 || mask->data[0] == nullptr)
    return "Err: no mask volume is given\n";
  const PcdIntSize4D& m = *mask->matrixSize;
  if (m.x != size.x || m.y != size.y || m.z != size.z) {
    std::snprintf(line, sizeof line, "Err: the mask is %d x %d x %d, the data set %d x %d x %d\n",
                  m.x, m.y, m.z, size.x, size.y, size.z);
    return line;
  }
  if (mask->dataType[0] != UINT8) {
    std::snprintf(line, sizeof line, "Err: the mask holds %s voxels; it must hold UINT8 voxels\n",
                  PCD_NameOfDataType(mask->dataType[0]));
    return line;
  }
  return "";
}
