// Subjects as repeatable units: outputs against the phantom's truth, skips and redos on
// rerun, locks, leftovers of killed runs, status, group tables and the Slurm job script.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zlib.h>

#include <cmath>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "cohort/bids_layout.h"
#include "cohort/cohort_files.h"
#include "cohort/done_marker.h"
#include "cohort/group_tables.h"
#include "cohort/slurm_job.h"
#include "cohort/subject_unit.h"
#include "cohort_test_data.h"
#include "io/nifti_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::ReadFileText;
using quorix_test::TempDir;
using quorix_test::WriteFileText;
namespace fs = std::filesystem;
using cohort_test::kX;
using cohort_test::kY;
using cohort_test::kZ;

std::vector<BidsUnit> Units(const std::string& root) {
  std::vector<std::string> missing;
  BidsDatasetProblem problem;
  auto units = FindBidsUnits(root, {}, &missing, &problem);
  EXPECT_TRUE(units.has_value()) << problem.message;
  return units.value_or(std::vector<BidsUnit>{});
}

// An int16 NIfTI-1 map read by hand (header fields at their offsets of the NIfTI-1
// layout), each value times the header's scl_slope, which must be the expected one.
std::vector<double> ReadMap(const std::string& path, float expectedSlope) {
  gzFile file = gzopen(path.c_str(), "rb");
  EXPECT_NE(file, nullptr) << path;
  if (file == nullptr) return {};
  std::vector<uint8_t> bytes;
  uint8_t buffer[65536];
  int got;
  while ((got = gzread(file, buffer, sizeof buffer)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
  gzclose(file);
  const size_t voxels = static_cast<size_t>(kX) * kY * kZ;
  EXPECT_GE(bytes.size(), 352 + 2 * voxels);
  if (bytes.size() < 352 + 2 * voxels) return {};
  int16_t datatype;
  float voxOffset, slope;
  std::memcpy(&datatype, &bytes[70], 2);
  std::memcpy(&voxOffset, &bytes[108], 4);
  std::memcpy(&slope, &bytes[112], 4);
  EXPECT_EQ(datatype, 4);  // DT_INT16
  EXPECT_EQ(slope, expectedSlope);
  const size_t at = static_cast<size_t>(voxOffset);
  EXPECT_EQ(bytes.size(), at + 2 * voxels);
  std::vector<double> values(voxels);
  for (size_t i = 0; i < voxels && at + 2 * i + 1 < bytes.size(); ++i) {
    int16_t v;
    std::memcpy(&v, &bytes[at + 2 * i], 2);
    values[i] = static_cast<double>(v) * slope;
  }
  return values;
}

std::map<std::string, std::string> TsvRow(const std::string& table, size_t row) {
  std::istringstream in(table);
  std::string header, line;
  std::getline(in, header);
  for (size_t i = 0; i <= row; ++i) std::getline(in, line);
  std::map<std::string, std::string> cells;
  std::istringstream h(header), l(line);
  std::string name, value;
  while (std::getline(h, name, '\t') && std::getline(l, value, '\t')) cells[name] = value;
  return cells;
}

struct Cohort {
  TempDir dir;
  std::string bids = dir.file("bids"), atlasPath = dir.file("atlas.nii.gz");
  PcdPhantomTruth truth;
  CohortAtlas atlas;
  Cohort() {
    cohort_test::WriteSubject(bids, "sub-01/dwi", "sub-01", 1, &truth, 0.0f);
    cohort_test::WriteSubject(bids, "sub-02/dwi", "sub-02", 2);
    cohort_test::WriteSubject(bids, "sub-03/ses-x/dwi", "sub-03_ses-x", 3);
    cohort_test::WriteAtlas(atlasPath);
    EXPECT_TRUE(LoadCohortAtlas(atlasPath, &atlas));
  }
  CohortRunOptions Options(const std::string& out, int threads = 1) const {
    CohortRunOptions o;
    o.outputDir = out;
    o.atlas = &atlas;
    o.threads = threads;
    return o;
  }
};

TEST(CohortUnit, WritesTheMapsOnceSkipsWhenUnchangedAndRedoesWhatChanged) {
  Cohort c;
  const std::string out = c.dir.file("out");
  const std::vector<BidsUnit> units = Units(c.bids);
  ASSERT_EQ(units.size(), 3u);
  const CohortRunOptions options = c.Options(out, 2);
  for (const BidsUnit& unit : units) EXPECT_EQ(RunCohortUnit(unit, options).status, "done") << unit.Name();

  const std::string d = out + "/quorix/sub-01/dwi/sub-01";
  for (const char* tail : {"_model-tensor_param-fa_dwimap.nii.gz", "_model-tensor_param-md_dwimap.nii.gz",
                           "_model-tensor_param-ad_dwimap.nii.gz", "_model-tensor_param-rd_dwimap.nii.gz",
                           "_model-tensor_param-rgb_dwimap.nii.gz", "_model-tensor_dwimap.json",
                           "_model-tensor_alg-det_streamlines.tck", "_atlas-atlas_roistats.tsv", "_desc-qc_dwi.tsv"})
    EXPECT_TRUE(fs::exists(d + tail)) << tail;
  EXPECT_TRUE(fs::exists(out + "/quorix/sub-03/ses-x/dwi/sub-03_ses-x_desc-qc_dwi.tsv"));
  EXPECT_TRUE(fs::exists(out + "/quorix/sub-03/ses-x/sub-03_ses-x_done.json"));

  // the noise-free subject against the phantom's truth: FA and MD where a bundle runs,
  // and AD + 2 RD = 3 MD for every fitted voxel (the trace, an independent identity)
  const auto fa = ReadMap(d + "_model-tensor_param-fa_dwimap.nii.gz", 0.001f);
  const auto md = ReadMap(d + "_model-tensor_param-md_dwimap.nii.gz", 1e-6f);
  const auto ad = ReadMap(d + "_model-tensor_param-ad_dwimap.nii.gz", 1e-6f);
  const auto rd = ReadMap(d + "_model-tensor_param-rd_dwimap.nii.gz", 1e-6f);
  int bundle = 0, fitted = 0;
  for (size_t i = 0; i < fa.size(); ++i) {
    if (c.truth.fa[i] > 0.5f) {
      ++bundle;
      EXPECT_NEAR(fa[i], c.truth.fa[i], 0.02) << i;
      EXPECT_NEAR(md[i], c.truth.adc[i], 2e-5) << i;
    }
    if (ad[i] > 0) {
      ++fitted;
      EXPECT_NEAR(ad[i] + 2 * rd[i], 3 * md[i], 4e-6) << i;
      EXPECT_GE(ad[i], rd[i]);
    }
  }
  EXPECT_GT(bundle, 50);
  EXPECT_GT(fitted, 1000);

  // atlas table: per label the voxels inside the brain mask, which the labels cover
  // together; the phantom's head (where the true FA is defined) lies inside it
  std::map<int, int> counts, head;
  for (int z = 0; z < kZ; ++z)
    for (int y = 0; y < kY; ++y)
      for (int x = 0; x < kX; ++x) {
        ++counts[cohort_test::AtlasLabel(x, y, z)];
        if (c.truth.adc[(static_cast<size_t>(z) * kY + y) * kX + x] > 0) ++head[cohort_test::AtlasLabel(x, y, z)];
      }
  const std::string roi = ReadFileText(d + "_atlas-atlas_roistats.tsv");
  const auto qc = TsvRow(ReadFileText(d + "_desc-qc_dwi.tsv"), 0);
  int inMask = 0, valid = 0;
  for (size_t row = 0; row < counts.size(); ++row) {
    const auto cells = TsvRow(roi, row);
    const int label = static_cast<int>(row) + 1;
    EXPECT_EQ(cells.at("label"), std::to_string(label));
    EXPECT_LE(std::stoi(cells.at("voxels")), counts[label]);
    EXPECT_GE(std::stoi(cells.at("voxels")), head[label]);
    EXPECT_LE(std::stoi(cells.at("valid_tensors")), std::stoi(cells.at("voxels")));
    inMask += std::stoi(cells.at("voxels"));
    valid += std::stoi(cells.at("valid_tensors"));
  }
  // the QC's own pass over the mask and the statistics per label agree on validity; without
  // noise the perfectly isotropic tissue has an undefined FA (equal eigenvalues) and fails
  EXPECT_EQ(std::to_string(inMask), qc.at("mask_voxels"));
  EXPECT_NEAR(std::stod(qc.at("valid_tensor_fraction")), static_cast<double>(valid) / inMask, 1e-6);
  EXPECT_LT(valid, inMask);
  EXPECT_EQ(qc.at("volumes"), "13");
  EXPECT_EQ(qc.at("b_values"), "0,1000");
  EXPECT_EQ(qc.at("gradcheck"), "as given");  // the phantom's own table, checked

  // the marker lists every output with its checksum
  const auto marker = ParseDoneMarker(ReadFileText(out + "/quorix/sub-01/sub-01_done.json"));
  ASSERT_TRUE(marker.has_value());
  EXPECT_EQ(marker->analyses, "maps,track,stats");
  EXPECT_EQ(marker->inputs.size(), 4u);  // image, .bval, .bvec, atlas
  for (const auto& [name, sum] : marker->outputs)
    EXPECT_EQ(CohortSha256OfFile(out + "/quorix/sub-01/" + name).value(), sum) << name;

  // a rerun with nothing changed touches nothing
  struct stat before {};
  ASSERT_EQ(stat((d + "_model-tensor_param-fa_dwimap.nii.gz").c_str(), &before), 0);
  for (const BidsUnit& unit : units) EXPECT_EQ(RunCohortUnit(unit, options).status, "skipped") << unit.Name();
  struct stat after {};
  ASSERT_EQ(stat((d + "_model-tensor_param-fa_dwimap.nii.gz").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);

  // a changed input, a damaged output and other analyses each make their unit run again
  WriteFileText(c.bids + "/sub-02/dwi/sub-02_dwi.bval", ReadFileText(c.bids + "/sub-02/dwi/sub-02_dwi.bval") + " ");
  WriteFileText(d + "_model-tensor_alg-det_streamlines.tck", "mrtrix tracks\n");
  const std::vector<BidsUnit> again = Units(c.bids);
  EXPECT_EQ(RunCohortUnit(again[0], options).status, "done");
  EXPECT_EQ(RunCohortUnit(again[1], options).status, "done");
  EXPECT_EQ(RunCohortUnit(again[2], options).status, "skipped");
  CohortRunOptions mapsOnly = options;
  mapsOnly.analyses = {true, false, false};
  EXPECT_EQ(RunCohortUnit(again[2], mapsOnly).status, "done");
  EXPECT_FALSE(fs::exists(out + "/quorix/sub-03/ses-x/dwi/sub-03_ses-x_model-tensor_alg-det_streamlines.tck"))
      << "the outputs of other analyses went with the old folder";
}

TEST(CohortUnit, LocksLeftoversFailuresAndStatus) {
  Cohort c;
  const std::string out = c.dir.file("out");
  const CohortRunOptions options = c.Options(out);
  std::vector<BidsUnit> units = Units(c.bids);
  ASSERT_EQ(units.size(), 3u);
  const std::string root = out + "/quorix";

  // another process holds the unit: this one leaves it alone
  fs::create_directories(root + "/.locks");
  {
    const CohortLock other(root + "/.locks/sub-01.lock");
    ASSERT_TRUE(other.locked());
    const CohortUnitResult busy = RunCohortUnit(units[0], options);
    EXPECT_EQ(busy.status, "skipped");
    EXPECT_EQ(busy.reason, "running in another process");
    EXPECT_FALSE(fs::exists(root + "/sub-01"));
  }

  // what a killed run left: its work folder, a half-moved old and new folder, and a
  // status saying it was running; the lock went with the process
  fs::create_directories(root + "/.work/sub-01.424242/sub-01/dwi");
  fs::create_directories(root + "/sub-01.old.424242");
  fs::create_directories(root + "/sub-01.new.424242");
  fs::create_directories(root + "/logs");
  WriteFileText(root + "/logs/sub-02_status.tsv", "subject\tsession\tstatus\treason\n02\tn/a\trunning\tpid 424242\n");
  WriteCohortStatusTable(out);
  EXPECT_EQ(TsvRow(ReadFileText(root + "/status.tsv"), 0).at("status"), "failed");
  EXPECT_EQ(TsvRow(ReadFileText(root + "/status.tsv"), 0).at("reason"),
            "stopped before finishing (killed, out of memory or crashed; pid 424242)");
  EXPECT_EQ(RunCohortUnit(units[0], options).status, "done");
  EXPECT_FALSE(fs::exists(root + "/.work/sub-01.424242"));
  EXPECT_FALSE(fs::exists(root + "/sub-01.old.424242"));
  EXPECT_FALSE(fs::exists(root + "/sub-01.new.424242"));

  // a subject whose input broke: failed with the file named, no marker, and its earlier
  // outputs are not taken for done
  EXPECT_EQ(RunCohortUnit(units[1], options).status, "done");
  WriteFileText(c.bids + "/sub-02/dwi/sub-02_dwi.bvec", "1 0 0\n0 1 0\n");
  units = Units(c.bids);
  const CohortUnitResult failed = RunCohortUnit(units[1], options);
  EXPECT_EQ(failed.status, "failed");
  EXPECT_EQ(failed.reason, "bad input: " + c.bids + "/sub-02/dwi/sub-02_dwi.bvec must hold 3 rows of 13 numbers (" +
                               c.bids + "/sub-02/dwi/sub-02_dwi.nii.gz has 13 volumes)");
  EXPECT_FALSE(CohortUnitIsDone(units[1], options));

  // a subject that fails inside the analyses: its matrix is not the atlas's
  {
    PcdPhantomOptions flat;
    flat.sizeX = 16, flat.sizeY = 16, flat.sizeZ = 8, flat.directions = 6;
    PcdDtiData* dti = PCD_MakeDwiPhantom(flat, nullptr);
    ASSERT_NE(dti, nullptr);
    PcdWorldGeometry geometry;
    PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
    fs::create_directories(c.bids + "/sub-04/dwi");
    ASSERT_EQ(WriteNiftiDwiFile(dti, &geometry, (c.bids + "/sub-04/dwi/sub-04_dwi.nii.gz").c_str()), 0);
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
  units = Units(c.bids);
  ASSERT_EQ(units.size(), 4u);
  const CohortUnitResult flat = RunCohortUnit(units[3], options);
  EXPECT_EQ(flat.status, "failed");
  EXPECT_EQ(flat.reason, "bad input: the atlas " + c.atlasPath + " is 24 x 24 x 12, the data set 16 x 16 x 8");
  EXPECT_FALSE(fs::exists(root + "/sub-04"));
  EXPECT_TRUE(fs::is_empty(root + "/.work"));
  EXPECT_NE(ReadFileText(root + "/logs/sub-04.log").find("Err: "), std::string::npos);

  ASSERT_TRUE(WriteCohortStatusTable(out));
  EXPECT_EQ(ReadFileText(root + "/status.tsv"),
            "subject\tsession\tstatus\treason\n"
            "01\tn/a\tdone\tn/a\n"
            "02\tn/a\tfailed\t" + failed.reason + "\n"
            "04\tn/a\tfailed\t" + flat.reason + "\n");

  // a Slurm task killed whole by the accounting poller: its output file says why
  WriteFileText(root + "/logs/sub-03_ses-x_status.tsv",
                "subject\tsession\tstatus\treason\n03\tx\trunning\tpid 7 on n1, Slurm job 77_2\n");
  WriteFileText(root + "/logs/slurm-77_2.out",
                "slurmstepd: error: Job 79 exceeded memory limit (52000 > 40960), being killed\n");
  EXPECT_EQ(ReadCohortUnitStatus(out, "sub-03_ses-x").reason,
            "out of memory: stopped before finishing (killed, out of memory or crashed; pid 7 on n1, Slurm job 77_2)");
  WriteFileText(root + "/logs/slurm-77_2.out", "slurmstepd: error: *** JOB 79 CANCELLED ***\n");
  EXPECT_EQ(ReadCohortUnitStatus(out, "sub-03_ses-x").reason.rfind("stopped before finishing", 0), 0u);

  // a signal recorded by the job script
  RecordCohortUnitKilled(units[2], out, 9);
  EXPECT_EQ(ReadCohortUnitStatus(out, "sub-03_ses-x").status, "failed");
  EXPECT_NE(ReadCohortUnitStatus(out, "sub-03_ses-x").reason.find("killed by signal 9"), std::string::npos);
}

TEST(CohortUnit, AWorkFolderOnAnotherFileSystemIsCopiedBesideTheOutputsBeforeTheLastRename) {
  Cohort c;
  const std::string out = c.dir.file("out");
  const std::string work = "/dev/shm/quorix-cohort-test-" + std::to_string(getpid());
  struct stat shm {}, tmp {};
  if (stat("/dev/shm", &shm) != 0 || stat(c.dir.path().c_str(), &tmp) != 0 || shm.st_dev == tmp.st_dev)
    GTEST_SKIP() << "no second file system (/dev/shm) beside " << c.dir.path();
  CohortRunOptions options = c.Options(out);
  options.workDir = work;
  const std::vector<BidsUnit> units = Units(c.bids);
  EXPECT_EQ(RunCohortUnit(units[2], options).status, "done");
  EXPECT_TRUE(CohortUnitIsDone(units[2], options));
  EXPECT_TRUE(fs::is_empty(work));
  EXPECT_FALSE(fs::exists(out + "/quorix/sub-03/ses-x.new." + std::to_string(getpid())));
  std::error_code ignored;
  fs::remove_all(work, ignored);
}

TEST(CohortGroup, TablesAreTheSameWhateverOrderAndThreadsTheParticipantsRanWith) {
  Cohort c;
  const std::vector<BidsUnit> units = Units(c.bids);
  const std::string a = c.dir.file("a"), b = c.dir.file("b");
  for (const BidsUnit& unit : units) EXPECT_EQ(RunCohortUnit(unit, c.Options(a, 1)).status, "done");
  for (auto it = units.rbegin(); it != units.rend(); ++it)
    EXPECT_EQ(RunCohortUnit(*it, c.Options(b, 2)).status, "done");
  CohortGroupSummary sa, sb;
  ASSERT_TRUE(WriteCohortGroupTables(a, &sa));
  ASSERT_TRUE(WriteCohortGroupTables(b, &sb));
  EXPECT_EQ(sa.units, 3);
  EXPECT_EQ(sa.tables, 2);
  for (const char* table : {"qc.tsv", "atlas-atlas_roistats.tsv"})
    EXPECT_EQ(quorix_test::ReadFileBytes(a + "/quorix/group/" + table),
              quorix_test::ReadFileBytes(b + "/quorix/group/" + table))
        << table;
  for (const char* file : {"sub-01/dwi/sub-01_model-tensor_alg-det_streamlines.tck",
                           "sub-03/ses-x/dwi/sub-03_ses-x_model-tensor_param-rd_dwimap.nii.gz"})
    EXPECT_EQ(quorix_test::ReadFileBytes(a + "/quorix/" + file), quorix_test::ReadFileBytes(b + "/quorix/" + file))
        << file;

  // the tables are the participants' rows with the subject in front, in subject order
  const std::string roi = ReadFileText(a + "/quorix/group/atlas-atlas_roistats.tsv");
  const std::string own = ReadFileText(a + "/quorix/sub-03/ses-x/dwi/sub-03_ses-x_atlas-atlas_roistats.tsv");
  EXPECT_EQ(roi.substr(0, roi.find('\n')), "subject\tsession\tdwi\t" + own.substr(0, own.find('\n')));
  const std::string ownFirstRow = own.substr(own.find('\n') + 1, own.find('\n', own.find('\n') + 1) - own.find('\n'));
  EXPECT_NE(roi.find("\n03\tx\tsub-03_ses-x\t" + ownFirstRow), std::string::npos);
  EXPECT_EQ(TsvRow(roi, 0).at("subject"), "01");
  EXPECT_EQ(TsvRow(roi, 5).at("subject"), "02");
  EXPECT_EQ(TsvRow(roi, 10).at("session"), "x");
  const auto qc = TsvRow(ReadFileText(a + "/quorix/group/qc.tsv"), 2);
  EXPECT_EQ(qc.at("subject"), "03");
  EXPECT_EQ(qc.at("dwi"), "sub-03_ses-x");

  // a unit without its marker is not read
  fs::remove(a + "/quorix/sub-02/sub-02_done.json");
  ASSERT_TRUE(WriteCohortGroupTables(a, &sa));
  EXPECT_EQ(sa.units, 2);
  EXPECT_EQ(ReadFileText(a + "/quorix/group/qc.tsv").find("\n02\t"), std::string::npos);
}

TEST(CohortSlurm, TheJobScriptRunsItsTasksSubjectAndRecordsASignal) {
  TempDir dir;
  // a stand-in for the program: logs its arguments one a line, and dies as by SIGKILL
  // (status 137) unless asked to record a signal
  const std::string fake = dir.file("fake program.sh");
  WriteFileText(fake,
                "#!/bin/bash\nfor a in \"$@\"; do echo \"$a\"; done >> \"$(dirname \"$0\")/calls.txt\"\n"
                "echo --- >> \"$(dirname \"$0\")/calls.txt\"\n"
                "case \" $* \" in *' --record-signal '*) exit 0 ;; esac\nexit 137\n");
  fs::permissions(fake, fs::perms::owner_all);
  CohortSlurmJob job;
  job.subjects = {"01", "02", "03"};
  job.command = {fake, "bids", "it's a dir", "$HOME", "participant"};
  job.logDir = dir.file("logs");
  job.arrayLimit = 2;
  job.memoryMb = 300;
  const std::string script = FormatCohortSlurmScript(job);
  EXPECT_NE(script.find("\n#SBATCH --array=0-2%2\n"), std::string::npos);
  EXPECT_NE(script.find("\n#SBATCH --mem=300M\n"), std::string::npos);
  EXPECT_EQ(script.find("#SBATCH --time"), std::string::npos);
  WriteFileText(dir.file("job.sh"), script);
  std::string output;
  const int status = quorix_test::RunCommand(
      "cd " + CohortShellQuote(dir.path().string()) + " && SLURM_ARRAY_TASK_ID=1 bash job.sh", &output);
  EXPECT_EQ(status, 137) << output;
  EXPECT_EQ(ReadFileText(dir.file("calls.txt")),
            "bids\nit's a dir\n$HOME\nparticipant\n--participant-label\n02\n---\n"
            "bids\nit's a dir\n$HOME\nparticipant\n--participant-label\n02\n--record-signal\n9\n---\n");

  // submission goes through whatever sbatch the PATH finds, and reads its job id
  WriteFileText(dir.file("bin/sbatch"), "");
  fs::create_directories(dir.file("bin"));
  WriteFileText(dir.file("bin/sbatch"), "#!/bin/sh\n[ \"$1\" = --parsable ] && [ -f \"$2\" ] && echo '4242;cluster'\n");
  fs::permissions(dir.file("bin/sbatch"), fs::perms::owner_all);
  const std::string path = std::getenv("PATH");
  setenv("PATH", (dir.file("bin") + ":" + path).c_str(), 1);
  std::string problem;
  EXPECT_EQ(SubmitCohortSlurmScript(dir.file("job.sh"), &problem), "4242") << problem;
  WriteFileText(dir.file("bin/sbatch"), "#!/bin/sh\necho 'sbatch: error: invalid partition' >&2\nexit 1\n");
  EXPECT_EQ(SubmitCohortSlurmScript(dir.file("job.sh"), &problem), "");
  EXPECT_EQ(problem, "sbatch refused the job (status 1)");
  setenv("PATH", dir.file("nowhere").c_str(), 1);
  EXPECT_EQ(SubmitCohortSlurmScript(dir.file("job.sh"), &problem), "");
  EXPECT_EQ(problem.rfind("cannot run sbatch", 0), 0u) << problem;
  setenv("PATH", path.c_str(), 1);
}

}  // namespace
