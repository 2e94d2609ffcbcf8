// NIfTI input: how stored values become signed 16-bit samples, how b = 0 volumes are
// moved in front, and which gradient files are taken. Expected values worked by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "io/nifti_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::TempDir;
using quorix_test::WriteFileText;

// Writes one channel of four samples (4 x 1 x 1) of the given type, reads it back.
template <typename T>
std::vector<int16_t> ReadBack(int32_t type, const std::vector<T>& values, std::string* said) {
  TempDir dir;
  const PcdIntSize4D size{static_cast<int32_t>(values.size()), 1, 1, 1};
  const int32_t format = PCD_MONOCHROME;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, &type, &format);
  for (size_t i = 0; i < values.size(); ++i) static_cast<T*>(v->data[0])[i] = values[i];
  const int32_t channel = 0;
  const std::string path = dir.file("v.nii");
  EXPECT_EQ(WriteNiftiChannels(v, &channel, 1, nullptr, path.c_str()), 0);
  PCD_DeleteRawVolumeData(v);
  testing::internal::CaptureStderr();
  PcdRawVolumeData* back = ReadNiftiVolumeFile(path.c_str(), nullptr, nullptr);
  *said = testing::internal::GetCapturedStderr();
  std::vector<int16_t> out;
  if (back == nullptr) return out;
  EXPECT_EQ(back->dataType[0], SINT16);
  const auto* s = static_cast<const int16_t*>(back->data[0]);
  out.assign(s, s + values.size());
  PCD_DeleteRawVolumeData(back);
  return out;
}

// One channel is written as a 3D image: dim[0] = 3, and nifticlib leaves dim[4] at 0.
// Sizes past dim[0] do not count, so it reads back as one volume.
TEST(NiftiValues, ThreeDimensionalImageIsOneVolume) {
  TempDir dir;
  const PcdIntSize4D size{2, 1, 1, 1};
  const int32_t type = SINT16, format = PCD_MONOCHROME, channel = 0;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, &type, &format);
  static_cast<int16_t*>(v->data[0])[1] = -5;
  ASSERT_EQ(WriteNiftiChannels(v, &channel, 1, nullptr, dir.file("v.nii").c_str()), 0);
  PCD_DeleteRawVolumeData(v);
  const std::vector<uint8_t> bytes = quorix_test::ReadFileBytes(dir.file("v.nii"));
  ASSERT_GT(bytes.size(), 50u);
  EXPECT_EQ(bytes[40], 3);                    // dim[0]
  EXPECT_EQ(bytes[48] | bytes[49] << 8, 0);   // dim[4]
  PcdRawVolumeData* back = ReadNiftiVolumeFile(dir.file("v.nii").c_str(), nullptr, nullptr);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->matrixSize->channels, 1);
  EXPECT_EQ(static_cast<int16_t*>(back->data[0])[1], -5);
  PCD_DeleteRawVolumeData(back);
}

// The largest value maps to 32767, every other one in proportion, rounded to nearest with
// ties to even; also when the largest is so small that 32767 / largest overflows.
TEST(NiftiValues, RescalingKeepsProportionsDownToSubnormals) {
  std::string said;
  const double d = std::numeric_limits<double>::denorm_min();
  // d / 2d = 0.5: 16383.5, to even 16384
  EXPECT_EQ(ReadBack<double>(FLOAT64, {0.0, d, -d, 2 * d}, &said),
            (std::vector<int16_t>{0, 16384, -16384, 32767}));
  EXPECT_TRUE(quorix_test::HasLine(said, "Warning: "));
  EXPECT_EQ(said.find("Err: "), std::string::npos);
  EXPECT_EQ(ReadBack<double>(FLOAT64, {0.0, 0.0, 0.0, d}, &said),
            (std::vector<int16_t>{0, 0, 0, 32767}));
  // normal, yet 32767 / 1e-305 is beyond the largest double
  const double x = 1e-305;
  EXPECT_EQ(ReadBack<double>(FLOAT64, {x, x / 4, 0.0, -x}, &said),
            (std::vector<int16_t>{32767, 8192, 0, -32767}));
  // ordinary fractions: 0.5 * 32767 = 16383.5 -> 16384, 0.25 * 32767 = 8191.75 -> 8192
  EXPECT_EQ(ReadBack<float>(FLOAT32, {0.5f, -1.0f, 0.25f, 0.0f}, &said),
            (std::vector<int16_t>{16384, -32767, 8192, 0}));
  // float subnormals: 2.8e-45 is an ordinary double, same proportions
  const float fd = std::numeric_limits<float>::denorm_min();
  EXPECT_EQ(ReadBack<float>(FLOAT32, {fd, 2 * fd, 0.0f, -2 * fd}, &said),
            (std::vector<int16_t>{16384, 32767, 0, -32767}));
}

// Whole numbers within -32768..32767 are kept; one value outside rescales all of them;
// NaN and infinities become 0 (nifticlib already zeroes them while loading) and do not
// count as the largest value.
TEST(NiftiValues, WholeNumbersKeptOthersRescaledNonFiniteZero) {
  std::string said;
  EXPECT_EQ(ReadBack<float>(FLOAT32, {3.0f, -7.0f, 32767.0f, -32768.0f}, &said),
            (std::vector<int16_t>{3, -7, 32767, -32768}));
  EXPECT_EQ(said, "");
  // -32769 does not fit: factor 32767 / 32769; 1 -> 0.99994 -> 1, 2 -> 1.99988 -> 2
  EXPECT_EQ(ReadBack<float>(FLOAT32, {-32769.0f, 0.0f, 1.0f, 2.0f}, &said),
            (std::vector<int16_t>{-32767, 0, 1, 2}));
  // 32768 does not fit: factor 32767 / 32768; 16384 -> 16383.5 -> 16384
  EXPECT_EQ(ReadBack<float>(FLOAT32, {32768.0f, 16384.0f, 0.0f, -32768.0f}, &said),
            (std::vector<int16_t>{32767, 16384, 0, -32767}));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(ReadBack<float>(FLOAT32, {nan, inf, 1.0f, -4.0f}, &said),
            (std::vector<int16_t>{0, 0, 1, -4}));
  EXPECT_EQ(ReadBack<float>(FLOAT32, {nan, -inf, 0.5f, -1.0f}, &said),
            (std::vector<int16_t>{0, 0, 16384, -32767}));
  EXPECT_EQ(ReadBack<float>(FLOAT32, {nan, nan, nan, nan}, &said),
            (std::vector<int16_t>{0, 0, 0, 0}));
  // 65535 does not fit: 1 * 32767 / 65535 = 0.49999 -> 0, 2 * 32767 / 65535 = 0.99998 -> 1
  EXPECT_EQ(ReadBack<uint16_t>(UINT16, {65535, 0, 1, 2}, &said),
            (std::vector<int16_t>{32767, 0, 0, 1}));
}

// A DWI image of 8 volumes, volume t holding 10 t + 1 in both of its voxels, with the
// directions given per volume. The x axis runs towards -x in the world (negative
// determinant), so no component is flipped.
struct DwiFiles {
  TempDir dir;
  std::string image = dir.file("dwi.nii");
  DwiFiles() {
    const PcdIntSize4D size{2, 1, 1, 8};
    std::vector<int32_t> types(8, SINT16), formats(8, PCD_MONOCHROME), channels(8);
    PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types.data(), formats.data());
    for (int t = 0; t < 8; ++t) {
      channels[static_cast<size_t>(t)] = t;
      for (int i = 0; i < 2; ++i) static_cast<int16_t*>(v->data[t])[i] = static_cast<int16_t>(10 * t + 1);
    }
    PcdWorldGeometry g{};
    PCD_SetDefaultWorldGeometry(&g, 2.0f);
    g.voxelToWorld[0][0] = -2.0;
    EXPECT_EQ(WriteNiftiChannels(v, channels.data(), 8, &g, image.c_str()), 0);
    PCD_DeleteRawVolumeData(v);
  }
  // Reads with these gradient files; null when refused. said receives stderr.
  PcdDtiData* Read(const std::string& bval, const std::string& bvec, std::string* said) {
    WriteFileText(dir.file("dwi.bval"), bval);
    WriteFileText(dir.file("dwi.bvec"), bvec);
    testing::internal::CaptureStderr();
    PcdDtiData* dti = ReadNiftiDwiFile(image.c_str(), nullptr, nullptr, nullptr, nullptr);
    *said = testing::internal::GetCapturedStderr();
    return dti;
  }
};

void Free(PcdDtiData* dti) {
  if (dti == nullptr) return;
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

// Volumes 1 (b = 0) and 3 (b = 50, at the threshold) are So volumes and move to channels
// 0 and 1; the others follow in file order, b = 51 counting as diffusion-weighted.
const char kBvals[] = "1000 0 1000 50 1000 1000 51 1000\n";
const char kBvecs[] =
    "1 1 0 1 0 0.6 0 0.8\n"
    "0 1 1 1 0 0.8 0.6 0\n"
    "0 1 0 1 1 0 0.8 0.6\n";

TEST(NiftiGradients, SoVolumesMoveInFrontKeepingTheirOrder) {
  DwiFiles files;
  std::string said;
  PcdDtiData* dti = files.Read(kBvals, kBvecs, &said);
  ASSERT_NE(dti, nullptr) << said;
  EXPECT_EQ(dti->isReady, 1);
  EXPECT_EQ(dti->channelCount, 8);
  EXPECT_EQ(dti->soCount, 2);
  const int16_t value[8] = {11, 31, 1, 21, 41, 51, 61, 71};  // 10 t + 1 of volumes 1 3 0 2 4 5 6 7
  const float b[8] = {0, 0, 1000, 1000, 1000, 1000, 51, 1000};
  const PcdVector3D g[8] = {{0, 0, 0}, {0, 0, 0},       {1, 0, 0},       {0, 1, 0},
                            {0, 0, 1}, {0.6f, 0.8f, 0}, {0, 0.6f, 0.8f}, {0.8f, 0, 0.6f}};
  for (int c = 0; c < 8; ++c) {
    SCOPED_TRACE(c);
    EXPECT_EQ(static_cast<int16_t*>(dti->volume->data[c])[0], value[c]);
    EXPECT_EQ(static_cast<int16_t*>(dti->volume->data[c])[1], value[c]);
    EXPECT_EQ(dti->bValues[c], b[c]);
    EXPECT_FLOAT_EQ(dti->mpgVectors[c].x, g[c].x);
    EXPECT_FLOAT_EQ(dti->mpgVectors[c].y, g[c].y);
    EXPECT_FLOAT_EQ(dti->mpgVectors[c].z, g[c].z);
  }
  EXPECT_NE(said.find("Warning: the 2 b=0 volumes of " + files.image + " were moved in front of the DWIs\n"),
            std::string::npos) << said;
  Free(dti);

  // already in front: nothing moves and nothing is said about it
  dti = files.Read("0 5 1000 1000 1000 1000 1000 1000\n", kBvecs, &said);
  ASSERT_NE(dti, nullptr) << said;
  EXPECT_EQ(dti->soCount, 2);
  for (int c = 0; c < 8; ++c) EXPECT_EQ(static_cast<int16_t*>(dti->volume->data[c])[0], 10 * c + 1);
  EXPECT_EQ(said.find("moved"), std::string::npos) << said;
  Free(dti);
}

// FSL writes three rows of one number per volume; one direction per row (volumes rows of
// three) is read as well. Any other shape is refused with an "Err: " line.
TEST(NiftiGradients, DirectionFileMustBeThreeRowsOrOneRowPerVolume) {
  DwiFiles files;
  std::string said;
  std::string perVolume;  // the transposed table
  const char* rows[8] = {"1 0 0", "1 1 1", "0 1 0", "1 1 1", "0 0 1", "0.6 0.8 0", "0 0.6 0.8", "0.8 0 0.6"};
  for (const char* r : rows) perVolume += std::string(r) + "\n";
  for (const std::string& good :
       {std::string(kBvecs), perVolume, "\n" + std::string(kBvecs) + "\n\n",
        std::string("1,1,0,1,0,0.6,0,0.8\n0,1,1,1,0,0.8,0.6,0\n0,1,0,1,1,0,0.8,0.6\n"),
        std::string("1 1 0 1 0 0.6 0 0.8\r\n0 1 1 1 0 0.8 0.6 0\r\n0 1 0 1 1 0 0.8 0.6\r\n")}) {  // Windows
    SCOPED_TRACE(good);
    PcdDtiData* dti = files.Read(kBvals, good, &said);
    ASSERT_NE(dti, nullptr) << said;
    EXPECT_FLOAT_EQ(dti->mpgVectors[5].y, 0.8f);  // volume 5
    EXPECT_FLOAT_EQ(dti->mpgVectors[7].z, 0.6f);  // volume 7
    Free(dti);
  }
  for (const std::string& bad :
       {std::string("1 1 0 1 0 0.6 0 0.8\n0 1 1 1 0 0.8 0.6 0\n"),              // two rows
        std::string(kBvecs) + "0 0 0 0 0 0 0 0\n",                             // four rows
        std::string("1 1 0 1 0 0.6 0 0.8\n0 1 1 1 0 0.8 0.6\n0 1 0 1 1 0 0.8 0.6\n"),  // a short row
        std::string("1 1 0 1 0 0.6 0 0.8 1\n0 1 1 1 0 0.8 0.6 0 1\n0 1 0 1 1 0 0.8 0.6 1\n"),  // 9 columns
        perVolume.substr(0, perVolume.rfind("0.8 0 0.6")),                     // 7 volumes
        perVolume + "1 0 0\n",                                                 // 9 volumes
        std::string("1 1 0 1 0 0.6 0 0.8\n0 1 1 1 0 0.8 0.6 0\n0 1 0 1 1 0 0.8 x\n")}) {  // not a number
    SCOPED_TRACE(bad);
    PcdDtiData* dti = files.Read(kBvals, bad, &said);
    EXPECT_EQ(dti, nullptr);
    Free(dti);
    EXPECT_EQ(said.rfind("Err: ", 0), 0u) << said;
  }
  // b values: one per volume, on any number of lines
  PcdDtiData* dti = files.Read("1000 0 1000 50\n1000 1000 51 1000\n", kBvecs, &said);
  EXPECT_NE(dti, nullptr) << said;
  Free(dti);
  dti = files.Read("1000 0 1000 50\r\n1000 1000 51 1000\r\n", kBvecs, &said);
  ASSERT_NE(dti, nullptr) << said;
  EXPECT_EQ(dti->bValues[7], 1000.0f);
  Free(dti);
  for (const char* bad : {"1000 0 1000 50 1000 1000 51\n", "1000 0 1000 50 1000 1000 51 1000 0\n"}) {
    dti = files.Read(bad, kBvecs, &said);
    EXPECT_EQ(dti, nullptr) << bad;
    Free(dti);
    EXPECT_EQ(said.rfind("Err: ", 0), 0u) << said;
  }
}

}  // namespace
