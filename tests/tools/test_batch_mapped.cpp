// channels and track on a raw volume file whose body they map: the results are those of
// the copying reader, also when the output replaces the input file itself.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using quorix_test::ReadFileBytes;
using quorix_test::RunCommand;
using quorix_test::TempDir;
using quorix_test::WriteFileBytes;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

// The file with pad bytes between its five header lines and its body (the reader takes the
// body from the end), so that the body starts on an offset of the parity wanted.
std::vector<uint8_t> WithBodyAt(const std::vector<uint8_t>& file, size_t parity) {
  size_t lines = 0, headerEnd = 0;
  while (lines < 5 && headerEnd < file.size()) lines += file[headerEnd++] == '\n';
  std::vector<uint8_t> out(file.begin(), file.begin() + static_cast<long>(headerEnd));
  if (headerEnd % 2 != parity) out.push_back('#');
  out.insert(out.end(), file.begin() + static_cast<long>(headerEnd), file.end());
  return out;
}

TEST(BatchMapped, MapsAndTractsFromAMappedBodyEqualThoseOfTheCopyingReader) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 40,40,10 --noise 0.03 --format raw --no-truth -o " + stem), &out), 0)
      << out;
  const std::vector<uint8_t> original = ReadFileBytes(stem + ".raw");
  const std::string even = dir.file("even.raw"), odd = dir.file("odd.raw");
  WriteFileBytes(even, WithBodyAt(original, 0));  // mapped
  WriteFileBytes(odd, WithBodyAt(original, 1));   // read into memory
  const std::string options = " --mpg " + stem + ".mpg --voxel-size 2 --threads 2";

  ASSERT_EQ(RunCommand(Batch("channels " + odd + options + " -o " + dir.file("read.raw")), &out), 0) << out;
  ASSERT_EQ(RunCommand(Batch("channels " + even + options + " -o " + dir.file("mapped.raw")), &out), 0) << out;
  const std::vector<uint8_t> expected = ReadFileBytes(dir.file("read.raw"));
  ASSERT_GT(expected.size(), original.size());
  EXPECT_EQ(ReadFileBytes(dir.file("mapped.raw")), expected);
  // the result replaces the input: the input is read, not mapped, and still comes out whole
  ASSERT_EQ(RunCommand(Batch("channels " + even + options + " -o " + even), &out), 0) << out;
  EXPECT_EQ(ReadFileBytes(even), expected);

  WriteFileBytes(even, WithBodyAt(original, 0));
  const std::string seeds = " --seed-box 10,18,4,14,22,5 --seeds-per-voxel 2";
  ASSERT_EQ(RunCommand(Batch("track " + odd + options + seeds + " --dump " + dir.file("read.txt")), &out), 0)
      << out;
  ASSERT_EQ(RunCommand(Batch("track " + even + options + seeds + " --dump " + dir.file("mapped.txt")), &out), 0)
      << out;
  const std::string dump = quorix_test::ReadFileText(dir.file("read.txt"));
  ASSERT_GT(dump.size(), 1000u);
  EXPECT_EQ(quorix_test::ReadFileText(dir.file("mapped.txt")), dump);
  ASSERT_EQ(RunCommand(Batch("track " + even + options + seeds + " --dump " + even), &out), 0) << out;
  EXPECT_EQ(quorix_test::ReadFileText(even), dump);
}

}  // namespace
