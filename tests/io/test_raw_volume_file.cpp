// The raw volume file with header: layout, round trips and refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "io/notice.h"
#include "io/raw_volume_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::ReadFileBytes;
using quorix_test::TempDir;
using quorix_test::WriteFileBytes;

std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

// Collects the notices raised while it lives, instead of printing them.
using quorix_test::NoticeRecorder;

PcdRawVolumeData* TwoChannelVolume() {
  const PcdIntSize4D size{3, 2, 2, 2};
  const int32_t types[2] = {SINT16, UINT32}, formats[2] = {PCD_MONOCHROME, PCD_RGBA_PACKED};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  for (int i = 0; i < 12; ++i) {
    static_cast<int16_t*>(v->data[0])[i] = static_cast<int16_t>(i * 1000 - 4000);
    static_cast<uint32_t*>(v->data[1])[i] = 0xFF000000u + static_cast<uint32_t>(i);
  }
  return v;
}

TEST(RawVolumeFile, WriterProducesTheHeaderLinesAndBodyByteForByte) {
  TempDir dir;
  const PcdIntSize4D size{2, 2, 1, 1};
  const int32_t type = SINT16, format = PCD_MONOCHROME;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, &type, &format);
  static_cast<int16_t*>(v->data[0])[0] = 0x0102;
  static_cast<int16_t*>(v->data[0])[3] = -2;
  ASSERT_EQ(WriteRawVolumeFile(v, dir.file("a.raw").c_str()), 0);
  std::vector<uint8_t> expected = Bytes(
      "# PELLUCID raw format file with header\n2 2 1 1\n3 \n0 \n8 uncompressed\n");
  for (uint8_t b : {0x02, 0x01, 0, 0, 0, 0, 0xFE, 0xFF}) expected.push_back(b);
  EXPECT_EQ(ReadFileBytes(dir.file("a.raw")), expected);

  EXPECT_EQ(PCD_ExportRawVolumeData(dir.file("body").c_str(), v), 8);
  EXPECT_EQ(ReadFileBytes(dir.file("body")),
            std::vector<uint8_t>(expected.end() - 8, expected.end()));
  PCD_DeleteRawVolumeData(v);
}

TEST(RawVolumeFile, ReaderTakesTheBodyFromTheEndOfTheFile) {
  TempDir dir;
  std::vector<uint8_t> file = Bytes(
      "# PELLUCID raw format file with header\n2 1 1 2\n0 1 \n0\t0\n4 uncompressed\n"
      "padding the viewer may leave");
  for (uint8_t b : {7, 8, 0xFF, 0x80}) file.push_back(b);
  WriteFileBytes(dir.file("b.raw"), file);

  PcdIntSize4D size{};
  std::vector<int32_t> types(kPcdRawVolumeFileMaxChannels), formats(kPcdRawVolumeFileMaxChannels);
  EXPECT_EQ(ReadRawVolumeFileHeader(dir.file("b.raw").c_str(), &size, types.data(),
                                    formats.data()),
            static_cast<int64_t>(file.size()) - 4);
  std::string info;
  PcdRawVolumeData* v = ReadRawVolumeFile(dir.file("b.raw").c_str(), &info);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(info, "Data Source: PELLUCID file: \nFile name: " + dir.file("b.raw") + "\n");
  EXPECT_EQ(v->matrixSize->channels, 2);
  EXPECT_EQ(static_cast<uint8_t*>(v->data[0])[1], 8);
  EXPECT_EQ(static_cast<int8_t*>(v->data[1])[1], -128);
  PCD_DeleteRawVolumeData(v);

  // the same header with Windows line ends, and a magic line with something after it
  file = Bytes("# PELLUCID raw format file with header\r\n2 1 1 2\r\n0 1 \r\n0\t0\r\n4 uncompressed\r\n");
  for (uint8_t b : {7, 8, 0xFF, 0x80}) file.push_back(b);
  WriteFileBytes(dir.file("w.raw"), file);
  v = ReadRawVolumeFile(dir.file("w.raw").c_str(), &info);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->matrixSize->x, 2);
  EXPECT_EQ(static_cast<uint8_t*>(v->data[0])[1], 8);
  EXPECT_EQ(static_cast<int8_t*>(v->data[1])[1], -128);
  PCD_DeleteRawVolumeData(v);
  WriteFileBytes(dir.file("x.raw"), Bytes("# PELLUCID raw format file with header!\n2 1 1 1\n0\n0\n2 uncompressed\nab"));
  EXPECT_EQ(ReadRawVolumeFileHeader(dir.file("x.raw").c_str(), &size, types.data(), formats.data()), -1);
}

TEST(RawVolumeFile, RoundTripKeepsEveryByteAndSlabsReadOnePlane) {
  TempDir dir;
  PcdRawVolumeData* v = TwoChannelVolume();
  ASSERT_EQ(WriteRawVolumeFile(v, dir.file("c.raw").c_str()), 0);
  std::string info;
  PcdRawVolumeData* back = ReadRawVolumeFile(dir.file("c.raw").c_str(), &info);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->colorFormat[1], PCD_RGBA_PACKED);
  EXPECT_EQ(std::memcmp(back->data[0], v->data[0], 24), 0);
  EXPECT_EQ(std::memcmp(back->data[1], v->data[1], 48), 0);

  // plane 1 of channel 0 lies 12 bytes into the exported body
  ASSERT_EQ(PCD_ExportRawVolumeData(dir.file("body").c_str(), v), 72);
  PCD_ClearChannelOfRawVolumeData(back, 0);
  EXPECT_EQ(ReadRawVolumeSlab(dir.file("body").c_str(), back, 0, 0, 12), 12);
  EXPECT_EQ(std::memcmp(back->data[0], static_cast<int16_t*>(v->data[0]) + 6, 12), 0);
  EXPECT_EQ(static_cast<int16_t*>(back->data[0])[6], 0);
  // a slab running past the end of the file changes nothing
  PCD_ClearChannelOfRawVolumeData(back, 0);
  EXPECT_LT(ReadRawVolumeSlab(dir.file("body").c_str(), back, 0, 1, 66), 12);
  EXPECT_EQ(static_cast<int16_t*>(back->data[0])[6], 0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  ReadRawVolumeSlab(dir.file("none").c_str(), back, 0, 0, 0);
  const std::string said = testing::internal::GetCapturedStdout() +
                           testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("File (" + dir.file("none") + ") not found\n"), std::string::npos);
  PCD_DeleteRawVolumeData(back);
  PCD_DeleteRawVolumeData(v);
}

TEST(RawVolumeFile, MissingOrEmptyFileGivesOnlyTheDataSourceText) {
  TempDir dir;
  NoticeRecorder notices;
  std::string info = "previous";
  EXPECT_EQ(ReadRawVolumeFile(dir.file("missing.raw").c_str(), &info), nullptr);
  EXPECT_EQ(info, "Data Source: PELLUCID file: \nFile name: " + dir.file("missing.raw") + "\n");
  WriteFileBytes(dir.file("empty.raw"), {});
  EXPECT_EQ(ReadRawVolumeFile(dir.file("empty.raw").c_str(), &info), nullptr);
  EXPECT_TRUE(notices.notices.empty());
}

// Every damaged header is refused: a wrong magic or compression word with the warning
// notice, impossible sizes with an "Err: " line; no read goes past the file.
TEST(RawVolumeFile, DamagedTruncatedAndLyingFilesAreRefused) {
  TempDir dir;
  const std::string magic = "# PELLUCID raw format file with header\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"bad magic", "# PELLUCID raw format file with headers\n1 1 1 1\n0 \n0 \n1 uncompressed\nA"},
      {"compressed", magic + "1 1 1 1\n0 \n0 \n1 compressed\nA"},
      {"zero size", magic + "0 1 1 1\n0 \n0 \n0 uncompressed\n"},
      {"negative size", magic + "-4 1 1 1\n0 \n0 \n4 uncompressed\nAAAA"},
      {"too many channels", magic + "1 1 1 1025\n"},
      {"bad type", magic + "1 1 1 1\n9 \n0 \n1 uncompressed\nA"},
      {"truncated header", magic + "2 2 2"},
      {"truncated body", magic + "2 2 2 1\n3 \n0 \n16 uncompressed\nAAAA"},
      {"count too small", magic + "2 2 2 1\n3 \n0 \n4 uncompressed\nAAAAAAAAAAAAAAAA"},
      {"overflowing product", magic + "65536 65536 65536 8\n7 7 7 7 7 7 7 7 \n"
                                      "0 0 0 0 0 0 0 0 \n16 uncompressed\nAAAAAAAAAAAAAAAA"},
      {"garbage", std::string("\x00\xFF\x13garbage", 10)},
  };
  for (const auto& [name, text] : cases) {
    SCOPED_TRACE(name);
    const std::string path = dir.file("bad.raw");
    quorix_test::WriteFileText(path, text);
    NoticeRecorder notices;
    testing::internal::CaptureStderr();
    std::string info;
    EXPECT_EQ(ReadRawVolumeFile(path.c_str(), &info), nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    const bool warned = notices.notices.size() == 1 &&
                        notices.notices[0].text == "This is NOT a PELLUCID file." &&
                        notices.notices[0].title == "Warning";
    EXPECT_TRUE(warned || err.rfind("Err: ", 0) == 0) << err;
  }
}

}  // namespace
