#include "vol/serialize.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <limits>

void PCD_PutInt32LE(uint8_t* at, int32_t value) {
  const auto u = static_cast<uint32_t>(value);
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(u >> (8 * i));
}

int32_t PCD_GetInt32LE(const uint8_t* at) {
  uint32_t u = 0;
  for (int i = 0; i < 4; ++i) u |= static_cast<uint32_t>(at[i]) << (8 * i);
  return static_cast<int32_t>(u);
}

void PCD_PutFloat32LE(uint8_t* at, float value) {
  int32_t bits;
  std::memcpy(&bits, &value, 4);
  PCD_PutInt32LE(at, bits);
}

float PCD_GetFloat32LE(const uint8_t* at) {
  const int32_t bits = PCD_GetInt32LE(at);
  float value;
  std::memcpy(&value, &bits, 4);
  return value;
}

namespace {

constexpr int32_t kMaxSerializedChannels = 256;

size_t BlockBytes(const PcdIntSize4D& s, int32_t type) {
  return static_cast<size_t>(s.x) * s.y * s.z * static_cast<size_t>(PCD_SizeOfDataType(type));
}

// Voxel blocks are kept in the machine's order; on a big-endian machine they would need
// swapping, which this little-endian-only program does not do.
static_assert(std::endian::native == std::endian::little);

// Byte size of n blocks of the given types, or SIZE_MAX when it overflows.
size_t CheckedBodySize(int32_t x, int32_t y, int32_t z, const int32_t* types, int32_t n) {
  const auto voxels = static_cast<unsigned __int128>(x) * static_cast<uint32_t>(y) *
                      static_cast<uint32_t>(z);
  unsigned __int128 total = 0;
  for (int32_t c = 0; c < n; ++c) total += voxels * static_cast<uint32_t>(PCD_SizeOfDataType(types[c]));
  if (total > std::numeric_limits<size_t>::max() / 2) return std::numeric_limits<size_t>::max();
  return static_cast<size_t>(total);
}

PcdRawVolumeData* Rebuild(const uint8_t* buffer, size_t length, bool checked) {
  if (checked && length < 16) {
    std::fputs("Err: serialized volume is truncated\n", stderr);
    return nullptr;
  }
  const PcdIntSize4D size{PCD_GetInt32LE(buffer), PCD_GetInt32LE(buffer + 4),
                          PCD_GetInt32LE(buffer + 8), PCD_GetInt32LE(buffer + 12)};
  if (size.channels > kMaxSerializedChannels) {
    if (checked) std::fprintf(stderr, "Err: serialized volume has %d channels\n", size.channels);
    return nullptr;
  }
  if (size.x <= 0 || size.y <= 0 || size.z <= 0 || size.channels <= 0) {
    if (checked)
      std::fprintf(stderr, "Err: serialized volume has the size %d x %d x %d x %d\n", size.x,
                   size.y, size.z, size.channels);
    return nullptr;
  }
  const size_t n = static_cast<size_t>(size.channels);
  if (checked && length < 16 + 8 * n) {
    std::fputs("Err: serialized volume is truncated\n", stderr);
    return nullptr;
  }
  std::vector<int32_t> types(n), formats(n);
  for (size_t c = 0; c < n; ++c) {
    types[c] = PCD_GetInt32LE(buffer + 16 + 4 * c);
    formats[c] = PCD_GetInt32LE(buffer + 16 + 4 * n + 4 * c);
    if (!PCD_IsValidDataType(types[c])) {
      if (checked) std::fprintf(stderr, "Err: serialized volume has the type code %d\n", types[c]);
      return nullptr;
    }
  }
  if (checked) {
    const size_t body = CheckedBodySize(size.x, size.y, size.z, types.data(), size.channels);
    if (body > length - (16 + 8 * n)) {
      std::fputs("Err: serialized volume is truncated\n", stderr);
      return nullptr;
    }
  }
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (volume == nullptr) return nullptr;
  size_t at = 16 + 8 * n;
  for (int32_t c = 0; c < size.channels; ++c) {
    const size_t bytes = BlockBytes(size, types[static_cast<size_t>(c)]);
    std::memcpy(volume->data[c], buffer + at, bytes);
    at += bytes;
  }
  return volume;
}

}  // namespace

size_t PCD_GetSerializedSizeOfRawVolumeData(const PcdRawVolumeData* volume) {
  if (volume == nullptr || volume->matrixSize == nullptr) return 0;
  const PcdIntSize4D& s = *volume->matrixSize;
  size_t total = 16 + 8 * static_cast<size_t>(s.channels);
  for (int32_t c = 0; c < s.channels; ++c) total += BlockBytes(s, volume->dataType[c]);
  return total;
}

int PCD_SerializeRawVolumeData(const PcdRawVolumeData* volume, uint8_t* buffer) {
  if (volume == nullptr || volume->matrixSize == nullptr || buffer == nullptr) return -1;
  const PcdIntSize4D& s = *volume->matrixSize;
  const auto n = static_cast<size_t>(s.channels);
  PCD_PutInt32LE(buffer, s.x);
  PCD_PutInt32LE(buffer + 4, s.y);
  PCD_PutInt32LE(buffer + 8, s.z);
  PCD_PutInt32LE(buffer + 12, s.channels);
  for (size_t c = 0; c < n; ++c) {
    PCD_PutInt32LE(buffer + 16 + 4 * c, volume->dataType[c]);
    PCD_PutInt32LE(buffer + 16 + 4 * n + 4 * c, volume->colorFormat[c]);
  }
  size_t at = 16 + 8 * n;
  for (int32_t c = 0; c < s.channels; ++c) {
    const size_t bytes = BlockBytes(s, volume->dataType[c]);
    std::memcpy(buffer + at, volume->data[c], bytes);
    at += bytes;
  }
  return 0;
}

PcdRawVolumeData* PCD_GetRawVolumeDataFromSerializedData(const uint8_t* buffer) {
  if (buffer == nullptr) return nullptr;
  return Rebuild(buffer, 0, false);
}

PcdRawVolumeData* PCD_GetRawVolumeDataFromSerializedDataChecked(const uint8_t* buffer,
                                                                size_t length) {
  if (buffer == nullptr) return nullptr;
  return Rebuild(buffer, length, true);
}

size_t PCD_GetSerializedSizeOfSingleChannel(const PcdRawVolumeData* volume, int32_t channel) {
  if (volume == nullptr || volume->matrixSize == nullptr || channel < 0 ||
      channel >= volume->matrixSize->channels)
    return 0;
  return 20 + BlockBytes(*volume->matrixSize, volume->dataType[channel]);
}

int PCD_SerializeSingleChannel(const PcdRawVolumeData* volume, int32_t channel,
                               uint8_t* buffer) {
  if (PCD_GetSerializedSizeOfSingleChannel(volume, channel) == 0 || buffer == nullptr) return -1;
  const PcdIntSize4D& s = *volume->matrixSize;
  PCD_PutInt32LE(buffer, s.x);
  PCD_PutInt32LE(buffer + 4, s.y);
  PCD_PutInt32LE(buffer + 8, s.z);
  PCD_PutInt32LE(buffer + 12, volume->dataType[channel]);
  PCD_PutInt32LE(buffer + 16, volume->colorFormat[channel]);
  std::memcpy(buffer + 20, volume->data[channel], BlockBytes(s, volume->dataType[channel]));
  return 0;
}

PcdRawVolumeData* PCD_GetSingleChannelFromSerializedDataChecked(const uint8_t* buffer,
                                                               size_t length) {
  if (buffer == nullptr || length < 20) {
    std::fputs("Err: serialized channel is truncated\n", stderr);
    return nullptr;
  }
  const PcdIntSize3D size{PCD_GetInt32LE(buffer), PCD_GetInt32LE(buffer + 4),
                          PCD_GetInt32LE(buffer + 8)};
  const int32_t type = PCD_GetInt32LE(buffer + 12), format = PCD_GetInt32LE(buffer + 16);
  if (size.x <= 0 || size.y <= 0 || size.z <= 0 || !PCD_IsValidDataType(type)) {
    std::fputs("Err: serialized channel has an invalid size or type\n", stderr);
    return nullptr;
  }
  if (CheckedBodySize(size.x, size.y, size.z, &type, 1) > length - 20) {
    std::fputs("Err: serialized channel is truncated\n", stderr);
    return nullptr;
  }
  PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&size, type, format);
  if (v != nullptr)
    std::memcpy(v->data[0], buffer + 20, BlockBytes(*v->matrixSize, type));
  return v;
}

size_t PCD_GetAnnouncedSizeOfSerializedRawVolumeData(const uint8_t* buffer, size_t length) {
  if (buffer == nullptr || length < 16) return 0;
  const int32_t x = PCD_GetInt32LE(buffer), y = PCD_GetInt32LE(buffer + 4), z = PCD_GetInt32LE(buffer + 8),
                n = PCD_GetInt32LE(buffer + 12);
  if (x <= 0 || y <= 0 || z <= 0 || n <= 0 || n > kMaxSerializedChannels) return 0;
  const size_t header = 16 + 8 * static_cast<size_t>(n);
  if (length < header) return 0;
  std::vector<int32_t> types(static_cast<size_t>(n));
  for (size_t c = 0; c < types.size(); ++c) {
    types[c] = PCD_GetInt32LE(buffer + 16 + 4 * c);
    if (!PCD_IsValidDataType(types[c])) return 0;
  }
  const size_t body = CheckedBodySize(x, y, z, types.data(), n);
  return body > std::numeric_limits<size_t>::max() / 2 - header ? 0 : header + body;
}

size_t PCD_GetAnnouncedSizeOfSerializedSingleChannel(const uint8_t* buffer, size_t length) {
  if (buffer == nullptr || length < 20) return 0;
  const int32_t x = PCD_GetInt32LE(buffer), y = PCD_GetInt32LE(buffer + 4), z = PCD_GetInt32LE(buffer + 8),
                type = PCD_GetInt32LE(buffer + 12);
  if (x <= 0 || y <= 0 || z <= 0 || !PCD_IsValidDataType(type)) return 0;
  const size_t body = CheckedBodySize(x, y, z, &type, 1);
  return body > std::numeric_limits<size_t>::max() / 2 - 20 ? 0 : 20 + body;
}

// ---- object groups -------------------------------------------------------------------

namespace {

// The payload bytes of one object, or false when its counts cannot describe one: a
// negative count would wrap the size into a small number and the writer would run past
// the buffer that size announced.
bool PayloadBytes(const PcdDisplayObject& o, size_t* bytes);

bool GroupBytes(const PcdObjectGroup& group, size_t* bytes) {
  size_t total = 4 + 24 * group.objects.size();
  for (const PcdDisplayObject& o : group.objects) {
    size_t payload = 0;
    if (!PayloadBytes(o, &payload)) return false;
    total += payload;
  }
  *bytes = total;
  return true;
}

bool PayloadBytes(const PcdDisplayObject& o, size_t* bytes) {
  const bool usesK = o.type == 21 || o.type == 31 || o.type == 61 || o.type == 62;
  if ((usesK && o.k < 0) || (o.type == 71 && (o.a < 0 || o.b < 0))) return false;
  const auto k = static_cast<size_t>(o.k), a = static_cast<size_t>(o.a),
             b = static_cast<size_t>(o.b);
  switch (o.type) {
    case 11: *bytes = 24; return true;
    case 12: case 17: *bytes = 68; return true;
    case 13: case 18: case 15: *bytes = 40; return true;
    case 14: *bytes = 96; return true;
    case 16: *bytes = 52; return true;
    case 21: *bytes = 12 * k + 32; return true;
    case 31: *bytes = 24 * k + 4; return true;
    case 61: *bytes = (o.extras ? 28 : 12) * k + 5; return true;
    case 62: *bytes = (o.extras ? 32 : 16) * k + 13; return true;
    case 71: *bytes = 12 * (a + 2 * b) + 9 + (o.extras ? 16 * b : 0); return true;
    case 99:
      *bytes = 0;
      return o.nested == nullptr || GroupBytes(*o.nested, bytes);
    default: *bytes = 0; return true;  // 22 and unknown types carry nothing
  }
}

// Whether every object of the group (nested ones too) can be written as it stands; the
// first reason it cannot, as an "Err: " line. Checked before a byte is written.
bool CheckGroupForWriting(const PcdObjectGroup& group) {
  for (size_t i = 0; i < group.objects.size(); ++i) {
    const PcdDisplayObject& o = group.objects[i];
    if (o.type == 99) {  // the nested group names its own faulty object
      if (o.nested && !CheckGroupForWriting(*o.nested)) return false;
      continue;
    }
    size_t bytes = 0;
    if (!PayloadBytes(o, &bytes)) {
      std::fprintf(stderr, "Err: object %zu (type %d) of the object group has a negative point count\n", i,
                   o.type);
      return false;
    }
    if (o.type != 15 && bytes > 0 && o.payload.size() != bytes) {
      std::fprintf(stderr, "Err: object %zu (type %d) of the object group has %zu payload bytes instead of %zu\n",
                   i, o.type, o.payload.size(), bytes);
      return false;
    }
  }
  return true;
}

void WriteGroup(const PcdObjectGroup& group, uint8_t* buffer) {
  const size_t m = group.objects.size();
  PCD_PutInt32LE(buffer, static_cast<int32_t>(m));
  for (size_t i = 0; i < m; ++i) {
    const PcdDisplayObject& o = group.objects[i];
    PCD_PutInt32LE(buffer + 4 + 4 * i, o.type);
    PCD_PutInt32LE(buffer + 4 + 4 * m + 4 * i, o.value);
    for (size_t c = 0; c < 4; ++c)
      PCD_PutFloat32LE(buffer + 4 + 8 * m + 16 * i + 4 * c, group.hasColors ? o.color[c] : 1.0f);
  }
  size_t at = 4 + 24 * m;
  for (const PcdDisplayObject& o : group.objects) {
    size_t bytes = 0;
    PayloadBytes(o, &bytes);
    if (o.type == 99) {
      if (o.nested) WriteGroup(*o.nested, buffer + at);
    } else if (o.type != 15 && bytes > 0) {
      // type 15 keeps its place but its bytes are left as the buffer had them
      std::memcpy(buffer + at, o.payload.data(), bytes);
    }
    at += bytes;
  }
}

}  // namespace

size_t PCD_GetPayloadSizeOfObject(const PcdDisplayObject& o) {
  size_t bytes = 0;
  return PayloadBytes(o, &bytes) ? bytes : 0;
}

size_t PCD_GetSerializedSizeOfObjectGroup(const PcdObjectGroup* group) {
  size_t bytes = 0;
  return group != nullptr && GroupBytes(*group, &bytes) ? bytes : 0;
}

int PCD_SerializeObjectGroup(const PcdObjectGroup* group, uint8_t* buffer) {
  if (group == nullptr || buffer == nullptr || !CheckGroupForWriting(*group)) return -1;
  WriteGroup(*group, buffer);
  return 0;
}
