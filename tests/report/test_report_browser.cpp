// The reports in a real browser: headless Chromium loads a phantom subject's page, a group
// page and a copy of the subject's page with one figure deleted, each from disk, and a
// script counts the images that loaded and the sections. Every image of the real pages
// loads; the deleted one is reported broken (so the check can fail). Screenshots of the
// two pages are left in the build tree (report_browser/*.png) to be looked at.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "report/group_report.h"
#include "report/subject_report.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

namespace fs = std::filesystem;

// The page loads the three reports in frames and writes what it finds into #result once
// everything (frames and their images) has loaded.
const char kCheckPage[] = R"(<!DOCTYPE html><html><body><pre id="result">pending</pre>
<iframe id="subject" src="reports/sub-01/index.html"></iframe>
<iframe id="group" src="group/index.html"></iframe>
<iframe id="broken" src="broken/index.html"></iframe>
<script>
window.addEventListener('load', function () {
  var out = [];
  ['subject', 'group', 'broken'].forEach(function (id) {
    var doc = document.getElementById(id).contentDocument;
    if (!doc) { out.push(id + ' unreadable'); return; }
    var loaded = 0, broken = [];
    doc.querySelectorAll('img').forEach(function (img) {
      if (img.complete && img.naturalWidth > 0) loaded++; else broken.push(img.getAttribute('src'));
    });
    var sections = [];
    doc.querySelectorAll('section').forEach(function (s) { sections.push(s.id); });
    out.push(id + ' loaded ' + loaded + ' broken [' + broken.join(' ') + '] sections [' + sections.join(' ') + ']');
  });
  document.getElementById('result').textContent = out.join('\n');
});
</script></body></html>
)";

std::string Chromium(const std::string& arguments) {
  return "timeout 120 chromium --headless --disable-gpu --no-sandbox --allow-file-access-from-files "
         "--hide-scrollbars " + arguments + " 2>/dev/null";
}

TEST(ReportInBrowser, EveryImageLoadsAndTheSectionsAreThere) {
  if (quorix_test::RunCommand("command -v chromium >/dev/null") != 0) GTEST_SKIP() << "chromium is not installed (tools/setup.sh)";
  const fs::path root = fs::path(QUORIX_BINARY_DIR) / "report_browser";
  fs::remove_all(root);
  fs::create_directories(root);
  PcdPhantomOptions phantomOptions;
  phantomOptions.sizeX = 48, phantomOptions.sizeY = 48, phantomOptions.sizeZ = 20;
  phantomOptions.oblique = true;
  phantomOptions.noise = 0.02f;
  PcdDtiData* dti = PCD_MakeDwiPhantom(phantomOptions, nullptr);
  ASSERT_NE(dti, nullptr);
  PcdSubjectReportOptions options;
  options.title = "QC report: phantom sub-01";
  options.threads = 2;
  PcdSubjectReport report;
  testing::internal::CaptureStderr();
  const bool written = PCDreport_WriteSubjectReport(dti, options, (root / "reports/sub-01").string(), &report);
  testing::internal::GetCapturedStderr();
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  ASSERT_TRUE(written);
  fs::copy(root / "reports/sub-01", root / "reports/sub-02");
  fs::copy(root / "reports/sub-01", root / "broken");
  fs::remove(root / "broken/fa_axial.png");

  // the cohort's table: the subject's own measures and made-up neighbours, one far off
  std::string tsv = "subject\tsession";
  for (const auto& [name, value] : PCDreport_QcColumns(report)) tsv += "\t" + name;
  tsv += "\n";
  const double fa[] = {1.0, 0.98, 1.02, 1.01, 0.99, 0.3};
  for (int s = 1; s <= 6; ++s) {
    tsv += "sub-0" + std::to_string(s) + "\tses-1";
    for (const auto& [name, value] : PCDreport_QcColumns(report))
      tsv += "\t" + (s > 1 && name == "median_fa" ? std::to_string(report.medianFa * fa[s - 1]) : value);
    tsv += "\n";
  }
  quorix_test::WriteFileText((root / "qc.tsv").string(), tsv);
  PcdQcTable table;
  std::string problem;
  ASSERT_TRUE(PCDreport_ParseQcTable(tsv, &table, &problem)) << problem;
  PcdGroupReportOptions group;
  group.reportsDir = (root / "reports").string();
  ASSERT_TRUE(PCDreport_WriteGroupReport(table, group, (root / "group").string()));
  quorix_test::WriteFileText((root / "check.html").string(), kCheckPage);

  std::string dom;
  ASSERT_EQ(quorix_test::RunCommand(Chromium("--dump-dom file://" + (root / "check.html").string()), &dom), 0);
  EXPECT_NE(dom.find("subject loaded 14 broken [] sections [numbers mosaics gradients fit gradcheck tracts]"),
            std::string::npos) << dom.substr(0, 800);
  EXPECT_NE(dom.find("group loaded 2 broken [] sections [group]"), std::string::npos) << dom.substr(0, 800);
  EXPECT_NE(dom.find("broken loaded 13 broken [fa_axial.png] sections"), std::string::npos) << dom.substr(0, 800);

  EXPECT_NE(quorix_test::ReadFileText((root / "group/index.html").string()).find("<td class=\"outlier\">"),
            std::string::npos);
  for (const auto& [page, size] : {std::pair{"reports/sub-01", "1300,3700"}, std::pair{"group", "1300,800"}}) {
    const std::string shot = (root / (std::string(page) == "group" ? "group.png" : "subject.png")).string();
    EXPECT_EQ(quorix_test::RunCommand(Chromium(std::string("--window-size=") + size + " --screenshot=" + shot + " file://" +
                                               (root / page / "index.html").string())), 0);
    EXPECT_GT(fs::file_size(shot), 10000u) << shot;
  }
}

}  // namespace
