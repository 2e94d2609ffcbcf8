// The DTI record: creation warnings, the three settings, the dump and the serialized form.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dti/dti_data.h"
#include "dti/gradient_vectors.h"
#include "vol/serialize.h"
#include "support/test_support.h"

namespace {

PcdRawVolumeData* Volume(int32_t channels) {
  const PcdIntSize4D size{2, 1, 1, channels};
  std::vector<int32_t> types(static_cast<size_t>(channels), SINT16), formats(static_cast<size_t>(channels), 0);
  return PCD_NewRawVolumeData(&size, types.data(), formats.data());
}

struct Data {
  PcdRawVolumeData* volume;
  PcdDtiData* dti;
  std::string warnings;
  Data(int32_t volumeChannels, int32_t channels) : volume(Volume(volumeChannels)) {
    testing::internal::CaptureStderr();
    dti = PCDdti_NewDiffusionTensorImageData(volume, channels);
    warnings = testing::internal::GetCapturedStderr();
  }
  ~Data() {
    std::free(dti);
    PCD_DeleteRawVolumeData(volume);
  }
};

std::string Dump(const PcdDtiData* dti) {
  testing::internal::CaptureStderr();
  PCDdti_DumpMPGvectorSetting(dti);
  return testing::internal::GetCapturedStderr();
}

const std::string kRule = "---------------------------------------------------\n";

// Little-endian bytes appended by hand, independent of the library's helpers.
void PushBits(std::vector<uint8_t>& out, uint32_t bits) {
  for (int k = 0; k < 4; ++k) out.push_back(static_cast<uint8_t>(bits >> (8 * k)));
}
void PushFloat(std::vector<uint8_t>& out, float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  PushBits(out, bits);
}

TEST(DtiRecord, CreationWarnsButAlwaysCreates) {
  Data seven(7, 7);
  EXPECT_EQ(seven.warnings, "");
  EXPECT_EQ(seven.dti->isReady, 0);
  Data six(7, 6);
  EXPECT_EQ(six.warnings, "Warning: number of channels is not valid for general DTI\n");
  Data short_(6, 7);
  EXPECT_EQ(short_.warnings, "Warning: channels are not ready for target DTI\n");
  Data many(140, 131);
  EXPECT_EQ(many.warnings, "Warning: channels are too much for default MPG\n");
  testing::internal::CaptureStderr();
  PcdDtiData* none = PCDdti_NewDiffusionTensorImageData(nullptr, 3);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: volume is NULL for DTI\n"
            "Warning: number of channels is not valid for general DTI\n");
  ASSERT_NE(none, nullptr);
  std::free(none);
}

TEST(DtiRecord, DefaultsUseTheDirectionTableAndRefuseWhatTheyCannotServe) {
  Data d(10, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  ASSERT_EQ(d.dti->isReady, 1);
  EXPECT_EQ(d.dti->bValues[0], 0.0f);
  for (int i = 1; i < 7; ++i) {
    EXPECT_EQ(d.dti->bValues[i], 1000.0f);
    EXPECT_EQ(d.dti->mpgVectors[i].x, gradient_vectors[0][i - 1][0]);
    EXPECT_EQ(d.dti->mpgVectors[i].z, gradient_vectors[0][i - 1][2]);
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(d.dti, 8, 2);
  ASSERT_EQ(d.dti->isReady, 1);
  EXPECT_EQ(d.dti->bValues[1], 0.0f);
  EXPECT_EQ(d.dti->mpgVectors[2].x, 0.707f);  // first row of the 6-direction table
  EXPECT_EQ(PCDdti_GetUniformBvalueOfDTI(d.dti), 1000.0f);

  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(d.dti, 8, 0);
  EXPECT_EQ(d.dti->isReady, 0);  // a failed setting also undoes the earlier one
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 11);  // > volume
  EXPECT_EQ(d.dti->isReady, 0);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 6);
  EXPECT_EQ(d.dti->isReady, 0);
  Data big(200, 140);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(big.dti, 140);
  EXPECT_EQ(big.dti->isReady, 0);  // 139 DWIs: beyond the table
}

TEST(DtiRecord, ExplicitSettingIsNotCheckedAgainstTheVolume) {
  Data d(4, 4);
  std::vector<float> b(140, 700.0f);
  std::vector<PcdVector3D> g(140, PcdVector3D{0, 0, 1});
  b[2] = 1500.0f;
  PCDdti_SetPropertiesOfDiffusionTensorImageData(d.dti, 8, 2, b.data(), g.data());
  ASSERT_EQ(d.dti->isReady, 1);
  EXPECT_EQ(PCDdti_GetUniformBvalueOfDTI(d.dti), 1500.0f);
  PCDdti_SetPropertiesOfDiffusionTensorImageData(d.dti, 6, 0, b.data(), g.data());
  EXPECT_EQ(d.dti->isReady, 1);  // So count 0 is fine here
  PCDdti_SetPropertiesOfDiffusionTensorImageData(d.dti, 136, 6, b.data(), g.data());
  EXPECT_EQ(d.dti->isReady, 0);  // 130 DWIs
  PCDdti_SetPropertiesOfDiffusionTensorImageData(d.dti, 8, 2, nullptr, g.data());
  EXPECT_EQ(d.dti->isReady, 0);
}

TEST(DtiRecord, DumpToTheLetter) {
  Data d(8, 7);
  EXPECT_EQ(Dump(d.dti), kRule + "  MPG setting NOT ready. Analysis NOT executable.\n" + kRule);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  const std::string dump = Dump(d.dti);
  const std::string head = kRule + "  MPG setting seems to be ready for analysis\n" + kRule +
                " Total channels: 8\n DTI channels: 7\n b=0 channels: 1\n b>0 channels: 6\n" +
                kRule;
  const std::string body =
      "   1   b=0.0, g=(0.000, 0.000, 0.000)\n"
      "   2   b=1000.0, g=(0.707, 0.000, 0.707)\n"
      "   3   b=1000.0, g=(-0.707, 0.000, 0.707)\n"
      "   4   b=1000.0, g=(0.000, 0.707, 0.707)\n"
      "   5   b=1000.0, g=(0.000, 0.707, -0.707)\n"
      "   6   b=1000.0, g=(0.707, 0.707, 0.000)\n"
      "   7   b=1000.0, g=(-0.707, 0.707, 0.000)\n";
  EXPECT_EQ(dump, head + body + kRule);
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 7 + 9);
}

TEST(DtiRecord, SerializedFormRoundTripsAndItsLayoutIsFixed) {
  Data d(8, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  d.dti->reserved = 2.5f;
  static_cast<int16_t*>(d.volume->data[3])[1] = -77;
  const size_t v = PCD_GetSerializedSizeOfRawVolumeData(d.volume);
  const size_t size = PCDdti_GetSerializedSizeOfDiffusionTensorImageData(d.dti);
  ASSERT_EQ(size, v + 16 * 7 + 16);
  std::vector<uint8_t> b(size);
  ASSERT_EQ(PCDdti_SerializeDiffusionTensorImageData(d.dti, b.data()), 0);
  EXPECT_EQ(PCD_GetInt32LE(&b[v]), 7);
  EXPECT_EQ(PCD_GetInt32LE(&b[v + 4]), 1);
  EXPECT_EQ(PCD_GetFloat32LE(&b[v + 8 + 4]), 1000.0f);
  EXPECT_EQ(PCD_GetFloat32LE(&b[v + 8 + 28 + 12]), 0.707f);  // channel 1, x
  EXPECT_EQ(PCD_GetFloat32LE(&b[v + 8 + 16 * 7]), 2.5f);
  EXPECT_EQ(PCD_GetInt32LE(&b[v + 12 + 16 * 7]), 1);

  // the whole tail, byte for byte: counts, b values, then directions, scalar, flag
  std::vector<uint8_t> expected(v);
  ASSERT_EQ(PCD_SerializeRawVolumeData(d.volume, expected.data()), 0);
  PushBits(expected, 7);
  PushBits(expected, 1);
  for (int i = 0; i < 7; ++i) PushFloat(expected, i == 0 ? 0.0f : 1000.0f);
  for (int i = 0; i < 7; ++i)
    for (int c = 0; c < 3; ++c) PushFloat(expected, i == 0 ? 0.0f : gradient_vectors[0][i - 1][c]);
  PushFloat(expected, 2.5f);
  PushBits(expected, 1);
  EXPECT_EQ(b, expected);

  for (bool checked : {false, true}) {
    PcdDtiData back{};
    back.bValues[100] = 42.0f;
    testing::internal::CaptureStderr();
    const int result = checked ? PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(
                                     &back, b.data(), b.size())
                               : PCDdti_GetDiffusionTensorImageDataFromSerializedData(&back, b.data());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "volume: 2x1x1x8\n");
    ASSERT_EQ(result, 0);
    EXPECT_EQ(back.channelCount, 7);
    EXPECT_EQ(back.isReady, 1);
    EXPECT_EQ(back.reserved, 2.5f);
    EXPECT_EQ(back.bValues[100], 42.0f);  // entries beyond N are left alone
    EXPECT_EQ(std::memcmp(back.mpgVectors, d.dti->mpgVectors, 7 * sizeof(PcdVector3D)), 0);
    EXPECT_EQ(static_cast<int16_t*>(back.volume->data[3])[1], -77);
    PCD_DeleteRawVolumeData(back.volume);
  }
}

TEST(DtiRecord, CheckedReaderRefusesTruncatedAndLyingBuffers) {
  Data d(8, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  std::vector<uint8_t> b(PCDdti_GetSerializedSizeOfDiffusionTensorImageData(d.dti));
  PCDdti_SerializeDiffusionTensorImageData(d.dti, b.data());
  const size_t v = PCD_GetSerializedSizeOfRawVolumeData(d.volume);
  testing::internal::CaptureStderr();
  for (size_t cut : {size_t{0}, size_t{10}, v, v + 7, b.size() - 1}) {
    PcdDtiData back{};
    back.channelCount = 99;
    EXPECT_EQ(PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(&back, b.data(), cut), -1);
    EXPECT_EQ(back.volume, nullptr);
    EXPECT_EQ(back.channelCount, 99);  // nothing else changed
  }
  std::vector<uint8_t> lying = b;
  PCD_PutInt32LE(&lying[v], 300);
  PcdDtiData back{};
  EXPECT_EQ(PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(&back, lying.data(), lying.size()), -1);
  lying = b;
  PCD_PutInt32LE(&lying[v + 4], 8);  // more So channels than channels
  EXPECT_EQ(PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(&back, lying.data(), lying.size()), -1);
  lying = b;
  PCD_PutInt32LE(&lying[v + 4], 3);  // ready, but only 4 DWIs: kept, not ready
  ASSERT_EQ(PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(&back, lying.data(), lying.size()), 0);
  EXPECT_EQ(back.isReady, 0);
  PCD_DeleteRawVolumeData(back.volume);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(quorix_test::HasLine(said, "Warning: volume=NULL? (PCDdti_GetDiffusionTensorImageDataFromSerializedData)\n"));
}

}  // namespace
