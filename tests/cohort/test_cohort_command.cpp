// quorix-batch bids as a user runs it: its outputs, what it prints and its exit statuses.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "cohort_test_data.h"
#include "support/test_support.h"

namespace {

using quorix_test::HasLine;
using quorix_test::ReadFileText;
using quorix_test::RunCommand;
using quorix_test::TempDir;
namespace fs = std::filesystem;

std::string Bids(const std::string& arguments) { return quorix_test::BatchCommandLine("bids " + arguments); }

TEST(BidsCommand, RunsParticipantsAndGroupAndSaysWhatWentWrongByItsExitStatus) {
  TempDir dir;
  const std::string bids = dir.file("bids"), out = dir.file("out"), atlas = dir.file("atlas.nii.gz");
  cohort_test::WriteSubject(bids, "sub-01/dwi", "sub-01", 1);
  cohort_test::WriteSubject(bids, "sub-02/dwi", "sub-02", 2);
  cohort_test::WriteAtlas(atlas);
  std::string output;

  // the command line
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " everything"), &output), 2) << output;
  EXPECT_TRUE(HasLine(output, "Err: bids: the analysis level must be participant or group, not \"everything\""));
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --analyses maps,fit"), &output), 2);
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --analyses maps,stats"), &output), 2);
  EXPECT_TRUE(HasLine(output, "Err: bids: the stats analysis needs --atlas LABELS"));
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --dry-run"), &output), 2);
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --participant-label ../01"), &output), 2);

  // no dataset, nothing selected, no finished participants
  EXPECT_EQ(RunCommand(Bids(dir.file("none") + " " + out + " participant"), &output), 3);
  EXPECT_TRUE(HasLine(output, "Err: " + dir.file("none") + " is not a directory"));
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --participant-label 07"), &output), 4);
  EXPECT_TRUE(HasLine(output, "Err: participant 07 is not in " + bids));
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " group"), &output), 4);
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --atlas " + dir.file("none.nii.gz")), &output), 3);

  // the participants, one of them broken: the other is done, the exit status says a subject failed
  quorix_test::WriteFileText(bids + "/sub-02/dwi/sub-02_dwi.bval", "0 1000\n");
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --threads 1 --atlas " + atlas), &output), 1) << output;
  EXPECT_TRUE(HasLine(output, "sub-01\tdone\tn/a"));
  EXPECT_TRUE(HasLine(output, "sub-02\tfailed\tbad input: " + bids + "/sub-02/dwi/sub-02_dwi.bval holds 2 b values, " +
                                  bids + "/sub-02/dwi/sub-02_dwi.nii.gz has 13 volumes"));
  const std::string description = ReadFileText(out + "/quorix/dataset_description.json");
  EXPECT_NE(description.find("\"DatasetType\": \"derivative\""), std::string::npos);
  EXPECT_NE(description.find("\"Name\": \"quorix-batch\""), std::string::npos);
  EXPECT_NE(description.find("participant --analyses maps,track,stats"), std::string::npos);
  EXPECT_EQ(ReadFileText(out + "/quorix/status.tsv").substr(0, 42), "subject\tsession\tstatus\treason\n01\tn/a\tdone\t");

  // only the subject selected runs; the done one is skipped
  cohort_test::WriteSubject(bids, "sub-02/dwi", "sub-02", 2);
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --threads 1 --atlas " + atlas +
                            " --participant-label sub-02 --participant-label 01"), &output), 0) << output;
  EXPECT_TRUE(HasLine(output, "sub-01\tskipped\tdone before with the same inputs and version"));
  EXPECT_TRUE(HasLine(output, "sub-02\tdone\tn/a"));
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " group"), &output), 0) << output;
  EXPECT_TRUE(HasLine(output, "Group tables: 2 from 2 finished subjects/sessions in " + out + "/quorix/group"));
  EXPECT_TRUE(fs::exists(out + "/quorix/group/atlas-atlas_roistats.tsv"));

  // the job array for what is left: with everything done, nothing; else the open subjects
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --atlas " + atlas + " --slurm --dry-run"), &output), 0);
  EXPECT_TRUE(HasLine(output, "Nothing to submit: every selected subject is done."));
  quorix_test::WriteFileText(dir.file("list.tsv"), "participant_id\tage\nsub-01\t30\nsub-02\t40\n");
  EXPECT_EQ(RunCommand(Bids(bids + " " + out + " participant --participant-file " + dir.file("list.tsv") +
                            " --threads 2 --slurm --dry-run --slurm-array-limit 3 --slurm-time 20"), &output), 0)
      << output;
  EXPECT_TRUE(HasLine(output, "#SBATCH --array=0-1%3"));
  EXPECT_TRUE(HasLine(output, "#SBATCH --time=20"));
  EXPECT_TRUE(HasLine(output, "#SBATCH --cpus-per-task=2"));
  EXPECT_TRUE(HasLine(output, "subjects=( 01 02 )"));
}

TEST(BidsCommand, TwoRunsOnOneOutputFolderShareTheSubjectsAndAgreeWithOneRun) {
  TempDir dir;
  const std::string bids = dir.file("bids"), atlas = dir.file("atlas.nii.gz");
  for (int i = 1; i <= 4; ++i)
    cohort_test::WriteSubject(bids, "sub-0" + std::to_string(i) + "/dwi", "sub-0" + std::to_string(i),
                              static_cast<uint32_t>(i));
  cohort_test::WriteAtlas(atlas);
  const std::string args = " participant --threads 1 --atlas " + atlas;
  std::string output;
  ASSERT_EQ(RunCommand(Bids(bids + " " + dir.file("one") + args), &output), 0) << output;
  ASSERT_EQ(RunCommand(Bids(bids + " " + dir.file("one") + " group"), &output), 0) << output;
  // two at once on the same folder, whichever gets a subject first does it
  const std::string two = dir.file("two");
  ASSERT_EQ(RunCommand("(" + Bids(bids + " " + two + args) + " > " + dir.file("a.txt") + " & " +
                       Bids(bids + " " + two + args) + " > " + dir.file("b.txt") + "; wait $!)"), 0);
  RunCommand(Bids(bids + " " + two + args), &output);  // after both: everything is done
  for (int i = 1; i <= 4; ++i)
    EXPECT_TRUE(HasLine(output, "sub-0" + std::to_string(i) + "\tskipped\tdone before with the same inputs and version"))
        << output;
  ASSERT_EQ(RunCommand(Bids(bids + " " + two + " group"), &output), 0) << output;
  for (const char* table : {"group/qc.tsv", "group/atlas-atlas_roistats.tsv",
                            "sub-04/dwi/sub-04_model-tensor_alg-det_streamlines.tck", "sub-02/sub-02_done.json"})
    EXPECT_EQ(quorix_test::ReadFileBytes(dir.file("one") + "/quorix/" + table),
              quorix_test::ReadFileBytes(two + "/quorix/" + table))
        << table;
  EXPECT_TRUE(fs::is_empty(two + "/quorix/.work"));
}

}  // namespace
