// Volumes, typed arrays, point readers and vectors.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "vol/raw_volume.h"

namespace {

struct VolumeDeleter {
  void operator()(PcdRawVolumeData* v) const { PCD_DeleteRawVolumeData(v); }
};
using Volume = std::unique_ptr<PcdRawVolumeData, VolumeDeleter>;

Volume MakeVolume(int32_t x, int32_t y, int32_t z, std::initializer_list<int32_t> types) {
  std::vector<int32_t> t(types), f(t.size(), PCD_MONOCHROME);
  const PcdIntSize4D size{x, y, z, static_cast<int32_t>(t.size())};
  return Volume(PCD_NewRawVolumeData(&size, t.data(), f.data()));
}

template <typename T>
T* Block(const Volume& v, int c) {
  return static_cast<T*>(v->data[c]);
}

TEST(RawVolume, CreationRefusesEmptySizesAndLaysOutChannelsXFastest) {
  const int32_t type = SINT16, format = 0;
  for (const PcdIntSize4D bad : {PcdIntSize4D{0, 2, 2, 1}, PcdIntSize4D{2, 0, 2, 1},
                                 PcdIntSize4D{2, 2, 0, 1}, PcdIntSize4D{2, 2, 2, 0},
                                 PcdIntSize4D{-2, 2, 2, 1}}) {
    EXPECT_EQ(PCD_NewRawVolumeData(&bad, &type, &format), nullptr);
  }
  const PcdIntSize4D huge{65536, 65536, 65536, 1};
  EXPECT_EQ(PCD_NewRawVolumeData(&huge, &type, &format), nullptr);
  const int32_t badType = 9;
  const PcdIntSize4D one{2, 2, 2, 1};
  EXPECT_EQ(PCD_NewRawVolumeData(&one, &badType, &format), nullptr);

  Volume v = MakeVolume(3, 4, 5, {SINT16, FLOAT64});
  ASSERT_TRUE(v);
  EXPECT_EQ(PCD_GetNumberOfVoxels(v.get()), 60);
  for (int i = 0; i < 60; ++i) EXPECT_EQ(Block<int16_t>(v, 0)[i], 0);
  auto*** a = reinterpret_cast<int16_t***>(v->array3D[0]);
  a[4][3][2] = 77;
  EXPECT_EQ(Block<int16_t>(v, 0)[2 + 3 * 3 + 4 * 12], 77);
  auto*** d = reinterpret_cast<double***>(v->array3D[1]);
  d[1][2][0] = 2.5;
  EXPECT_EQ(Block<double>(v, 1)[0 + 2 * 3 + 1 * 12], 2.5);
}

TEST(RawVolume, ChannelsAreAddedCopiedDuplicatedAndCleared) {
  Volume v = MakeVolume(2, 2, 2, {SINT16});
  for (int i = 0; i < 8; ++i) Block<int16_t>(v, 0)[i] = static_cast<int16_t>(i - 3);
  Volume src = MakeVolume(2, 2, 2, {UINT32});
  src->colorFormat[0] = PCD_RGBA_PACKED;
  Block<uint32_t>(src, 0)[7] = 0xFFFFFFFFu;

  ASSERT_EQ(PCD_AddNewChannelOfRawVolumeData(v.get(), src.get(), 0), 0);
  EXPECT_EQ(v->matrixSize->channels, 2);
  EXPECT_EQ(v->dataType[1], UINT32);
  EXPECT_EQ(v->colorFormat[1], PCD_RGBA_PACKED);
  EXPECT_EQ(Block<uint32_t>(v, 1)[7], 0xFFFFFFFFu);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(Block<int16_t>(v, 0)[i], i - 3);
  EXPECT_EQ(PCD_AddNewChannelOfRawVolumeData(v.get(), src.get(), 1), -1);
  EXPECT_EQ(v->matrixSize->channels, 2);

  Volume copy(PCD_CopyChannelOfRawVolumeData(v.get(), 1));
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->matrixSize->channels, 1);
  EXPECT_EQ(Block<uint32_t>(copy, 0)[7], 0xFFFFFFFFu);
  EXPECT_EQ(PCD_CopyChannelOfRawVolumeData(v.get(), 2), nullptr);

  Volume dup(PCD_DuplicateRawVolumeData(v.get()));
  ASSERT_TRUE(dup);
  EXPECT_NE(dup->data[0], v->data[0]);
  EXPECT_EQ(std::memcmp(dup->data[0], v->data[0], 16), 0);
  EXPECT_EQ(std::memcmp(dup->data[1], v->data[1], 32), 0);

  PCD_ClearChannelOfRawVolumeData(dup.get(), 1);
  EXPECT_EQ(Block<uint32_t>(dup, 1)[7], 0u);
  EXPECT_EQ(Block<uint32_t>(v, 1)[7], 0xFFFFFFFFu);

  const PcdIntSize3D a{1, 2, 3}, b{1, 2, 3}, c{1, 2, 4};
  EXPECT_EQ(PCD_IsSameSize3D(&a, &b), 1);
  EXPECT_EQ(PCD_IsSameSize3D(&a, &c), 0);
  EXPECT_EQ(PCD_IsSameSize3D(&a, nullptr), 0);
}

TEST(PointReaders, NearestReadTruncatesAndReturnsZeroOutside) {
  Volume v = MakeVolume(3, 3, 3, {SINT16});
  auto*** a = reinterpret_cast<int16_t***>(v->array3D[0]);
  a[1][1][0] = -5;
  a[0][0][0] = 9;
  Pcd3DArray h = v->array3D[0];
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, -0.5f, 1.9f, 1.2f, true), -5);
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, -0.5f, 1.9f, 1.2f, false), 65531);
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, 3.0f, 0, 0, true), 0);
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, -1.0f, 0, 0, true), 0);
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, 0, 0, 1e30f, true), 0);
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, 0.99f, 0, 0, true), 9);
  EXPECT_EQ(PCD_GetValueOf3DArray16bit(h, 3, 3, 3, 0.0f, 0, 0, true), 9);
}

TEST(PointReaders, TrilinearReadClampsAtTheEdgesAndExtrapolatesJustBelowZero) {
  Volume v = MakeVolume(2, 3, 2, {SINT16});
  auto*** a = reinterpret_cast<int16_t***>(v->array3D[0]);
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 2; ++x) a[z][y][x] = static_cast<int16_t>(100 * z + 10 * y + x);
  Pcd3DArray h = v->array3D[0];
  EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(h, 2, 3, 2, 1, 2, 1), 121);      // corner
  EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(h, 2, 3, 2, 7, 9, 5), 121);      // beyond it
  EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(h, 2, 3, 2, -3, -2, -7), 0);     // below -1
  EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(h, 2, 3, 2, 0.5f, 1.5f, 0.5f), 65);  // 65.5
  // (-1, 0) truncates to 0 and is not clamped: a small extrapolation with f < 0
  EXPECT_EQ(PCD_GetValueOf3DArraySINT16i(h, 2, 3, 2, 0, -0.5f, 0), -5);
  EXPECT_EQ(PCD_GetInterpolatedValueOf3DArray(h, SINT16, 2, 3, 2, 0.5f, 1.5f, 0.5f), 65.0);

  Volume u = MakeVolume(2, 2, 2, {UINT32});
  std::memset(u->data[0], 0xFF, 32);
  EXPECT_EQ(PCD_GetValueOf3DArrayUINT32i(u->array3D[0], 2, 2, 2, 0.3f, 0.6f, 0.2f),
            4294967295LL);
  EXPECT_EQ(PCD_GetValueOf3DArray32bit(u->array3D[0], 2, 2, 2, 0, 0, 0, false), 4294967295LL);
  EXPECT_EQ(PCD_GetValueOf3DArray32bit(u->array3D[0], 2, 2, 2, 0, 0, 0, true), -1);
}

TEST(PointReaders, BilinearReadsBlendEachColourComponentSeparately) {
  const PcdIntSize3D size{2, 2, 2};
  const int32_t types[2] = {UINT32, FLOAT32}, formats[2] = {PCD_RGBA_PACKED, 0};
  PcdRawImageData* im = PCD_NewRawImageData(&size, types, formats);
  ASSERT_NE(im, nullptr);
  auto** w = reinterpret_cast<uint32_t**>(im->array2D[0]);
  w[0][0] = 0x00FF1020u;
  w[0][1] = 0xFF00307Fu;
  w[1][0] = 0x00FF1020u;
  w[1][1] = 0xFF00307Fu;
  // each byte halfway: 7F 7F 20 4F (a packed blend would carry between components)
  EXPECT_EQ(PCD_GetValueOf2DArrayRGBAi(im->array2D[0], 2, 2, 0.5f, 0.25f), 0x7F7F204Fu);
  auto** f = reinterpret_cast<float**>(im->array2D[1]);
  f[0][0] = 0;
  f[0][1] = 1;
  f[1][0] = 2;
  f[1][1] = 3;
  EXPECT_DOUBLE_EQ(PCD_GetInterpolatedValueOf2DArray(im->array2D[1], FLOAT32, 2, 2, 0.5f, 0.5f),
                   1.5);
  EXPECT_EQ(PCD_GetValueOf2DArrayFLOAT32(im->array2D[1], 2, 2, 1.9f, 1.9f), 3.0f);
  // a 32-bit word read as a plain value: all bits set is 4294967295, which a float would
  // round to 4294967296
  w[0][0] = w[0][1] = w[1][0] = w[1][1] = 0xFFFFFFFFu;
  EXPECT_EQ(PCD_GetInterpolatedValueOf2DArray(im->array2D[0], UINT32, 2, 2, 0.25f, 0.5f), 4294967295.0);
  w[0][0] = 16777217u;  // 2^24 + 1, the first integer a float cannot hold
  w[0][1] = w[1][0] = w[1][1] = 16777217u;
  EXPECT_EQ(PCD_GetInterpolatedValueOf2DArray(im->array2D[0], UINT32, 2, 2, 0.0f, 0.0f), 16777217.0);
  PCD_DeleteRawImageData(im);
}

TEST(RgbaSplit, SplitsIntoFourPlanesOrRefusesWithItsMessage) {
  const PcdIntSize3D src{2, 1, 1}, dst{2, 1, 4};
  const int32_t rgba = UINT32, packed = PCD_RGBA_PACKED;
  const int32_t bytes[4] = {UINT8, UINT8, UINT8, UINT8}, mono[4] = {0, 0, 0, 0};
  PcdRawImageData* im = PCD_NewRawImageData(&src, &rgba, &packed);
  PcdRawImageData* out = PCD_NewRawImageData(&dst, bytes, mono);
  static_cast<uint32_t*>(im->data[0])[1] = 0x11223344u;
  testing::internal::CaptureStderr();
  PCD_NonInterleavedCopyRgbaRawImageData(im, 0, out);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  for (int c = 0; c < 4; ++c) EXPECT_EQ(static_cast<uint8_t*>(out->data[c])[1], 0x11 * (c + 1));
  im->colorFormat[0] = PCD_MONOCHROME;
  static_cast<uint8_t*>(out->data[0])[1] = 0;
  testing::internal::CaptureStderr();
  PCD_NonInterleavedCopyRgbaRawImageData(im, 0, out);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err:PCD_NonInterleavedCopyRgbaRawImageData\n");
  EXPECT_EQ(static_cast<uint8_t*>(out->data[0])[1], 0);
  PCD_DeleteRawImageData(im);
  PCD_DeleteRawImageData(out);
}

TEST(Vectors, ProductsLengthAndNormalisation) {
  const PcdVector3D x{1, 0, 0}, y{0, 1, 0};
  PcdVector3D r{};
  PCD_OuterProduct3D(&x, &y, &r);
  EXPECT_EQ(r.z, 1.0f);
  EXPECT_EQ(r.x, 0.0f);
  PcdVector3D a{1, 2, 3};
  PCD_OuterProduct3D(&a, &y, &a);  // result may alias an argument
  EXPECT_EQ(a.x, -3.0f);
  EXPECT_EQ(a.z, 1.0f);
  const PcdVector3D big{1e20f, 1e20f, 0};
  const double e = 1e20f;
  EXPECT_EQ(PCD_InnerProduct3D(&big, &big), e * e + e * e);  // no float overflow
  PcdVector3D zero{0, 0, 0};
  EXPECT_EQ(PCD_NormalizeVector3D(&zero), 0.0);
  EXPECT_EQ(zero.x, 0.0f);
  PcdVector3D v{3, 0, 4};
  EXPECT_EQ(PCD_NormalizeVector3D(&v), 5.0);
  EXPECT_FLOAT_EQ(v.x, 0.6f);
  EXPECT_FLOAT_EQ(v.z, 0.8f);
  PcdIntSize4D* s = PCD_NewIntSize4D(1, 2, 3, 4);
  EXPECT_EQ(s->channels, 4);
  PCD_DeleteIntSize4D(s);
}

TEST(ChannelUtilities, ThresholdingAndConversionRoundTripBinaryValues) {
  Volume v = MakeVolume(2, 2, 1, {SINT16});
  int16_t* b = Block<int16_t>(v, 0);
  b[0] = 0;
  b[1] = 1;
  b[2] = 7;
  b[3] = -4;
  ASSERT_EQ(PCD_ThresholdingBySingleFloat32Value(v.get(), 0, 1.0f), 0);
  EXPECT_EQ(Block<int16_t>(v, 0)[0], 0);
  EXPECT_EQ(Block<int16_t>(v, 0)[1], 1);
  EXPECT_EQ(Block<int16_t>(v, 0)[2], 1);
  EXPECT_EQ(Block<int16_t>(v, 0)[3], 0);
  EXPECT_EQ(PCD_ThresholdingBySingleFloat32Value(v.get(), 1, 1.0f), -1);

  ASSERT_EQ(PCD_ConvertChannelDataType(v.get(), 0, UINT8, PCD_CONVERT_CLAMP, 0, 0), 0);
  EXPECT_EQ(v->dataType[0], UINT8);
  EXPECT_EQ(Block<uint8_t>(v, 0)[2], 1);
  ASSERT_EQ(PCD_ConvertChannelDataType(v.get(), 0, SINT16, PCD_CONVERT_CLAMP, 0, 0), 0);
  EXPECT_EQ(Block<int16_t>(v, 0)[1], 1);
  EXPECT_EQ(v->array3D[0][0][0], v->data[0]);

  Block<int16_t>(v, 0)[0] = 300;
  Block<int16_t>(v, 0)[3] = -1;
  Volume w(PCD_DuplicateRawVolumeData(v.get()));
  ASSERT_EQ(PCD_ConvertChannelDataType(v.get(), 0, UINT8, PCD_CONVERT_CLAMP, 0, 0), 0);
  EXPECT_EQ(Block<uint8_t>(v, 0)[0], 255);
  EXPECT_EQ(Block<uint8_t>(v, 0)[3], 0);
  ASSERT_EQ(PCD_ConvertChannelDataType(w.get(), 0, UINT8, PCD_CONVERT_WRAP, 0, 0), 0);
  EXPECT_EQ(Block<uint8_t>(w, 0)[0], 44);
  EXPECT_EQ(Block<uint8_t>(w, 0)[3], 255);
  EXPECT_EQ(PCD_ConvertChannelDataType(w.get(), 0, SINT16, PCD_CONVERT_LINEAR, 0, 1), -1);
  EXPECT_EQ(PCD_ConvertChannelDataType(w.get(), 0, SINT16, PCD_CONVERT_WINDOW, 3, 3), -1);
  for (int32_t mode : {PCD_CONVERT_CLAMP - 1, PCD_CONVERT_WINDOW + 1})  // no such mode
    EXPECT_EQ(PCD_ConvertChannelDataType(w.get(), 0, SINT16, mode, 1, 2), -1) << mode;
  EXPECT_EQ(w->dataType[0], UINT8);
}

// Clamping lands on each integer type's own ends: values just past them and far past them
// (a float channel holds both) become the type's smallest and largest values.
TEST(ChannelUtilities, ClampingStopsAtEveryIntegerTypesEnds) {
  struct Case {
    int32_t type;
    double lo, hi;
  };
  const Case cases[] = {{UINT8, 0, 255},           {SINT8, -128, 127},
                        {UINT16, 0, 65535},        {SINT16, -32768, 32767},
                        {UINT32, 0, 4294967295.0}, {SINT32, -2147483648.0, 2147483647.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    Volume v = MakeVolume(2, 2, 1, {FLOAT64});
    double* b = Block<double>(v, 0);
    b[0] = c.hi + 1.0;
    b[1] = c.lo - 1.0;
    b[2] = 1e12;
    b[3] = -1e12;
    ASSERT_EQ(PCD_ConvertChannelDataType(v.get(), 0, c.type, PCD_CONVERT_CLAMP, 0, 0), 0);
    for (int i = 0; i < 4; ++i) {
      const double want = i % 2 == 0 ? c.hi : c.lo;
      double got = 0;
      switch (c.type) {
        case UINT8: got = Block<uint8_t>(v, 0)[i]; break;
        case SINT8: got = Block<int8_t>(v, 0)[i]; break;
        case UINT16: got = Block<uint16_t>(v, 0)[i]; break;
        case SINT16: got = Block<int16_t>(v, 0)[i]; break;
        case UINT32: got = Block<uint32_t>(v, 0)[i]; break;
        default: got = Block<int32_t>(v, 0)[i]; break;
      }
      EXPECT_EQ(got, want) << i;
    }
  }
}

}  // namespace
