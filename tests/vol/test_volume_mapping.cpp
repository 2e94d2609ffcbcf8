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

// A raw volume file built by hand: 4 x 3 x 2 with two SINT16 channels, or 3 x 3 x 1 with
// a UINT8 channel between the two (which puts the second SINT16 block on the other parity
// than the first); pad extra bytes between the header and the body (which the reader
// allows: the body is the file's last bytes).
std::vector<uint8_t> HandBuiltFile(size_t pad, bool withByteChannel, std::vector<uint8_t>* body) {
  const std::string types = withByteChannel ? "3 0 3 \n" : "3 3 \n";
  const std::string formats = withByteChannel ? "0 0 0 \n" : "0 0 \n";
  const size_t bytes = withByteChannel ? 9 * 2 + 9 + 9 * 2 : 24 * 2 * 2;
  const std::string header = std::string("# PELLUCID raw format file with header\n") +
                             (withByteChannel ? "3 3 1 3\n" : "4 3 2 2\n") + types + formats +
                             std::to_string(bytes) + " uncompressed\n";
  body->clear();
  for (size_t i = 0; i < bytes; ++i) body->push_back(static_cast<uint8_t>(i * 7 + 3));
  std::vector<uint8_t> file(header.begin(), header.end());
  file.insert(file.end(), pad, static_cast<uint8_t>('#'));
  file.insert(file.end(), body->begin(), body->end());
  return file;
}

void Save(const std::string& path, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  std::fclose(f);
}

std::vector<uint8_t> Load(const std::string& path) {
  std::vector<uint8_t> bytes(1 << 16);
  FILE* f = std::fopen(path.c_str(), "rb");
  bytes.resize(f != nullptr ? std::fread(bytes.data(), 1, bytes.size(), f) : 0);
  if (f != nullptr) std::fclose(f);
  return bytes;
}

TEST(VolumeMapping, AlignedBodiesAreMappedFromTheFileAndOthersRead) {
  const std::string path = testing::TempDir() + "hand_" + std::to_string(getpid()) + ".raw";
  std::vector<uint8_t> body;
  for (const bool withByteChannel : {false, true}) {
    for (size_t pad = 0; pad < 16; ++pad) {
      const std::vector<uint8_t> file = HandBuiltFile(pad, withByteChannel, &body);
      Save(path, file);
      const size_t offset = file.size() - body.size();
      std::string info;
      PcdRawVolumeData* v = ReadRawVolumeFileMapped(path.c_str(), &info);
      ASSERT_NE(v, nullptr);
      EXPECT_EQ(info, "Data Source: PELLUCID file: \nFile name: " + path + "\n");
      // with the byte channel one of the SINT16 blocks is always on an odd offset
      const bool aligned = !withByteChannel && offset % 2 == 0;
      const size_t voxels = withByteChannel ? 9 : 24;
      size_t at = 0;
      for (int c = 0; c < v->matrixSize->channels; ++c) {
        EXPECT_EQ(PCD_IsMapped3DArray(v->array3D[c], v->matrixSize->z), aligned ? 1 : 0) << pad << " " << c;
        const size_t bytes = voxels * static_cast<size_t>(PCD_SizeOfDataType(v->dataType[c]));
        EXPECT_EQ(std::memcmp(v->data[c], body.data() + at, bytes), 0) << pad << " " << c;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(v->data[c]) % static_cast<uintptr_t>(PCD_SizeOfDataType(v->dataType[c])), 0u);
        at += bytes;
      }
      // writing to the volume never reaches the file
      static_cast<int16_t*>(v->data[0])[5] = -1;
      static_cast<uint8_t*>(v->data[v->matrixSize->channels - 1])[0] ^= 0xFF;
      EXPECT_EQ(Load(path), file);
      // and a channel converted away leaves the others on the mapping readable
      ASSERT_EQ(PCD_ConvertChannelDataType(v, 0, FLOAT32, PCD_CONVERT_CLAMP, 0, 0), 0);
      EXPECT_EQ(std::memcmp(static_cast<uint8_t*>(v->data[1]) + 1, body.data() + 2 * voxels + 1,
                            withByteChannel ? voxels - 1 : 2 * voxels - 1),
                0);
      PCD_DeleteRawVolumeData(v);
    }
  }
  // a file that is not one is refused as by the copying reader
  Save(path, {'n', 'o', '\n'});
  std::string info;
  EXPECT_EQ(ReadRawVolumeFileMapped(path.c_str(), &info), nullptr);
  std::remove(path.c_str());
}

TEST(VolumeMapping, SameFileKnowsAPathFromAnotherNameOfIt) {
  const std::string dir = testing::TempDir();
  const std::string a = dir + "same_a_" + std::to_string(getpid()), b = dir + "same_b_" + std::to_string(getpid());
  Save(a, {1, 2, 3});
  Save(b, {1, 2, 3});
  EXPECT_EQ(PCD_IsSameFile(a.c_str(), a.c_str()), 1);
  EXPECT_EQ(PCD_IsSameFile(a.c_str(), (dir + "./same_a_" + std::to_string(getpid())).c_str()), 1);
  EXPECT_EQ(PCD_IsSameFile(a.c_str(), b.c_str()), 0);  // equal bytes, another file
  EXPECT_EQ(PCD_IsSameFile(a.c_str(), (a + ".missing").c_str()), 0);
  std::remove(a.c_str());
  std::remove(b.c_str());
}

}  // namespace
