// quorix-batch gradcheck on a phantom written by the tool: a table with x and y swapped
// in its .bvec is reported and, with --fix, written back as the phantom's own rows; the
// phantom's own table is kept; a wrong command line is refused.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

// The three rows of an FSL .bvec file as numbers.
std::vector<std::vector<double>> BvecRows(const std::string& path) {
  std::vector<std::vector<double>> rows;
  std::istringstream lines(quorix_test::ReadFileText(path));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream cells(line);
    rows.emplace_back();
    for (double v; cells >> v;) rows.back().push_back(v);
  }
  return rows;
}

TEST(BatchGradcheck, SwappedRowsAreFoundAndFixedTheTrueTableKept) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  ASSERT_EQ(RunCommand(Batch("phantom --size 40,40,16 --oblique --no-truth --format nii -o " + stem)), 0);
  const auto truth = BvecRows(stem + ".bvec");
  ASSERT_EQ(truth.size(), 3u);
  // x and y swapped, written by hand
  const std::string text = quorix_test::ReadFileText(stem + ".bvec");
  const size_t first = text.find('\n'), second = text.find('\n', first + 1);
  quorix_test::WriteFileText(dir.file("swapped.bvec"), text.substr(first + 1, second - first) +
                                                           text.substr(0, first + 1) + text.substr(second + 1));
  std::string out;
  EXPECT_EQ(RunCommand(Batch("gradcheck " + stem + ".nii.gz --threads 2"), &out), 0);
  EXPECT_TRUE(quorix_test::HasLine(out, "Verdict: the table as given is best")) << out;
  EXPECT_EQ(RunCommand(Batch("gradcheck " + stem + ".nii.gz --threads 2 --bvec " + dir.file("swapped.bvec") +
                             " --fix -o " + dir.file("fixed.nii")), &out), 0);
  // the reader turns the file's x row over (positive determinant), so swapping the file's
  // rows reads as x and y swapped and both turned over: -y -x z, which is y x -z
  EXPECT_TRUE(quorix_test::HasLine(out, "Verdict: the table needs correcting: y x -z (same as -y -x z)")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "candidate  same as    mean fiber length (mm)")) << out;
  const auto fixed = BvecRows(dir.file("fixed.bvec"));
  ASSERT_EQ(fixed.size(), 3u);
  for (size_t r = 0; r < 3; ++r) {
    ASSERT_EQ(fixed[r].size(), truth[r].size());
    for (size_t k = 0; k < truth[r].size(); ++k) EXPECT_NEAR(std::fabs(fixed[r][k]), std::fabs(truth[r][k]), 1e-5);
  }

  EXPECT_EQ(RunCommand(Batch("gradcheck " + stem + ".nii.gz --fix"), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: gradcheck: --fix needs -o OUTPUT")) << out;
  EXPECT_EQ(RunCommand(Batch("gradcheck " + stem + ".nii.gz --fa-min 0.99"), &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: no voxel with FA of at least 0.99 to seed from")) << out;
}

}  // namespace
