// DICOM as scanners write it (tests/io/scanner_series.py, written with pydicom from a
// phantom with known tensors): Siemens mosaic with its CSA header, enhanced multi-frame,
// classic GE, Philips, Siemens and Canon series with their diffusion fields; several
// series in one directory; the bounded z resampling; unsigned pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "dti/dti_data.h"
#include "dti/tensor.h"
#include "io/dicom_directory.h"
#include "io/dicom_scanner.h"
#include "io/dicom_structure.h"
#include "io/dicom_world.h"
#include "io/nifti_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::HasLine;
using quorix_test::TempDir;
using quorix_test::Voxel;

// Runs a pydicom writer; false (the test skips) without pydicom.
bool RunWriter(const std::string& script, const std::string& arguments) {
  const std::string command = "/usr/bin/python3 " + std::string(QUORIX_SOURCE_DIR) + "/tests/io/" + script + " " + arguments;
  const int status = quorix_test::RunCommand(command);
  if (status == 77 || status == 77 << 8) return false;
  EXPECT_EQ(status, 0) << command;
  return status == 0;
}

#define OR_SKIP(call) \
  if (!(call)) GTEST_SKIP() << "python3-pydicom (with numpy) is not installed"

// The few numbers of the writer's JSON the tests need, read without a JSON library: each
// key's array of numbers, flattened.
std::vector<double> JsonNumbers(const std::string& json, const std::string& key) {
  std::vector<double> out;
  size_t at = json.find("\"" + key + "\":");
  if (at == std::string::npos) return out;
  at += key.size() + 3;
  int depth = 0;
  for (size_t i = at; i < json.size(); ++i) {
    const char ch = json[i];
    if (ch == '[') ++depth;
    else if (ch == ']') --depth;
    else if (ch == '-' || ch == '.' || (ch >= '0' && ch <= '9')) {
      char* end = nullptr;
      out.push_back(std::strtod(json.c_str() + i, &end));
      i = static_cast<size_t>(end - json.c_str()) - 1;
    }
    if (depth == 0 && (ch == ',' || ch == ']' || ch == '}')) break;
  }
  return out;
}

struct Expected {
  std::string json;
  std::vector<int16_t> voxels;  // channels, z, y, x
  int x = 0, y = 0, z = 0, channels = 0;
};

Expected ReadExpected(const std::string& prefix) {
  Expected e;
  e.json = quorix_test::ReadFileText(prefix + ".json");
  const std::vector<uint8_t> raw = quorix_test::ReadFileBytes(prefix + ".raw");
  e.voxels.resize(raw.size() / 2);
  std::memcpy(e.voxels.data(), raw.data(), e.voxels.size() * 2);
  e.x = static_cast<int>(JsonNumbers(e.json, "x")[0]);
  e.y = static_cast<int>(JsonNumbers(e.json, "y")[0]);
  e.z = static_cast<int>(JsonNumbers(e.json, "z")[0]);
  e.channels = static_cast<int>(JsonNumbers(e.json, "channels")[0]);
  return e;
}

struct Imported {
  PcdRawVolumeData* volume = nullptr;
  std::string information, console;
  PcdDicomSeries series;
  Imported(const std::string& dir, int32_t seriesIndex = 0) {
    testing::internal::CaptureStderr();
    volume = ReadDicomDirectorySeries(dir.c_str(), seriesIndex, &information, &series);
    console = testing::internal::GetCapturedStderr();
  }
  ~Imported() { PCD_DeleteRawVolumeData(volume); }
};

// The import gives the phantom's voxels, its b values and directions (in image axes),
// the geometry of its slices, and tensors with the phantom's FA and principal axes.
void ExpectPhantom(const Imported& in, const Expected& e) {
  ASSERT_NE(in.volume, nullptr) << in.console;
  const PcdIntSize4D& s = *in.volume->matrixSize;
  ASSERT_EQ(s.x, e.x);
  ASSERT_EQ(s.y, e.y);
  ASSERT_EQ(s.z, e.z);
  ASSERT_EQ(s.channels, e.channels) << in.console;
  size_t i = 0;
  for (int c = 0; c < s.channels; ++c)
    for (int z = 0; z < s.z; ++z)
      for (int y = 0; y < s.y; ++y)
        for (int x = 0; x < s.x; ++x, ++i) ASSERT_EQ(Voxel(in.volume, c, x, y, z), e.voxels[i]) << c << " " << x << y << z;

  ASSERT_TRUE(in.series.hasDiffusion) << in.console;
  const std::vector<double> b = JsonNumbers(e.json, "b"), g = JsonNumbers(e.json, "directions");
  ASSERT_EQ(in.series.bValues.size(), b.size());
  for (size_t c = 0; c < b.size(); ++c) {
    EXPECT_NEAR(in.series.bValues[c], b[c], 1e-3) << c;
    EXPECT_NEAR(in.series.directions[c].x, g[3 * c], 1e-5) << c;
    EXPECT_NEAR(in.series.directions[c].y, g[3 * c + 1], 1e-5) << c;
    EXPECT_NEAR(in.series.directions[c].z, g[3 * c + 2], 1e-5) << c;
  }
  // the lowest slice's first voxel at the origin, the axes along row, column and normal
  // (patient LPS, world RAS: x and y change sign)
  const std::vector<double> origin = JsonNumbers(e.json, "origin_lps"), axes = JsonNumbers(e.json, "axes");
  const double sign[3] = {-1, -1, 1};
  ASSERT_EQ(in.series.geometry.xformCode, 1);
  for (int r = 0; r < 3; ++r) {
    EXPECT_NEAR(in.series.geometry.voxelToWorld[r][3], sign[r] * origin[static_cast<size_t>(r)], 1e-3) << r;
    for (int k = 0; k < 3; ++k)
      EXPECT_NEAR(in.series.geometry.voxelToWorld[r][k], sign[r] * axes[static_cast<size_t>(3 * k + r)] * 2.0, 1e-4) << r << k;
  }

  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(in.volume, s.channels);
  testing::internal::CaptureStderr();
  const int ready = PCD_SetDicomMpgSetting(dti, in.series);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(ready, 1);
  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(s.channels, dti->soCount);
  const double fa = JsonNumbers(e.json, "fa")[0];
  for (const char* side : {"e_left", "e_right"}) {
    const std::vector<double> axis = JsonNumbers(e.json, side);
    const PcdIntVector3D voxel{side[2] == 'l' ? 0 : s.x - 1, s.y / 2, s.z / 2};
    ASSERT_EQ(PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, record, &voxel), 1);
    EXPECT_NEAR(PCDdti_GetFA(record), fa, 0.01) << side;
    const double along = record->tensor[1][3] * axis[0] + record->tensor[2][3] * axis[1] + record->tensor[3][3] * axis[2];
    EXPECT_GT(std::fabs(along), 0.999) << side;
  }
  PCDdti_DeleteDiffusionTensorData(record);
  std::free(dti);
}

TEST(DicomScanner, EveryLayoutAndVendorGivesThePhantom) {
  TempDir dir;
  struct Case {
    const char* json;
    const char* layoutLine;
    const char* source;
  };
  const Case cases[] = {
      {R"({"layout": "mosaic"})", "Series 1: Siemens mosaic, 8 files\n", "Siemens CSA"},
      // the CSA normal against row x column: the tiles run from the top down
      {R"({"layout": "mosaic", "reverse_normal": true, "slices": 5, "implicit": true})",
       "Series 1: Siemens mosaic, 8 files\n", "Siemens CSA"},
      {R"({"layout": "enhanced", "slope": 0.5, "intercept": -100})", "Series 1: enhanced multi-frame, 1 files\n",
       "standard (0018,9087/9089)"},
      {R"({"layout": "enhanced", "trace": true, "b0_position": 2, "implicit": true})",
       "Series 1: enhanced multi-frame, 1 files\n", "standard (0018,9087/9089)"},
      {R"({"vendor": "ge", "trace": true, "b0_position": 3, "ge_offset": true})", "Series 1: one slice per file, 36 files\n",
       "GE (0043,1039) and (0019,10BB/BC/BD)"},
      {R"({"vendor": "philips", "trace": true, "trace_position": 4, "unsigned": true, "slope": 0.5, "intercept": -100})",
       "Series 1: one slice per file, 36 files\n", "Philips (2001,1003) and (2005,10B0/B1/B2)"},
      {R"({"vendor": "siemens", "implicit": true})", "Series 1: one slice per file, 32 files\n", "Siemens (0019,100C/100E)"},
      {R"({"vendor": "canon", "b0_position": 7})", "Series 1: one slice per file, 32 files\n", "Canon (0020,4000)"},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    const std::string d = dir.file("s" + std::to_string(n)), prefix = dir.file("e" + std::to_string(n++));
    OR_SKIP(RunWriter("scanner_series.py", d + " " + prefix + " '" + c.json + "'"));
    Imported in(d);
    ExpectPhantom(in, ReadExpected(prefix));
    EXPECT_TRUE(HasLine(in.console, c.layoutLine)) << in.console;
    EXPECT_EQ(in.series.diffusionSource, c.source);
    const bool trace = std::strstr(c.json, "trace") != nullptr;
    EXPECT_EQ(HasLine(in.console, "Warning: channel "), trace) << in.console;
    if (trace) {
      EXPECT_NE(in.console.find("is an isotropic trace image; dropped\n"), std::string::npos) << in.console;
    }
    EXPECT_EQ(in.console.find("Err: "), std::string::npos) << in.console;
  }
}

// gdcmconv (GDCM's own converter) compresses a series; the import decodes the same voxels.
TEST(DicomScanner, CompressedTransferSyntaxesGiveTheSameVoxels) {
  if (quorix_test::RunCommand("command -v gdcmconv >/dev/null") != 0) GTEST_SKIP() << "gdcmconv is not installed";
  TempDir dir;
  OR_SKIP(RunWriter("scanner_series.py", dir.file("plain") + " " + dir.file("e") + R"( '{"vendor": "ge", "slices": 2}')"));
  const Expected e = ReadExpected(dir.file("e"));
  // JPEG 2000 is left out: gdcmconv --j2k of Debian 12 crashes on these files
  for (const char* option : {"--jpeg", "--jpegls", "--rle"}) {
    SCOPED_TRACE(option);
    const std::string out = dir.file(option + 2);
    std::filesystem::create_directory(out);
    for (const auto& entry : std::filesystem::directory_iterator(dir.file("plain")))
      ASSERT_EQ(quorix_test::RunCommand(std::string("gdcmconv ") + option + " '" + entry.path().string() + "' '" + out + "/" +
                                        entry.path().filename().string() + "'"),
                0);
    Imported in(out);
    ExpectPhantom(in, e);
  }
}

TEST(DicomScanner, SeveralSeriesAreListedAndTheDiffusionSeriesIsPickedUnlessOneIsNamed) {
  TempDir dir;
  const std::string d = dir.file("s");
  OR_SKIP(RunWriter("scanner_series.py", d + " " + dir.file("e") + R"( '{"layout": "mosaic", "localizer": true}')"));
  const std::vector<PcdDicomSeriesSummary> list = PCD_ListDicomSeries(d.c_str());
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].seriesNumber, 1);
  EXPECT_EQ(list[0].description, "localizer");
  EXPECT_EQ(list[0].files, 3);
  EXPECT_EQ(list[0].columns, 8);
  EXPECT_EQ(list[0].slices, 3);
  EXPECT_EQ(list[0].channels, 1);
  EXPECT_TRUE(list[0].bValues.empty());
  EXPECT_EQ(list[1].seriesNumber, 5);
  EXPECT_EQ(list[1].layout, "Siemens mosaic");
  EXPECT_EQ(list[1].files, 8);
  EXPECT_EQ(list[1].columns, 6);
  EXPECT_EQ(list[1].rows, 5);
  EXPECT_EQ(list[1].slices, 4);
  EXPECT_EQ(list[1].channels, 8);
  EXPECT_EQ(list[1].bValues, (std::vector<float>{0.0f, 1000.0f}));
  EXPECT_EQ(list[1].diffusionSource, "Siemens CSA");

  {
    Imported picked(d);
    ExpectPhantom(picked, ReadExpected(dir.file("e")));
    EXPECT_TRUE(HasLine(picked.console, "Warning: series 2 of 2 chosen (\"ep2d_diff_mosaic\"); --series N picks another\n"))
        << picked.console;
  }
  {
    Imported localizer(d, 1);
    ASSERT_NE(localizer.volume, nullptr) << localizer.console;
    EXPECT_EQ(localizer.volume->matrixSize->channels, 1);
    // 10 mm slices of 4 mm pixels: resampled by 2.5 to 6 slices
    EXPECT_EQ(localizer.volume->matrixSize->z, 6);
    EXPECT_EQ(Voxel(localizer.volume, 0, 3, 3, 0), 100);
    EXPECT_EQ(Voxel(localizer.volume, 0, 3, 3, 5), 102);
    EXPECT_FALSE(localizer.series.hasDiffusion);
  }
  {
    Imported none(d, 3);
    EXPECT_EQ(none.volume, nullptr);
    EXPECT_TRUE(HasLine(none.console, "Err: " + d + "/ holds 2 series; there is no series 3\n")) << none.console;
  }

  std::string out;
  ASSERT_EQ(quorix_test::RunCommand(quorix_test::BatchCommandLine("info " + d), &out), 0) << out;
  EXPECT_TRUE(HasLine(out, "Series 1: number 1, \"localizer\", one slice per file, 3 files, 8 x 8 x 3 x 1\n")) << out;
  EXPECT_TRUE(HasLine(out, "Series 2: number 5, \"ep2d_diff_mosaic\", Siemens mosaic, 8 files, 6 x 5 x 4 x 8, "
                           "b = 0 1000 (Siemens CSA)\n")) << out;
  EXPECT_TRUE(HasLine(out, "Matrix: 6 x 5 x 4, 8 channels\n")) << out;
  ASSERT_EQ(quorix_test::RunCommand(quorix_test::BatchCommandLine("info --series 1 " + d), &out), 0) << out;
  EXPECT_TRUE(HasLine(out, "Matrix: 8 x 8 x 6, 1 channels\n")) << out;
  EXPECT_EQ(quorix_test::RunCommand(quorix_test::BatchCommandLine("info --series 9 " + d), &out), 1);
  EXPECT_TRUE(HasLine(out, "Err: ")) << out;
}

// A slice spacing far above the pixel size would make a volume out of proportion to the
// files: both readers refuse it before asking for its memory.
TEST(DicomScanner, ResamplingOutOfProportionIsRefusedByBothReaders) {
  TempDir dir;
  const std::string classic = dir.file("c");
  OR_SKIP(RunWriter("dicom_series.py", classic + R"( '{"slices": 2, "pixel": 0.001, "spacing": 60}')"));
  {
    Imported in(classic);
    EXPECT_EQ(in.volume, nullptr);
    // the field of view is read as a float: the ratio comes out a hair below 60000
    EXPECT_TRUE(HasLine(in.console, "Err: resampling the 2 slices of " + classic + "/ to cubic voxels (ratio 59999.99"))
        << in.console;
    EXPECT_NE(in.console.find(" slices, more than 8 times the files' pixel data; refused\n"), std::string::npos);
    EXPECT_EQ(in.console.find("Interpolating"), std::string::npos);
  }
  // 8 times is still taken: 2 slices 14 mm apart, 2 mm pixels give 8 slices
  OR_SKIP(RunWriter("dicom_series.py", dir.file("ok") + R"( '{"slices": 2, "pixel": 2, "spacing": 14}')"));
  {
    Imported in(dir.file("ok"));
    ASSERT_NE(in.volume, nullptr) << in.console;
    EXPECT_EQ(in.volume->matrixSize->z, 8);
  }
  const std::string mosaic = dir.file("m");
  OR_SKIP(RunWriter("scanner_series.py", mosaic + " " + dir.file("e") + R"( '{"layout": "mosaic", "spacing": 40}')"));
  {
    Imported in(mosaic);
    EXPECT_EQ(in.volume, nullptr);
    EXPECT_TRUE(HasLine(in.console, "Err: resampling the 4 slices of " + mosaic + "/ to cubic voxels (ratio 20.000)"))
        << in.console;
  }
}

// Pixel representation 0 (unsigned) with values above 32767: the one-slice-per-file
// reader keeps its 16-bit words (they wrap) and says so once, naming the file.
TEST(DicomScanner, UnsignedValuesAbove32767AreWarnedAboutOnce) {
  TempDir dir;
  OR_SKIP(RunWriter("dicom_series.py", dir.file("u") + R"( '{"slices": 2, "pixel_representation": 0, "value_offset": 33000}')"));
  {
    // the writer's values are 33000 - 500 + 100 z + 10 y + x (x < 4, y < 3): 32500 .. 32623 fit
    Imported in(dir.file("u"));
    ASSERT_NE(in.volume, nullptr) << in.console;
    EXPECT_EQ(in.console.find("unsigned pixel values"), std::string::npos) << in.console;
  }
  OR_SKIP(RunWriter("dicom_series.py", dir.file("w") + R"( '{"slices": 2, "pixel_representation": 0, "value_offset": 33200}')"));
  {
    Imported in(dir.file("w"));
    ASSERT_NE(in.volume, nullptr) << in.console;
    // slice 0 holds 32700 .. 32723 (they fit); slice 1 32800 .. 32823, which come back as
    // value - 65536
    EXPECT_EQ(Voxel(in.volume, 0, 0, 0, 0), 32700);
    EXPECT_EQ(Voxel(in.volume, 0, 0, 0, 1), 32800 - 65536);
    size_t count = 0;
    for (size_t at = in.console.find("Warning: "); at != std::string::npos; at = in.console.find("Warning: ", at + 1)) ++count;
    EXPECT_EQ(count, 1u) << in.console;
    EXPECT_TRUE(HasLine(in.console, "Warning: " + dir.file("w") + "/IM01007 holds unsigned pixel values above 32767; "
                                                                  "they wrap to negative values\n")) << in.console;
  }
}

// The check that keeps broken files away from GDCM: whole files pass, any cut fails.
TEST(DicomScanner, StructureCheckPassesWholeFilesAndRefusesCutOnes) {
  TempDir dir;
  OR_SKIP(RunWriter("scanner_series.py", dir.file("s") + " " + dir.file("e") + R"( '{"layout": "enhanced", "slices": 2, "x": 3, "y": 2}')"));
  const std::vector<uint8_t> whole = quorix_test::ReadFileBytes(dir.file("s/ENH0001.dcm"));
  EXPECT_TRUE(pcd_dicom_structure_is_sound(whole.data(), whole.size()));
  // a cut between two top-level elements leaves a sound (shorter) data set; a cut inside
  // the per-frame sequence (5200,9230) or inside the pixel data does not
  auto find = [&](std::vector<uint8_t> tag) {
    return static_cast<size_t>(std::search(whole.begin(), whole.end(), tag.begin(), tag.end()) - whole.begin());
  };
  const size_t frames = find({0x00, 0x52, 0x30, 0x92}), pixels = find({0xE0, 0x7F, 0x10, 0x00});
  ASSERT_LT(frames, pixels);
  ASSERT_LT(pixels, whole.size());
  for (size_t keep = frames + 1; keep < whole.size(); ++keep)
    if (keep != pixels) {
      EXPECT_FALSE(pcd_dicom_structure_is_sound(whole.data(), keep)) << keep;
    }
  EXPECT_TRUE(pcd_dicom_structure_is_sound(whole.data(), pixels));
  EXPECT_FALSE(pcd_dicom_structure_is_sound(nullptr, 0));
}

// CSA headers built by hand: the items of each element, and refusals of what runs short.
TEST(DicomScanner, CsaHeaderItemsAreReadAndShortHeadersRefused) {
  auto u32 = [](std::vector<uint8_t>* b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b->push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  std::vector<uint8_t> csa = {'S', 'V', '1', '0', 4, 3, 2, 1};
  u32(&csa, 2);
  u32(&csa, 77);
  auto tag = [&](const char* name, std::vector<std::string> items) {
    std::vector<uint8_t> n(64, 0);
    std::memcpy(n.data(), name, std::strlen(name));
    csa.insert(csa.end(), n.begin(), n.end());
    u32(&csa, static_cast<uint32_t>(items.size()));
    csa.insert(csa.end(), {'F', 'D', 0, 0});
    u32(&csa, 4);
    u32(&csa, static_cast<uint32_t>(items.size()));
    u32(&csa, 77);
    for (const std::string& item : items) {
      const auto length = static_cast<uint32_t>(item.size() + 1);
      for (uint32_t w : {length, length, 77u, length}) u32(&csa, w);
      csa.insert(csa.end(), item.begin(), item.end());
      csa.push_back(0);
      while (csa.size() % 4 != 0) csa.push_back(0);
    }
  };
  tag("B_value", {"1000"});
  tag("DiffusionGradientDirection", {"0.6", "-0.8", "0.00000000"});
  PcdCsaHeader parsed;
  ASSERT_TRUE(pcd_parse_csa_header(csa.data(), csa.size(), &parsed));
  EXPECT_EQ(parsed["B_value"], (std::vector<std::string>{"1000"}));
  EXPECT_EQ(parsed["DiffusionGradientDirection"], (std::vector<std::string>{"0.6", "-0.8", "0.00000000"}));
  for (size_t keep = 0; keep < csa.size() - 3; keep += 5)
    EXPECT_FALSE(pcd_parse_csa_header(csa.data(), keep, &parsed)) << keep;
  csa[0] = 'X';
  EXPECT_FALSE(pcd_parse_csa_header(csa.data(), csa.size(), &parsed));
}

}  // namespace

namespace {

// dcm2niix, an independent converter, on the same series, read back through the NIfTI
// reader (which undoes dcm2niix's bvec convention): the same voxel values at the same
// world points and the same gradient directions in the world.
void ExpectAgreementWithDcm2niix(const std::string& series, const std::string& work) {
  Imported ours(series);
  ASSERT_NE(ours.volume, nullptr) << ours.console;
  ASSERT_TRUE(ours.series.hasDiffusion);
  std::filesystem::create_directory(work);
  std::string log;
  ASSERT_EQ(quorix_test::RunCommand("dcm2niix -f dd -z n -o '" + work + "' '" + series + "' 2>&1", &log), 0) << log;
  PcdWorldGeometry theirs{};
  testing::internal::CaptureStderr();
  PcdDtiData* peer = ReadNiftiDwiFile((work + "/dd.nii").c_str(), nullptr, nullptr, &theirs, nullptr);
  const std::string peerConsole = testing::internal::GetCapturedStderr();
  ASSERT_NE(peer, nullptr) << log << peerConsole;
  const PcdIntSize4D& s = *ours.volume->matrixSize;
  const PcdIntSize4D& p = *peer->volume->matrixSize;
  ASSERT_EQ(p.channels, s.channels) << log;
  for (int k = 0; k < s.z; ++k)
    for (int j = 0; j < s.y; ++j)
      for (int i = 0; i < s.x; ++i) {
        double w[3], v[3];
        for (int r = 0; r < 3; ++r) {
          const auto& m = ours.series.geometry.voxelToWorld[r];
          w[r] = m[0] * i + m[1] * j + m[2] * k + m[3];
        }
        quorix_test::VoxelOf(theirs, w, v);
        int at[3];
        for (int r = 0; r < 3; ++r) {
          at[r] = static_cast<int>(std::lround(v[r]));
          ASSERT_NEAR(v[r], at[r], 1e-2) << i << j << k;
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
    quorix_test::WorldDirection(ours.series.geometry, dti->mpgVectors[c], a);
    quorix_test::WorldDirection(theirs, peer->mpgVectors[c], b);
    EXPECT_EQ(dti->bValues[c], peer->bValues[c]) << c;
    // a gradient and its opposite weight the signal alike; dcm2niix turns some round
    const double sign = a[0] * b[0] + a[1] * b[1] + a[2] * b[2] < 0 ? -1.0 : 1.0;
    for (int r = 0; r < 3; ++r) EXPECT_NEAR(a[r], sign * b[r], 1e-4) << c << " " << r;
  }
  std::free(dti);
  PCD_DeleteRawVolumeData(peer->volume);
  std::free(peer);
}

TEST(DicomScanner, AgreesWithDcm2niixInTheWorldInEveryLayout) {
  if (quorix_test::RunCommand("command -v dcm2niix >/dev/null") != 0) GTEST_SKIP() << "dcm2niix is not installed";
  TempDir dir;
  int n = 0;
  for (const char* json : {R"({"layout": "mosaic"})", R"({"layout": "mosaic", "reverse_normal": true, "slices": 5})",
                           R"({"layout": "enhanced"})", R"({"vendor": "ge"})", R"({"vendor": "philips"})",
                           R"({"vendor": "siemens"})"}) {
    SCOPED_TRACE(json);
    const std::string d = dir.file("s" + std::to_string(n)), work = dir.file("d" + std::to_string(n++));
    OR_SKIP(RunWriter("scanner_series.py", d + " " + dir.file("e") + " '" + json + "'"));
    ExpectAgreementWithDcm2niix(d, work);
  }
}

}  // namespace

namespace {

// Files the fuzzer found GDCM aborting on: a meta group with no data set after it, and
// one without a transfer syntax. The check refuses both, so the directory import says
// what it found instead of ending the process.
TEST(DicomScanner, FilesOfAMetaGroupAloneNeverReachGdcm) {
  auto element = [](std::vector<uint8_t>* b, uint16_t e, const char* vr, const std::string& v) {
    const uint8_t head[8] = {0x02, 0x00, static_cast<uint8_t>(e), static_cast<uint8_t>(e >> 8), static_cast<uint8_t>(vr[0]),
                             static_cast<uint8_t>(vr[1]), static_cast<uint8_t>(v.size()), static_cast<uint8_t>(v.size() >> 8)};
    b->insert(b->end(), head, head + 8);
    b->insert(b->end(), v.begin(), v.end());
  };
  std::vector<uint8_t> metaOnly(128, 0);
  metaOnly.insert(metaOnly.end(), {'D', 'I', 'C', 'M'});
  element(&metaOnly, 0x0002, "UI", std::string("1.2.840.10008.5.1.4.1.1.4\0", 26));
  std::vector<uint8_t> withSyntax = metaOnly;
  element(&withSyntax, 0x0010, "UI", std::string("1.2.840.10008.1.2\0", 18));
  // a data set element after a meta group without syntax
  std::vector<uint8_t> noSyntax = metaOnly;
  noSyntax.insert(noSyntax.end(), {0x08, 0x00, 0x60, 0x00, 'C', 'S', 2, 0, 'M', 'R'});
  TempDir dir;
  for (const auto* file : {&metaOnly, &withSyntax, &noSyntax}) {
    EXPECT_FALSE(pcd_dicom_structure_is_sound(file->data(), file->size()));
    std::filesystem::create_directories(dir.file("d"));
    quorix_test::WriteFileBytes(dir.file("d/a.dcm"), *file);
    EXPECT_TRUE(PCD_ListDicomSeries(dir.file("d").c_str()).empty());
    testing::internal::CaptureStderr();
    EXPECT_EQ(pcd_read_scanner_dicom(dir.file("d") + "/", 0, nullptr, nullptr), nullptr);
    EXPECT_TRUE(HasLine(testing::internal::GetCapturedStderr(), "Err: no DICOM image in "));
  }
}

}  // namespace
