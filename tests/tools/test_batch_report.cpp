// quorix-batch report on a phantom written by the tool: the page and its figures land in
// the given directory and the QC measures are printed; the group form reads a QC table
// and marks its outlier; wrong command lines and bad tables are refused.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace {

using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

TEST(BatchReport, SubjectAndGroupPagesAndRefusals) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  ASSERT_EQ(RunCommand(Batch("phantom --size 32,32,12 --no-truth --format nii -o " + stem)), 0);
  std::string out;
  ASSERT_EQ(RunCommand(Batch("report " + stem + ".nii.gz --threads 2 -o " + dir.file("sub-01")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "valid_fraction\t1.0000")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "gradcheck\tas given")) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Report: " + dir.file("sub-01") + "/index.html")) << out;
  for (const char* file : {"index.html", "thumb.png", "colour_axial.png", "tracts.png", "sphere.png", "residual.png"})
    EXPECT_TRUE(std::filesystem::is_regular_file(dir.file(std::string("sub-01/") + file))) << file;

  quorix_test::WriteFileText(dir.file("qc.tsv"), "subject\tscore\nsub-01\t1\nsub-02\t1.1\nsub-03\t0.9\nsub-04\t1\nsub-05\t7\n");
  ASSERT_EQ(RunCommand(Batch("report --group " + dir.file("qc.tsv") + " -o " + dir.file("group")), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "Subjects: 5")) << out;
  const std::string html = quorix_test::ReadFileText(dir.file("group/index.html"));
  EXPECT_NE(html.find("<td class=\"outlier\">7</td>"), std::string::npos);
  EXPECT_NE(html.find("<img src=\"thumbs/sub-01_0.png\""), std::string::npos);  // beside the table: sub-01/

  EXPECT_EQ(RunCommand(Batch("report --group " + dir.file("qc.tsv")), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: report: --group needs -o DIR")) << out;
  quorix_test::WriteFileText(dir.file("bad.tsv"), "name\tscore\nsub-01\t1\n");
  EXPECT_EQ(RunCommand(Batch("report --group " + dir.file("bad.tsv") + " -o " + dir.file("g2")), &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: " + dir.file("bad.tsv") + ": the QC table has no subject column")) << out;
}

}  // namespace
