// The DICOM directory import on series written by pydicom (tests/io/dicom_series.py): the
// imported voxels must equal the written ones whatever the encoding, file order, channel
// order and slice direction; every console line; the fallbacks; files that lie.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "dti/dti_data.h"
#include "io/dicom_directory.h"
#include "io/dicom_element.h"
#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "io/dicom_world.h"
#include "support/test_support.h"

namespace {

using quorix_test::TempDir;

// Writes a series with pydicom; false when pydicom is not installed.
bool WriteSeries(const std::string& dir, const std::string& json) {
  const std::string command = std::string("/usr/bin/python3 ") + QUORIX_SOURCE_DIR +
                              "/tests/io/dicom_series.py '" + dir + "' '" + json + "'";
  const int status = quorix_test::RunCommand(command);
  if (status == 77 || status == 77 << 8) return false;
  EXPECT_EQ(status, 0) << command;
  return status == 0;
}

#define WRITE_SERIES_OR_SKIP(dir, json) \
  if (!WriteSeries(dir, json)) GTEST_SKIP() << "python3-pydicom is not installed"

// The value the writer puts at (x, y) of anatomical slice a in channel c.
int Written(int x, int y, int a, int c) { return c * 1000 + a * 100 + y * 10 + x - 500; }

using quorix_test::Voxel;
using quorix_test::VoxelOf;
using quorix_test::WorldDirection;

// Every voxel equals what was written for channel writtenChannel[c].
void ExpectWrittenVoxels(const PcdRawVolumeData* v, const std::vector<int>& writtenChannel) {
  const PcdIntSize4D& s = *v->matrixSize;
  ASSERT_EQ(s.channels, static_cast<int>(writtenChannel.size()));
  for (int c = 0; c < s.channels; ++c)
    for (int z = 0; z < s.z; ++z)
      for (int y = 0; y < s.y; ++y)
        for (int x = 0; x < s.x; ++x)
          ASSERT_EQ(Voxel(v, c, x, y, z), Written(x, y, z, writtenChannel[c])) << c << " " << x << y << z;
  for (int c = 0; c < s.channels; ++c) {
    EXPECT_EQ(v->dataType[c], SINT16);
    EXPECT_EQ(v->colorFormat[c], PCD_MONOCHROME);
  }
}

struct Imported {
  PcdRawVolumeData* volume = nullptr;
  std::string information, console;
  PcdDicomSeries series;
  explicit Imported(const std::string& dir) {
    testing::internal::CaptureStderr();
    volume = ReadDicomDirectory(dir.c_str(), &information, &series);
    console = testing::internal::GetCapturedStderr();
  }
  ~Imported() { PCD_DeleteRawVolumeData(volume); }
};

TEST(DicomDirectory, ExplicitSeriesWithPreambleImportsWithEveryConsoleLine) {
  TempDir dir;
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 3})");
  Imported in(dir.file("s"));  // no trailing separator: one is added
  ASSERT_NE(in.volume, nullptr) << in.console;
  const std::string d = dir.file("s") + "/";
  EXPECT_EQ(in.console, "DICOM directory: " + d + "\nFound 3 files\nNumber of channels: 1\n"
                        "Recognized volume: 4 x 3 x 3 x 1\nVoxel size: 2.000000 mm\n"
                        "Interpolating in z direction (ratio:1.000)...done\n");
  EXPECT_EQ(in.information, "Data Source: DICOM\nLocal DICOM directory: \n" + d +
                                "\nInstitution: Test Hospital\nDate: 20240131\n"
                                "Patient: Doe^Jane P0042\nScanner: ACME Tesla 3\n");
  ExpectWrittenVoxels(in.volume, {0});
  EXPECT_EQ(in.series.voxelSize, 2.0f);
  EXPECT_FALSE(in.series.hasDiffusion);
  // axial slices from LPS (-10, 20, 30): RAS axes -x, -y, +z, 2 mm each
  const double expected[3][4] = {{-2, 0, 0, 10}, {0, -2, 0, -20}, {0, 0, 2, 30}};
  EXPECT_EQ(in.series.geometry.xformCode, 1);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(in.series.geometry.voxelToWorld[r][c], expected[r][c], 1e-9);
}

TEST(DicomDirectory, ImplicitWithoutPreambleDicmAtZeroObAndSequencesGiveTheSameVoxels) {
  TempDir dir;
  for (const char* json : {R"({"implicit": true, "preamble": false, "sequence": true})",
                           R"({"dicm_at_0": true, "ob": true, "sequence": true})",
                           R"({"implicit": true, "ob": true})"}) {
    SCOPED_TRACE(json);
    const std::string d = dir.file(std::to_string(std::hash<std::string>()(json)));
    WRITE_SERIES_OR_SKIP(d, json);
    Imported in(d);
    ASSERT_NE(in.volume, nullptr) << in.console;
    EXPECT_EQ(in.volume->matrixSize->z, 3);
    ExpectWrittenVoxels(in.volume, {0});
    const bool dicm = std::string(json).find("dicm") != std::string::npos;
    EXPECT_EQ(in.console.find("DICOM identifier found at position:0\n") != std::string::npos, dicm);
    EXPECT_EQ(in.console.find("Invalid pair"), std::string::npos);
  }
}

TEST(DicomDirectory, SlicesAreFoundByPositionInBothChannelOrdersAndBothDirections) {
  TempDir dir;
  int n = 0;
  for (const char* order : {"slice", "channel"}) {
    for (int zDirection : {1, -1}) {
      SCOPED_TRACE(std::string(order) + " " + std::to_string(zDirection));
      const std::string d = dir.file("s" + std::to_string(n++));
      WRITE_SERIES_OR_SKIP(d, std::string(R"({"slices": 4, "channels": 3, "x": 5, "y": 2, "order": ")") +
                                  order + R"(", "z_direction": )" + std::to_string(zDirection) + "}");
      Imported in(d);
      ASSERT_NE(in.volume, nullptr) << in.console;
      EXPECT_TRUE(quorix_test::HasLine(in.console, "Number of channels: 3\nRecognized volume: 5 x 2 x 4 x 3\n"))
          << in.console;
      EXPECT_EQ(in.console.find("Flip in Z\n") != std::string::npos, zDirection < 0) << in.console;
      ExpectWrittenVoxels(in.volume, {0, 1, 2});
      // the lowest slice is the origin, whichever file came first
      EXPECT_NEAR(in.series.geometry.voxelToWorld[2][3], 30.0, 1e-9);
    }
  }
}

TEST(DicomDirectory, WithoutOrientationThePatientZAxisDecidesAndDirectionsStayAsTheyAre) {
  TempDir dir;
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 3, "channels": 2, "z_direction": -1, "orientation": null,
      "bvalues": [0, 1000], "directions": [null, [0.48, 0.6, -0.64]]})");
  Imported in(dir.file("s"));
  ASSERT_NE(in.volume, nullptr) << in.console;
  EXPECT_TRUE(quorix_test::HasLine(in.console, "Flip in Z\n")) << in.console;
  EXPECT_TRUE(quorix_test::HasLine(in.console, "Warning: no image orientation (0020,0037); gradient directions are taken as the volume's axes\n"));
  ExpectWrittenVoxels(in.volume, {0, 1});
  ASSERT_TRUE(in.series.hasDiffusion);
  EXPECT_FLOAT_EQ(in.series.directions[1].x, 0.48f);
  EXPECT_FLOAT_EQ(in.series.directions[1].y, 0.6f);
  EXPECT_FLOAT_EQ(in.series.directions[1].z, -0.64f);
  EXPECT_EQ(in.series.geometry.xformCode, 0);  // no world without an orientation
}

TEST(DicomDirectory, OrderingStopsAtTheFirstMissingInstanceNumber) {
  TempDir dir;
  // five files numbered 1, 2, 4, 5, 6: only 1 and 2 make the volume
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 5, "skip_instance": 3})");
  Imported in(dir.file("s"));
  ASSERT_NE(in.volume, nullptr) << in.console;
  EXPECT_TRUE(quorix_test::HasLine(in.console, "Found 5 files\n"));
  EXPECT_TRUE(quorix_test::HasLine(in.console, "Warning: instance number 3 is missing; the 3 files after it are not used\n"));
  EXPECT_TRUE(quorix_test::HasLine(in.console, "Recognized volume: 4 x 3 x 2 x 1\n")) << in.console;
  ExpectWrittenVoxels(in.volume, {0});
}

TEST(DicomDirectory, SliceSpacingTwicePixelSizeIsInterpolatedToCubicVoxels) {
  TempDir dir;
  // 4 mm between slices, 2 mm pixels; neither spacing nor field of view stored: both are
  // taken from the positions and the pixel spacing, with their warnings
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 3, "channels": 2, "spacing": 4.0, "dbs": false, "fov": false})");
  Imported in(dir.file("s"));
  ASSERT_NE(in.volume, nullptr) << in.console;
  const std::string d = dir.file("s") + "/";
  EXPECT_EQ(in.console, "DICOM directory: " + d + "\nFound 6 files\nNumber of channels: 2\n"
                        "Warning: DBS not found in DICOM or 0 (IMAGE_POSITION used instead)\n"
                        "Warning: FOV not found in DICOM (PIXEL_DIMENSION used instead)\n"
                        "Recognized volume: 4 x 3 x 3 x 2\nVoxel size: 2.000000 mm\n"
                        "Interpolating in z direction (ratio:2.000)...done\n");
  ASSERT_EQ(in.volume->matrixSize->z, 5);
  // even slices are the written ones, odd ones halfway (the written values step by 100)
  for (int c = 0; c < 2; ++c)
    for (int z = 0; z < 5; ++z)
      for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
          ASSERT_EQ(Voxel(in.volume, c, x, y, z), Written(x, y, 0, c) + 50 * z) << c << x << y << z;
  EXPECT_NEAR(in.series.geometry.voxelToWorld[2][2], 2.0, 1e-9);
}

TEST(DicomDirectory, DiffusionElementsBuildTheMpgSettingInTheImageAxes) {
  TempDir dir;
  // sagittal slices: rows along patient y, columns down patient z (feet), normal -x;
  // the b = 0 image is the third channel
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 2, "channels": 7, "orientation": [0, 1, 0, 0, 0, -1],
      "bvalues": [1000, 1000, 0, 1000, 800, 1000, 1000],
      "directions": [[1, 0, 0], [0, 1, 0], null, [0, 0, 1], [0.6, 0.8, 0], [0, 0.6, 0.8], [0.8, 0, 0.6]]})");
  Imported in(dir.file("s"));
  ASSERT_NE(in.volume, nullptr) << in.console;
  EXPECT_TRUE(quorix_test::HasLine(in.console, "Warning: the 1 b=0 channels were moved in front of the diffusion-weighted ones\n"));
  ExpectWrittenVoxels(in.volume, {2, 0, 1, 3, 4, 5, 6});
  ASSERT_TRUE(in.series.hasDiffusion);
  // worked out by hand: (g.row, g.column, g.normal) with normal = row x column = (-1, 0, 0)
  const float expected[7][3] = {{0, 0, 0},  {0, 0, -1},     {1, 0, 0},       {0, -1, 0},
                                {0.8f, 0, -0.6f}, {0.6f, -0.8f, 0}, {0, -0.6f, -0.8f}};
  const float b[7] = {0, 1000, 1000, 1000, 800, 1000, 1000};
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(in.volume, 7);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_SetDicomMpgSetting(dti, in.series), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "MPG setting from the DICOM diffusion elements: 1 b=0 and 6 diffusion-weighted channels\n");
  EXPECT_EQ(dti->soCount, 1);
  for (int c = 0; c < 7; ++c) {
    EXPECT_EQ(dti->bValues[c], b[c]) << c;
    EXPECT_NEAR(dti->mpgVectors[c].x, expected[c][0], 1e-6) << c;
    EXPECT_NEAR(dti->mpgVectors[c].y, expected[c][1], 1e-6) << c;
    EXPECT_NEAR(dti->mpgVectors[c].z, expected[c][2], 1e-6) << c;
  }
  std::free(dti);

  // a DWI channel without a direction: the elements are not used, the import still works
  WRITE_SERIES_OR_SKIP(dir.file("t"), R"({"slices": 1, "channels": 2, "bvalues": [0, 1000]})");
  Imported partial(dir.file("t"));
  ASSERT_NE(partial.volume, nullptr);
  EXPECT_FALSE(partial.series.hasDiffusion);
  EXPECT_TRUE(quorix_test::HasLine(partial.console, "Warning: channel 2 has b=1000 but no gradient direction (0018,9089)"));
}

// dcm2niix, an independent converter, read back through the NIfTI reader: the same voxel
// values at the same world points and the same gradient directions in the world.
TEST(DicomDirectory, AgreesWithDcm2niixInTheWorld) {
  if (quorix_test::RunCommand("command -v dcm2niix >/dev/null") != 0) GTEST_SKIP() << "dcm2niix is not installed";
  TempDir dir;
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 3, "channels": 7, "x": 5, "y": 4, "order": "channel",
      "z_direction": -1, "orientation": [0.666667, 0.666667, 0.333333, -0.666667, 0.333333, 0.666667],
      "origin": [5, -7, 11],
      "bvalues": [0, 1000, 1000, 1000, 1000, 1000, 1000],
      "directions": [null, [1, 0, 0], [0, 1, 0], [0, 0, 1], [0.6, 0.8, 0], [0, 0.6, 0.8], [0.8, 0, 0.6]]})");
  Imported ours(dir.file("s"));
  ASSERT_NE(ours.volume, nullptr) << ours.console;
  ASSERT_TRUE(ours.series.hasDiffusion);
  std::filesystem::create_directory(dir.file("d"));
  ASSERT_EQ(quorix_test::RunCommand("dcm2niix -f dd -z n -o '" + dir.file("d") + "' '" + dir.file("s") + "' >/dev/null 2>&1"), 0);
  PcdWorldGeometry theirs{};
  testing::internal::CaptureStderr();
  PcdDtiData* peer = ReadNiftiDwiFile(dir.file("d/dd.nii").c_str(), nullptr, nullptr, &theirs, nullptr);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(peer, nullptr);
  const PcdIntSize4D& s = *ours.volume->matrixSize;
  ASSERT_EQ(peer->volume->matrixSize->channels, s.channels);
  const PcdIntSize4D& p = *peer->volume->matrixSize;
  for (int k = 0; k < s.z; ++k)
    for (int j = 0; j < s.y; ++j)
      for (int i = 0; i < s.x; ++i) {
        double w[3], v[3];
        for (int r = 0; r < 3; ++r) {
          const auto& m = ours.series.geometry.voxelToWorld[r];
          w[r] = m[0] * i + m[1] * j + m[2] * k + m[3];
        }
        VoxelOf(theirs, w, v);
        int at[3];
        for (int r = 0; r < 3; ++r) {
          at[r] = static_cast<int>(std::lround(v[r]));
          ASSERT_NEAR(v[r], at[r], 1e-3) << i << j << k;
        }
        ASSERT_TRUE(at[0] >= 0 && at[0] < p.x && at[1] >= 0 && at[1] < p.y && at[2] >= 0 && at[2] < p.z);
        for (int c = 0; c < s.channels; ++c)
          ASSERT_EQ(Voxel(ours.volume, c, i, j, k), Voxel(peer->volume, c, at[0], at[1], at[2])) << c;
      }
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(ours.volume, s.channels);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_SetDicomMpgSetting(dti, ours.series), 1);
  testing::internal::GetCapturedStderr();
  for (int c = 0; c < s.channels; ++c) {
    double a[3], b[3];
    WorldDirection(ours.series.geometry, dti->mpgVectors[c], a);
    WorldDirection(theirs, peer->mpgVectors[c], b);
    EXPECT_EQ(dti->bValues[c], peer->bValues[c]);
    for (int r = 0; r < 3; ++r) EXPECT_NEAR(a[r], b[r], 1e-4) << c << " " << r;
  }
  std::free(dti);
  PCD_DeleteRawVolumeData(peer->volume);
  std::free(peer);
}

// Every command of quorix-batch takes a DICOM directory as its INPUT.
TEST(DicomDirectory, CommandLineToolTakesTheDirectoryAsInput) {
  TempDir dir;
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 2, "channels": 7, "bvalues": [0, 700, 700, 700, 700, 700, 700],
      "directions": [null, [0, 0, 1], [0, 1, 0], [1, 0, 0], [0.6, 0.8, 0], [0, 0.6, 0.8], [0.8, 0, 0.6]]})");
  std::string out;
  ASSERT_EQ(quorix_test::RunCommand(quorix_test::BatchCommandLine("info " + dir.file("s") + "/"), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Kind: DICOM directory\nMatrix: 4 x 3 x 2, 7 channels\nVoxel size: 2 mm\n")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "   2   b=700.0, g=(0.000, 0.000, 1.000)")) << out;
  ASSERT_EQ(quorix_test::RunCommand(quorix_test::BatchCommandLine("convert " + dir.file("s") + " -o " + dir.file("v.raw")), &out), 0) << out;
  PcdRawVolumeData* v = ReadRawVolumeFile(dir.file("v.raw").c_str(), nullptr);
  ASSERT_NE(v, nullptr);
  ExpectWrittenVoxels(v, {0, 1, 2, 3, 4, 5, 6});
  PCD_DeleteRawVolumeData(v);
  std::filesystem::create_directory(dir.file("empty"));
  EXPECT_EQ(quorix_test::RunCommand(quorix_test::BatchCommandLine("info " + dir.file("empty")), &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: cannot import the DICOM directory")) << out;
}

TEST(DicomDirectory, ForeignTruncatedAndGarbageFilesGiveClearLines) {
  TempDir dir;
  const std::string d = dir.file("s") + "/";
  WRITE_SERIES_OR_SKIP(dir.file("s"), R"({"slices": 2})");
  // files that are no images beside the series, and a sub-folder: the series still imports
  quorix_test::WriteFileText(d + "README.txt", "scanned on Monday\n");
  quorix_test::WriteFileBytes(d + "empty", {});
  std::vector<uint8_t> garbage(300);
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<uint8_t>(i * 37 + 11);
  quorix_test::WriteFileBytes(d + "garbage.bin", garbage);
  std::vector<uint8_t> zeros(64, 0);
  quorix_test::WriteFileBytes(d + "zeros", zeros);
  std::filesystem::create_directory(d + "sub");
  {
    Imported in(d);
    ASSERT_NE(in.volume, nullptr) << in.console;
    EXPECT_TRUE(quorix_test::HasLine(in.console, "Found 6 files\n")) << in.console;
    for (const char* name : {"README.txt", "empty", "garbage.bin", "zeros"})
      EXPECT_NE(in.console.find(std::string("Warning: ") + d + name + " has no instance number (not a DICOM image); skipped\n"),
                std::string::npos) << name << in.console;
    EXPECT_TRUE(quorix_test::HasLine(in.console, "Invalid pair of group ID and element ID\n"));
    ExpectWrittenVoxels(in.volume, {0});
  }

  // a slice cut inside its pixel data refuses the import; so does one cut inside a head
  const std::string first = d + "IM01000";  // the writer's name of instance 1
  const std::vector<uint8_t> whole = quorix_test::ReadFileBytes(first);
  quorix_test::WriteFileBytes(first, std::vector<uint8_t>(whole.begin(), whole.end() - 3));
  {
    Imported in(d);
    EXPECT_EQ(in.volume, nullptr);
    EXPECT_TRUE(quorix_test::HasLine(in.console, "Err: ")) << in.console;
  }
  for (size_t keep : {size_t{0}, size_t{100}, size_t{140}, whole.size() / 2}) {
    quorix_test::WriteFileBytes(first, std::vector<uint8_t>(whole.begin(), whole.begin() + keep));
    Imported in(d);
    EXPECT_EQ(in.volume, nullptr) << keep;
  }

  // a slice of another matrix (same columns, more rows) in the same series is refused,
  // not read as this one's
  quorix_test::WriteFileBytes(first, whole);
  std::string seriesUid;
  ASSERT_GE(FindDicomElement((d + "IM01007").c_str(), 0x0020, 0x000E, &seriesUid), 0);
  while (!seriesUid.empty() && (seriesUid.back() == '\0' || seriesUid.back() == ' ')) seriesUid.pop_back();
  WRITE_SERIES_OR_SKIP(dir.file("taller"), R"({"slices": 2, "y": 5, "series_uid": ")" + seriesUid + R"("})");
  std::filesystem::copy_file(dir.file("taller") + "/IM01007", d + "IM01007",
                             std::filesystem::copy_options::overwrite_existing);
  {
    Imported in(d);
    EXPECT_EQ(in.volume, nullptr);
    EXPECT_NE(in.console.find("Err: " + d + "IM01007 cannot be read: its matrix differs from the first file's\n"),
              std::string::npos) << in.console;
  }

  // an empty directory and one that does not exist: zero files, refused
  std::filesystem::create_directory(dir.file("none"));
  for (const std::string& empty : {dir.file("none"), dir.file("missing")}) {
    Imported in(empty);
    EXPECT_EQ(in.volume, nullptr);
    EXPECT_TRUE(quorix_test::HasLine(in.console, "Found 0 files\nErr: no DICOM image numbered 1 in ")) << in.console;
  }
}

TEST(DicomDirectory, ResamplingKeepsSlicesAtRatioOneAndBlendsNeighboursOtherwise) {
  const PcdIntSize4D size{2, 1, 3, 1};
  const int32_t type = SINT16, format = PCD_MONOCHROME;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, &type, &format);
  const int16_t values[6] = {3, -3, 4, -4, 32767, -32768};  // (x, z): z = 0, 1, 2
  std::copy(values, values + 6, static_cast<int16_t*>(v->data[0]));

  PcdRawVolumeData* same = PCD_ResampleDicomVolumeInZ(v, 1.0);
  ASSERT_NE(same, nullptr);
  EXPECT_EQ(same->matrixSize->z, 3);
  EXPECT_EQ(std::memcmp(same->data[0], v->data[0], sizeof values), 0);
  PCD_DeleteRawVolumeData(same);

  // ratio 2: 5 slices; halfway values round half away from zero (3.5 -> 4, -3.5 -> -4)
  PcdRawVolumeData* twice = PCD_ResampleDicomVolumeInZ(v, 2.0);
  ASSERT_NE(twice, nullptr);
  const int16_t expected2[10] = {3, -3, 4, -4, 4, -4, 16386, -16386, 32767, -32768};
  ASSERT_EQ(twice->matrixSize->z, 5);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(static_cast<int16_t*>(twice->data[0])[i], expected2[i]) << i;
  PCD_DeleteRawVolumeData(twice);

  // ratio 1.5: floor(2 * 1.5) + 1 = 4 slices at 0, 2/3, 4/3, 2
  PcdRawVolumeData* r15 = PCD_ResampleDicomVolumeInZ(v, 1.5);
  ASSERT_NE(r15, nullptr);
  ASSERT_EQ(r15->matrixSize->z, 4);
  // 3 + 2/3 = 3.67 -> 4; 4 + (32767 - 4) / 3 = 10925 -> 10925; -4 - 32764/3 = -10925.3 -> -10925
  const int16_t expected15[8] = {3, -3, 4, -4, 10925, -10925, 32767, -32768};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(static_cast<int16_t*>(r15->data[0])[i], expected15[i]) << i;
  PCD_DeleteRawVolumeData(r15);

  // ratio 0.5: slices 0 and 2 remain
  PcdRawVolumeData* half = PCD_ResampleDicomVolumeInZ(v, 0.5);
  ASSERT_NE(half, nullptr);
  ASSERT_EQ(half->matrixSize->z, 2);
  EXPECT_EQ(static_cast<int16_t*>(half->data[0])[2], 32767);

  for (double bad : {0.0, -1.0, double{NAN}, double{INFINITY}, 40000.0}) EXPECT_EQ(PCD_ResampleDicomVolumeInZ(v, bad), nullptr) << bad;
  EXPECT_EQ(PCD_ResampleDicomVolumeInZ(nullptr, 1.0), nullptr);
  PCD_DeleteRawVolumeData(half);
  PCD_DeleteRawVolumeData(v);
}

}  // namespace
