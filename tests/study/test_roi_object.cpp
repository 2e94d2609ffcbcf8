#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "study/byte_builder.h"
#include "study/roi_object.h"

using quorix_test::ByteBuilder;

namespace {

std::string LabelOf(const PcdRoiObject* roi) { return roi->label; }

std::vector<uint8_t> Serialize(const PcdRoiObject* roi) {
  std::vector<uint8_t> bytes(pcd_roi_serialized_size(roi));
  PCD_SerializeRoiObject(roi, bytes.data());
  return bytes;
}

}  // namespace

TEST(RoiList, NamesCountPerTypeIdsAndColoursFollowTheIdAndCleanUpRestarts) {
  PcdRoiList list;
  const int types[] = {0, 1, 0, 2, 1};
  const char* names[] = {"Spherical 1", "Freehand 1", "Spherical 2", "Voxelgroup 1", "Freehand 2"};
  for (int i = 0; i < 5; ++i) {
    PcdRoiObject* roi = PCD_NewRoiObject(&list, types[i], nullptr);
    ASSERT_NE(roi, nullptr);
    EXPECT_EQ(roi->id, i);
    EXPECT_EQ(LabelOf(roi), names[i]);
    EXPECT_EQ(list.selectedId, i);
    EXPECT_EQ(roi->status, 0);
    EXPECT_EQ(roi->visible, 1);
    EXPECT_EQ(roi->voxelGroup, nullptr);  // even a voxelgroup ROI starts without one
  }
  // colour rule worked out bit by bit: n = id + 1
  EXPECT_EQ(list.items[0]->red, 159 << 8);  // n = 1
  EXPECT_EQ(list.items[0]->green, 31 << 8);
  EXPECT_EQ(list.items[0]->blue, 63 << 8);
  EXPECT_EQ(list.items[3]->red, 31 << 8);  // n = 4: only blue's first bit
  EXPECT_EQ(list.items[3]->green, 31 << 8);
  EXPECT_EQ(list.items[3]->blue, 191 << 8);
  uint16_t r, g, b;
  PCD_GetRoiColor(7, &r, &g, &b);  // n = 8: red gets 64
  EXPECT_EQ(r, 95 << 8);
  EXPECT_EQ(g, 31 << 8);
  EXPECT_EQ(b, 63 << 8);
  PCD_GetRoiColor(254, &r, &g, &b);  // n = 255: every bit; blue never gets the 32
  EXPECT_EQ(r, 255 << 8);
  EXPECT_EQ(g, 255 << 8);
  EXPECT_EQ(b, 255 << 8);
  PCD_GetRoiColor(255, &r, &g, &b);  // n wraps to 0
  EXPECT_EQ(r, 31 << 8);
  EXPECT_EQ(b, 63 << 8);
  PCD_GetRoiColor(95, &r, &g, &b);  // n = 96 = 64 + 32: red 31|32, blue 63|64
  EXPECT_EQ(r, 63 << 8);
  EXPECT_EQ(g, 31 << 8);
  EXPECT_EQ(b, 127 << 8);

  PCD_CleanUpRoiObjects(&list);
  EXPECT_TRUE(list.items.empty());
  EXPECT_EQ(list.selectedId, kPcdNoObject);
  PcdRoiObject* again = PCD_NewRoiObject(&list, PCD_ROI_FREEHAND, nullptr);
  EXPECT_EQ(again->id, 0);
  EXPECT_EQ(LabelOf(again), "Freehand 1");
}

TEST(RoiList, InvalidTypeIsRefusedAndIdsWrapPastTheNoneValue) {
  PcdRoiList list;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_NewRoiObject(&list, 3, nullptr), nullptr);
  EXPECT_EQ(PCD_NewRoiObject(&list, -1, nullptr), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Err: Invalid ROI object type\nErr: Invalid ROI object type\n");
  EXPECT_TRUE(list.items.empty());
  EXPECT_EQ(list.idCounter, 0);
  EXPECT_EQ(list.nameCounters[0], 0);

  list.idCounter = 65534;
  EXPECT_EQ(PCD_NewRoiObject(&list, 0, nullptr)->id, 65534);
  EXPECT_NE(PCD_GetSelectedRoiObject(&list), nullptr);
  EXPECT_EQ(PCD_NewRoiObject(&list, 0, nullptr)->id, 65535);
  // the id 65535 is also "nothing selected"
  EXPECT_EQ(PCD_GetSelectedRoiObject(&list), nullptr);
  EXPECT_EQ(PCD_NewRoiObject(&list, 0, nullptr)->id, 0);
  EXPECT_EQ(LabelOf(list.items[2].get()), "Spherical 3");
}

TEST(RoiList, DuplicateDeleteLockAndStatus) {
  PcdRoiList list;
  const PcdIntSize3D volume{10, 20, 6};
  PCD_NewRoiObject(&list, PCD_ROI_FREEHAND, &volume);
  PcdRoiObject* second = PCD_NewRoiObject(&list, PCD_ROI_FREEHAND, &volume);
  second->shape->points = {{1, 2, 3}, {4, 5, 6}};
  second->status = 1;
  second->visible = 0;
  second->growing.generationLimit = 99;
  PcdRoiObject* copy = PCD_DuplicateSelectedRoiObject(&list, &volume);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(LabelOf(copy), "copy of Freehand 2");
  EXPECT_EQ(copy->id, 2);
  EXPECT_EQ(copy->status, 0);
  EXPECT_EQ(copy->visible, 1);
  EXPECT_EQ(copy->growing.generationLimit, 10);
  EXPECT_EQ(copy->red, 159 << 8);  // id 2: n = 3
  EXPECT_EQ(copy->green, 159 << 8);
  ASSERT_EQ(copy->shape->points.size(), 2u);
  second->shape->points[0].x = 77;  // deep copy
  EXPECT_EQ(copy->shape->points[0].x, 1);
  EXPECT_EQ(list.nameCounters[PCD_ROI_FREEHAND], 3);  // the copy used up a name

  // a voxel group's copy carries its painted voxels, in a group of its own
  PcdRoiList groups;
  PcdRoiObject* painted = PCD_NewRoiObject(&groups, PCD_ROI_VOXELGROUP, &volume);
  const PcdIntVector3D origin{1, 2, 0};
  const PcdIntSize3D groupSize{2, 2, 2};
  const uint32_t noSecond[3] = {0, 0, 0};
  painted->voxelGroup = PCD_NewVoxelGroup(&origin, &groupSize, noSecond, kPcdVoxelGroupOneByte);
  ASSERT_TRUE(painted->voxelGroup && painted->voxelGroup->data.size() > 3);
  painted->voxelGroup->data[3] = 1;
  PcdRoiObject* paintedCopy = PCD_DuplicateSelectedRoiObject(&groups, &volume);
  ASSERT_TRUE(paintedCopy && paintedCopy->voxelGroup);
  EXPECT_EQ(paintedCopy->voxelGroup->data, painted->voxelGroup->data);
  painted->voxelGroup->data[3] = 0;
  EXPECT_EQ(paintedCopy->voxelGroup->data[3], 1);

  // a locked ROI cannot be deleted
  list.selectedId = second->id;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_DeleteSelectedRoiObject(&list), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Undeletable ROI refered by study(ies)\n");
  EXPECT_EQ(list.items.size(), 3u);
  PCD_ForceStatusOfSelectedRoi(&list, 0);
  EXPECT_EQ(PCD_DeleteSelectedRoiObject(&list), 0);
  EXPECT_EQ(PCD_FindRoiObject(&list, 1), nullptr);

  const uint16_t ids[] = {2, 999, 0};
  PCD_LockRoiObjects(&list, ids, 3);
  EXPECT_EQ(PCD_FindRoiObject(&list, 0)->status, 1);
  EXPECT_EQ(PCD_FindRoiObject(&list, 2)->status, 1);

  PCD_DeleteRoiObjectById(&list, 0);
  list.selectedId = 2;
  PCD_ForceStatusOfSelectedRoi(&list, 0);
  EXPECT_EQ(PCD_DeleteSelectedRoiObject(&list), 0);
  EXPECT_TRUE(list.items.empty());
  EXPECT_EQ(list.selectedId, kPcdNoObject);
}

TEST(RoiList, VisibilityCommandsHideOnlyShowsTheOthers) {
  PcdRoiList list;
  for (int type : {0, 1, 2, 0}) PCD_NewRoiObject(&list, type, nullptr);
  auto flags = [&] {
    std::string s;
    for (auto& roi : list.items) s += static_cast<char>('0' + roi->visible);
    return s;
  };
  PCD_SetRoiVisibility(&list, PCD_HIDE_ALL);
  EXPECT_EQ(flags(), "0000");
  PCD_SetRoiVisibility(&list, PCD_HIDE_ONLY_TYPE, PCD_ROI_SPHERICAL);
  EXPECT_EQ(flags(), "0110");
  PCD_SetRoiVisibility(&list, PCD_SHOW_ONLY_TYPE, PCD_ROI_VOXELGROUP);
  EXPECT_EQ(flags(), "0010");
  PCD_SetRoiVisibility(&list, PCD_INVERT_VISIBILITY);
  EXPECT_EQ(flags(), "1101");
  list.items[0]->visible = 7;  // anything but 1 counts as hidden
  PCD_SetRoiVisibility(&list, PCD_INVERT_VISIBILITY);
  EXPECT_EQ(flags(), "1010");
  list.selectedId = 1;
  PCD_SetRoiVisibility(&list, PCD_SHOW_ONLY_SELECTED);
  EXPECT_EQ(flags(), "0100");
  PCD_SetRoiVisibility(&list, PCD_HIDE_ONLY_SELECTED);
  EXPECT_EQ(flags(), "1011");
  PCD_SetRoiVisibility(&list, PCD_SHOW_ALL);
  EXPECT_EQ(flags(), "1111");
}

TEST(RoiSerialization, FreehandRoiMatchesAHandBuiltImage) {
  PcdRoiList list;
  const PcdIntSize3D volume{8, 6, 4};
  PcdRoiObject* roi = PCD_NewRoiObject(&list, PCD_ROI_FREEHAND, &volume);
  roi->shape->points = {{3, 4, 2}, {255, 0, 300}};
  roi->status = 1;
  ByteBuilder expected;
  expected.i32(1).createdShape(4, 3, 2, {{3, 4, 2}, {255, 0, 300}});
  expected.i32(0).defaultGrowingCore().i32(1).i32(1).text("Freehand 1", 256);
  expected.u16(159 << 8).u16(31 << 8).u16(63 << 8);
  ASSERT_EQ(expected.bytes.size(), 112u + 8 + 8 + 80 + 270);

  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_GetSerializedSizeOfRoiObject(roi), expected.bytes.size());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ROI_OBJECT: size = 478 bytes\n");
  EXPECT_EQ(Serialize(roi), expected.bytes);

  PcdRoiObject* back = PCD_NewRoiObjectFromSerializedData(expected.bytes.data(), expected.bytes.size());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->type, PCD_ROI_FREEHAND);
  EXPECT_EQ(back->status, 1);
  ASSERT_EQ(back->shape->points.size(), 2u);
  EXPECT_EQ(back->shape->points[1].z, 300);
  EXPECT_EQ(Serialize(back), expected.bytes);
  delete_roi_object(back);
}

TEST(RoiSerialization, BitPackedVoxelGroupCarriesItsExtraByte) {
  PcdRoiObject* roi = new_roi_object(PCD_ROI_VOXELGROUP);
  const PcdIntVector3D origin{-1, 2, 3};
  const PcdIntSize3D size{3, 2, 1};
  const uint32_t second[3] = {7, 8, 9};
  roi->voxelGroup = PCD_NewVoxelGroup(&origin, &size, second, kPcdVoxelGroupBitPacked);
  ASSERT_NE(roi->voxelGroup, nullptr);
  ASSERT_EQ(roi->voxelGroup->data.size(), 1u);  // 6 / 8 + 1
  PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), 1, 1, 0, 1);  // voxel 4
  PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), 0, 0, 0, 1);  // voxel 0
  PCD_SetRoiLabel(roi, "grown");
  const PcdIntSize3D two{2, 2, 2};
  PCD_FitRoiShapeToVolume(roi->shape.get(), &two);
  ByteBuilder expected;
  expected.i32(2).createdShape(1, 1, 1).i32(1);
  expected.i32(-1).i32(2).i32(3).i32(3).i32(2).i32(1).i32(7).i32(8).i32(9).i32(6354).u8(0x11);
  expected.defaultGrowingCore().i32(0).i32(1).text("grown", 256).u16(0).u16(0).u16(0);
  EXPECT_EQ(Serialize(roi), expected.bytes);

  const PcdIntSize3D seven{7, 1, 1};  // one-byte storage: no extra byte
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&seven, kPcdVoxelGroupOneByte), 7);
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&seven, kPcdVoxelGroupBitPacked), 1);
  const PcdIntSize3D eight{8, 1, 1};
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&eight, kPcdVoxelGroupBitPacked), 2);
  EXPECT_EQ(PCD_NewVoxelGroup(&origin, &size, second, 1234), nullptr);
  // sizes whose product overflows or passes 2^31 - 1 voxels (a fuzzing find)
  const PcdIntSize3D huge{2147483647, 2147483647, 2147483647};
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&huge, kPcdVoxelGroupBitPacked), -1);
  const PcdIntSize3D justOver{32768, 65536, 1};
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&justOver, kPcdVoxelGroupOneByte), -1);
  const PcdIntSize3D justUnder{32767, 65536, 1};
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&justUnder, kPcdVoxelGroupBitPacked), 268427265);
  const PcdIntSize3D flat{2147483647, 2147483647, 0};
  EXPECT_EQ(PCD_GetVoxelGroupDataSize(&flat, kPcdVoxelGroupBitPacked), 1);
  delete_roi_object(roi);
}

TEST(RoiSerialization, EveryTruncationAndEveryBadCountIsRefused) {
  PcdRoiObject* roi = new_roi_object(PCD_ROI_VOXELGROUP);
  const PcdIntVector3D origin{0, 0, 0};
  const PcdIntSize3D size{2, 2, 2};
  roi->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupOneByte);
  roi->shape->points = {{1, 1, 1}};
  const std::vector<uint8_t> good = Serialize(roi);
  delete_roi_object(roi);
  testing::internal::CaptureStderr();
  for (size_t n = 0; n < good.size(); ++n)
    EXPECT_EQ(PCD_NewRoiObjectFromSerializedData(good.data(), n), nullptr) << n;
  std::vector<uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_EQ(PCD_NewRoiObjectFromSerializedData(longer.data(), longer.size()), nullptr);

  auto patched = [&](size_t at, int32_t value) {
    std::vector<uint8_t> b = good;
    ByteBuilder w;
    w.i32(value);
    std::copy(w.bytes.begin(), w.bytes.end(), b.begin() + at);
    return PCD_NewRoiObjectFromSerializedData(b.data(), b.size());
  };
  EXPECT_EQ(patched(0, 3), nullptr);            // type
  EXPECT_EQ(patched(4 + 108, 4120), nullptr);   // point count beyond the record
  EXPECT_EQ(patched(4 + 108, -1), nullptr);
  EXPECT_EQ(patched(4 + 116 + 4 + 36, 6355), nullptr);  // storage kind
  EXPECT_EQ(patched(4 + 116 + 4 + 12, 3), nullptr);     // nx grows past the data
  EXPECT_EQ(patched(4 + 116 + 4 + 12, -2), nullptr);
  // a group word of 0 says no group follows: then the group's 48 bytes are too many
  EXPECT_EQ(patched(4 + 116, 0), nullptr);
  testing::internal::GetCapturedStderr();
  PcdRoiObject* ok = patched(4 + 116, 7);  // any non-zero word announces the group
  ASSERT_NE(ok, nullptr);
  delete_roi_object(ok);
}

TEST(RoiMasking, BoxVoiClearsInsideOrOutsideAndRefusesWhatItMayNotEdit) {
  PcdRoiList list;
  PcdRoiObject* roi = PCD_NewRoiObject(&list, PCD_ROI_VOXELGROUP, nullptr);
  const PcdIntVector3D origin{1, 1, 1};
  const PcdIntSize3D size{4, 4, 4};
  auto fill = [&] {
    roi->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupBitPacked);
    for (int z = 0; z < 4; ++z)
      for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), x, y, z, 1);
  };
  auto count = [&] {
    int n = 0;
    for (int z = 0; z < 4; ++z)
      for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) n += PCD_GetVoxelOfVoxelGroup(roi->voxelGroup.get(), x, y, z);
    return n;
  };
  const PcdIntVector3D boxOrigin{2, 2, 2};  // volume voxels 2..3 = group voxels 1..2
  const PcdIntSize3D boxSize{2, 2, 2};
  fill();
  EXPECT_EQ(PCD_MaskSelectedVoxelGroupByBox(&list, &boxOrigin, &boxSize, 1), 0);
  EXPECT_EQ(count(), 56);
  EXPECT_EQ(PCD_GetVoxelOfVoxelGroup(roi->voxelGroup.get(), 1, 1, 1), 0);
  EXPECT_EQ(PCD_GetVoxelOfVoxelGroup(roi->voxelGroup.get(), 3, 1, 1), 1);
  fill();
  EXPECT_EQ(PCD_MaskSelectedVoxelGroupByBox(&list, &boxOrigin, &boxSize, 0), 0);
  EXPECT_EQ(count(), 8);
  EXPECT_EQ(PCD_GetVoxelOfVoxelGroup(roi->voxelGroup.get(), 2, 2, 2), 1);

  fill();
  const PcdIntSize3D thin{2, 1, 2};
  EXPECT_EQ(PCD_MaskSelectedVoxelGroupByBox(&list, &boxOrigin, &thin, 1), -1);
  EXPECT_EQ(count(), 64);
  roi->status = 1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_MaskSelectedVoxelGroupByBox(&list, &boxOrigin, &boxSize, 1), -1);
  PCD_NewRoiObject(&list, PCD_ROI_SPHERICAL, nullptr);
  EXPECT_EQ(PCD_MaskSelectedVoxelGroupByBox(&list, &boxOrigin, &boxSize, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Uneditable ROI refered by study(ies)\nThi function is only for voxelgroup ROIs\n");
  EXPECT_EQ(count(), 64);
}

TEST(RoiRaster, SphereFreehandAndVoxelgroupVoxels) {
  const PcdIntSize3D volume{5, 5, 5};
  PcdRoiObject* sphere = new_roi_object(PCD_ROI_SPHERICAL);
  sphere->shape->centre = {2.5f, 2.5f, 2.5f};
  sphere->shape->radius = 1.0f;
  std::vector<uint8_t> mask = PCD_RasterizeRoiObject(sphere, &volume);
  int n = 0;
  for (uint8_t v : mask) n += v;
  EXPECT_EQ(n, 7);  // the centre voxel and its six face neighbours at distance 1
  EXPECT_EQ(mask[2 + 5 * (2 + 5 * 1)], 1);
  EXPECT_EQ(mask[3 + 5 * (3 + 5 * 2)], 0);  // sqrt(2) away
  // a negative radius takes nothing (its square would take the same seven), nor does a
  // centre that is not a number
  sphere->shape->radius = -1.0f;
  mask = PCD_RasterizeRoiObject(sphere, &volume);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), 0);
  sphere->shape->radius = 1.0f;
  sphere->shape->centre.y = std::nanf("");
  mask = PCD_RasterizeRoiObject(sphere, &volume);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), 0);

  PcdRoiObject* free = new_roi_object(PCD_ROI_FREEHAND);
  free->shape->points = {{4, 0, 1}, {9, 0, 0}};  // the second lies outside
  mask = PCD_RasterizeRoiObject(free, &volume);
  n = 0;
  for (uint8_t v : mask) n += v;
  EXPECT_EQ(n, 1);
  EXPECT_EQ(mask[4 + 25], 1);

  PcdRoiObject* group = new_roi_object(PCD_ROI_VOXELGROUP);
  const PcdIntVector3D origin{3, -1, 0};
  const PcdIntSize3D size{3, 3, 1};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &size, nullptr, kPcdVoxelGroupOneByte);
  PCD_SetVoxelOfVoxelGroup(group->voxelGroup.get(), 1, 1, 0, 1);  // volume (4, 0, 0)
  PCD_SetVoxelOfVoxelGroup(group->voxelGroup.get(), 2, 1, 0, 1);  // x = 5: clipped
  PCD_SetVoxelOfVoxelGroup(group->voxelGroup.get(), 1, 0, 0, 1);  // y = -1: clipped
  mask = PCD_RasterizeRoiObject(group, &volume);
  n = 0;
  for (uint8_t v : mask) n += v;
  EXPECT_EQ(n, 1);
  EXPECT_EQ(mask[4], 1);
  // a group without voxels but with two huge axes is done at once (a fuzzing find)
  const PcdIntSize3D hollow{0, 2147483647, 2147483647};
  group->voxelGroup = PCD_NewVoxelGroup(&origin, &hollow, nullptr, kPcdVoxelGroupBitPacked);
  ASSERT_NE(group->voxelGroup, nullptr);
  mask = PCD_RasterizeRoiObject(group, &volume);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), 0);
  PcdRoiList list;
  PCD_AppendRoiObject(&list, group);
  list.selectedId = group->id;
  const PcdIntVector3D boxOrigin{0, 0, 0};
  const PcdIntSize3D boxSize{5, 5, 5};
  EXPECT_EQ(PCD_MaskSelectedVoxelGroupByBox(&list, &boxOrigin, &boxSize, 0), 0);
  list.items.front().release();
  delete_roi_object(sphere);
  delete_roi_object(free);
  delete_roi_object(group);
}

TEST(RoiSerialization, GrowingCoreIsTheRegionGrowingCoreAndCarriesEveryBitOfItsWords) {
  // one ROI form whose carried criteria words hold bit patterns that no arithmetic may
  // touch: a signalling NaN, a negative zero, a denormal, an arbitrary word
  ByteBuilder form;
  form.i32(1).createdShape(1, 1, 1, {});
  form.i32(0).i32(kPcdGrowBySingleSignal).i32(0x7f800001).f32(0.3f).i32(static_cast<int32_t>(0x80000000u)).i32(1);
  form.i32(0x12345678).zeros(8 * 4).f32(12.5f).i32(0).i32(7).i32(2).f32(-5.0f).f32(5.0f);
  form.i32(0).i32(1).text("grown", 256).u16(1).u16(2).u16(3);
  std::unique_ptr<PcdRoiObject> roi(PCD_NewRoiObjectFromSerializedData(form.bytes.data(), form.bytes.size()));
  ASSERT_NE(roi, nullptr);
  EXPECT_EQ(Serialize(roi.get()), form.bytes);
  // the ROI's core is what region growing reads, and serializes to the same 80 bytes
  const PcdDtiRegionGrowingCore& core = roi->growing;
  EXPECT_EQ(core.mode, kPcdGrowBySingleSignal);
  EXPECT_EQ(PCD_GetGrowingFAmin(&core), 0.3f);
  EXPECT_EQ(PCD_GetGrowingAngleMax(&core), 12.5f);
  EXPECT_EQ(core.generationLimit, 7);
  EXPECT_EQ(core.channel, 2);
  EXPECT_EQ(core.upperBound, 5.0f);
  std::vector<uint8_t> alone(PCDdti_GetSerializedSizeOfRegionGrowingContextCore());
  PCDdti_SerializeRegionGrowingContextCore(&core, alone.data());
  const size_t at = 4 + 112 + 4;  // type, shape without points, voxel group word
  EXPECT_TRUE(std::equal(alone.begin(), alone.end(), form.bytes.begin() + at));
  PcdDtiRegionGrowingContext context;
  static_cast<PcdDtiRegionGrowingCore&>(context) = roi->growing;
  EXPECT_EQ(context.generationLimit, 7);
}
