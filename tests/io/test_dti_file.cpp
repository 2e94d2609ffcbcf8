// DTI files, MPG description files, the MPG rotation and NIfTI input and output.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "io/dti_file.h"
#include "io/nifti_file.h"
#include "io/notice.h"
#include "support/test_support.h"
#include "vol/serialize.h"

namespace {

using quorix_test::ReadFileBytes;
using quorix_test::TempDir;
using quorix_test::WriteFileBytes;
using quorix_test::WriteFileText;

struct DataSet {
  PcdRawVolumeData* volume;
  PcdDtiData* dti;
  explicit DataSet(int32_t channels, int32_t dtiChannels = -1) {
    const PcdIntSize4D size{3, 2, 2, channels};
    std::vector<int32_t> t(static_cast<size_t>(channels), SINT16), f(static_cast<size_t>(channels), 0);
    volume = PCD_NewRawVolumeData(&size, t.data(), f.data());
    for (int32_t c = 0; c < channels; ++c)
      for (int i = 0; i < 12; ++i) static_cast<int16_t*>(volume->data[c])[i] = static_cast<int16_t>(100 * c + i);
    testing::internal::CaptureStderr();
    dti = PCDdti_NewDiffusionTensorImageData(volume, dtiChannels < 0 ? channels : dtiChannels);
    testing::internal::GetCapturedStderr();
  }
  ~DataSet() {
    std::free(dti);
    PCD_DeleteRawVolumeData(volume);
  }
};

using quorix_test::NoticeRecorder;

TEST(DtiFile, MagicThenTheSerializedRecordAndBack) {
  TempDir dir;
  DataSet d(8, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  d.dti->reserved = 1.75f;
  ASSERT_EQ(WriteDtiFile(d.dti, dir.file("a.dti").c_str()), 0);
  const std::vector<uint8_t> file = ReadFileBytes(dir.file("a.dti"));
  const size_t size = PCDdti_GetSerializedSizeOfDiffusionTensorImageData(d.dti);
  ASSERT_EQ(file.size(), 45 + size);
  EXPECT_EQ(std::string(file.begin(), file.begin() + 45),
            "# DTI data including PELLUCID raw volume data");
  std::vector<uint8_t> body(size);
  PCDdti_SerializeDiffusionTensorImageData(d.dti, body.data());
  EXPECT_TRUE(std::equal(body.begin(), body.end(), file.begin() + 45));

  std::string info;
  testing::internal::CaptureStderr();
  PcdDtiData* back = ReadDtiFile(dir.file("a.dti").c_str(), &info);
  const std::string said = testing::internal::GetCapturedStderr();
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(quorix_test::HasLine(said, "Notice: just creating DTI data with NULL volume\n"));
  EXPECT_EQ(info, "Data Source: DTI file\nFile name: " + dir.file("a.dti") + "\n");
  EXPECT_EQ(back->isReady, 1);
  EXPECT_EQ(back->reserved, 1.75f);
  EXPECT_EQ(back->volume->matrixSize->channels, 8);
  EXPECT_EQ(std::memcmp(back->volume->data[7], d.volume->data[7], 24), 0);
  PCD_DeleteRawVolumeData(back->volume);
  std::free(back);
}

TEST(DtiFile, WrongMagicTruncatedAndLyingFilesAreRefused) {
  TempDir dir;
  DataSet d(8, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  ASSERT_EQ(WriteDtiFile(d.dti, dir.file("good.dti").c_str()), 0);
  const std::vector<uint8_t> good = ReadFileBytes(dir.file("good.dti"));
  std::string info;
  {
    NoticeRecorder notices;
    std::vector<uint8_t> bad = good;
    bad[44] = 'A';  // last character of the magic
    WriteFileBytes(dir.file("bad.dti"), bad);
    EXPECT_EQ(ReadDtiFile(dir.file("bad.dti").c_str(), &info), nullptr);
    ASSERT_EQ(notices.notices.size(), 1u);
    EXPECT_EQ(notices.notices[0].text, "This is NOT a DTI file.");
    EXPECT_EQ(notices.notices[0].width, 240);
  }
  testing::internal::CaptureStderr();
  for (size_t cut : {size_t{45}, size_t{60}, good.size() - 20, good.size() - 1}) {
    WriteFileBytes(dir.file("cut.dti"), std::vector<uint8_t>(good.begin(), good.begin() + static_cast<long>(cut)));
    EXPECT_EQ(ReadDtiFile(dir.file("cut.dti").c_str(), &info), nullptr) << cut;
  }
  std::vector<uint8_t> lying = good;
  PCD_PutInt32LE(&lying[45], 100000);  // x far beyond the body
  WriteFileBytes(dir.file("lying.dti"), lying);
  EXPECT_EQ(ReadDtiFile(dir.file("lying.dti").c_str(), &info), nullptr);
  EXPECT_EQ(ReadDtiFile(dir.file("missing.dti").c_str(), &info), nullptr);
  testing::internal::GetCapturedStderr();
}

TEST(MpgFile, WrittenFileReadsBackWithoutRotation) {
  TempDir dir;
  DataSet d(9, 8);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(d.dti, 8, 2);
  ASSERT_EQ(WriteMpgDescriptionFile(dir.file("a.mpg").c_str(), d.dti), 0);
  const std::string text = quorix_test::ReadFileText(dir.file("a.mpg"));
  EXPECT_EQ(text.rfind("#Quorix-II MPG description file (not used in earlier Quorix)\n"
                       "1.0 0.0 0.0\n0.0 1.0 0.0\n8\n2\n0.000000 0.000000 0.000000 0.000000\n", 0),
            0u);
  EXPECT_TRUE(quorix_test::HasLine(text, "1000.000000 0.707000 0.000000 0.707000\n"));

  DataSet e(9, 8);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("a.mpg").c_str(), e.dti), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(e.dti->isReady, 1);
  EXPECT_EQ(e.dti->soCount, 2);
  EXPECT_EQ(std::memcmp(e.dti->mpgVectors, d.dti->mpgVectors, 8 * sizeof(PcdVector3D)), 0);
  EXPECT_EQ(std::memcmp(e.dti->bValues, d.dti->bValues, 8 * sizeof(float)), 0);
}

TEST(MpgFile, CountsAreCheckedAndRotatedAxesApplied) {
  TempDir dir;
  const std::string magic = "#Quorix-II MPG description file (not used in earlier Quorix)\n";
  std::string lines;
  for (int i = 0; i < 12; ++i) lines += i < 7 ? "0 0 0 0\n" : "1000 1 0 0\n";
  DataSet d(12);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 12);
  WriteFileText(dir.file("m7.mpg"), magic + "1 0 0\n0 1 0\n12\n7\n" + lines);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("m7.mpg").c_str(), d.dti), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: Invalid MPG axes.  Setting unchanged.\n");
  EXPECT_EQ(d.dti->isReady, 1);  // unchanged
  EXPECT_EQ(d.dti->soCount, 1);

  // axes u = y, v = z: a direction along x becomes (0, 0, 1) in the new axes
  WriteFileText(dir.file("m6.mpg"), magic + "0 1 0\n0 0 1\n12\n6\n" + lines);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("m6.mpg").c_str(), d.dti), 1);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said.rfind("MPG vectors rotated by:\n", 0), 0u);
  EXPECT_EQ(d.dti->soCount, 6);
  EXPECT_EQ(d.dti->mpgVectors[8].x, 0.0f);
  EXPECT_EQ(d.dti->mpgVectors[8].z, 1.0f);

  // the earlier layout: n directions and one b value; channel 0 is the So
  DataSet e(7);
  WriteFileText(dir.file("old.mpg"), "6\n800\n1 0 0\n0 1 0\n0 0 1\n1 1 0\n0 1 1\n1 0 1\n");
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("old.mpg").c_str(), e.dti), 1);
  EXPECT_EQ(e.dti->channelCount, 7);
  EXPECT_EQ(e.dti->bValues[0], 0.0f);
  EXPECT_EQ(e.dti->bValues[6], 800.0f);
  EXPECT_EQ(e.dti->mpgVectors[6].z, 1.0f);
  WriteFileText(dir.file("old5.mpg"), "5\n800\n1 0 0\n0 1 0\n0 0 1\n1 1 0\n0 1 1\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("old5.mpg").c_str(), e.dti), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(e.dti->channelCount, 7);
  WriteFileText(dir.file("garbage.mpg"), std::string("\x01\x02\xff garbage", 11));
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("garbage.mpg").c_str(), e.dti), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(e.dti->isReady, 1);
}

// Counts beyond the volume or the record, negative counts and a lying earlier-layout
// count are refused with the setting untouched; no read goes past the lines present.
TEST(MpgFile, LyingCountsLeaveTheSettingUntouched) {
  TempDir dir;
  const std::string magic = "#Quorix-II MPG description file (not used in earlier Quorix)\n";
  DataSet d(8, 8);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(d.dti, 8, 2);
  std::vector<float> b(d.dti->bValues, d.dti->bValues + 8);
  std::vector<PcdVector3D> g(d.dti->mpgVectors, d.dti->mpgVectors + 8);
  for (const std::string& text :
       {magic + "1 0 0\n0 1 0\n100000\n1\n0 0 0 0\n", magic + "1 0 0\n0 1 0\n8\n-3\n",
        magic + "1 0 0\n0 1 0\n2147483647\n-2147483648\n", magic + "1 0 0\n",
        std::string("2000000000\n800\n1 0 0\n"), std::string("-7\n")}) {
    SCOPED_TRACE(text);
    WriteFileText(dir.file("lie.mpg"), text);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ReadMpgDescriptionFile(dir.file("lie.mpg").c_str(), d.dti), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: Invalid MPG axes.  Setting unchanged.\n");
    EXPECT_EQ(d.dti->isReady, 1);
    EXPECT_EQ(d.dti->soCount, 2);
    EXPECT_EQ(std::memcmp(d.dti->bValues, b.data(), 8 * sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(d.dti->mpgVectors, g.data(), 8 * sizeof(PcdVector3D)), 0);
  }
}

TEST(Nifti, DwiRoundTripKeepsVoxelsBValuesAndDirections) {
  TempDir dir;
  DataSet d(9, 9);
  std::vector<float> b(9, 1000.0f);
  std::vector<PcdVector3D> g(9);
  b[0] = b[1] = 0.0f;
  for (int i = 2; i < 9; ++i) {
    PcdVector3D v{static_cast<float>(i), 1.0f, static_cast<float>(-i % 3)};
    PCD_NormalizeVector3D(&v);
    g[static_cast<size_t>(i)] = v;
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageData(d.dti, 9, 2, b.data(), g.data());
  d.dti->reserved = 2.0f;
  PcdWorldGeometry geometry{};
  PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
  const std::string path = dir.file("dwi.nii.gz");
  ASSERT_EQ(WriteNiftiDwiFile(d.dti, &geometry, path.c_str()), 0);
  EXPECT_TRUE(std::filesystem::exists(dir.file("dwi.bval")));
  EXPECT_TRUE(std::filesystem::exists(dir.file("dwi.bvec")));

  PcdWorldGeometry read{};
  std::string info;
  testing::internal::CaptureStderr();
  PcdDtiData* back = ReadNiftiDwiFile(path.c_str(), nullptr, nullptr, &read, &info);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->isReady, 1);
  EXPECT_EQ(back->soCount, 2);
  EXPECT_FLOAT_EQ(read.voxelSize[0], 2.0f);
  for (int c = 0; c < 9; ++c)
    EXPECT_EQ(std::memcmp(back->volume->data[c], d.volume->data[c], 24), 0) << c;
  for (int i = 2; i < 9; ++i) {
    EXPECT_NEAR(back->bValues[i], 1000.0f, 0.01f);
    EXPECT_NEAR(back->mpgVectors[i].x, g[static_cast<size_t>(i)].x, 1e-5f);
    EXPECT_NEAR(back->mpgVectors[i].y, g[static_cast<size_t>(i)].y, 1e-5f);
    EXPECT_NEAR(back->mpgVectors[i].z, g[static_cast<size_t>(i)].z, 1e-5f);
  }
  PCD_DeleteRawVolumeData(back->volume);
  std::free(back);
}

TEST(Nifti, DamagedImagesAndGradientFilesAreRefused) {
  TempDir dir;
  DataSet d(7, 7);
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(d.dti, 7);
  PcdWorldGeometry geometry{};
  PCD_SetDefaultWorldGeometry(&geometry, 1.0f);
  const std::string path = dir.file("dwi.nii");
  ASSERT_EQ(WriteNiftiDwiFile(d.dti, &geometry, path.c_str()), 0);
  const std::vector<uint8_t> good = ReadFileBytes(path);
  std::string info;
  PcdWorldGeometry read{};
  testing::internal::CaptureStderr();
  for (size_t cut : {size_t{10}, size_t{348}, good.size() - 1}) {
    WriteFileBytes(dir.file("cut.nii"), std::vector<uint8_t>(good.begin(), good.begin() + static_cast<long>(cut)));
    quorix_test::WriteFileText(dir.file("cut.bval"), quorix_test::ReadFileText(dir.file("dwi.bval")));
    quorix_test::WriteFileText(dir.file("cut.bvec"), quorix_test::ReadFileText(dir.file("dwi.bvec")));
    EXPECT_EQ(ReadNiftiDwiFile(dir.file("cut.nii").c_str(), nullptr, nullptr, &read, &info), nullptr) << cut;
  }
  quorix_test::WriteFileText(dir.file("dwi.bval"), "0 1000 1000\n");  // too few values
  EXPECT_EQ(ReadNiftiDwiFile(path.c_str(), nullptr, nullptr, &read, &info), nullptr);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(quorix_test::HasLine(said, "Err: "));
}

}  // namespace

// Files written on Windows end their lines with "\r\n": the same setting as with "\n", in
// both layouts, and the magic line is still recognised.
TEST(MpgFile, WindowsLineEndsReadLikeUnixOnes) {
  TempDir dir;
  std::string crlf = "#Quorix-II MPG description file (not used in earlier Quorix)\r\n1.0 0.0 0.0\r\n"
                     "0.0 1.0 0.0\r\n8\r\n2\r\n";
  crlf += "0.0 0.0 0.0 0.0\r\n0.0 0.0 0.0 0.0\r\n";
  for (const char* g : {"1 0 0", "0 1 0", "0 0 1", "0.6 0.8 0", "0 0.6 0.8", "0.8 0 0.6"})
    crlf += std::string("1000.0 ") + g + "\r\n";
  WriteFileText(dir.file("win.mpg"), crlf);
  DataSet d(8);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("win.mpg").c_str(), d.dti), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // no rotation, no refusal
  EXPECT_EQ(d.dti->soCount, 2);
  EXPECT_EQ(d.dti->bValues[7], 1000.0f);
  EXPECT_EQ(d.dti->mpgVectors[5].x, 0.6f);
  EXPECT_EQ(d.dti->mpgVectors[7].z, 0.6f);

  DataSet e(7);
  WriteFileText(dir.file("old.mpg"), "6\r\n800\r\n1 0 0\r\n0 1 0\r\n0 0 1\r\n1 1 0\r\n0 1 1\r\n1 0 1\r\n");
  EXPECT_EQ(ReadMpgDescriptionFile(dir.file("old.mpg").c_str(), e.dti), 1);
  EXPECT_EQ(e.dti->channelCount, 7);
  EXPECT_EQ(e.dti->bValues[6], 800.0f);
  EXPECT_EQ(e.dti->mpgVectors[6].x, 1.0f);
}

