#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io/object_files.h"
#include "study/byte_builder.h"
#include "support/test_support.h"

using quorix_test::ByteBuilder;
using quorix_test::NoticeRecorder;
using quorix_test::ReadFileBytes;
using quorix_test::TempDir;

namespace {

// A session whose "volume" is only a matrix size (the object files read nothing else).
void GiveVolume(PcdWorkSession* session, int32_t x, int32_t y, int32_t z) {
  const PcdIntSize3D size{x, y, z};
  session->volume = PCD_NewSingleChannelRawVolumeData(&size, UINT8, PCD_MONOCHROME);
}

}  // namespace

TEST(RoiObjectFile, HeadAndBodyMatchAHandBuiltFile) {
  TempDir dir;
  PcdWorkSession session;
  GiveVolume(&session, 128, 128, 60);
  const PcdIntSize3D size{128, 128, 60};
  PCD_NewRoiObject(&session.rois, PCD_ROI_SPHERICAL, &size);
  ASSERT_EQ(WriteRoiObjectFile(&session, dir.file("a.roi").c_str()), 0);

  ByteBuilder expected;
  expected.raw("#This is a ROI object file of Quorix-II").i32(128).i32(128).i32(60);
  expected.i32(0).createdShape(64, 64, 30).i32(0).defaultGrowingCore().i32(0).i32(1);
  expected.text("Spherical 1", 256).u16(159 << 8).u16(31 << 8).u16(63 << 8);
  ASSERT_EQ(expected.bytes.size(), 39u + 12 + 470);
  EXPECT_EQ(ReadFileBytes(dir.file("a.roi")), expected.bytes);

  // read on a larger volume: the mismatch line, and the ROI is added with the next id
  PcdWorkSession other;
  GiveVolume(&other, 256, 256, 60);
  PCD_NewRoiObject(&other.rois, PCD_ROI_FREEHAND, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadRoiObjectFile(&other, dir.file("a.roi").c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Volume data matrix size mismatch. Open anyway.\n");
  ASSERT_EQ(other.rois.items.size(), 2u);
  EXPECT_EQ(other.rois.items[1]->id, 1);
  EXPECT_STREQ(other.rois.items[1]->label, "Spherical 1");
  EXPECT_EQ(other.rois.idCounter, 2);
  EXPECT_EQ(other.rois.nameCounters[PCD_ROI_SPHERICAL], 0);  // no name was used up

  // the same size reads silently
  PcdWorkSession same;
  GiveVolume(&same, 128, 128, 60);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadRoiObjectFile(&same, dir.file("a.roi").c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  PcdWorkSession none;  // nothing selected: nothing written
  EXPECT_EQ(WriteRoiObjectFile(&none, dir.file("none.roi").c_str()), -1);
  EXPECT_TRUE(ReadFileBytes(dir.file("none.roi")).empty());
}

TEST(StudyObjectFile, ListedIdsWarnAndStillSaveAndTheStatusComesBackAs2) {
  TempDir dir;
  PcdWorkSession session;
  GiveVolume(&session, 4, 4, 4);
  PcdStudyObject* study = PCD_NewStudyObject(&session.studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  const uint16_t ids[] = {1, 2};
  PCD_SetStudyRegionIds(study, 1, ids, 2);
  study->analysed = 1;
  NoticeRecorder notices;
  ASSERT_EQ(WriteStudyObjectFile(&session, dir.file("s.study").c_str()), 0);
  ASSERT_EQ(notices.notices.size(), 1u);
  EXPECT_EQ(notices.notices[0].kind, PCD_NOTICE_WARNING);
  EXPECT_EQ(notices.notices[0].title, "Warning");
  EXPECT_EQ(notices.notices[0].text,
            "Listed ROI IDs can NOT be saved\nin study object file. Restore them\nmanually "
            "after loading the files of\nthe study and the ROIs refered.");
  EXPECT_EQ(notices.notices[0].width, 240);
  EXPECT_EQ(notices.notices[0].height, 160);

  const std::vector<uint8_t> bytes = ReadFileBytes(dir.file("s.study"));
  ByteBuilder head;
  head.raw("#This is a study object file of Quorix-II").i32(4).i32(4).i32(4);
  ASSERT_EQ(bytes.size(), 41u + 12 + 10512 + 572 + 3 * 112);
  EXPECT_TRUE(std::equal(head.bytes.begin(), head.bytes.end(), bytes.begin()));
  std::vector<uint8_t> body(pcd_study_serialized_size(study));
  PCD_SerializeStudyObject(study, body.data());
  EXPECT_TRUE(std::equal(body.begin(), body.end(), bytes.begin() + 53));

  PcdWorkSession other;
  PCD_NewStudyObject(&other.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadStudyObjectFile(&other, dir.file("s.study").c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Volume data matrix size mismatch. Open anyway.\n");  // no volume here
  ASSERT_EQ(other.studies.items.size(), 2u);
  EXPECT_EQ(other.studies.items[1]->id, 1);
  EXPECT_EQ(other.studies.items[1]->analysed, 2);
  EXPECT_EQ(PCD_GetStudyRoiIds(other.studies.items[1].get()), (std::vector<uint16_t>{1, 2}));
  EXPECT_EQ(other.studies.selectedId, 0);  // reading does not select
}

TEST(ObjectFiles, EachReaderRefusesTheOthersFileWithTheRoiText) {
  TempDir dir;
  PcdWorkSession session;
  PCD_NewRoiObject(&session.rois, PCD_ROI_VOXELGROUP, nullptr);
  PCD_NewStudyObject(&session.studies, PCD_STUDY_DIFFUSION_PROFILE, nullptr);
  ASSERT_EQ(WriteRoiObjectFile(&session, dir.file("x.roi").c_str()), 0);
  ASSERT_EQ(WriteStudyObjectFile(&session, dir.file("x.study").c_str()), 0);

  NoticeRecorder notices;
  EXPECT_EQ(ReadStudyObjectFile(&session, dir.file("x.roi").c_str()), -1);
  EXPECT_EQ(ReadRoiObjectFile(&session, dir.file("x.study").c_str()), -1);
  ASSERT_EQ(notices.notices.size(), 2u);
  for (const PcdNotice& n : notices.notices) {
    EXPECT_EQ(n.text, "This is NOT a Quorix-II ROI file.");
    EXPECT_EQ(n.title, "Warning");
    EXPECT_EQ(n.height, 100);
  }
  EXPECT_EQ(session.rois.items.size(), 1u);
  EXPECT_EQ(session.studies.items.size(), 1u);
  EXPECT_EQ(session.rois.idCounter, 1);

  // a good magic with a broken object: refused by the parser, nothing added
  std::vector<uint8_t> bytes = ReadFileBytes(dir.file("x.roi"));
  for (size_t cut : {size_t{39}, size_t{50}, size_t{51}, bytes.size() - 1}) {
    quorix_test::WriteFileBytes(dir.file("cut.roi"), {bytes.begin(), bytes.begin() + cut});
    testing::internal::CaptureStderr();
    EXPECT_EQ(ReadRoiObjectFile(&session, dir.file("cut.roi").c_str()), -1) << cut;
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Err: "), std::string::npos);
  }
  EXPECT_EQ(ReadRoiObjectFile(&session, dir.file("missing.roi").c_str()), -1);
  EXPECT_EQ(session.rois.items.size(), 1u);
  EXPECT_EQ(notices.notices.size(), 2u);
}
