// Serialized volumes, channels and object groups.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>
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
  EXPECT_EQ(PCD_GetRawVolumeDataFromSerializedDataChecked(nullptr, hand.size()), nullptr);
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

// One object of each list type and of each fixed size, with counts chosen so that every
// payload size is different; the whole image built by hand, field by field.
TEST(SerializedObjectGroup, EveryTypesPayloadSizeByHand) {
  struct Kind {
    int32_t type, k, a, b;
    bool extras;
    size_t bytes;  // worked out from the size table
  } kinds[] = {
      {11, 0, 0, 0, false, 24},  {12, 0, 0, 0, false, 68}, {17, 0, 0, 0, false, 68},
      {13, 0, 0, 0, false, 40},  {18, 0, 0, 0, false, 40}, {14, 0, 0, 0, false, 96},
      {16, 0, 0, 0, false, 52},  {21, 3, 0, 0, false, 68},   // 12*3 + 32
      {22, 9, 0, 0, false, 0},   {31, 2, 0, 0, false, 52},   // 24*2 + 4
      {61, 2, 0, 0, false, 29},  {61, 2, 0, 0, true, 61},    // 12*2 + 5, 28*2 + 5
      {62, 1, 0, 0, false, 29},  {62, 1, 0, 0, true, 45},    // 16 + 13, 32 + 13
      {71, 0, 1, 2, false, 69},  {71, 0, 1, 2, true, 101},   // 12*(1+4) + 9, + 16*2
      {40, 5, 5, 5, true, 0},                                // unknown: nothing
  };
  PcdObjectGroup g;
  g.hasColors = true;
  std::vector<uint8_t> expected;
  Put(&expected, static_cast<int32_t>(std::size(kinds)));
  for (const Kind& k : kinds) Put(&expected, k.type);
  for (size_t i = 0; i < std::size(kinds); ++i) Put(&expected, 1000 + static_cast<int32_t>(i));
  for (size_t i = 0; i < std::size(kinds); ++i)
    for (int32_t bits : {0x3F000000, 0x3E800000, 0x00000000, 0x3F800000}) Put(&expected, bits);  // .5 .25 0 1
  for (size_t i = 0; i < std::size(kinds); ++i) {
    const Kind& k = kinds[i];
    PcdDisplayObject o;
    o.type = k.type;
    o.value = 1000 + static_cast<int32_t>(i);
    o.k = k.k, o.a = k.a, o.b = k.b, o.extras = k.extras;
    o.color[0] = 0.5f, o.color[1] = 0.25f, o.color[2] = 0.0f, o.color[3] = 1.0f;
    EXPECT_EQ(PCD_GetPayloadSizeOfObject(o), k.bytes) << k.type << (k.extras ? " with extras" : "");
    o.payload.assign(k.bytes, static_cast<uint8_t>(i + 1));
    expected.insert(expected.end(), k.bytes, static_cast<uint8_t>(i + 1));
    g.objects.push_back(std::move(o));
  }
  ASSERT_EQ(PCD_GetSerializedSizeOfObjectGroup(&g), expected.size());
  std::vector<uint8_t> b(expected.size());
  ASSERT_EQ(PCD_SerializeObjectGroup(&g, b.data()), 0);
  EXPECT_EQ(b, expected);
}

// A negative count would wrap the announced size into a small number and the writer
// would run past the buffer: such a group announces 0 and is refused, writing nothing.
TEST(SerializedObjectGroup, NegativeCountsAreRefusedBeforeAnythingIsWritten) {
  struct Bad {
    int32_t type, k, a, b;
  } bads[] = {{21, -3, 0, 0}, {31, -1, 0, 0}, {61, -2, 0, 0}, {62, -1, 0, 0}, {71, 0, -1, 0}, {71, 0, 2, -1}};
  for (const Bad& bad : bads) {
    PcdDisplayObject o;
    o.type = bad.type;
    o.k = bad.k, o.a = bad.a, o.b = bad.b;
    EXPECT_EQ(PCD_GetPayloadSizeOfObject(o), 0u) << bad.type;
    PcdObjectGroup inner;
    PcdDisplayObject fine;
    fine.type = 11;
    fine.payload.assign(24, 1);
    inner.objects.push_back(std::move(fine));
    inner.objects.push_back(std::move(o));
    PcdObjectGroup outer;  // the bad object one level down
    PcdDisplayObject nest;
    nest.type = 99;
    nest.nested = std::make_unique<PcdObjectGroup>(std::move(inner));
    outer.objects.push_back(std::move(nest));
    for (const PcdObjectGroup* g : std::vector<const PcdObjectGroup*>{outer.objects[0].nested.get(), &outer}) {
      EXPECT_EQ(PCD_GetSerializedSizeOfObjectGroup(g), 0u) << bad.type;
      std::vector<uint8_t> b(256, 0x5A);
      testing::internal::CaptureStderr();
      EXPECT_EQ(PCD_SerializeObjectGroup(g, b.data()), -1) << bad.type;
      EXPECT_EQ(testing::internal::GetCapturedStderr(),
                "Err: object 1 (type " + std::to_string(bad.type) +
                    ") of the object group has a negative point count\n");
      EXPECT_EQ(b, std::vector<uint8_t>(256, 0x5A)) << bad.type;
    }
  }
  // counts a type does not use may be anything
  PcdDisplayObject point;
  point.type = 11;
  point.k = point.a = point.b = -7;
  EXPECT_EQ(PCD_GetPayloadSizeOfObject(point), 24u);
  // a payload of the wrong length is refused before the header is written too
  PcdObjectGroup g;
  point.payload.assign(23, 1);
  g.objects.push_back(std::move(point));
  std::vector<uint8_t> b(52, 0x5A);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_SerializeObjectGroup(&g, b.data()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: object 0 (type 11) of the object group has 23 payload bytes instead of 24\n");
  EXPECT_EQ(b, std::vector<uint8_t>(52, 0x5A));
}

// What a header announces, from headers built by hand.
TEST(SerializedHeaders, AnnouncedSizes) {
  const std::vector<uint8_t> v = HandMadeVolume();
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(v.data(), v.size()), 80u);
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(v.data(), 32), 80u);  // the header is enough
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(v.data(), 31), 0u);   // the codes are cut
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(v.data(), 15), 0u);
  std::vector<uint8_t> h;
  for (int32_t w : std::vector<int32_t>{65536, 65536, 65536, 1, FLOAT64, 0}) Put(&h, w);  // 2^48 voxels x 8 bytes
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(h.data(), h.size()), 24u + (size_t{1} << 51));
  h.clear();
  for (int32_t w : std::vector<int32_t>{2147483647, 2147483647, 2147483647, 1, FLOAT64, 0}) Put(&h, w);  // beyond 2^63
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(h.data(), h.size()), 0u);
  h.clear();
  for (int32_t w : {1, 1, 1, 257}) Put(&h, w);
  h.resize(16 + 8 * 257, 0);
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(h.data(), h.size()), 0u);
  for (int32_t w : {1, 1, 0, 1, 3, 0}) Put(&h, w);
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedRawVolumeData(h.data() + 16 + 8 * 257, 24), 0u);  // z = 0

  std::vector<uint8_t> c;
  for (int32_t w : std::vector<int32_t>{3, 2, 1, UINT16, 0}) Put(&c, w);
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedSingleChannel(c.data(), c.size()), 32u);  // 20 + 6 * 2
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedSingleChannel(c.data(), 19), 0u);
  c[12] = 8;  // no such type
  EXPECT_EQ(PCD_GetAnnouncedSizeOfSerializedSingleChannel(c.data(), c.size()), 0u);
}

}  // namespace
