#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "io/session_file.h"
#include "study/byte_builder.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

using quorix_test::ByteBuilder;
using quorix_test::NoticeRecorder;
using quorix_test::ReadFileBytes;
using quorix_test::TempDir;
using quorix_test::WriteFileBytes;

namespace {

const std::string kMagic = "#Quorix-II work session file (not used in earlier Quorix)";

void GivePhantom(PcdWorkSession* session, int32_t x) {
  PcdPhantomOptions options;
  options.sizeX = x, options.sizeY = 3, options.sizeZ = 2, options.directions = 6;
  session->dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(session->dti, nullptr);
  session->volume = session->dti->volume;
}

std::vector<uint8_t> DtiBytes(const PcdDtiData* dti) {
  std::vector<uint8_t> b(PCDdti_GetSerializedSizeOfDiffusionTensorImageData(dti));
  PCDdti_SerializeDiffusionTensorImageData(dti, b.data());
  return b;
}

// Two studies and three ROIs with ids out of order.
void GiveObjects(PcdWorkSession* s) {
  PCD_NewRoiObject(&s->rois, PCD_ROI_FREEHAND, nullptr)->id = 5;
  PCD_NewRoiObject(&s->rois, PCD_ROI_SPHERICAL, nullptr)->id = 9;
  PcdRoiObject* group = PCD_NewRoiObject(&s->rois, PCD_ROI_VOXELGROUP, nullptr);
  group->id = 2;
  const PcdIntVector3D origin{1, 0, 0};
  const PcdIntSize3D size{2, 2, 1};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupOneByte);
  PCD_NewStudyObject(&s->studies, PCD_STUDY_VOXEL_STATISTICS, nullptr)->id = 300;
  PcdStudyObject* tracking = PCD_NewStudyObject(&s->studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  tracking->id = 7;
  tracking->analysed = 2;
  s->information = "Data source: phantom\n";
}

}  // namespace

TEST(WorkSessionFile, EmptySessionIsMagicSixWordsInformationAndTheDtiRecord) {
  TempDir dir;
  PcdWorkSession session;
  GivePhantom(&session, 4);
  session.information = "phantom 4 x 3 x 2";
  const std::vector<uint8_t> dti = DtiBytes(session.dti);
  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&session, dir.file("e.qws").c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "info_string_size: 5120\ndti_serialized_size: " + std::to_string(dti.size()) + "\n");
  ByteBuilder expected;
  expected.raw(kMagic).i32(5120).i32(static_cast<int32_t>(dti.size()));
  expected.i32(0).i32(0).i32(0).i32(0).text("phantom 4 x 3 x 2", 5120).append(dti);
  ASSERT_EQ(expected.bytes.size(), 57 + 4 * 6 + 5120 + dti.size());
  EXPECT_EQ(ReadFileBytes(dir.file("e.qws")), expected.bytes);

  PcdWorkSession loaded;
  NoticeRecorder notices;
  ASSERT_EQ(ReadWorkSessionFile(&loaded, dir.file("e.qws").c_str()), 0);
  ASSERT_EQ(notices.notices.size(), 1u);
  EXPECT_EQ(notices.notices[0].text, "Objects loaded: 0 studies / 0 ROIs.");
  EXPECT_EQ(notices.notices[0].title, "Notice");
  EXPECT_EQ(loaded.information, "phantom 4 x 3 x 2");
  EXPECT_EQ(DtiBytes(loaded.dti), dti);
  EXPECT_EQ(loaded.dti->volume, loaded.volume);
}

TEST(WorkSessionFile, HeadListsStudiesFirstAndTheBodyStoresRoisFirst) {
  TempDir dir;
  PcdWorkSession session;
  GivePhantom(&session, 3);
  GiveObjects(&session);
  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&session, dir.file("s.qws").c_str()), 0);
  testing::internal::GetCapturedStderr();
  const std::vector<uint8_t> dti = DtiBytes(session.dti);
  const int32_t statistics = 10512 + 192 + 112, tracking = 10512 + 572 + 3 * 112;
  const int32_t freehand = 470, sphere = 470, group = 470 + 44;
  ByteBuilder head;
  head.raw(kMagic).i32(5120).i32(static_cast<int32_t>(dti.size()));
  head.i32(2).i32(2).i32(300).i32(statistics).i32(7).i32(tracking);
  head.i32(3).i32(3).i32(5).i32(freehand).i32(9).i32(sphere).i32(2).i32(group);
  const std::vector<uint8_t> file = ReadFileBytes(dir.file("s.qws"));
  ASSERT_EQ(file.size(), head.bytes.size() + 5120 + dti.size() + freehand + sphere + group +
                             statistics + tracking);
  EXPECT_TRUE(std::equal(head.bytes.begin(), head.bytes.end(), file.begin()));
  // body: the voxelgroup ROI (type 2) is the third object after the DTI record, the
  // statistics study (type 2, size 10816) the fourth
  const size_t body = head.bytes.size() + 5120 + dti.size();
  EXPECT_EQ(file[body], 1);                            // freehand
  EXPECT_EQ(file[body + freehand], 0);                 // spherical
  EXPECT_EQ(file[body + freehand + sphere], 2);        // voxelgroup
  EXPECT_EQ(file[body + freehand + sphere + group], 2);  // statistics study
  EXPECT_EQ(file[body + freehand + sphere + group + statistics], 0);  // tracking study
}

TEST(WorkSessionFile, ReadRestoresIdsCountersAndStatusAndWritesTheSameBytesAgain) {
  TempDir dir;
  PcdWorkSession session;
  GivePhantom(&session, 3);
  GiveObjects(&session);
  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&session, dir.file("a.qws").c_str()), 0);
  testing::internal::GetCapturedStderr();

  PcdWorkSession loaded;
  NoticeRecorder notices;
  testing::internal::CaptureStderr();
  ASSERT_EQ(ReadWorkSessionFile(&loaded, dir.file("a.qws").c_str()), 0);
  const std::string console = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(quorix_test::HasLine(console, "300/2 10816\n7/2 11420\n5/3 470\n9/3 470\n2/3 514\n"));
  EXPECT_TRUE(quorix_test::HasLine(console, "Notice: just creating DTI data with NULL volume\n"));
  EXPECT_TRUE(quorix_test::HasLine(console, "3 ROI objects\n2 study objects\n"));
  ASSERT_EQ(notices.notices.size(), 1u);
  EXPECT_EQ(notices.notices[0].text, "Objects loaded: 2 studies / 3 ROIs.");
  ASSERT_EQ(loaded.rois.items.size(), 3u);
  EXPECT_EQ(loaded.rois.items[0]->id, 5);
  EXPECT_EQ(loaded.rois.items[2]->id, 2);
  EXPECT_EQ(loaded.rois.idCounter, 2);  // the last id read, not the largest
  EXPECT_EQ(loaded.studies.idCounter, 7);
  EXPECT_EQ(loaded.studies.items[0]->id, 300);
  EXPECT_EQ(loaded.information, "Data source: phantom\n");

  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&loaded, dir.file("b.qws").c_str()), 0);
  testing::internal::GetCapturedStderr();
  std::vector<uint8_t> a = ReadFileBytes(dir.file("a.qws")), b = ReadFileBytes(dir.file("b.qws"));
  // only the two id counter words differ (saved: 3 and 3; now: 7 and 2)
  ASSERT_EQ(a.size(), b.size());
  const size_t studyCounter = 69, roiCounter = 77 + 16;
  EXPECT_EQ(b[studyCounter], 7);
  EXPECT_EQ(b[roiCounter], 2);
  b[studyCounter] = a[studyCounter];
  b[roiCounter] = a[roiCounter];
  EXPECT_EQ(a, b);

  // an analysed study comes back as analysed in an earlier session
  loaded.studies.items[0]->analysed = 1;
  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&loaded, dir.file("c.qws").c_str()), 0);
  PcdWorkSession again;
  ASSERT_EQ(ReadWorkSessionFile(&again, dir.file("c.qws").c_str()), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(again.studies.items[0]->analysed, 2);

  // new objects never get an id a loaded one holds: the counters stand on 2 (ROI 2
  // lives: 3 is next) and 7 (study 7 lives: 8)
  EXPECT_EQ(PCD_NewRoiObject(&again.rois, PCD_ROI_SPHERICAL, nullptr)->id, 3);
  EXPECT_EQ(PCD_NewRoiObject(&again.rois, PCD_ROI_SPHERICAL, nullptr)->id, 4);
  EXPECT_EQ(PCD_NewStudyObject(&again.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr)->id, 8);
}

TEST(WorkSessionFile, TheVolumeRecordKeepsItsIdentityAndTakesTheNewContents) {
  TempDir dir;
  PcdWorkSession saved;
  GivePhantom(&saved, 5);
  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&saved, dir.file("v.qws").c_str()), 0);
  PcdWorkSession current;
  GivePhantom(&current, 3);
  PcdRawVolumeData* record = current.volume;
  PcdDtiData* oldDti = current.dti;
  int replaced = 0;
  current.dataSetReplaced = [&](PcdWorkSession* s) { replaced += (s == &current); };
  ASSERT_EQ(ReadWorkSessionFile(&current, dir.file("v.qws").c_str()), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(current.volume, record);
  EXPECT_EQ(current.dti->volume, record);
  EXPECT_NE(current.dti, oldDti);
  EXPECT_EQ(record->matrixSize->x, 5);
  EXPECT_EQ(replaced, 1);
  EXPECT_EQ(DtiBytes(current.dti), DtiBytes(saved.dti));
}

TEST(WorkSessionFile, ARefusedFileLeavesTheSessionAsItWas) {
  TempDir dir;
  PcdWorkSession saved;
  GivePhantom(&saved, 3);
  GiveObjects(&saved);
  testing::internal::CaptureStderr();
  ASSERT_EQ(WriteWorkSessionFile(&saved, dir.file("g.qws").c_str()), 0);
  testing::internal::GetCapturedStderr();
  const std::vector<uint8_t> good = ReadFileBytes(dir.file("g.qws"));

  PcdWorkSession current;
  GivePhantom(&current, 4);
  PCD_NewRoiObject(&current.rois, PCD_ROI_SPHERICAL, nullptr);
  const PcdRawVolumeData* volume = current.volume;
  const PcdDtiData* dti = current.dti;
  const std::vector<uint8_t> dtiBefore = DtiBytes(current.dti);
  auto unchanged = [&] {
    return current.volume == volume && current.dti == dti && DtiBytes(current.dti) == dtiBefore &&
           current.rois.items.size() == 1 && current.rois.idCounter == 1 &&
           current.studies.items.empty() && current.information.empty();
  };
  auto refused = [&](const std::vector<uint8_t>& bytes) {
    WriteFileBytes(dir.file("bad.qws"), bytes);
    testing::internal::CaptureStderr();
    const int status = ReadWorkSessionFile(&current, dir.file("bad.qws").c_str());
    testing::internal::GetCapturedStderr();
    return status == -1 && unchanged();
  };

  NoticeRecorder notices;
  for (size_t at : {size_t{0}, size_t{28}, size_t{56}}) {
    std::vector<uint8_t> b = good;
    b[at] ^= 0x20;
    EXPECT_TRUE(refused(b)) << at;
  }
  ASSERT_EQ(notices.notices.size(), 3u);
  EXPECT_EQ(notices.notices[2].text, "This is NOT a Quorix-II WORK file.");
  EXPECT_EQ(notices.notices[2].kind, PCD_NOTICE_WARNING);

  for (size_t cut : {size_t{56}, size_t{60}, size_t{70}, size_t{100}, good.size() - 1})
    EXPECT_TRUE(refused({good.begin(), good.begin() + cut})) << cut;
  std::vector<uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_TRUE(refused(longer));
  auto patched = [&](size_t at, int32_t value) {
    std::vector<uint8_t> b = good;
    ByteBuilder w;
    w.i32(value);
    std::copy(w.bytes.begin(), w.bytes.end(), b.begin() + at);
    return b;
  };
  EXPECT_TRUE(refused(patched(57, 5121)));        // information block size
  EXPECT_TRUE(refused(patched(65, 1 << 28)));     // S
  EXPECT_TRUE(refused(patched(65, -1)));
  EXPECT_TRUE(refused(patched(77, 10816 + 1)));   // a study size, total no longer adds up
  // sizes that still add up but cut the objects in the wrong places
  std::vector<uint8_t> shifted = patched(77, 10816 + 4);
  const std::vector<uint8_t> tail = patched(85, 11420 - 4);
  std::copy(tail.begin() + 85, tail.begin() + 89, shifted.begin() + 85);
  EXPECT_TRUE(refused(shifted));
  EXPECT_TRUE(refused(patched(61, 0)));           // no DTI record
  // only the magic raised notices: the three changed characters and the 56-byte cut
  EXPECT_EQ(notices.notices.size(), 4u);

  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadWorkSessionFile(&current, dir.file("none.qws").c_str()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: failed to fopen(" + dir.file("none.qws") + ")\n");
  EXPECT_TRUE(unchanged());
}

TEST(WorkSessionFile, NothingIsWrittenWithoutADataSet) {
  TempDir dir;
  PcdWorkSession empty;
  PCD_NewRoiObject(&empty.rois, PCD_ROI_SPHERICAL, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(WriteWorkSessionFile(&empty, dir.file("n.qws").c_str()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: no data set that a work session file can hold\n");
  EXPECT_TRUE(ReadFileBytes(dir.file("n.qws")).empty());
  PcdWorkSession session;
  GivePhantom(&session, 3);
  testing::internal::CaptureStderr();
  EXPECT_EQ(WriteWorkSessionFile(&session, (dir.file("no/such/dir") + "/s.qws").c_str()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: failed to fopen(" + dir.file("no/such/dir") + "/s.qws)\n");
}
