// Volumes and blocks large enough to live in anonymous mappings: the same zero-filled,
// x-fastest blocks as heap blocks, shared by the channels of one volume, each channel
// replaceable on its own, and the mapping released with its last channel.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "io/raw_volume_file.h"
#include "vol/raw_volume.h"

namespace {

// 128 x 64 x 16 voxels: 256 KB per SINT16 channel, so four channels together pass 1 MB
// and go into one mapping while one channel alone stays on the heap.
constexpr int32_t kX = 128, kY = 64, kZ = 16;

PcdRawVolumeData* NewVolume(std::vector<int32_t> types) {
  const std::vector<int32_t> formats(types.size(), PCD_MONOCHROME);
  const PcdIntSize4D size{kX, kY, kZ, static_cast<int32_t>(types.size())};
  return PCD_NewRawVolumeData(&size, types.data(), formats.data());
}

// A sample value that differs between channels and along every axis.
int16_t Sample(int c, int x, int y, int z) { return static_cast<int16_t>(c * 1000 + x * 7 - y * 3 + z * 11); }

void Fill(PcdRawVolumeData* v, int c) {
  auto*** a = reinterpret_cast<int16_t***>(v->array3D[c]);
  for (int z = 0; z < kZ; ++z)
    for (int y = 0; y < kY; ++y)
      for (int x = 0; x < kX; ++x) a[z][y][x] = Sample(c, x, y, z);
}

// Every sample read back through the flat block, which must lie under the handle.
bool Holds(const PcdRawVolumeData* v, int c) {
  const auto* block = static_cast<const int16_t*>(v->data[c]);
  size_t at = 0;
  for (int z = 0; z < kZ; ++z)
    for (int y = 0; y < kY; ++y)
      for (int x = 0; x < kX; ++x, ++at)
        if (block[at] != Sample(c, x, y, z)) return false;
  return true;
}

TEST(VolumeMapping, ChannelsOfALargeVolumeShareOneMappingAndBehaveAsHeapBlocks) {
  PcdRawVolumeData* v = NewVolume({SINT16, SINT16, SINT16, SINT16});
  ASSERT_NE(v, nullptr);
  const size_t channelBytes = size_t{kX} * kY * kZ * 2;
  for (int c = 0; c < 4; ++c) {
    EXPECT_EQ(PCD_IsMapped3DArray(v->array3D[c], kZ), 1);
    // zero-filled like calloc
    const auto* bytes = static_cast<const uint8_t*>(v->data[c]);
    EXPECT_EQ(std::count(bytes, bytes + channelBytes, 0), static_cast<ptrdiff_t>(channelBytes));
    // one block after the other, each on a 64-byte boundary
    EXPECT_EQ(reinterpret_cast<uintptr_t>(v->data[c]) % 64, 0u);
    if (c > 0) {
      EXPECT_EQ(static_cast<const uint8_t*>(v->data[c]) - static_cast<const uint8_t*>(v->data[c - 1]),
                static_cast<ptrdiff_t>(channelBytes));
    }
  }
  for (int c = 0; c < 4; ++c) Fill(v, c);
  for (int c = 0; c < 4; ++c) EXPECT_TRUE(Holds(v, c)) << c;

  // one channel alone is below the size for a mapping
  PcdRawVolumeData* small = NewVolume({SINT16});
  EXPECT_EQ(PCD_IsMapped3DArray(small->array3D[0], kZ), 0);
  PCD_DeleteRawVolumeData(small);

  // converting channel 1 gives it a heap block; the other channels stay in the mapping
  // and keep their values, and the converted one holds its values as FLOAT32
  ASSERT_EQ(PCD_ConvertChannelDataType(v, 1, FLOAT32, PCD_CONVERT_CLAMP, 0, 0), 0);
  EXPECT_EQ(static_cast<const float*>(v->data[1])[kX + 2], static_cast<float>(Sample(1, 2, 1, 0)));
  EXPECT_TRUE(Holds(v, 0));
  EXPECT_TRUE(Holds(v, 3));
  // converting channel 0 to a type of the same size: its old block stays mapped for 2, 3
  ASSERT_EQ(PCD_ConvertChannelDataType(v, 0, UINT16, PCD_CONVERT_WRAP, 0, 0), 0);
  EXPECT_TRUE(Holds(v, 2));
  EXPECT_TRUE(Holds(v, 3));

  // an appended channel is a copy in a block of its own
  PcdRawVolumeData* extra = NewVolume({SINT16, SINT16, SINT16, SINT16});
  Fill(extra, 2);
  ASSERT_EQ(PCD_AddNewChannelOfRawVolumeData(v, extra, 2), 0);
  PCD_DeleteRawVolumeData(extra);  // the copy must not depend on the source's mapping
  auto*** appended = reinterpret_cast<int16_t***>(v->array3D[4]);
  EXPECT_EQ(appended[kZ - 1][kY - 1][kX - 1], Sample(2, kX - 1, kY - 1, kZ - 1));
  EXPECT_TRUE(Holds(v, 3));
  PCD_DeleteRawVolumeData(v);  // under ASan: nothing leaked, nothing freed twice
}

TEST(VolumeMapping, LargeBlocksOfTheirOwnAreMappedAndEndInAGuardPage) {
  // 1 MB of FLOAT32 and more: a block of its own in a mapping of whole huge pages
  Pcd3DArray a = PCD_New3DArray(1024, 64, 4, FLOAT32);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(PCD_IsMapped3DArray(a, 4), 1);
  auto*** f = reinterpret_cast<float***>(a);
  f[3][63][1023] = 2.5f;
  EXPECT_EQ(static_cast<float*>(a[0][0])[size_t{1024} * 64 * 4 - 1], 2.5f);
  PCD_Delete3DArray(a, 1024, 64, 4, FLOAT32);

  // a block of exactly 2 MB ends where the mapping's guard page begins: one element past
  // the end is stopped at once instead of reading another block
  Pcd3DArray b = PCD_New3DArray(1024, 512, 1, FLOAT32);
  ASSERT_NE(b, nullptr);
  auto* end = static_cast<volatile float*>(b[0][0]) + size_t{1024} * 512;
  EXPECT_DEATH(end[0] = 1.0f, "");
  PCD_Delete3DArray(b, 1024, 512, 1, FLOAT32);
}

TEST(VolumeMapping, RawVolumeFileOfALargeVolumeReadsBackByteForByte) {
  // five channels of mixed types, the reader's volume then lies in one mapping
  PcdRawVolumeData* v = NewVolume({SINT16, SINT16, UINT8, FLOAT64, SINT16});
  for (int c : {0, 1, 4}) Fill(v, c);
  auto* u8 = static_cast<uint8_t*>(v->data[2]);
  auto* f64 = static_cast<double*>(v->data[3]);
  const size_t voxels = size_t{kX} * kY * kZ;
  for (size_t i = 0; i < voxels; ++i) {
    u8[i] = static_cast<uint8_t>(i * 13);
    f64[i] = static_cast<double>(i) * 0.25 - 3.0;
  }
  const std::string path = testing::TempDir() + "mapped_" + std::to_string(getpid()) + ".raw";
  ASSERT_EQ(WriteRawVolumeFile(v, path.c_str()), 0);
  std::string info;
  PcdRawVolumeData* back = ReadRawVolumeFile(path.c_str(), &info);
  std::remove(path.c_str());
  ASSERT_NE(back, nullptr);
  ASSERT_EQ(back->matrixSize->channels, 5);
  for (int c = 0; c < 5; ++c) {
    EXPECT_EQ(PCD_IsMapped3DArray(back->array3D[c], kZ), 1);
    EXPECT_EQ(back->dataType[c], v->dataType[c]);
    const size_t bytes = voxels * static_cast<size_t>(PCD_SizeOfDataType(v->dataType[c]));
    EXPECT_EQ(std::memcmp(back->data[c], v->data[c], bytes), 0) << c;
    // the element type's alignment holds for every block
    EXPECT_EQ(reinterpret_cast<uintptr_t>(back->data[c]) % 8, 0u);
  }
  PCD_DeleteRawVolumeData(back);
  PCD_DeleteRawVolumeData(v);
}

}  // namespace
