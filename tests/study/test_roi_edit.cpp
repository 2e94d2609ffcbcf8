// What the ROI editor's buttons do to ROIs, the ROI and fiber 3D objects, and the
// voxelizing of track lines. Expected values are worked out by hand.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "study/roi_edit.h"
#include "study/trackline_objects.h"
#include "tools/phantom/phantom.h"

namespace {

std::unique_ptr<PcdRoiObject> Roi(int32_t type) { return std::unique_ptr<PcdRoiObject>(new_roi_object(type)); }

float FloatAt(const std::vector<uint8_t>& bytes, size_t at) {
  float v;
  std::memcpy(&v, bytes.data() + at, 4);
  return v;
}
int32_t IntAt(const std::vector<uint8_t>& bytes, size_t at) {
  int32_t v;
  std::memcpy(&v, bytes.data() + at, 4);
  return v;
}

TEST(RoiEdit, FreehandPlanesErodeAndDilateOnTheirOwn) {
  auto roi = Roi(PCD_ROI_FREEHAND);
  roi->shape->points = {{5, 5, 2}, {9, 9, 7}};
  ASSERT_EQ(PCD_MorphFreehandRoi(roi.get(), true), 0);
  // each point grows into a plus of five in its own slice, slices in z order, rows in y
  const std::vector<std::tuple<int, int, int>> expected = {
      {5, 4, 2}, {4, 5, 2}, {5, 5, 2}, {6, 5, 2}, {5, 6, 2}, {9, 8, 7}, {8, 9, 7}, {9, 9, 7}, {10, 9, 7}, {9, 10, 7}};
  ASSERT_EQ(roi->shape->points.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const PcdRoiPoint& p = roi->shape->points[i];
    EXPECT_EQ(std::make_tuple(int{p.x}, int{p.y}, int{p.z}), expected[i]) << i;
  }
  // a 3 x 3 square erodes to its centre (four face neighbours)
  roi->shape->points.clear();
  for (uint8_t y = 0; y < 3; ++y)
    for (uint8_t x = 0; x < 3; ++x) roi->shape->points.push_back({static_cast<uint8_t>(x + 20), static_cast<uint8_t>(y + 30), 1});
  ASSERT_EQ(PCD_MorphFreehandRoi(roi.get(), false), 0);
  ASSERT_EQ(roi->shape->points.size(), 1u);
  EXPECT_EQ(roi->shape->points[0].x, 21);
  EXPECT_EQ(roi->shape->points[0].y, 31);

  // a 64 x 64 block dilated would hold 66 * 66 - 4 = 4352 points, more than the record's
  // 4119: refused, unchanged
  roi->shape->points.clear();
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x) roi->shape->points.push_back({static_cast<uint8_t>(x + 10), static_cast<uint8_t>(y + 10), 0});
  EXPECT_EQ(PCD_MorphFreehandRoi(roi.get(), true), -1);
  EXPECT_EQ(roi->shape->points.size(), 4096u);
  EXPECT_EQ(PCD_MorphFreehandRoi(roi.get(), false), 0);
  EXPECT_EQ(roi->shape->points.size(), 62u * 62u);

  // a locked ROI and a ROI of another type are not touched
  roi->status = 1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_MorphFreehandRoi(roi.get(), true), -1);
  EXPECT_EQ(PCD_ClearRoiRegion(roi.get()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Uneditable ROI refered by study(ies)\nUneditable ROI refered by study(ies)\n");
  EXPECT_EQ(roi->shape->points.size(), 62u * 62u);
  auto sphere = Roi(PCD_ROI_SPHERICAL);
  EXPECT_EQ(PCD_MorphFreehandRoi(sphere.get(), true), -1);
  roi->status = 0;
  EXPECT_EQ(PCD_ClearRoiRegion(roi.get()), 0);
  EXPECT_TRUE(roi->shape->points.empty());
}

TEST(RoiEdit, VoxelGroupsBecomeWholeVolumeGroupsAndMorph) {
  auto roi = Roi(PCD_ROI_VOXELGROUP);
  const PcdIntSize3D volume{5, 5, 5};
  // no group yet: an empty one of the volume's size
  ASSERT_EQ(PCD_EnsureWholeVolumeVoxelGroup(roi.get(), &volume), 0);
  EXPECT_EQ(roi->voxelGroup->data.size(), 125u);
  EXPECT_EQ(PCD_CountRoiVoxels(roi.get(), &volume), 0);
  // a bit-packed 2x2x2 group at (1,1,1) with voxel (1,0,1) set: voxel (2,1,2) of the volume
  const PcdIntVector3D origin{1, 1, 1};
  const PcdIntSize3D box{2, 2, 2};
  const uint32_t second[3] = {7, 8, 9};
  roi->voxelGroup = PCD_NewVoxelGroup(&origin, &box, second, kPcdVoxelGroupBitPacked);
  PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), 1, 0, 1, 1);
  ASSERT_EQ(PCD_EnsureWholeVolumeVoxelGroup(roi.get(), &volume), 0);
  const PcdVoxelGroup& g = *roi->voxelGroup;
  EXPECT_EQ(g.storage, kPcdVoxelGroupOneByte);
  EXPECT_EQ(g.origin.x, 0);
  EXPECT_EQ(g.size.z, 5);
  EXPECT_EQ(g.second[2], 9u);  // carried along
  EXPECT_EQ(g.data[2 + 5 * (1 + 5 * 2)], 1);
  EXPECT_EQ(PCD_CountRoiVoxels(roi.get(), &volume), 1);
  // dilation: the voxel and its six face neighbours; erosion: back to the one voxel
  ASSERT_EQ(PCD_MorphVoxelGroupRoi(roi.get(), &volume, true), 0);
  EXPECT_EQ(PCD_CountRoiVoxels(roi.get(), &volume), 7);
  EXPECT_EQ(roi->voxelGroup->data[2 + 5 * (0 + 5 * 2)], 1);  // (2, 0, 2)
  ASSERT_EQ(PCD_MorphVoxelGroupRoi(roi.get(), &volume, false), 0);
  EXPECT_EQ(PCD_CountRoiVoxels(roi.get(), &volume), 1);
  ASSERT_EQ(PCD_ClearRoiRegion(roi.get()), 0);
  EXPECT_EQ(PCD_CountRoiVoxels(roi.get(), &volume), 0);
  // other types and empty volumes are refused
  auto sphere = Roi(PCD_ROI_SPHERICAL);
  EXPECT_EQ(PCD_EnsureWholeVolumeVoxelGroup(sphere.get(), &volume), -1);
  const PcdIntSize3D none{0, 5, 5};
  EXPECT_EQ(PCD_EnsureWholeVolumeVoxelGroup(roi.get(), &none), -1);
}

TEST(RoiEdit, GrowingTakesTheRoisCriteria) {
  PcdDtiData* dti = PCD_MakeDwiPhantom({.sizeX = 32, .sizeY = 32, .sizeZ = 12, .directions = 6}, nullptr);
  ASSERT_NE(dti, nullptr);
  auto roi = Roi(PCD_ROI_VOXELGROUP);
  const PcdIntSize3D volume{32, 32, 12};
  // no voxels to grow from
  EXPECT_EQ(PCD_GrowVoxelGroupRoi(dti, roi.get()), -1);
  ASSERT_EQ(PCD_EnsureWholeVolumeVoxelGroup(roi.get(), &volume), 0);
  // a seed in the isotropic tissue, whose six face neighbours are tissue of the same So;
  // grey growing on channel 0 with exactly that value, growing from the seeds only
  const size_t seed = 8 + 32 * (8 + 32 * 5);
  roi->voxelGroup->data[seed] = 1;
  const int16_t so = static_cast<const int16_t*>(dti->volume->data[0])[seed];
  roi->growing.mode = kPcdGrowBySingleSignal;
  roi->growing.channel = 0;
  roi->growing.lowerBound = roi->growing.upperBound = so;
  roi->growing.generationLimit = 1;
  testing::internal::CaptureStderr();
  ASSERT_EQ(PCD_GrowVoxelGroupRoi(dti, roi.get()), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(PCD_CountRoiVoxels(roi.get(), &volume), 7);
  // locked: refused before anything happens
  roi->status = 1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_GrowVoxelGroupRoi(dti, roi.get()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Uneditable ROI refered by study(ies)\n");
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}

TEST(RoiObjectGroup, OneObjectPerVisibleRoiWithItsColourAndShape) {
  PcdRoiList rois;
  const PcdIntSize3D volume{4, 4, 4};
  PcdRoiObject* sphere = PCD_NewRoiObject(&rois, PCD_ROI_SPHERICAL, &volume);
  sphere->shape->centre = {1.5f, 2.5f, 3.5f};
  sphere->shape->radius = 0.6f;
  PcdRoiObject* freehand = PCD_NewRoiObject(&rois, PCD_ROI_FREEHAND, &volume);
  freehand->shape->points = {{1, 2, 3}, {0, 0, 0}};
  PcdRoiObject* hidden = PCD_NewRoiObject(&rois, PCD_ROI_VOXELGROUP, &volume);
  hidden->visible = 0;
  const PcdObjectGroup group = PCD_BuildRoiObjectGroup(&rois, &volume);
  ASSERT_EQ(group.objects.size(), 2u);
  EXPECT_TRUE(group.hasColors);
  const PcdDisplayObject& s = group.objects[0];
  EXPECT_EQ(s.type, 13);
  EXPECT_EQ(s.value, 0);
  EXPECT_EQ(s.payload.size(), 40u);
  EXPECT_EQ(FloatAt(s.payload, 0), 1.5f);
  EXPECT_EQ(FloatAt(s.payload, 8), 3.5f);
  EXPECT_EQ(FloatAt(s.payload, 12), 0.6f);
  EXPECT_EQ(FloatAt(s.payload, 16), 0.0f);
  // id 0: (159, 31, 63) shifted by 8 bits, over 65535
  EXPECT_FLOAT_EQ(s.color[0], 159 * 256 / 65535.0f);
  EXPECT_FLOAT_EQ(s.color[2], 63 * 256 / 65535.0f);
  EXPECT_EQ(s.color[3], 1.0f);
  const PcdDisplayObject& f = group.objects[1];
  EXPECT_EQ(f.type, 61);
  EXPECT_EQ(f.value, 1);
  EXPECT_EQ(f.k, 2);
  ASSERT_EQ(f.payload.size(), 12u * 2 + 5);  // the payload size of object 61 without extras
  EXPECT_EQ(IntAt(f.payload, 0), 2);
  EXPECT_EQ(f.payload[4], 0);
  // voxel centres in x-fastest order: (0,0,0) first, then (1,2,3)
  EXPECT_EQ(FloatAt(f.payload, 5), 0.5f);
  EXPECT_EQ(FloatAt(f.payload, 5 + 12), 1.5f);
  EXPECT_EQ(FloatAt(f.payload, 5 + 20), 3.5f);
  EXPECT_EQ(PCD_GetSerializedSizeOfObjectGroup(&group), 4u + 24 * 2 + 40 + 29);
}

// A result with two pairs: the first selected (forward 3 nodes, backward 2), the second not.
PcdFibeTrakBuffer* TwoPairs(PcdVector3D* seeds) {
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(2, seeds, 10);
  auto line = [](std::initializer_list<PcdVector3D> nodes) {
    PcdTrakLineBuffer* l = new_trakline_buffer(8);
    for (const PcdVector3D& n : nodes) {
      l->x[l->nodeCount] = n.x;
      l->y[l->nodeCount] = n.y;
      l->z[l->nodeCount] = n.z;
      ++l->nodeCount;
    }
    return l;
  };
  for (int i = 0; i < 2; ++i) buffer->pairs[i] = new_trakline_pair(&seeds[i]);
  buffer->pairs[0]->forward = line({{0.5f, 0.5f, 0.5f}, {1.5f, 0.5f, 0.5f}, {2.5f, 0.5f, 0.5f}});
  buffer->pairs[0]->backward = line({{0.5f, 0.5f, 0.5f}, {0.5f, 2.5f, 0.5f}});
  buffer->pairs[0]->selection = 1;
  buffer->pairs[1]->forward = line({{3.5f, 3.5f, 3.5f}});
  buffer->pairs[1]->backward = line({{3.5f, 3.5f, 3.5f}});
  buffer->lineCount = 2;
  return buffer;
}

TEST(TrackLineObjects, SelectedHalfLinesBecomePolylineObjects) {
  PcdVector3D seeds[2] = {{0.5f, 0.5f, 0.5f}, {3.5f, 3.5f, 3.5f}};
  PcdFibeTrakBuffer* buffer = TwoPairs(seeds);
  const std::vector<PcdPolyline> lines = PCD_GetSelectedHalfLines(buffer);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size(), 3u);
  EXPECT_EQ(lines[1].size(), 2u);
  EXPECT_EQ(lines[1][1].y, 2.5f);

  const PcdObjectGroup hair = PCD_BuildPolylineObjectGroup(lines, false);
  ASSERT_EQ(hair.objects.size(), 2u);
  const PcdDisplayObject& o = hair.objects[0];
  EXPECT_EQ(o.type, 21);
  EXPECT_EQ(o.k, 3);
  ASSERT_EQ(o.payload.size(), 12u * 3 + 32);
  EXPECT_EQ(IntAt(o.payload, 0), 3);
  EXPECT_EQ(FloatAt(o.payload, 8), 0.5f);    // bounding box min x
  EXPECT_EQ(FloatAt(o.payload, 20), 2.5f);   // max x
  EXPECT_EQ(FloatAt(o.payload, 32 + 24), 2.5f);  // third point's x
  EXPECT_EQ(hair.objects[1].value, 1);
  EXPECT_EQ(PCD_GetSerializedSizeOfObjectGroup(&hair), 4u + 24 * 2 + (12 * 3 + 32) + (12 * 2 + 32));

  const PcdObjectGroup tubes = PCD_BuildPolylineObjectGroup(lines, true);
  const PcdDisplayObject& t = tubes.objects[1];
  EXPECT_EQ(t.type, 31);
  ASSERT_EQ(t.payload.size(), 24u * 2 + 4);
  EXPECT_EQ(FloatAt(t.payload, 4 + 16), 1.0f);   // first point's direction: +y, made unit from 2
  EXPECT_EQ(FloatAt(t.payload, 4 + 24 + 16), 0.0f);  // the last point has none
  PCDdti_DeleteFibeTrakBuffer(buffer);
}

TEST(TrackLineObjects, VoxelizingCountsEachLineOncePerVoxel) {
  const PcdIntSize3D size{4, 2, 2};
  const std::vector<PcdPolyline> lines = {
      // a point belongs to the voxel whose sample (at its integer coordinates) is nearest
      {{0.0f, 0.0f, 0.0f}, {3.0f, 0.0f, 0.0f}},                      // along x through row y0 z0
      {{0.0f, 0.0f, 0.0f}, {1.7f, 0.0f, 0.0f}, {0.1f, 0.0f, 0.0f}},  // there and back: once
      {{1.0f, 1.0f, 1.4f}},                                          // a single node
      {{-0.6f, 0.0f, 0.0f}},                                         // outside
  };
  const std::vector<uint32_t> counts = PCD_CountLinesPerVoxel(lines, &size);
  const std::vector<uint32_t> expected = {2, 2, 2, 1, 0, 0, 0, 0,  // z0: y0, y1
                                          0, 0, 0, 0, 0, 1, 0, 0};
  EXPECT_EQ(counts, expected);

  const std::vector<PcdPolyline> colored = {{{0.0f, 0.0f, 0.0f}, {1.0f, 0.0f, 0.0f}},
                                            {{0.0f, 1.0f, 1.0f}, {1.0f, 2.0f, 1.0f}}};
  const PcdIntSize3D box{2, 3, 2};
  const std::vector<uint32_t> rgba = PCD_DirectionColorsPerVoxel(colored, &box);
  EXPECT_EQ(rgba[0], 0xFF0000FFu);                    // along x: red
  EXPECT_EQ(rgba[0 + 2 * (1 + 3 * 1)], 0xFFFF00FFu);  // diagonal in xy: red and green
  EXPECT_EQ(rgba[1 + 2 * (0 + 3 * 1)], 0u);           // nothing passes
}

}  // namespace
