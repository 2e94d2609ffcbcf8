// quorix-batch info and convert on hand-made inputs: options, warnings and exit statuses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io/raw_volume_file.h"
#include "support/test_support.h"
#include "tools/batch/batch.h"

namespace {

using quorix_test::BuiltProgram;
using quorix_test::ReadFileBytes;
using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

// 7 SINT16 channels then one RGBA channel: the DTI record takes the first seven.
void WriteSevenChannelVolume(const std::string& path) {
  const PcdIntSize4D size{4, 3, 2, 8};
  std::vector<int32_t> types(8, SINT16), formats(8, PCD_MONOCHROME);
  types[7] = UINT32;
  formats[7] = PCD_RGBA_PACKED;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  for (int c = 0; c < 7; ++c)
    for (int i = 0; i < 24; ++i) static_cast<int16_t*>(v->data[c])[i] = static_cast<int16_t>(c * 50 - i);
  for (int i = 0; i < 24; ++i) static_cast<uint32_t*>(v->data[7])[i] = 0xFF000000u + static_cast<uint32_t>(i);
  ASSERT_EQ(WriteRawVolumeFile(v, path.c_str()), 0);
  PCD_DeleteRawVolumeData(v);
}

TEST(BatchIo, EveryCommandAnswersHelp) {
  std::string out;
  ASSERT_EQ(RunCommand(Batch("--help"), &out), 0);
  for (const char* command : {"info", "convert", "phantom", "channels", "track"}) {
    if (out.find(command) == std::string::npos) continue;  // not built into this tool yet
    EXPECT_EQ(RunCommand(Batch(std::string(command) + " --help"), &out), 0) << command;
    EXPECT_EQ(out.rfind("Usage: quorix-batch ", 0), 0u) << command;
  }
  EXPECT_EQ(RunCommand(Batch("info --help"), &out), 0);
  EXPECT_NE(out.find("--voxel-size MM"), std::string::npos);
  EXPECT_NE(out.find("--mpg FILE"), std::string::npos);
}

TEST(BatchIo, InfoAppliesTheSingleSoDefaultThenTheMpgFile) {
  TempDir dir;
  const std::string raw = dir.file("v.raw");
  WriteSevenChannelVolume(raw);
  std::string out;
  ASSERT_EQ(RunCommand(Batch("info " + raw), &out), 0) << out;
  EXPECT_NE(out.find("Matrix: 4 x 3 x 2, 8 channels"), std::string::npos) << out;
  EXPECT_NE(out.find("Channel 6: SINT16\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Channel 7: UINT32 RGBA\n"), std::string::npos) << out;
  EXPECT_NE(out.find("carries no voxel size; 1.0 mm is used"), std::string::npos) << out;
  EXPECT_NE(out.find("Voxel size: 1 mm"), std::string::npos) << out;

  // --voxel-size silences the warning; the MPG file written by convert reads back
  // without any rotation
  ASSERT_EQ(RunCommand(Batch("convert " + raw + " --voxel-size 2.5 -o " + dir.file("a.mpg")), &out),
            0) << out;
  EXPECT_EQ(out.find("voxel size"), std::string::npos) << out;
  ASSERT_EQ(RunCommand(Batch("info " + raw + " --voxel-size=2.5 --mpg " + dir.file("a.mpg")), &out),
            0) << out;
  EXPECT_EQ(out.find("voxel size"), std::string::npos) << out;
  EXPECT_EQ(out.find("rotated"), std::string::npos) << out;
  EXPECT_NE(out.find("Voxel size: 2.5 mm"), std::string::npos) << out;

  // a DTI file keeps the voxel size it was written with
  ASSERT_EQ(RunCommand(Batch("convert " + raw + " --voxel-size 2.5 -o " + dir.file("a.dti")), &out),
            0) << out;
  ASSERT_EQ(RunCommand(Batch("info " + dir.file("a.dti")), &out), 0) << out;
  EXPECT_NE(out.find("Voxel size: 2.5 mm"), std::string::npos) << out;
  EXPECT_EQ(out.find("voxel size"), std::string::npos) << out;
  ASSERT_EQ(RunCommand(Batch("convert " + dir.file("a.dti") + " -o " + dir.file("b.raw")), &out),
            0) << out;
  EXPECT_EQ(ReadFileBytes(raw), ReadFileBytes(dir.file("b.raw")));
}

TEST(BatchIo, BadLinesAndBadFilesFail) {
  TempDir dir;
  const std::string raw = dir.file("v.raw");
  WriteSevenChannelVolume(raw);
  std::string out;
  EXPECT_EQ(RunCommand(Batch("info " + raw + " --voxel-size -1"), &out), kBatchUsageError) << out;
  EXPECT_EQ(RunCommand(Batch("info " + raw + " --voxel-size abc"), &out), kBatchUsageError) << out;
  EXPECT_EQ(RunCommand(Batch("info " + raw + " --frobnicate"), &out), kBatchUsageError) << out;
  EXPECT_EQ(RunCommand(Batch("info " + raw + " " + raw), &out), kBatchUsageError) << out;
  EXPECT_EQ(RunCommand(Batch("convert " + raw), &out), kBatchUsageError) << out;  // no -o

  // a cut body, garbage and a missing MPG file: "Err: " and status 1, no output written
  std::vector<uint8_t> bytes = ReadFileBytes(raw);
  bytes.resize(bytes.size() - 3);
  quorix_test::WriteFileBytes(dir.file("cut.raw"), bytes);
  quorix_test::WriteFileText(dir.file("junk.dti"), "junk\x01\x02");
  for (const std::string& line :
       {"convert " + dir.file("cut.raw") + " -o " + dir.file("out.dti"),
        "convert " + dir.file("junk.dti") + " -o " + dir.file("out.dti"),
        "convert " + raw + " --mpg " + dir.file("none.mpg") + " -o " + dir.file("out.dti")}) {
    EXPECT_EQ(RunCommand(Batch(line), &out), kBatchFailed) << line << "\n" << out;
    EXPECT_NE(out.find("Err: "), std::string::npos) << out;
    EXPECT_FALSE(std::filesystem::exists(dir.file("out.dti"))) << line;
  }
}

}  // namespace
