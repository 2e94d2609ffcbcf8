// Serialized volumes, channels and object groups.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "vol/serialize.h"

namespace {

void Put(std::vector<uint8_t>* b, int32_t v) {
  for (int i = 0; i < 4; ++i) b->push_back(static_cast<uint8_t>(static_cast<uint32_t>(v) >> (8 * i)));
}

PcdRawVolumeData* ShortAndFloat() {
  const PcdIntSize4D size{2, 2, 2, 2};
  const int32_t types[2] = {SINT16, FLOAT32}, formats[2] = {0, 5};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  for (int i = 0; i < 8; ++i) {
    static_cast<int16_t*>(v->data[0])[i] = static_cast<int16_t>(-i);
    static_cast<float*>(v->data[1])[i] = 0.5f * i;
  }
  return v;
}

// The whole-volume form built by hand: header words, then the blocks.
std::vector<uint8_t> HandMadeVolume() {
  std::vector<uint8_t> b;
  for (int32_t v : {2, 2, 2, 2, 3, 6, 0, 5}) Put(&b, v);
  for (int i = 0; i < 8; ++i) {
    const auto s = static_cast<uint16_t>(-i);
    b.push_back(static_cast<uint8_t>(s));
    b.push_back(static_cast<uint8_t>(s >> 8));
  }
  for (int i = 0; i < 8; ++i) {
    const float f = 0.5f * i;
    int32_t bits;
    std::memcpy(&bits, &f, 4);
    Put(&b, bits);
  }
  return b;
}

TEST(SerializedVolume, MatchesTheByteLayoutAndRebuildsFromIt) {
  PcdRawVolumeData* v = ShortAndFloat();
  ASSERT_EQ(PCD_GetSerializedSizeOfRawVolumeData(v), 80u);
  std::vector<uint8_t> buffer(80);
  ASSERT_EQ(PCD_SerializeRawVolumeData(v, buffer.data()), 0);
  EXPECT_EQ(buffer, HandMadeVolume());
  EXPECT_EQ(PCD_GetFloat32LE(buffer.data() + 48 + 4), 0.5f);  // the float block starts at 48

  const std::vector<uint8_t> hand = HandMadeVolume();
  for (PcdRawVolumeData* back : {PCD_GetRawVolumeDataFromSerializedData(hand.data()),
                                 PCD_GetRawVolumeDataFromSerializedDataChecked(hand.data(), 80)}) {
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->colorFormat[1], 5);
    EXPECT_EQ(std::memcmp(back->data[0], v->data[0], 16), 0);
    EXPECT_EQ(std::memcmp(back->data[1], v->data[1], 32), 0);
    PCD_DeleteRawVolumeData(back);
  }
  EXPECT_EQ(PCD_GetSerializedSizeOfRawVolumeData(nullptr), 0u);
  EXPECT_EQ(PCD_SerializeRawVolumeData(nullptr, buffer.data()), -1);
  PCD_DeleteRawVolumeData(v);
}

TEST(SerializedVolume, ChannelCountLimitAndDamagedBuffersAreRefused) {
  std::vector<uint8_t> b;
  for (int32_t v : {1, 1, 1, 257}) Put(&b, v);
  b.resize(16 + 257 * 9, 0);
  EXPECT_EQ(PCD_GetRawVolumeDataFromSerializedData(b.data()), nullptr);
  b.clear();
  for (int32_t v : {1, 1, 1, 256}) Put(&b, v);
  b.resize(16 + 256 * 9, 0);  // 256 UINT8 channels of one voxel
  PcdRawVolumeData* ok = PCD_GetRawVolumeDataFromSerializedDataChecked(b.data(), b.size());
  ASSERT_NE(ok, nullptr);
  EXPECT_EQ(ok->matrixSize->channels, 256);
  PCD_DeleteRawVolumeData(ok);

  const std::vector<uint8_t> hand = HandMadeVolume();
  testing::internal::CaptureStderr();
  for (size_t cut : {0, 3, 15, 16, 23, 24, 47, 79})
    EXPECT_EQ(PCD_GetRawVolumeDataFromSerializedDataChecked(hand.data(), cut), nullptr) << cut;
  std::vector<uint8_t> lying = hand;
  PCD_PutInt32LE(lying.data(), 0x7FFFFFFF);  // x that the buffer cannot hold
  EXPECT_EQ(PCD_GetRawVolumeDataFromSerializedDataChecked(lying.data(), lying.size()), nullptr);
  lying = hand;
  PCD_PutInt32LE(lying.data() + 16, 11);  // no such type
  EXPECT_EQ(PCD_GetRawVolumeDataFromSerializedDataChecked(lying.data(), lying.size()), nullptr);
  lying = hand;
  PCD_PutInt32LE(lying.data() + 8, -2);
  EXPECT_EQ(PCD_GetRawVolumeDataFromSerializedDataChecked(lying.data(), lying.size()), nullptr);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said.rfind("Err: ", 0), 0u);
}

TEST(SerializedChannel, LayoutAndRangeChecks) {
  PcdRawVolumeData* v = ShortAndFloat();
  EXPECT_EQ(PCD_GetSerializedSizeOfSingleChannel(v, 1), 52u);
  EXPECT_EQ(PCD_GetSerializedSizeOfSingleChannel(v, 2), 0u);
  EXPECT_EQ(PCD_GetSerializedSizeOfSingleChannel(v, -1), 0u);
  std::vector<uint8_t> b(52);
  EXPECT_EQ(PCD_SerializeSingleChannel(v, 2, b.data()), -1);
  ASSERT_EQ(PCD_SerializeSingleChannel(v, 1, b.data()), 0);
  const std::vector<uint8_t> hand = HandMadeVolume();
  std::vector<uint8_t> expected;
  for (int32_t w : {2, 2, 2, 6, 5}) Put(&expected, w);
  expected.insert(expected.end(), hand.begin() + 48, hand.end());
  EXPECT_EQ(b, expected);
  PcdRawVolumeData* back = PCD_GetSingleChannelFromSerializedDataChecked(b.data(), b.size());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(std::memcmp(back->data[0], v->data[1], 32), 0);
  PCD_DeleteRawVolumeData(back);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_GetSingleChannelFromSerializedDataChecked(b.data(), 51), nullptr);
  testing::internal::GetCapturedStderr();
  PCD_DeleteRawVolumeData(v);
}

TEST(SerializedObjectGroup, CountsCodesColoursAndPayloadsInOrder) {
  PcdObjectGroup empty;
  ASSERT_EQ(PCD_GetSerializedSizeOfObjectGroup(&empty), 4u);
  uint8_t four[4] = {9, 9, 9, 9};
  ASSERT_EQ(PCD_SerializeObjectGroup(&empty, four), 0);
  EXPECT_EQ(PCD_GetInt32LE(four), 0);

  PcdObjectGroup g;
  PcdDisplayObject point;
  point.type = 11;
  point.value = 7;
  point.payload.assign(24, 0xAB);
  PcdDisplayObject reserved;
  reserved.type = 15;
  PcdDisplayObject line;
  line.type = 21;
  line.k = 2;
  line.payload.assign(12 * 2 + 32, 0xCD);
  g.objects.push_back(std::move(point));
  g.objects.push_back(std::move(reserved));
  g.objects.push_back(std::move(line));
  const size_t size = 4 + 24 * 3 + 24 + 40 + 56;
  ASSERT_EQ(PCD_GetSerializedSizeOfObjectGroup(&g), size);
  std::vector<uint8_t> b(size, 0x11);
  ASSERT_EQ(PCD_SerializeObjectGroup(&g, b.data()), 0);
  EXPECT_EQ(PCD_GetInt32LE(&b[0]), 3);
  EXPECT_EQ(PCD_GetInt32LE(&b[4]), 11);
  EXPECT_EQ(PCD_GetInt32LE(&b[12]), 21);
  EXPECT_EQ(PCD_GetInt32LE(&b[16]), 7);
  EXPECT_EQ(PCD_GetFloat32LE(&b[28]), 1.0f);  // no colours: white
  EXPECT_EQ(b[76], 0xAB);
  EXPECT_EQ(b[100], 0x11);  // the reserved object's bytes are left alone
  EXPECT_EQ(b[140], 0xCD);

  g.hasColors = true;
  g.objects[0].color[0] = 0.25f;
  auto nested = std::make_unique<PcdObjectGroup>();
  PcdDisplayObject outer;
  outer.type = 99;
  outer.nested = std::make_unique<PcdObjectGroup>(std::move(g));
  nested->objects.push_back(std::move(outer));
  ASSERT_EQ(PCD_GetSerializedSizeOfObjectGroup(nested.get()), 4 + 24 + size);
  std::vector<uint8_t> n(4 + 24 + size);
  ASSERT_EQ(PCD_SerializeObjectGroup(nested.get(), n.data()), 0);
  EXPECT_EQ(PCD_GetFloat32LE(&n[28 + 28]), 0.25f);
  nested->objects[0].nested->objects[0].payload.resize(3);  // wrong payload size
  EXPECT_EQ(PCD_SerializeObjectGroup(nested.get(), n.data()), -1);
}

}  // namespace
