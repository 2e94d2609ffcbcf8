// quorix-batch info and convert on hand-made inputs: options, warnings and exit statuses.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
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
  EXPECT_TRUE(quorix_test::HasLine(out, "Matrix: 4 x 3 x 2, 8 channels")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Channel 6: SINT16\n")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Channel 7: UINT32 RGBA\n")) << out;
  EXPECT_NE(out.find("carries no voxel size; 1.0 mm is used"), std::string::npos) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Voxel size: 1 mm")) << out;

  // --voxel-size silences the warning; the MPG file written by convert reads back
  // without any rotation
  ASSERT_EQ(RunCommand(Batch("convert " + raw + " --voxel-size 2.5 -o " + dir.file("a.mpg")), &out),
            0) << out;
  EXPECT_EQ(out.find("voxel size"), std::string::npos) << out;
  ASSERT_EQ(RunCommand(Batch("info " + raw + " --voxel-size=2.5 --mpg " + dir.file("a.mpg")), &out),
            0) << out;
  EXPECT_EQ(out.find("voxel size"), std::string::npos) << out;
  EXPECT_EQ(out.find("rotated"), std::string::npos) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Voxel size: 2.5 mm")) << out;

  // a DTI file keeps the voxel size it was written with
  ASSERT_EQ(RunCommand(Batch("convert " + raw + " --voxel-size 2.5 -o " + dir.file("a.dti")), &out),
            0) << out;
  ASSERT_EQ(RunCommand(Batch("info " + dir.file("a.dti")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Voxel size: 2.5 mm")) << out;
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
    EXPECT_TRUE(quorix_test::HasLine(out, "Err: ")) << out;
    EXPECT_FALSE(std::filesystem::exists(dir.file("out.dti"))) << line;
  }
}

// ---- data sets whose setting does not fit their volume --------------------------------

// A DTI file built byte by byte: the 45-character magic, the volume (x, y, z, channel
// count, type codes, colour codes, blocks) and the setting (channel count, So count, b
// values, directions, reserved float, ready flag), all little-endian.
struct DtiFileBytes {
  std::vector<uint8_t> bytes;
  void Int(int32_t v) {
    uint8_t b[4];
    std::memcpy(b, &v, 4);
    bytes.insert(bytes.end(), b, b + 4);
  }
  void Float(float v) {
    int32_t i;
    std::memcpy(&i, &v, 4);
    Int(i);
  }
  DtiFileBytes(PcdIntSize4D size, int32_t type, int32_t settingChannels, int32_t ready) {
    const std::string magic = "# DTI data including PELLUCID raw volume data";
    bytes.assign(magic.begin(), magic.end());
    Int(size.x), Int(size.y), Int(size.z), Int(size.channels);
    for (int c = 0; c < size.channels; ++c) Int(type);
    for (int c = 0; c < size.channels; ++c) Int(0);
    const int voxels = size.x * size.y * size.z;
    for (int c = 0; c < size.channels; ++c)
      for (int i = 0; i < voxels; ++i) {
        // So 200, DWIs 100 + c: a plausible signal in either width
        const int value = c == 0 ? 200 : 100 + c;
        bytes.push_back(static_cast<uint8_t>(value));
        if (type == SINT16) bytes.push_back(0);
      }
    Int(settingChannels), Int(1);
    for (int c = 0; c < settingChannels; ++c) Float(c == 0 ? 0.0f : 1000.0f);
    const float g[6][3] = {{0.707f, 0, 0.707f}, {-0.707f, 0, 0.707f}, {0, 0.707f, 0.707f},
                           {0, 0.707f, -0.707f}, {0.707f, 0.707f, 0}, {-0.707f, 0.707f, 0}};
    for (int c = 0; c < settingChannels; ++c)
      for (int k = 0; k < 3; ++k) Float(c == 0 ? 0.0f : g[(c - 1) % 6][k]);
    Float(2.0f);  // the voxel size
    Int(ready);
  }
};

// A raw volume file written by hand: the five header lines and the blocks.
void WriteRawFile(const std::string& path, PcdIntSize4D size, const std::vector<int32_t>& types) {
  std::string text = "# PELLUCID raw format file with header\n" + std::to_string(size.x) + " " +
                     std::to_string(size.y) + " " + std::to_string(size.z) + " " +
                     std::to_string(size.channels) + "\n";
  for (int32_t t : types) text += std::to_string(t) + " ";
  text += "\n";
  for (size_t c = 0; c < types.size(); ++c) text += "0 ";
  text += "\n";
  const int voxels = size.x * size.y * size.z;
  std::string body;
  for (size_t c = 0; c < types.size(); ++c)
    for (int i = 0; i < voxels; ++i) {
      const int value = c == 0 ? 200 : 100 + static_cast<int>(c);
      body.push_back(static_cast<char>(value));
      if (types[c] == SINT16) body.push_back(0);
    }
  text += std::to_string(body.size()) + " uncompressed\n" + body;
  quorix_test::WriteFileText(path, text);
}

// Runs quorix-batch with stdout and stderr kept apart.
int RunBatch(const TempDir& dir, const std::string& arguments, std::string* err) {
  const std::string errFile = dir.file("stderr.txt");
  const int status = RunCommand(BuiltProgram("quorix-batch") + " " + arguments + " 2>" + errFile +
                                " >" + dir.file("stdout.txt"));
  *err = quorix_test::ReadFileText(errFile);
  return status;
}

// Status 1, exactly one "Err: " line on stderr, no output file.
void ExpectRefusedByTheCheck(const TempDir& dir, const std::string& input, const std::string& extra,
                             const std::string& mention) {
  const std::string outputs[2][2] = {{"channels", "out.raw"}, {"track", "out.tck"}};
  for (const auto& [command, output] : outputs) {
    SCOPED_TRACE(command + " " + input + extra);
    std::string err;
    const std::string arguments =
        command == "channels" ? "channels " + input + extra + " -o " + dir.file(output)
                              : "track " + input + extra + " --seed-box 0,0,0,1,1,0 --tck " + dir.file(output);
    EXPECT_EQ(RunBatch(dir, arguments, &err), kBatchFailed) << err;
    size_t errLines = 0;
    for (size_t at = err.find("Err: "); at != std::string::npos; at = err.find("Err: ", at + 1))
      ++errLines;
    EXPECT_EQ(errLines, 1u) << err;
    EXPECT_NE(err.find(mention), std::string::npos) << err;
    EXPECT_FALSE(std::filesystem::exists(dir.file(output)));
  }
}

// The earlier MPG layout with n equal to the channel count describes one channel more
// than the volume holds; the setting keeps it, the analyses refuse it.
TEST(BatchChecks, EarlierMpgLayoutOneChannelTooMany) {
  TempDir dir;
  WriteRawFile(dir.file("v.raw"), PcdIntSize4D{3, 3, 3, 7}, std::vector<int32_t>(7, SINT16));
  std::string mpg = "7\n1000\n";
  for (int i = 0; i < 7; ++i) mpg += "0.707 0.707 0\n";
  quorix_test::WriteFileText(dir.file("old.mpg"), mpg);
  ExpectRefusedByTheCheck(dir, dir.file("v.raw"), " --mpg " + dir.file("old.mpg"), "Err: ");

  // six directions fit the seven channels: the same commands run
  mpg = "6\n1000\n0.707 0 0.707\n-0.707 0 0.707\n0 0.707 0.707\n0 0.707 -0.707\n0.707 0.707 0\n"
        "-0.707 0.707 0\n";
  quorix_test::WriteFileText(dir.file("six.mpg"), mpg);
  std::string err;
  EXPECT_EQ(RunBatch(dir, "channels " + dir.file("v.raw") + " --mpg " + dir.file("six.mpg") + " -o " +
                              dir.file("ok.raw"), &err), kBatchOk) << err;
  EXPECT_TRUE(std::filesystem::exists(dir.file("ok.raw")));
}

// A current-layout file may take every channel of the volume, also one that is not
// signed 16-bit.
TEST(BatchChecks, CurrentMpgLayoutOverAnUnsigned8BitChannel) {
  TempDir dir;
  std::vector<int32_t> types(8, SINT16);
  types[7] = UINT8;
  WriteRawFile(dir.file("v.raw"), PcdIntSize4D{3, 3, 3, 8}, types);
  std::string mpg = "#Quorix-II MPG description file (not used in earlier Quorix)\n"
                    "1.0 0.0 0.0\n0.0 1.0 0.0\n8\n1\n0 0 0 0\n";
  for (int i = 1; i < 8; ++i) mpg += "1000 0.707 0 0.707\n";
  quorix_test::WriteFileText(dir.file("all.mpg"), mpg);
  ExpectRefusedByTheCheck(dir, dir.file("v.raw"), " --mpg " + dir.file("all.mpg"), "channel 8");
}

// DTI files: unsigned 8-bit channels marked ready, a setting over more channels than the
// volume holds, a volume one voxel thick.
TEST(BatchChecks, DtiFilesWhoseSettingDoesNotFit) {
  TempDir dir;
  quorix_test::WriteFileBytes(dir.file("u8.dti"),
                              DtiFileBytes(PcdIntSize4D{3, 3, 3, 7}, UINT8, 7, 1).bytes);
  ExpectRefusedByTheCheck(dir, dir.file("u8.dti"), "", "channel 1");

  quorix_test::WriteFileBytes(dir.file("wide.dti"),
                              DtiFileBytes(PcdIntSize4D{3, 3, 3, 7}, SINT16, 9, 1).bytes);
  ExpectRefusedByTheCheck(dir, dir.file("wide.dti"), "", "Err: ");

  // one voxel thick: the maps are computed voxel by voxel, tracking interpolates
  quorix_test::WriteFileBytes(dir.file("flat.dti"),
                              DtiFileBytes(PcdIntSize4D{3, 3, 1, 7}, SINT16, 7, 1).bytes);
  std::string err;
  EXPECT_EQ(RunBatch(dir, "channels " + dir.file("flat.dti") + " -o " + dir.file("flat.raw"), &err),
            kBatchOk) << err;
  EXPECT_TRUE(std::filesystem::exists(dir.file("flat.raw")));
  EXPECT_EQ(RunBatch(dir, "track " + dir.file("flat.dti") + " --seed-box 0,0,0,1,1,0 --tck " +
                              dir.file("flat.tck"), &err), kBatchFailed) << err;
  EXPECT_EQ(err.find("Err: "), err.rfind("Err: ")) << err;
  EXPECT_TRUE(quorix_test::HasLine(err, "Err: ")) << err;
  EXPECT_FALSE(std::filesystem::exists(dir.file("flat.tck")));

  // the same bytes with fitting counts are accepted: the builder itself is sound
  quorix_test::WriteFileBytes(dir.file("good.dti"),
                              DtiFileBytes(PcdIntSize4D{3, 3, 3, 7}, SINT16, 7, 1).bytes);
  EXPECT_EQ(RunBatch(dir, "track " + dir.file("good.dti") + " --seed-box 0,0,0,1,1,0 --tck " +
                              dir.file("good.tck"), &err), kBatchOk) << err;
  EXPECT_TRUE(std::filesystem::exists(dir.file("good.tck")));
}

}  // namespace
