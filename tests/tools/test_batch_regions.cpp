// quorix-batch stats, grow and profile on phantoms and masks written by the test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::ReadFileText;
using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

constexpr int kX = 32, kY = 32, kZ = 12;
constexpr size_t kVoxels = static_cast<size_t>(kX) * kY * kZ;

size_t At(int x, int y, int z) { return (static_cast<size_t>(z) * kY + y) * kX + x; }

// A one-channel mask file of the given type and values.
void WriteMask(const std::string& path, int32_t type, const std::vector<int>& values,
               PcdIntSize3D size = {kX, kY, kZ}) {
  PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&size, type, PCD_MONOCHROME);
  for (size_t i = 0; i < values.size(); ++i) {
    if (type == UINT8) static_cast<uint8_t*>(v->data[0])[i] = static_cast<uint8_t>(values[i]);
    if (type == SINT16) static_cast<int16_t*>(v->data[0])[i] = static_cast<int16_t>(values[i]);
  }
  PcdWorldGeometry g;
  PCD_SetDefaultWorldGeometry(&g, 2.0f);
  const int32_t channel = 0;
  if (path.size() > 4 && path.substr(path.size() - 4) == ".raw")
    ASSERT_EQ(WriteRawVolumeFile(v, path.c_str()), 0);
  else
    ASSERT_EQ(WriteNiftiChannels(v, &channel, 1, &g, path.c_str()), 0);
  PCD_DeleteRawVolumeData(v);
}

// The phantom as the tool writes it (raw + mpg and NIfTI), and its truth in memory.
struct PhantomFiles {
  TempDir dir;
  std::string stem = dir.file("ph");
  PcdPhantomTruth truth;
  explicit PhantomFiles(float noise) {
    std::ostringstream command;
    command << "phantom --size 32,32,12 --no-truth --noise " << noise << " -o " << stem;
    std::string out;
    EXPECT_EQ(RunCommand(Batch(command.str()), &out), 0) << out;
    PcdPhantomOptions o{.sizeX = kX, .sizeY = kY, .sizeZ = kZ, .noise = noise};
    PcdDtiData* dti = PCD_MakeDwiPhantom(o, &truth);
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
  bool Straight(size_t i) const {
    const PcdVector3D d = truth.direction[i];
    return d.x == 1.0f && d.y == 0.0f && d.z == 0.0f;
  }
};

std::string Line(const std::string& text, const std::string& start) {
  const size_t at = text.find(start);
  if (at == std::string::npos) return "";
  return text.substr(at, text.find('\n', at) - at);
}

// What stats printed on standard output (the command line merges in the progress).
std::string Summary(const std::string& out) {
  const size_t at = out.find("Tensors: ");
  return at == std::string::npos ? out : out.substr(at);
}

TEST(BatchRegions, CommandLinesAreCheckedBeforeAnythingIsRead) {
  std::string out;
  for (const char* command : {"stats", "grow", "profile"}) {
    EXPECT_EQ(RunCommand(Batch(std::string(command) + " --help"), &out), 0) << command;
    EXPECT_EQ(out.rfind(std::string("Usage: quorix-batch ") + command, 0), 0u) << out;
  }
  EXPECT_EQ(RunCommand(Batch("stats a.raw"), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: stats: needs --mask MASK")) << out;
  EXPECT_EQ(RunCommand(Batch("grow a.raw --seed-mask m.nii --tensor --signal -o r.nii"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("grow a.raw --seed-mask m.nii --signal --fa-min 0.3 -o r.nii"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("grow a.raw --seed-mask m.nii --low 3 -o r.nii"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("grow a.raw --seed-mask m.nii -o r.txt"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("profile a.raw --mask m.nii --fa 0.5"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("profile a.raw --mask m.nii --fa 0.9 0.5"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("profile a.raw --mask m.nii --density low"), &out), 2);
}

// An atlas label picks the same region as a binary mask of it; masks that do not fit
// are refused with their reason.
TEST(BatchRegions, StatsOfAnAtlasLabelAndOfItsBinaryMask) {
  PhantomFiles p(0.03f);
  TempDir& dir = p.dir;
  std::vector<int> atlas(kVoxels, 0), binary(kVoxels, 0);
  int labelled = 0;
  for (size_t i = 0; i < kVoxels; ++i) {
    if (p.Straight(i)) atlas[i] = 2, binary[i] = 1, ++labelled;
    else if (p.truth.adc[i] > 0) atlas[i] = 1;
  }
  WriteMask(dir.file("atlas.nii.gz"), SINT16, atlas);
  WriteMask(dir.file("bundle.raw"), UINT8, binary);
  std::string a, b, json;
  ASSERT_EQ(RunCommand(Batch("stats " + p.stem + ".nii.gz --mask " + dir.file("atlas.nii.gz") +
                             " --label 2"), &a), 0) << a;
  ASSERT_EQ(RunCommand(Batch("stats " + p.stem + ".raw --mpg " + p.stem + ".mpg --mask " +
                             dir.file("bundle.raw") + ""), &b), 0) << b;
  EXPECT_EQ(Summary(a), Summary(b));
  EXPECT_EQ(Line(a, "Tensors: "), "Tensors: " + std::to_string(labelled));
  EXPECT_EQ(Line(a, "Statistics: "), "Statistics: min. - max. (mean/stdev.)");
  // the bundle's true FA is 0.80 and its ADC 0.77e-3; noise spreads them a little
  double fa = 0, adc = 0;
  ASSERT_EQ(std::sscanf(Line(a, "  FA: ").c_str(), "  FA:  %*f - %*f (%lf/", &fa), 1) << a;
  ASSERT_EQ(std::sscanf(Line(a, "  ADC(x1k): ").c_str(), "  ADC(x1k): %*f - %*f (%lf/", &adc), 1);
  EXPECT_NEAR(fa, 0.80, 0.03);
  EXPECT_NEAR(adc, 0.77, 0.03);

  ASSERT_EQ(RunCommand(Batch("stats " + p.stem + ".nii.gz --json --mask " + dir.file("atlas.nii.gz") +
                             " --label 2"), &json), 0) << json;
  EXPECT_NE(json.find("\"tensors\": " + std::to_string(labelled) + ",\n"), std::string::npos) << json;
  double jsonFa = 0;
  const size_t at = json.find("\"FA\": {\"min\": ");
  ASSERT_NE(at, std::string::npos) << json;
  ASSERT_EQ(std::sscanf(json.c_str() + json.find("\"mean\": ", at), "\"mean\": %lf", &jsonFa), 1);
  EXPECT_NEAR(jsonFa, fa, 0.005);

  std::string out;
  EXPECT_EQ(RunCommand(Batch("stats " + p.stem + ".nii.gz --mask " + dir.file("atlas.nii.gz")), &out), 1);
  EXPECT_NE(out.find("is not binary"), std::string::npos) << out;
  ASSERT_EQ(RunCommand(Batch("stats " + p.stem + ".nii.gz --mask " + dir.file("atlas.nii.gz") +
                             " --label 7"), &out), 0);
  EXPECT_EQ(Summary(out), "Tensors: 0\nValid Tensors: 0\nNo valid voxels.\n");
  WriteMask(dir.file("small.nii"), UINT8, std::vector<int>(32 * 32 * 11, 1), {32, 32, 11});
  EXPECT_EQ(RunCommand(Batch("stats " + p.stem + ".nii.gz --mask " + dir.file("small.nii")), &out), 1);
  EXPECT_NE(out.find("is 32 x 32 x 11, the data set 32 x 32 x 12"), std::string::npos) << out;
}

// Tensor growing from a few voxels stays in the straight bundle and points along x;
// grey growing on the So channel fills every voxel of the bundles' So inside the outer
// layer that the seed reaches.
TEST(BatchRegions, GrowWritesTheRegionInBothFormats) {
  PhantomFiles p(0.0f);
  TempDir& dir = p.dir;
  std::vector<int> seeds(kVoxels, 0);
  for (int x = 22; x <= 23; ++x) seeds[At(x, 16, 6)] = 1;  // east of the crossing
  WriteMask(dir.file("seeds.nii"), UINT8, seeds);
  std::string out;
  ASSERT_EQ(RunCommand(Batch("grow " + p.stem + ".nii.gz --seed-mask " + dir.file("seeds.nii") +
                             " --generations 4 -o " + dir.file("region.nii.gz")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "seed voxel count (tensor) = 2\n")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Seed voxels: 2\n")) << out;
  double dx = 0, dy = 0, dz = 0;
  ASSERT_EQ(std::sscanf(Line(out, "Region direction: ").c_str(), "Region direction: %lf %lf %lf",
                        &dx, &dy, &dz), 3) << out;
  EXPECT_NEAR(std::fabs(dx), 1.0, 1e-4);
  EXPECT_NEAR(dy, 0.0, 1e-4);
  PcdWorldGeometry g;
  std::string info;
  PcdRawVolumeData* region = ReadNiftiVolumeFile(dir.file("region.nii.gz").c_str(), &g, &info);
  ASSERT_NE(region, nullptr);
  int inside = 0, outsideBundle = 0;
  for (size_t i = 0; i < kVoxels; ++i) {
    const int16_t v = static_cast<int16_t*>(region->data[0])[i];
    inside += v == 1;
    outsideBundle += v == 1 && !p.Straight(i);
  }
  PCD_DeleteRawVolumeData(region);
  EXPECT_EQ(outsideBundle, 0);
  EXPECT_GT(inside, 40);
  EXPECT_EQ(Line(out, "Region voxels: "), "Region voxels: " + std::to_string(inside));

  // the bundles' So is 8000, the tissue's 6400 and the rim's 9600
  ASSERT_EQ(RunCommand(Batch("grow " + p.stem + ".raw --mpg " + p.stem + ".mpg --seed-mask " +
                             dir.file("seeds.nii") + " --signal --channel 0 --low 7000 --high 9000"
                             " --generations 1000 -o " + dir.file("grey.raw")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Range: 7000 - 9000\n")) << out;
  EXPECT_EQ(out.find("Region direction"), std::string::npos);
  PcdRawVolumeData* grey = ReadRawVolumeFile(dir.file("grey.raw").c_str(), &info);
  PcdRawVolumeData* data = ReadRawVolumeFile((p.stem + ".raw").c_str(), &info);
  ASSERT_TRUE(grey != nullptr && data != nullptr);
  ASSERT_EQ(grey->dataType[0], UINT8);
  int straightGrown = 0, straightInner = 0, wrongSo = 0;
  for (int z = 0; z < kZ; ++z)
    for (int y = 0; y < kY; ++y)
      for (int x = 0; x < kX; ++x) {
        const size_t i = At(x, y, z);
        const bool in = static_cast<uint8_t*>(grey->data[0])[i] == 1;
        wrongSo += in && static_cast<int16_t*>(data->data[0])[i] != 8000;
        const bool inner = x > 0 && y > 0 && z > 0 && x < kX - 1 && y < kY - 1 && z < kZ - 1;
        straightInner += p.Straight(i) && inner;
        straightGrown += p.Straight(i) && in;
      }
  EXPECT_EQ(wrongSo, 0);
  EXPECT_EQ(straightGrown, straightInner);
  PCD_DeleteRawVolumeData(grey);
  PCD_DeleteRawVolumeData(data);
}

// One row per drawn point; "high" samples eight points a voxel; an FA range keeps the
// bundle's points of a region that also covers isotropic tissue.
TEST(BatchRegions, ProfileWritesOneRowPerDrawnPoint) {
  PhantomFiles p(0.02f);
  TempDir& dir = p.dir;
  std::vector<int> mask(kVoxels, 0);
  int region = 0, bundle = 0;
  for (int y = 8; y <= 24; ++y) {  // across the straight bundle, through tissue
    mask[At(10, y, 6)] = 1;
    ++region;
    bundle += p.Straight(At(10, y, 6));
  }
  ASSERT_GT(bundle, 3);
  ASSERT_LT(bundle, region);
  WriteMask(dir.file("line.nii.gz"), UINT8, mask);
  auto rows = [](const std::string& file) {
    std::ifstream in(file);
    std::string line;
    std::vector<std::string> out;
    while (std::getline(in, line)) out.push_back(line);
    return out;
  };
  std::string out;
  ASSERT_EQ(RunCommand(Batch("profile " + p.stem + ".nii.gz --mask " + dir.file("line.nii.gz") +
                             " -o " + dir.file("all.tsv") + ""), &out), 0) << out;
  EXPECT_EQ(Line(out, "Symbols: "), "Symbols: " + std::to_string(region) + "/" +
                                        std::to_string(region) + " (100% displayed)");
  std::vector<std::string> all = rows(dir.file("all.tsv"));
  ASSERT_EQ(all.size(), static_cast<size_t>(region) + 1);
  EXPECT_EQ(all[0], "x\ty\tz\tFA\tADC\tL1\tL2\tL3\te1x\te1y\te1z");
  EXPECT_EQ(all[1].rfind("10.00\t8.00\t6.00\t", 0), 0u) << all[1];

  ASSERT_EQ(RunCommand(Batch("profile " + p.stem + ".nii.gz --mask " + dir.file("line.nii.gz") +
                             " --density high -o " + dir.file("high.tsv") + ""), &out), 0);
  std::vector<std::string> high = rows(dir.file("high.tsv"));
  ASSERT_EQ(high.size(), static_cast<size_t>(8 * region) + 1);
  EXPECT_EQ(high[1].rfind("9.75\t7.75\t5.75\t", 0), 0u) << high[1];
  EXPECT_EQ(high[8].rfind("10.25\t8.25\t6.25\t", 0), 0u) << high[8];

  ASSERT_EQ(RunCommand(Batch("profile " + p.stem + ".nii.gz --mask " + dir.file("line.nii.gz") +
                             " --fa 0.5 1 -o " + dir.file("fa.tsv") + ""), &out), 0);
  EXPECT_EQ(rows(dir.file("fa.tsv")).size(), static_cast<size_t>(bundle) + 1);
  EXPECT_EQ(Line(out, "Symbols: ").rfind("Symbols: " + std::to_string(bundle) + "/", 0), 0u) << out;
}

}  // namespace
