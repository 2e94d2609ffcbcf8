// quorix-batch end to end: the built program on files it writes itself.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dti/channels.h"
#include "io/raw_volume_file.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::BuiltProgram;
using quorix_test::ReadFileBytes;
using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

TEST(BatchTool, HelpListsEveryCommandAndWrongLinesFailWithUsageStatus) {
  std::string out;
  EXPECT_EQ(RunCommand(Batch("--help"), &out), 0);
  for (const char* command : {"info", "convert", "phantom", "channels", "track"})
    EXPECT_NE(out.find(command), std::string::npos) << command;
  for (const char* command : {"info", "convert", "phantom", "channels"}) {
    EXPECT_EQ(RunCommand(Batch(std::string(command) + " --help"), &out), 0);
    EXPECT_EQ(out.rfind("Usage: quorix-batch ", 0), 0u) << command;
  }
  EXPECT_EQ(RunCommand(Batch("frobnicate"), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: unknown command"));
  EXPECT_EQ(RunCommand(Batch("info"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("convert a.raw -o b.txt"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("channels a.raw --threads 0 -o b.raw"), &out), 2);
  // an option given twice, in either spelling, and one without its value
  EXPECT_EQ(RunCommand(Batch("track a.raw --seed-box 1,1,1,2,2,2 --seed-box=3,3,3,4,4,4"), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: track: option --seed-box given twice")) << out;
  EXPECT_EQ(RunCommand(Batch("model a.raw --seed-box"), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: model: option --seed-box needs a value")) << out;
  EXPECT_EQ(RunCommand(Batch("track a.raw --seed-box 1,1,1,2,2,2 --seed-mask m.raw"), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: track: needs exactly one of --seed-mask and --seed-box")) << out;
  EXPECT_EQ(RunCommand(Batch("info /nonexistent.raw"), &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: "));
}

TEST(BatchTool, RawToDtiToRawKeepsEveryByteAndInfoDumpsTheSetting) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 12,10,6 --directions 6 --noise 0.05 --no-truth"
                             " --format raw -o " + stem), &out), 0) << out;
  ASSERT_EQ(RunCommand(Batch("convert " + stem + ".raw --mpg " + stem + ".mpg -o " +
                             dir.file("a.dti")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Warning: "));  // no voxel size in a raw file
  ASSERT_EQ(RunCommand(Batch("convert " + dir.file("a.dti") + " -o " + dir.file("b.raw")), &out),
            0) << out;
  EXPECT_EQ(ReadFileBytes(stem + ".raw"), ReadFileBytes(dir.file("b.raw")));

  ASSERT_EQ(RunCommand(Batch("info " + dir.file("a.dti")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Matrix: 12 x 10 x 6, 7 channels")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Channel 6: SINT16"));
  EXPECT_EQ(out.find("carries no voxel size"), std::string::npos) << out;  // kept in the file
}

// On the noise-free phantom the maps match the true FA and ADC within one unit wherever
// a single tensor describes the voxel, and the colour's strongest component follows the
// true principal direction.
TEST(BatchTool, ChannelsOfTheNoiseFreePhantomMatchTheTruth) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 32,32,12 --format raw --no-truth -o " + stem), &out),
            0) << out;
  ASSERT_EQ(RunCommand(Batch("channels " + stem + ".raw --mpg " + stem + ".mpg --voxel-size 2"
                             " --threads 2 -o " + dir.file("maps.raw")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Additional channels computation 100% completed"));
  std::string info;
  PcdRawVolumeData* maps = ReadRawVolumeFile(dir.file("maps.raw").c_str(), &info);
  ASSERT_NE(maps, nullptr);
  ASSERT_EQ(maps->matrixSize->channels, 35);

  PcdPhantomOptions o;
  o.sizeX = o.sizeY = 32;
  o.sizeZ = 12;
  PcdPhantomTruth truth;
  PcdDtiData* dti = PCD_MakeDwiPhantom(o, &truth);
  ASSERT_NE(dti, nullptr);
  PcdDiffusionTensorData* r = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  int checked = 0, bundles = 0;
  double worstFa = 0, worstAdc = 0;
  for (int z = 0; z < 12; ++z)
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 32; ++x) {
        const size_t at = static_cast<size_t>((z * 32 + y) * 32 + x);
        const PcdIntVector3D v{x, y, z};
        if (truth.adc[at] == 0.0f) continue;  // outside, or a crossing
        PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, r, &v);
        if (!PCDdti_CheckDiffusionTensorIsValid(r)) continue;
        ++checked;
        const int fa = static_cast<int16_t*>(maps->data[32])[at];
        const int adc = static_cast<int16_t*>(maps->data[33])[at];
        // the signals are whole numbers, so allow their rounding on top of one unit
        // the maps truncate, so they are compared with the truncated true values
        worstFa = std::max(worstFa, std::fabs(fa - std::trunc(truth.fa[at] * 1000.0)));
        worstAdc = std::max(worstAdc, std::fabs(adc - std::trunc(truth.adc[at] * 1e6)));
        const PcdVector3D d = truth.direction[at];
        if (d.x == 0 && d.y == 0 && d.z == 0) continue;
        ++bundles;
        const uint32_t color = static_cast<uint32_t*>(maps->data[31])[at];
        const float component[3] = {static_cast<float>(color >> 24),
                                    static_cast<float>((color >> 16) & 255),
                                    static_cast<float>((color >> 8) & 255)};
        const float truthAbs[3] = {std::fabs(d.x), std::fabs(d.y), std::fabs(d.z)};
        const int strongest = static_cast<int>(std::max_element(component, component + 3) - component);
        EXPECT_GT(truthAbs[strongest], 0.5f) << x << "," << y << "," << z;
      }
  EXPECT_LE(worstFa, 1.0);
  EXPECT_LE(worstAdc, 1.0);
  EXPECT_GT(checked, 1500);
  EXPECT_GT(bundles, 100);
  PCDdti_DeleteDiffusionTensorData(r);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  PCD_DeleteRawVolumeData(maps);
}

TEST(BatchTool, NiftiRoundTripAndMapsBesideEachOther) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 10,10,4 --directions 12 --so 2 -o " + stem), &out), 0)
      << out;
  for (const char* tail : {".raw", ".mpg", ".nii.gz", ".bval", ".bvec", "_true_fa.nii.gz",
                           "_true_adc.nii.gz", "_true_dir.nii.gz"})
    EXPECT_TRUE(std::filesystem::exists(stem + tail)) << tail;
  ASSERT_EQ(RunCommand(Batch("convert " + stem + ".nii.gz -o " + dir.file("n.raw")), &out), 0)
      << out;
  EXPECT_EQ(ReadFileBytes(stem + ".raw"), ReadFileBytes(dir.file("n.raw")));
  ASSERT_EQ(RunCommand(Batch("channels " + stem + ".nii.gz --threads 1 -o " +
                             dir.file("m.nii.gz")), &out), 0) << out;
  for (const char* map : {"m_color.nii.gz", "m_fa.nii.gz", "m_adc.nii.gz"})
    EXPECT_TRUE(std::filesystem::exists(dir.file(map))) << map;
}

TEST(BatchTool, TrackWritesTheSameDumpForAnyThreadCountAndReadableTracts) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 32,32,12 --format nii --no-truth -o " + stem), &out), 0)
      << out;
  std::string first;
  for (const char* threads : {"1", "2", "7"}) {
    const std::string dump = dir.file(std::string("d") + threads + ".txt");
    ASSERT_EQ(RunCommand(Batch("track " + stem + ".nii.gz --seed-box 4,14,5,8,16,6 --seeds-per-voxel 3"
                               " --threads " + threads + " --dump " + dump + " --tck " +
                               dir.file("t.tck") + " --trk " + dir.file("t.trk")), &out), 0) << out;
    EXPECT_TRUE(quorix_test::HasLine(out, "Seed Points:   90\n")) << out;
    EXPECT_TRUE(quorix_test::HasLine(out, "Tracked Lines:   "));
    const std::string text = quorix_test::ReadFileText(dump);
    if (first.empty()) first = text;
    EXPECT_EQ(text, first) << threads;
  }
  EXPECT_EQ(RunCommand(Batch("track " + stem + ".nii.gz --seed-box 4,14,5,99,16,6"), &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: --seed-box"));
  EXPECT_EQ(RunCommand(Batch("track " + stem + ".nii.gz"), &out), 2);
  if (RunCommand("command -v tckinfo >/dev/null 2>&1") != 0) GTEST_SKIP() << "MRtrix3 is not installed";
  ASSERT_EQ(RunCommand("tckinfo -count " + dir.file("t.tck") + " 2>&1", &out), 0) << out;
  // the tracts land inside the image: a density map of them has its mass in the seeds' bundle
  ASSERT_EQ(RunCommand("tckmap -quiet -template " + stem + ".nii.gz " + dir.file("t.tck") + " " +
                       dir.file("tdi.nii") + " && mrstats -quiet -output max " + dir.file("tdi.nii") + " 2>&1", &out),
            0) << out;
  EXPECT_GT(std::stod(out), 5.0) << out;
}

// A seed in the isotropic tissue (FA near 0 with the noise): the FA stop, on by default,
// takes the fiber at its seed; switched off, both halves run on to the node limit.
TEST(BatchTool, TheStopsOnByDefaultCanBeSwitchedOffAndTheBufferIsReported) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 32,32,12 --noise 0.02 --format nii --no-truth -o " + stem), &out), 0)
      << out;
  const auto nodes = [](const std::string& text) {
    const size_t at = text.find("Nodes:   ");
    return at == std::string::npos ? -1LL : std::stoll(text.substr(at + 9));
  };
  const std::string track = "track " + stem + ".nii.gz --seed-box 24,6,5,24,6,5 --nodes 20";
  ASSERT_EQ(RunCommand(Batch(track), &out), 0) << out;
  EXPECT_EQ(nodes(out), 0) << out;  // no fiber leaves the seed
  EXPECT_TRUE(quorix_test::HasLine(out, "Buffer Size:   ")) << out;
  ASSERT_EQ(RunCommand(Batch(track + " --no-fa-min --no-so-min"), &out), 0) << out;
  EXPECT_EQ(nodes(out), 39) << out;  // 20 nodes each way, the seed shared
}

}  // namespace
