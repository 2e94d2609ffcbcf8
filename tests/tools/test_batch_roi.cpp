// quorix-batch session info, roi export and roi import on session and ROI files made
// through the core, and the target and avoidance masks of track.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "io/dti_file.h"
#include "io/object_files.h"
#include "io/raw_volume_file.h"
#include "io/session_file.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

// A 6 x 5 x 4 phantom with a sphere, a freehand ROI, a voxelgroup and a tracking study.
void WriteSession(const std::string& path) {
  PcdWorkSession s;
  PcdPhantomOptions options;
  options.sizeX = 6, options.sizeY = 5, options.sizeZ = 4, options.directions = 6;
  s.dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(s.dti, nullptr);
  s.volume = s.dti->volume;
  s.information = "Data Source: phantom\n";
  PcdRoiObject* sphere = PCD_NewRoiObject(&s.rois, PCD_ROI_SPHERICAL, nullptr);
  sphere->shape->centre = {2.5f, 2.5f, 1.5f};
  sphere->shape->radius = 1.0f;
  PcdRoiObject* free = PCD_NewRoiObject(&s.rois, PCD_ROI_FREEHAND, nullptr);
  free->shape->points = {{0, 0, 0}, {5, 4, 3}, {2, 1, 1}};
  free->status = 1;
  PcdRoiObject* group = PCD_NewRoiObject(&s.rois, PCD_ROI_VOXELGROUP, nullptr);
  const PcdIntVector3D origin{4, 3, 2};
  const PcdIntSize3D size{2, 2, 2};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupOneByte);
  PCD_SetVoxelOfVoxelGroup(group->voxelGroup.get(), 1, 1, 1, 1);
  PcdStudyObject* study = PCD_NewStudyObject(&s.studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  const uint16_t ids[] = {2};
  PCD_SetStudyRegionIds(study, 1, ids, 1);
  study->tract->regions[1].use = kPcdRegionInUse;
  study->tract->regions[1].kind = kPcdRegionListed;
  PCD_NewStudyObject(&s.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr)->analysed = 1;
  ASSERT_EQ(WriteWorkSessionFile(&s, path.c_str()), 0);
}

std::vector<uint8_t> MaskOf(const std::string& path) {
  std::string info;
  PcdRawVolumeData* v = ReadRawVolumeFile(path.c_str(), &info);
  if (v == nullptr) return {};
  const auto* p = static_cast<const uint8_t*>(v->data[0]);
  std::vector<uint8_t> mask(p, p + PCD_GetNumberOfVoxels(v));
  PCD_DeleteRawVolumeData(v);
  return mask;
}

size_t At(int x, int y, int z) { return static_cast<size_t>(x + 6 * (y + 5 * z)); }

}  // namespace

TEST(BatchSession, InfoListsTheDataSetEveryRoiAndEveryStudy) {
  TempDir dir;
  const std::string session = dir.file("s.qws");
  testing::internal::CaptureStderr();
  WriteSession(session);
  testing::internal::GetCapturedStderr();
  std::string out;
  ASSERT_EQ(RunCommand(Batch("session info " + session + " 2>/dev/null"), &out), 0) << out;
  for (const char* line :
       {"Data Source: phantom\n", "Matrix: 6 x 5 x 4, 7 channels (7 DTI channels, 1 So)\n",
        "ROIs: 3, studies: 2\n", "ROI 0: spherical \"Spherical 1\", free, visible\n",
        "    centre (2.5, 2.5, 1.5) radius 1\n", "ROI 1: freehand \"Freehand 1\", locked, visible\n",
        "    3 points\n", "    voxel group at (4, 3, 2), 2 x 2 x 2, 1 voxels set\n",
        "Study 0: tracking \"Fiber tracking 1\", not analysed, visible\n",
        "    stop if FA < 0.18 (on)\n", "    node limit 160, step 0.7 voxels, scheme basic\n",
        "    seed density normal, seeds from sphere, primitive hairline, coloring anisotropy\n",
        "    seed: used, sphere", "    target: used, listed, ROIs 2\n",
        "Study 1: statistics \"Voxel statistics 1\", analysed in an earlier session, visible\n",
        "    region: used, box\n"})
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n--- in ---\n" << out;

  EXPECT_EQ(RunCommand(Batch("session show " + session), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: session: unknown subcommand 'show'")) << out;
  quorix_test::WriteFileText(dir.file("not.qws"), "#Quorix-II work session file (not used in earlier Quorix!");
  EXPECT_EQ(RunCommand(Batch("session info " + dir.file("not.qws")), &out), 1);
  EXPECT_NE(out.find("This is NOT a Quorix-II WORK file."), std::string::npos) << out;
}

TEST(BatchRoi, ExportWritesTheRoisVoxelsAndImportBringsThemBack) {
  TempDir dir;
  const std::string session = dir.file("s.qws");
  testing::internal::CaptureStderr();
  WriteSession(session);
  testing::internal::GetCapturedStderr();
  std::string out;
  ASSERT_EQ(RunCommand(Batch("roi export " + session + " --roi 1 -o " + dir.file("free.raw")), &out), 0)
      << out;
  std::vector<uint8_t> expected(6 * 5 * 4, 0);
  expected[At(0, 0, 0)] = expected[At(5, 4, 3)] = expected[At(2, 1, 1)] = 1;
  EXPECT_EQ(MaskOf(dir.file("free.raw")), expected);

  ASSERT_EQ(RunCommand(Batch("roi export " + session + " --roi 0 -o " + dir.file("sphere.raw")), &out), 0);
  std::vector<uint8_t> sphere(6 * 5 * 4, 0);  // centre voxel (2, 2, 1) and its six neighbours
  for (const auto& v : std::vector<std::vector<int>>{
           {2, 2, 1}, {1, 2, 1}, {3, 2, 1}, {2, 1, 1}, {2, 3, 1}, {2, 2, 0}, {2, 2, 2}})
    sphere[At(v[0], v[1], v[2])] = 1;
  EXPECT_EQ(MaskOf(dir.file("sphere.raw")), sphere);

  // mask -> ROI object file -> mask
  ASSERT_EQ(RunCommand(Batch("roi import " + dir.file("free.raw") + " -o " + dir.file("free.roi") +
                             " --label imported"), &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "3 voxels of")) << out;
  PcdIntSize3D size{};
  testing::internal::CaptureStderr();
  PcdRoiObject* roi = PCD_LoadRoiObjectFile(dir.file("free.roi").c_str(), &size);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(roi, nullptr);
  EXPECT_EQ(roi->type, PCD_ROI_VOXELGROUP);
  EXPECT_STREQ(roi->label, "imported");
  EXPECT_EQ(size.x * 100 + size.y * 10 + size.z, 654);
  ASSERT_NE(roi->voxelGroup, nullptr);
  EXPECT_EQ(roi->voxelGroup->storage, kPcdVoxelGroupBitPacked);
  EXPECT_EQ(roi->voxelGroup->size.x * 100 + roi->voxelGroup->size.y * 10 + roi->voxelGroup->size.z, 654);
  delete_roi_object(roi);
  ASSERT_EQ(RunCommand(Batch("roi export " + dir.file("free.roi") + " -o " + dir.file("again.raw")), &out), 0)
      << out;
  EXPECT_EQ(MaskOf(dir.file("again.raw")), expected);

  EXPECT_EQ(RunCommand(Batch("roi export " + session + " -o " + dir.file("x.raw")), &out), 1);
  EXPECT_NE(out.find("--roi ID names the one to export"), std::string::npos) << out;
  EXPECT_EQ(RunCommand(Batch("roi export " + session + " --roi 1"), &out), 2);
  EXPECT_EQ(RunCommand(Batch("roi export " + dir.file("free.raw") + " -o " + dir.file("x.raw")), &out), 1);
  EXPECT_NE(out.find("is neither a ROI object file nor a work session file"), std::string::npos);
  std::vector<uint8_t> empty(6 * 5 * 4, 0);
  const PcdIntSize3D s{6, 5, 4};
  PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&s, UINT8, PCD_MONOCHROME);
  ASSERT_EQ(WriteRawVolumeFile(v, dir.file("empty.raw").c_str()), 0);
  PCD_DeleteRawVolumeData(v);
  EXPECT_EQ(RunCommand(Batch("roi import " + dir.file("empty.raw") + " -o " + dir.file("e.roi")), &out), 1);
  EXPECT_NE(out.find("has no voxel set"), std::string::npos) << out;
}

TEST(BatchTrack, TargetKeepsTheFibersThatReachItAndAvoidKeepsTheRest) {
  TempDir dir;
  PcdPhantomOptions options;
  options.sizeX = 32, options.sizeY = 32, options.sizeZ = 12, options.directions = 12;
  PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(dti, nullptr);
  ASSERT_EQ(WriteDtiFile(dti, dir.file("p.dti").c_str()), 0);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  // the crossing of the two bundles, and a box in the isotropic tissue no fiber enters
  auto writeMask = [&](const std::string& name, int x0, int x1, int y0, int y1) {
    const PcdIntSize3D s{32, 32, 12};
    PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&s, UINT8, PCD_MONOCHROME);
    for (int z = 4; z <= 7; ++z)
      for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) static_cast<uint8_t*>(v->data[0])[x + 32 * (y + 32 * z)] = 1;
    ASSERT_EQ(WriteRawVolumeFile(v, dir.file(name).c_str()), 0);
    PCD_DeleteRawVolumeData(v);
  };
  writeMask("crossing.raw", 14, 17, 14, 17);
  writeMask("tissue.raw", 3, 5, 3, 5);
  // seeds in both bundles away from the crossing
  const std::string track = "track " + dir.file("p.dti") + " --seed-box 5,5,5,26,26,6 --threads 2";
  auto count = [](const std::string& out, const char* what) {
    const size_t at = out.find(what);
    return at == std::string::npos ? -1 : std::atoi(out.c_str() + at + std::strlen(what));
  };
  std::string all, target, avoid, both;
  ASSERT_EQ(RunCommand(Batch(track), &all), 0) << all;
  ASSERT_EQ(RunCommand(Batch(track + " --target " + dir.file("crossing.raw") + " --dump " +
                             dir.file("t.txt")), &target), 0) << target;
  ASSERT_EQ(RunCommand(Batch(track + " --avoid " + dir.file("crossing.raw")), &avoid), 0);
  ASSERT_EQ(RunCommand(Batch(track + " --target " + dir.file("crossing.raw") + " --target " +
                             dir.file("tissue.raw")), &both), 0);
  const int tracked = count(all, "Tracked Lines:   ");
  ASSERT_GT(tracked, 0);
  EXPECT_EQ(count(all, "Drawn Lines:   "), tracked);
  const int reaching = count(target, "Drawn Lines:   ");
  EXPECT_GT(reaching, 0);
  EXPECT_LT(reaching, tracked);
  EXPECT_EQ(count(avoid, "Drawn Lines:   "), tracked - reaching);
  EXPECT_EQ(count(both, "Drawn Lines:   "), 0);
  // the dump holds the kept fibers only
  const std::string dump = quorix_test::ReadFileText(dir.file("t.txt"));
  const std::string marker = "<Dump result is from here>";
  const size_t at = dump.find('\n', dump.find(marker));
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(std::atoi(dump.c_str() + at + 1), reaching);
}
