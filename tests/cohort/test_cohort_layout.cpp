// BIDS discovery and validation, gradient texts, checksums, locks and done markers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "cohort/bids_layout.h"
#include "cohort/cohort_files.h"
#include "cohort/done_marker.h"
#include "cohort_test_data.h"
#include "support/test_support.h"

namespace {

using quorix_test::TempDir;
using quorix_test::WriteFileText;
namespace fs = std::filesystem;

TEST(BidsLayout, FindsSubjectsSessionsAndRunsAndNamesWhatIsWrong) {
  TempDir dir;
  const std::string root = dir.file("bids");
  // sub-01 with two sessions, the second without its .bvec; sub-02 with a b-value count
  // that does not fit; sub-03 with a word among its b values; sub-04 without dwi data;
  // a folder that is no subject; sub-05 with two runs, both fine
  cohort_test::WriteSubject(root, "sub-01/ses-a/dwi", "sub-01_ses-a", 1);
  cohort_test::WriteSubject(root, "sub-01/ses-b/dwi", "sub-01_ses-b", 2);
  fs::remove(root + "/sub-01/ses-b/dwi/sub-01_ses-b_dwi.bvec");
  cohort_test::WriteSubject(root, "sub-02/dwi", "sub-02", 3);
  WriteFileText(root + "/sub-02/dwi/sub-02_dwi.bval", "0 1000 1000\n1000 1000\n");
  cohort_test::WriteSubject(root, "sub-03/dwi", "sub-03", 4);
  std::string bval = quorix_test::ReadFileText(root + "/sub-03/dwi/sub-03_dwi.bval");
  bval.replace(bval.find("1000"), 4, "10oo");
  WriteFileText(root + "/sub-03/dwi/sub-03_dwi.bval", bval);
  fs::create_directories(root + "/sub-04/anat");
  fs::create_directories(root + "/derivatives/sub-09/dwi");
  cohort_test::WriteSubject(root, "sub-05/dwi", "sub-05_acq-a", 5);
  cohort_test::WriteSubject(root, "sub-05/dwi", "sub-05_acq-b", 6);

  std::vector<std::string> missing;
  BidsDatasetProblem problem;
  const auto units = FindBidsUnits(root, {}, &missing, &problem);
  ASSERT_TRUE(units.has_value()) << problem.message;
  ASSERT_EQ(units->size(), 6u);
  EXPECT_EQ((*units)[0].Name(), "sub-01_ses-a");
  EXPECT_EQ((*units)[0].Folder(), "sub-01/ses-a");
  EXPECT_EQ((*units)[0].runs[0].relative, "sub-01/ses-a/dwi/sub-01_ses-a_dwi.nii.gz");
  EXPECT_EQ((*units)[0].runs[0].prefix, "sub-01_ses-a");
  EXPECT_EQ((*units)[0].runs[0].problem, "");
  EXPECT_EQ((*units)[1].Name(), "sub-01_ses-b");
  EXPECT_EQ((*units)[1].runs[0].problem, "missing sidecar " + root + "/sub-01/ses-b/dwi/sub-01_ses-b_dwi.bvec");
  EXPECT_EQ((*units)[2].runs[0].problem, root + "/sub-02/dwi/sub-02_dwi.bval holds 5 b values, " + root +
                                             "/sub-02/dwi/sub-02_dwi.nii.gz has 13 volumes");
  EXPECT_EQ((*units)[3].runs[0].problem, root + "/sub-03/dwi/sub-03_dwi.bval: \"10oo\" is not a number");
  EXPECT_EQ((*units)[4].Name(), "sub-04");
  ASSERT_EQ((*units)[4].runs.size(), 1u);
  EXPECT_EQ((*units)[4].runs[0].problem, "no dwi/*_dwi.nii[.gz] in " + root + "/sub-04");
  ASSERT_EQ((*units)[5].runs.size(), 2u);
  EXPECT_EQ((*units)[5].runs[1].prefix, "sub-05_acq-b");

  // selections: by subject (with or without "sub-") and by session; unknown ones reported
  const auto some = FindBidsUnits(root, {{"05", "07"}, {}}, &missing, &problem);
  ASSERT_TRUE(some.has_value());
  ASSERT_EQ(some->size(), 1u);
  EXPECT_EQ((*some)[0].subject, "05");
  EXPECT_EQ(missing, std::vector<std::string>{"07"});
  missing.clear();
  const auto sessions = FindBidsUnits(root, {{}, {"b"}}, &missing, &problem);
  ASSERT_TRUE(sessions.has_value());
  ASSERT_EQ(sessions->size(), 1u);
  EXPECT_EQ((*sessions)[0].Name(), "sub-01_ses-b");

  // not a dataset at all
  EXPECT_FALSE(FindBidsUnits(dir.file("nothing"), {}, &missing, &problem).has_value());
  EXPECT_EQ(problem.message, dir.file("nothing") + " is not a directory");
  fs::create_directories(dir.file("empty/code"));
  EXPECT_FALSE(FindBidsUnits(dir.file("empty"), {}, &missing, &problem).has_value());
  EXPECT_EQ(problem.message, dir.file("empty") + " holds no sub-* folders: not a BIDS dataset");

  EXPECT_EQ(BidsCleanLabel("sub-01", "sub-"), "01");
  EXPECT_EQ(BidsCleanLabel("01", "sub-"), "01");
  EXPECT_EQ(BidsCleanLabel("0_1", "sub-"), "");
  EXPECT_EQ(BidsCleanLabel("../x", "sub-"), "");
  EXPECT_EQ(BidsCleanLabel("sub-", "sub-"), "");
}

TEST(BidsLayout, GradientTextsReadRowByRow) {
  std::string problem;
  const auto rows = ParseBidsGradientText("0 1000\t1000\r\n\n  1e3 -0.5 \n", &problem);
  ASSERT_TRUE(rows.has_value()) << problem;
  ASSERT_EQ(rows->size(), 2u);
  EXPECT_EQ((*rows)[0], (std::vector<double>{0, 1000, 1000}));
  EXPECT_EQ((*rows)[1], (std::vector<double>{1000, -0.5}));
  EXPECT_FALSE(ParseBidsGradientText("0 1000,1000\n", &problem).has_value());
  EXPECT_EQ(problem, "\"1000,1000\" is not a number");
  EXPECT_FALSE(ParseBidsGradientText("0 nan\n", &problem).has_value());
  EXPECT_FALSE(ParseBidsGradientText("0 1e999\n", &problem).has_value());
  EXPECT_TRUE(ParseBidsGradientText("", &problem).value().empty());
}

TEST(CohortFiles, ChecksumsAtomicWritesAndLocks) {
  TempDir dir;
  // SHA-256 test vectors of FIPS 180-2: "abc" and the empty message
  WriteFileText(dir.file("abc"), "abc");
  EXPECT_EQ(CohortSha256OfFile(dir.file("abc")).value(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  WriteFileText(dir.file("empty"), "");
  EXPECT_EQ(CohortSha256OfFile(dir.file("empty")).value(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_FALSE(CohortSha256OfFile(dir.file("none")).has_value());

  EXPECT_TRUE(CohortWriteFileAtomically(dir.file("t.txt"), "one\n"));
  EXPECT_TRUE(CohortWriteFileAtomically(dir.file("t.txt"), "two\n"));
  EXPECT_EQ(quorix_test::ReadFileText(dir.file("t.txt")), "two\n");
  EXPECT_FALSE(CohortWriteFileAtomically(dir.file("no/such/t.txt"), "x"));
  size_t entries = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 3u) << "no temporary file is left behind";
  EXPECT_EQ(CohortReadFile(dir.file("t.txt"), 4).value(), "two\n");
  EXPECT_FALSE(CohortReadFile(dir.file("t.txt"), 3).has_value());

  // a lock is exclusive between open files, also within one process, and goes with its holder
  const std::string path = dir.file("unit.lock");
  EXPECT_FALSE(CohortLockIsHeld(path));
  {
    const CohortLock first(path);
    ASSERT_TRUE(first.locked());
    const CohortLock second(path);
    EXPECT_FALSE(second.locked());
    EXPECT_TRUE(CohortLockIsHeld(path));
  }
  EXPECT_FALSE(CohortLockIsHeld(path));
  EXPECT_TRUE(CohortLock(path).locked());

  EXPECT_EQ(CohortJsonString("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\u000a\\u0001\"");
}

TEST(DoneMarker, ReadsMarkersAndNothingElse) {
  const std::string text =
      "{\"subject\": \"01\", \"session\": \"\", \"version\": \"2.0\", \"analyses\": \"maps\",\n"
      " \"inputs\": [{\"name\": \"sub-01/dwi/sub-01_dwi.nii.gz\", \"sha256\": \"ab\"}],\n"
      " \"outputs\": [], \"extra\": 1}";
  const auto m = ParseDoneMarker(text);
  ASSERT_TRUE(m.has_value());
  EXPECT_EQ(m->subject, "01");
  EXPECT_EQ(m->version, "2.0");
  EXPECT_EQ(m->analyses, "maps");
  ASSERT_EQ(m->inputs.size(), 1u);
  EXPECT_EQ(m->inputs[0].first, "sub-01/dwi/sub-01_dwi.nii.gz");
  EXPECT_EQ(m->inputs[0].second, "ab");
  EXPECT_TRUE(m->outputs.empty());

  DoneMarker written{"02", "pre", "2.0", "maps,track", {{"a \"quoted\" name", "01"}}, {{"dwi/x", "02"}, {"dwi/y", "03"}}};
  const auto back = ParseDoneMarker(FormatDoneMarker(written));
  ASSERT_TRUE(back.has_value());
  EXPECT_TRUE(DoneMarkersDescribeSameWork(*back, written));
  EXPECT_EQ(back->outputs, written.outputs);
  DoneMarker other = written;
  other.inputs[0].second = "ff";
  EXPECT_FALSE(DoneMarkersDescribeSameWork(other, written));
  other = written;
  other.version = "2.1";
  EXPECT_FALSE(DoneMarkersDescribeSameWork(other, written));

  for (const char* bad : {"", "[]", "{", "{\"subject\": 1}", "null",
                          "{\"subject\": \"01\", \"session\": \"\", \"version\": \"2.0\", \"analyses\": \"maps\","
                          " \"inputs\": {}, \"outputs\": []}",
                          "{\"subject\": \"01\", \"session\": \"\", \"version\": \"2.0\", \"analyses\": \"maps\","
                          " \"inputs\": [{\"name\": 3, \"sha256\": \"x\"}], \"outputs\": []}"})
    EXPECT_FALSE(ParseDoneMarker(bad).has_value()) << bad;
  const std::string full = FormatDoneMarker(written);
  EXPECT_FALSE(ParseDoneMarker(full.substr(0, full.size() / 2)).has_value());
}

}  // namespace
