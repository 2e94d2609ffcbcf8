// Inputs that the readers take but the commands must still check: study settings out of
// range, volumes and ROI heads of extreme shape. Each is refused with one "Err: " line
// and status 1, never a crash; what can be done is still done.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "io/object_files.h"
#include "io/raw_volume_file.h"
#include "io/session_file.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::ReadFileText;
using quorix_test::RunCommand;
using quorix_test::TempDir;

int RunBatch(const TempDir& dir, const std::string& arguments, std::string* out, std::string* err) {
  return quorix_test::RunBatchApart(dir, arguments, out, err);
}

// A session of the small phantom with a sphere in its x bundle, a tracking study seeded
// there, a statistics study over it, and a broken study of the given kind first.
void WriteSession(const std::string& path, int32_t brokenType, void (*breakIt)(PcdStudyObject*)) {
  PcdWorkSession s;
  PcdPhantomOptions options;
  options.sizeX = 24, options.sizeY = 24, options.sizeZ = 8, options.directions = 6;
  s.dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(s.dti, nullptr);
  s.volume = s.dti->volume;
  breakIt(PCD_NewStudyObject(&s.studies, brokenType, nullptr));
  PcdStudyObject* stats = PCD_NewStudyObject(&s.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  stats->statistics->region.kind = kPcdRegionSphere;
  stats->statistics->region.shape->centre = {5.5f, 12.5f, 4.5f};
  stats->statistics->region.shape->radius = 1.0f;  // the centre voxel and its 6 neighbours
  ASSERT_EQ(WriteWorkSessionFile(&s, path.c_str()), 0);
}

TEST(BatchExtremes, AStudyWithASettingOutOfRangeIsNamedAndTheOthersStillRun) {
  struct Case {
    int32_t type;
    void (*breakIt)(PcdStudyObject*);
    const char* line;
  } cases[] = {
      {PCD_STUDY_FIBER_TRACKING, [](PcdStudyObject* s) { s->tract->nodeLimit = -5; },
       "Err: study 0 \"Fiber tracking 1\": node limit -5 is out of range (1 to 32767)\n"},
      {PCD_STUDY_FIBER_MODELING, [](PcdStudyObject* s) { s->tract->nodeLimit = -1; },
       "Err: study 0 \"Fiber modeling 1\": node limit -1 is out of range (1 to 32767)\n"},
      {PCD_STUDY_FIBER_TRACKING, [](PcdStudyObject* s) { s->tract->step = 0.0f; },
       "Err: study 0 \"Fiber tracking 1\": step 0.000000 is out of range (0.001 to 100 voxels)\n"},
      {PCD_STUDY_FIBER_TRACKING, [](PcdStudyObject* s) { s->tract->seedDensity = 7; },
       "Err: study 0 \"Fiber tracking 1\": seed density 7 is out of range (not a code of its table)\n"},
      {PCD_STUDY_DIFFUSION_PROFILE, [](PcdStudyObject* s) { s->profile->symbolDensity = 0; },
       "Err: study 0 \"Diffusion profile 1\": symbol density 0 is out of range (not a code of its table)\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    TempDir dir;
    WriteSession(dir.file("s.qws"), c.type, c.breakIt);
    std::string out, err;
    EXPECT_EQ(RunBatch(dir, "study run " + dir.file("s.qws") + " --all", &out, &err), 1);
    EXPECT_TRUE(quorix_test::HasLine(err, c.line)) << err;
    // the statistics study after it: 7 voxels, as the sphere holds them
    EXPECT_NE(out.find("Study 1 (statistics)"), std::string::npos) << out;
    EXPECT_NE(out.find("Tensors: 7"), std::string::npos) << out;
  }
}

TEST(BatchExtremes, VolumesOfExtremeShapeAreWrittenOrRefusedCleanly) {
  TempDir dir;
  // one SINT16 channel of 1 x 1 x 40000 voxels: a NIfTI-1 axis holds at most 32767
  const PcdIntSize4D tall{1, 1, 40000, 1};
  const int32_t type = SINT16, format = PCD_MONOCHROME;
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&tall, &type, &format);
  for (int i = 0; i < 40000; ++i) static_cast<int16_t*>(v->data[0])[i] = static_cast<int16_t>(i % 1000);
  ASSERT_EQ(WriteRawVolumeFile(v, dir.file("tall.raw").c_str()), 0);
  PCD_DeleteRawVolumeData(v);
  std::string out, err;
  EXPECT_EQ(RunBatch(dir, "convert " + dir.file("tall.raw") + " -o " + dir.file("tall.nii"), &out, &err), 1);
  EXPECT_TRUE(quorix_test::HasLine(err, "Err: " + dir.file("tall.nii") +
                                            ": NIfTI-1 holds 1 to 32767 voxels along an axis; the volume is "
                                            "1 x 1 x 40000 x 1\n"))
      << err;
  // the raw volume file holds it: 80,000 bytes of voxels after the header, value 999 at z 999
  EXPECT_EQ(RunBatch(dir, "convert " + dir.file("tall.raw") + " -o " + dir.file("copy.raw"), &out, &err), 0) << err;
  const std::vector<uint8_t> copy = quorix_test::ReadFileBytes(dir.file("copy.raw"));
  ASSERT_GE(copy.size(), 80000u);
  const size_t body = copy.size() - 80000;
  EXPECT_EQ(copy[body + 2 * 999], 999 & 0xFF);
  EXPECT_EQ(copy[body + 2 * 999 + 1], 999 >> 8);
}

// A ROI object file whose head claims a volume no machine holds, or whose product wraps
// 32 bits, or one NIfTI-1 cannot hold: refused, nothing written.
TEST(BatchExtremes, RoiHeadsOfImpossibleSizeAreRefused) {
  struct Case {
    PcdIntSize3D size;
    const char* output;
    const char* line;
  } cases[] = {
      {{100000, 100000, 100000}, "m.nii.gz", "Err: roi: a mask of 100000 x 100000 x 100000 voxels is more than this machine can hold\n"},
      {{609, 36760123, 823996703}, "m.nii.gz", "Err: roi: a mask of 609 x 36760123 x 823996703 voxels is more than this machine can hold\n"},
      {{1, 1, 40000}, "m.nii", nullptr},
  };
  for (const Case& c : cases) {
    TempDir dir;
    PcdRoiList list;
    PcdRoiObject* roi = PCD_NewRoiObject(&list, PCD_ROI_SPHERICAL, nullptr);
    roi->shape->centre = {0.5f, 0.5f, 0.5f};
    roi->shape->radius = 1.0f;
    ASSERT_EQ(PCD_SaveRoiObjectFile(roi, &c.size, dir.file("r.roi").c_str()), 0);
    std::string out, err;
    EXPECT_EQ(RunBatch(dir, "roi export " + dir.file("r.roi") + " -o " + dir.file(c.output), &out, &err), 1) << err;
    if (c.line != nullptr) EXPECT_EQ(err, c.line);
    // refused before the mask is drawn: the one line, no warning about the missing geometry
    else EXPECT_EQ(err, "Err: " + dir.file(c.output) + ": NIfTI-1 holds 1 to 32767 voxels along an axis; the volume is 1 x 1 x 40000 x 1\n");
    EXPECT_FALSE(std::filesystem::exists(dir.file(c.output)));
  }
}

}  // namespace
