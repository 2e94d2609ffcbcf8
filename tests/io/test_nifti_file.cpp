// NIfTI gradient directions follow FSL: image axes, x flipped for a positive determinant.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <zlib.h>

#include "io/nifti_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::ReadFileText;
using quorix_test::TempDir;
using quorix_test::WriteFileText;

// Writes a 7-volume DWI image with the given geometry, then hand-written gradient files.
PcdDtiData* ReadWithHandBvec(const TempDir& dir, const PcdWorldGeometry& geometry,
                             std::string* writtenBvec) {
  const PcdIntSize4D size{2, 2, 2, 7};
  std::vector<int32_t> types(7, SINT16), formats(7, PCD_MONOCHROME);
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  testing::internal::CaptureStderr();
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(v, 7);
  const float b[7] = {0, 1000, 1000, 1000, 1000, 1000, 1000};
  const PcdVector3D g[7] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1},
                            {0.6f, 0.8f, 0}, {0, 0.6f, 0.8f}, {0.8f, 0, 0.6f}};
  PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, 7, 1, b, g);
  const std::string path = dir.file("dwi.nii");
  EXPECT_EQ(WriteNiftiDwiFile(dti, &geometry, path.c_str()), 0);
  std::free(dti);
  PCD_DeleteRawVolumeData(v);
  *writtenBvec = ReadFileText(dir.file("dwi.bvec"));

  WriteFileText(dir.file("dwi.bval"), "0 1000 1000 1000 1000 1000 1000\n");
  WriteFileText(dir.file("dwi.bvec"),
                "0 1 0 0 0.6 0 0.8\n0 0 1 0 0.8 0.6 0\n0 0 0 1 0 0.8 0.6\n");
  PcdWorldGeometry read{};
  std::string info;
  PcdDtiData* back = ReadNiftiDwiFile(path.c_str(), nullptr, nullptr, &read, &info);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(PCD_BvecFlipsX(&read), PCD_BvecFlipsX(&geometry));
  return back;
}

TEST(NiftiDirections, XFlipsOnlyForAPositiveDeterminant) {
  for (const float xStep : {2.0f, -2.0f}) {
    SCOPED_TRACE(xStep);
    TempDir dir;
    PcdWorldGeometry geometry{};
    PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
    geometry.voxelToWorld[0][0] = xStep;
    const bool flips = xStep > 0;
    EXPECT_EQ(PCD_WorldGeometryDeterminant(&geometry) > 0, flips);
    EXPECT_EQ(PCD_BvecFlipsX(&geometry), flips);
    std::string written;
    PcdDtiData* back = ReadWithHandBvec(dir, geometry, &written);
    ASSERT_NE(back, nullptr);
    const float sign = flips ? -1.0f : 1.0f;
    EXPECT_FLOAT_EQ(back->mpgVectors[1].x, sign);
    EXPECT_FLOAT_EQ(back->mpgVectors[2].y, 1.0f);
    EXPECT_FLOAT_EQ(back->mpgVectors[4].x, 0.6f * sign);
    EXPECT_FLOAT_EQ(back->mpgVectors[4].y, 0.8f);
    EXPECT_FLOAT_EQ(back->mpgVectors[6].z, 0.6f);
    EXPECT_FLOAT_EQ(back->bValues[3], 1000.0f);
    // the writer applies the same rule: direction (1, 0, 0) leaves as x = -1 when flipped
    const std::string xRow = written.substr(0, written.find('\n'));
    EXPECT_EQ(xRow.find('-') != std::string::npos, flips) << xRow;
    PCD_DeleteRawVolumeData(back->volume);
    std::free(back);
  }
}

}  // namespace

namespace {

// Header fields patched to lie about the image: each is refused with an "Err: " line and
// leaves the caller's geometry and information as they were.
TEST(NiftiHeader, LyingSizesAreRefusedAndLeaveTheCallersStateAlone) {
  TempDir dir;
  PcdWorldGeometry geometry{};
  PCD_SetDefaultWorldGeometry(&geometry, 1.5f);
  std::string written;
  PcdDtiData* good = ReadWithHandBvec(dir, geometry, &written);
  ASSERT_NE(good, nullptr);
  PCD_DeleteRawVolumeData(good->volume);
  std::free(good);
  const std::vector<uint8_t> original = quorix_test::ReadFileBytes(dir.file("dwi.nii"));
  ASSERT_GE(original.size(), 352u);

  auto put16 = [](std::vector<uint8_t>& b, size_t at, int16_t v) {
    b[at] = static_cast<uint8_t>(v & 0xFF);
    b[at + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
  };
  struct Lie {
    const char* name;
    size_t offset;  // of an int16 dim[] field
    int16_t value;
  };
  const Lie lies[] = {{"negative x", 42, -3},      {"30000 volumes", 48, 30000},
                      {"huge x", 42, 32767},       {"2000 volumes", 48, 2000},
                      {"dim0 of 9", 40, 9},  {"bad data type", 70, 1536}};
  for (const Lie& lie : lies) {
    SCOPED_TRACE(lie.name);
    std::vector<uint8_t> bytes = original;
    put16(bytes, lie.offset, lie.value);
    quorix_test::WriteFileBytes(dir.file("lie.nii"), bytes);
    WriteFileText(dir.file("lie.bval"), "0 1000 1000 1000 1000 1000 1000\n");
    WriteFileText(dir.file("lie.bvec"), "0 1 0 0 0 0 0\n0 0 1 0 0 0 0\n0 0 0 1 1 1 1\n");
    PcdWorldGeometry kept{};
    PCD_SetDefaultWorldGeometry(&kept, 3.0f);
    const PcdWorldGeometry before = kept;
    std::string info = "previous";
    testing::internal::CaptureStderr();
    PcdDtiData* dti = ReadNiftiDwiFile(dir.file("lie.nii").c_str(), nullptr, nullptr, &kept, &info);
    EXPECT_EQ(dti, nullptr);
    if (dti != nullptr) {
      PCD_DeleteRawVolumeData(dti->volume);
      std::free(dti);
    }
    PcdRawVolumeData* v = ReadNiftiVolumeFile(dir.file("lie.nii").c_str(), &kept, &info);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v, nullptr);
    if (v != nullptr) PCD_DeleteRawVolumeData(v);
    EXPECT_TRUE(quorix_test::HasLine(said, "Err: ")) << said;
    EXPECT_EQ(std::memcmp(&kept, &before, sizeof kept), 0);
    EXPECT_EQ(info, "previous");
  }
}

// A gzip-compressed image cannot hold more than about 1100 bytes per stored byte: one
// that announces 800 MB in a few hundred bytes is refused before anything is allocated.
TEST(NiftiHeader, CompressedImageAnnouncingFarMoreThanItHoldsIsRefused) {
  TempDir dir;
  std::vector<uint8_t> header(352, 0);
  auto put16 = [&](size_t at, int16_t v) { std::memcpy(&header[at], &v, 2); };
  auto put32 = [&](size_t at, int32_t v) { std::memcpy(&header[at], &v, 4); };
  auto putF = [&](size_t at, float v) { std::memcpy(&header[at], &v, 4); };
  put32(0, 348);                                  // sizeof_hdr
  const int16_t dims[8] = {3, 20000, 20000, 1, 1, 1, 1, 1};
  for (int i = 0; i < 8; ++i) put16(40 + 2 * static_cast<size_t>(i), dims[i]);
  put16(70, 4);                                   // datatype INT16
  put16(72, 16);                                  // bitpix
  for (int i = 0; i < 4; ++i) putF(76 + 4 * static_cast<size_t>(i), 1.0f);  // pixdim
  putF(108, 352.0f);                              // vox_offset
  std::memcpy(&header[344], "n+1", 4);            // magic
  header.insert(header.end(), 64, 0);             // a few voxels
  const std::string path = dir.file("big.nii.gz");
  gzFile gz = gzopen(path.c_str(), "wb");
  ASSERT_NE(gz, nullptr);
  ASSERT_EQ(gzwrite(gz, header.data(), static_cast<unsigned>(header.size())), static_cast<int>(header.size()));
  gzclose(gz);
  testing::internal::CaptureStderr();
  PcdRawVolumeData* v = ReadNiftiVolumeFile(path.c_str(), nullptr, nullptr);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(v, nullptr);
  if (v != nullptr) PCD_DeleteRawVolumeData(v);
  EXPECT_NE(said.find("is truncated: 800000000 voxel bytes announced"), std::string::npos) << said;
}

// Voxel sizes go to pixdim[1..3] in x, y, z order and come back as the geometry's sizes.
TEST(NiftiHeader, VoxelSizesTravelPerAxis) {
  TempDir dir;
  const PcdIntSize4D size{2, 2, 2, 1};
  const int32_t type = SINT16, format = PCD_MONOCHROME, channel = 0;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, &type, &format);
  PcdWorldGeometry g{};
  PCD_SetDefaultWorldGeometry(&g, 1.0f);
  const float sizes[3] = {2.0f, 2.5f, 3.0f};
  for (int i = 0; i < 3; ++i) g.voxelSize[i] = sizes[i], g.voxelToWorld[i][i] = sizes[i];
  ASSERT_EQ(WriteNiftiChannels(v, &channel, 1, &g, dir.file("v.nii").c_str()), 0);
  PCD_DeleteRawVolumeData(v);
  const std::vector<uint8_t> bytes = quorix_test::ReadFileBytes(dir.file("v.nii"));
  ASSERT_GE(bytes.size(), 348u);
  for (int i = 0; i < 3; ++i) {
    float pixdim = 0.0f;
    std::memcpy(&pixdim, &bytes[80 + 4 * static_cast<size_t>(i)], 4);  // pixdim[1 + i]
    EXPECT_EQ(pixdim, sizes[i]) << i;
  }
  PcdWorldGeometry back{};
  v = ReadNiftiVolumeFile(dir.file("v.nii").c_str(), &back, nullptr);
  ASSERT_NE(v, nullptr);
  PCD_DeleteRawVolumeData(v);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(back.voxelSize[i], sizes[i]) << i;
    EXPECT_EQ(back.voxelToWorld[i][i], sizes[i]) << i;
  }
}

}  // namespace
