// The group report's QC table: parsing refuses what is not a table, measures are the
// numeric columns whatever their names, outliers come from the robust spread worked out
// by hand, and the page has one row per subject with its thumbnail copied beside it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "report/group_report.h"
#include "support/test_support.h"

namespace {

using quorix_test::TempDir;

TEST(GroupReport, TableParsingAndRefusals) {
  PcdQcTable table;
  std::string problem;
  ASSERT_TRUE(PCDreport_ParseQcTable("subject\tsession\tfa\tnote\r\nsub-01\tses-1\t0.5\tok\n\nsub-02\t\tn/a\tx\n", &table, &problem));
  ASSERT_EQ(table.header, (std::vector<std::string>{"subject", "session", "fa", "note"}));
  ASSERT_EQ(table.rows.size(), 2u);
  EXPECT_EQ(table.rows[1][1], "");
  EXPECT_EQ(PCDreport_NumericColumns(table), (std::vector<bool>{false, false, true, false}));
  EXPECT_FALSE(PCDreport_ParseQcTable("", &table, &problem));
  EXPECT_EQ(problem, "the QC table is empty");
  EXPECT_FALSE(PCDreport_ParseQcTable("id\tfa\n1\t2\n", &table, &problem));
  EXPECT_EQ(problem, "the QC table has no subject column");
  EXPECT_FALSE(PCDreport_ParseQcTable("subject\tfa\nsub-01\t1\t2\n", &table, &problem));
  EXPECT_EQ(problem, "line 2 has 3 cells, the header 2");
  EXPECT_FALSE(PCDreport_ParseQcTable("subject" + std::string(1001, '\t') + "\n", &table, &problem));
  EXPECT_EQ(problem, "more than 1000 columns");
}

TEST(GroupReport, OutliersFromTheRobustSpread) {
  // fa: median 0.45, deviations 0.01 0.01 0 0.01 0.02 0.25 -> MAD 0.01, sigma 0.014826:
  // 0.20 lies 16.9 sigma off, 0.47 only 1.35. failed: all 0 but one 600 -> MAD 0, mean
  // deviation 100, sigma 125.33: 600 lies 4.8 sigma off.
  PcdQcTable table;
  std::string problem;
  ASSERT_TRUE(PCDreport_ParseQcTable("subject\tfa\tfailed\n"
                                     "a\t0.44\t0\nb\t0.46\t0\nc\t0.45\t0\nd\t0.44\t600\ne\t0.47\t0\nf\t0.20\t0\n",
                                     &table, &problem));
  const auto outliers = PCDreport_QcOutliers(table);
  for (size_t r = 0; r < 6; ++r) {
    EXPECT_FALSE(outliers[r][0]);
    EXPECT_EQ(outliers[r][1], r == 5) << r;
    EXPECT_EQ(outliers[r][2], r == 3) << r;
  }
}

TEST(GroupReport, PageHasEveryRowAndCopiesTheThumbnails) {
  TempDir dir;
  std::filesystem::create_directories(dir.file("reports/sub-01/ses-1"));
  std::filesystem::create_directories(dir.file("reports/sub-02"));
  // the page copies the thumbnails, whatever their bytes
  quorix_test::WriteFileText(dir.file("reports/sub-01/ses-1/thumb.png"), "one");
  quorix_test::WriteFileText(dir.file("reports/sub-02/thumb.png"), "two");
  PcdQcTable table;
  std::string problem;
  ASSERT_TRUE(PCDreport_ParseQcTable("subject\tsession\tscore\nsub-01\tses-1\t1\nsub-02\tses-1\t1\nsub-03\t\t1\n"
                                     "sub-04\t\t1\nsub-05\t\t9\n", &table, &problem));
  PcdGroupReportOptions options;
  options.reportsDir = dir.file("reports");
  options.title = "cohort <A>";
  ASSERT_TRUE(PCDreport_WriteGroupReport(table, options, dir.file("group")));
  const std::string html = quorix_test::ReadFileText(dir.file("group/index.html"));
  EXPECT_NE(html.find("<title>cohort &lt;A&gt;</title>"), std::string::npos);
  EXPECT_NE(html.find("<section id=\"group\">"), std::string::npos);
  EXPECT_EQ(quorix_test::ReadFileText(dir.file("group/thumbs/sub-01_ses-1_0.png")), "one");
  EXPECT_EQ(quorix_test::ReadFileText(dir.file("group/thumbs/sub-02_ses-1_1.png")), "two");
  EXPECT_NE(html.find("<img src=\"thumbs/sub-01_ses-1_0.png\""), std::string::npos);
  EXPECT_NE(html.find("<a href=\"../reports/sub-01/ses-1/index.html\">"), std::string::npos);
  size_t rows = 0;
  for (size_t at = html.find("<tr"); at != std::string::npos; at = html.find("<tr", at + 1)) ++rows;
  EXPECT_EQ(rows, 6u);  // the header and five subjects
  EXPECT_NE(html.find("<td class=\"outlier\">9</td>"), std::string::npos);
  size_t images = 0;
  for (size_t at = html.find("<img"); at != std::string::npos; at = html.find("<img", at + 1)) ++images;
  EXPECT_EQ(images, 2u);
}

}  // namespace
