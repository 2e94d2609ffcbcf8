#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "study/byte_builder.h"
#include "study/study_object.h"
#include "support/test_support.h"

using quorix_test::ByteBuilder;

namespace {

std::vector<uint8_t> Serialize(const PcdStudyObject* study) {
  std::vector<uint8_t> bytes(pcd_study_serialized_size(study));
  EXPECT_EQ(PCD_SerializeStudyObject(study, bytes.data()), 0);
  return bytes;
}

// The 160-byte region record.
void Region(ByteBuilder& b, int32_t use, int32_t kind, float weight, int32_t count,
            int32_t c2, int32_t c3, const std::vector<uint16_t>& ids = {}) {
  b.i32(use).i32(kind).f32(weight).i32(count).i32(0).i32(0).i32(c2).i32(c3);
  for (uint16_t id : ids) b.u16(id);
  b.zeros(2 * (64 - ids.size()));
}

}  // namespace

TEST(StudyList, NewStudiesTakeTheirTypesDefaultsAndNames) {
  PcdStudyList list;
  PcdStudyObject* tracking = PCD_NewStudyObject(&list, PCD_STUDY_FIBER_TRACKING, nullptr);
  PcdStudyObject* profile = PCD_NewStudyObject(&list, PCD_STUDY_DIFFUSION_PROFILE, nullptr);
  PcdStudyObject* statistics = PCD_NewStudyObject(&list, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  PcdStudyObject* modeling = PCD_NewStudyObject(&list, PCD_STUDY_FIBER_MODELING, nullptr);
  PcdStudyObject* tracking2 = PCD_NewStudyObject(&list, PCD_STUDY_FIBER_TRACKING, nullptr);
  EXPECT_STREQ(tracking->label, "Fiber tracking 1");
  EXPECT_STREQ(profile->label, "Diffusion profile 1");
  EXPECT_STREQ(statistics->label, "Voxel statistics 1");
  EXPECT_STREQ(modeling->label, "Fiber modeling 1");
  EXPECT_STREQ(tracking2->label, "Fiber tracking 2");
  EXPECT_EQ(tracking2->id, 4);
  EXPECT_EQ(list.selectedId, 4);
  EXPECT_EQ(PCD_GetStudySummary(modeling), "(not analyzed yet)");
  EXPECT_EQ(modeling->analysed, 0);
  EXPECT_EQ(modeling->visible, 1);
  EXPECT_EQ(modeling->viewerObjectGroup, -1);

  const PcdTractSettings& t = *modeling->tract;
  EXPECT_EQ(t.limits.useFAmin, 1);
  EXPECT_EQ(t.limits.FAmin, 0.18f);
  EXPECT_EQ(t.limits.useADCmax, 0);
  EXPECT_EQ(t.limits.ADCmax, 0.003f);
  EXPECT_EQ(t.limits.useSoMin, 1);
  EXPECT_EQ(t.limits.useSoMax, 0);
  EXPECT_EQ(t.limits.SoMax, 900.0f);
  EXPECT_EQ(t.limits.useAngleMax, 0);
  EXPECT_EQ(t.limits.AngleMax, 30.0f);
  EXPECT_EQ(t.nodeLimit, 160);
  EXPECT_EQ(t.step, 0.7f);
  EXPECT_EQ(t.scheme, 123);
  EXPECT_EQ(t.seedDensity, 542);
  EXPECT_EQ(t.seedSource, 435);
  EXPECT_EQ(t.seedObjectCount, 0);
  EXPECT_EQ(t.regions[0].use, 432);
  EXPECT_EQ(t.regions[0].kind, 253);
  EXPECT_EQ(t.regions[0].weight, 1.0f);
  EXPECT_EQ(t.regions[0].carried[2], -12);
  EXPECT_EQ(t.regions[1].use, 0);
  EXPECT_EQ(t.regions[1].carried[2], -12);
  EXPECT_EQ(t.regions[2].carried[2], 0);
  for (const PcdStudyRegion& r : t.regions) EXPECT_NE(r.shape, nullptr);

  const PcdProfileSettings& p = *profile->profile;
  EXPECT_EQ(p.FAmin, 0.18f);
  EXPECT_EQ(p.FAmax, 1.0f);
  EXPECT_EQ(p.ADCmax, 0.003f);
  EXPECT_EQ(p.SoMax, 900.0f);
  EXPECT_EQ(p.useFAmin + p.useFAmax + p.useADCmin + p.useADCmax + p.useSoMin + p.useSoMax, 6);
  EXPECT_EQ(p.symbolDensity, 347);
  EXPECT_EQ(p.primitive, 978);
  EXPECT_EQ(p.coloring, 651);
  EXPECT_EQ(p.emphasis, -456);
  EXPECT_EQ(statistics->statistics->mode, 3564);
  EXPECT_EQ(statistics->statistics->option, -456);
  EXPECT_EQ(statistics->statistics->carriedFloats[2], 0.25f);

  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_NewStudyObject(&list, 4, nullptr), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: Invalid study object type\n");
  EXPECT_EQ(list.items.size(), 5u);
}

TEST(StudyChoices, CodesAreDistinctPerChoiceAndEveryDefaultIsOffered) {
  const PcdChoiceTable* tables[] = {
      &kPcdStudyTypeChoices,        &kPcdTrackingSchemeChoices,  &kPcdSeedDensityChoices,
      &kPcdSeedSourceChoices,       &kPcdPrimitiveTypeChoices,   &kPcdFiberColoringChoices,
      &kPcdTractRegionChoices,      &kPcdVoxelRegionChoices,     &kPcdSymbolDensityChoices,
      &kPcdProfilePrimitiveChoices, &kPcdProfileColoringChoices, &kPcdEmphasisChoices,
      &kPcdStatisticsColoringChoices};
  for (const PcdChoiceTable* t : tables) {
    std::set<int32_t> codes;
    std::set<std::string> names;
    for (int32_t i = 0; i < t->count; ++i) {
      codes.insert(t->choices[i].code);
      names.insert(t->choices[i].name);
    }
    EXPECT_EQ(codes.size(), static_cast<size_t>(t->count)) << t->title;
    EXPECT_EQ(names.size(), static_cast<size_t>(t->count)) << t->title;
  }
  PcdStudyObject* tracking = new_study_object(PCD_STUDY_FIBER_TRACKING);
  PcdStudyObject* profile = new_study_object(PCD_STUDY_DIFFUSION_PROFILE);
  PcdStudyObject* statistics = new_study_object(PCD_STUDY_VOXEL_STATISTICS);
  EXPECT_NE(PCD_FindChoiceByCode(kPcdPrimitiveTypeChoices, tracking->tract->primitive), nullptr);
  EXPECT_NE(PCD_FindChoiceByCode(kPcdFiberColoringChoices, tracking->tract->coloring), nullptr);
  EXPECT_NE(PCD_FindChoiceByCode(kPcdTractRegionChoices, tracking->tract->regions[0].kind), nullptr);
  EXPECT_NE(PCD_FindChoiceByCode(kPcdVoxelRegionChoices, statistics->statistics->region.kind), nullptr);
  EXPECT_NE(PCD_FindChoiceByCode(kPcdStatisticsColoringChoices, statistics->statistics->coloring), nullptr);
  EXPECT_NE(PCD_FindChoiceByCode(kPcdVoxelRegionChoices, profile->profile->region.kind), nullptr);
  EXPECT_STREQ(PCD_FindChoiceByCode(kPcdProfilePrimitiveChoices, 354)->label, "tensor ellipsoid");
  EXPECT_EQ(PCD_FindChoiceByName(kPcdTrackingSchemeChoices, "advanced")->code, 345);
  char scratch[32];
  EXPECT_STREQ(PCD_ChoiceName(kPcdSeedDensityChoices, 7, scratch, sizeof scratch), "code 7");
  delete_study_object(tracking);
  delete_study_object(profile);
  delete_study_object(statistics);
}

TEST(StudySerialization, StatisticsStudyMatchesAHandBuiltImage) {
  PcdStudyList list;
  const PcdIntSize3D volume{6, 4, 2};
  PcdStudyObject* study = PCD_NewStudyObject(&list, PCD_STUDY_VOXEL_STATISTICS, &volume);
  study->analysed = 1;
  PCD_SetStudySummary(study, "Tensors: 8\n");
  const uint16_t ids[] = {3, 65535};
  ASSERT_EQ(PCD_SetStudyRegionIds(study, 0, ids, 2), 0);

  ByteBuilder expected;
  expected.i32(2).i32(1).i32(1).text("Voxel statistics 1", 256).text("Tensors: 8\n", 10240);
  expected.i32(192).f32(1.0f).f32(0.5f).f32(0.25f).i32(0).i32(3564).i32(-456).i32(0).i32(824);
  Region(expected, 432, 3564, 0.0f, 2, 0, 0, {3, 65535});
  expected.createdShape(3, 2, 1);
  ASSERT_EQ(expected.bytes.size(), 10512u + 192 + 112);

  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_GetSerializedSizeOfStudyObject(study), expected.bytes.size());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "STUDY_OBJECT: size = 10816 bytes\n");
  EXPECT_EQ(Serialize(study), expected.bytes);
  EXPECT_TRUE(PCD_StudyListsRoiIds(study));

  PcdStudyObject* back =
      PCD_NewStudyObjectFromSerializedData(expected.bytes.data(), expected.bytes.size());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(PCD_GetStudyRoiIds(back), (std::vector<uint16_t>{3, 65535}));
  EXPECT_EQ(Serialize(back), expected.bytes);
  delete_study_object(back);
}

TEST(StudySerialization, TrackingStudyRegionsAndShapesInOrder) {
  PcdStudyObject* study = new_study_object(PCD_STUDY_FIBER_TRACKING);
  PcdTractSettings& t = *study->tract;
  t.limits.useAngleMax = 1;
  t.scheme = 345;
  t.seedSource = kPcdSeedFromList;
  const uint16_t seeds[] = {5};
  PCD_SetStudyRegionIds(study, 0, seeds, 1);
  // a count outside 0..max or a region that does not exist changes nothing
  EXPECT_EQ(PCD_SetStudyRegionIds(study, 0, seeds, -1), -1);
  EXPECT_EQ(PCD_SetStudyRegionIds(study, 0, seeds, kPcdRegionMaxIds + 1), -1);
  EXPECT_EQ(PCD_SetStudyRegionIds(study, 3, seeds, 1), -1);
  t.regions[2].shape->points = {{1, 2, 3}};
  PCD_SetStudyLabel(study, "L. Pyramidal Tract");

  ByteBuilder expected;
  expected.i32(0).i32(0).i32(1).text("L. Pyramidal Tract", 256).text("(not analyzed yet)", 10240);
  expected.i32(572);
  expected.i32(1).f32(0.18f).i32(0).f32(0).i32(0).f32(0).i32(0).f32(0.003f);
  expected.i32(1).f32(0).i32(0).f32(900.0f).i32(1).f32(30.0f).f32(0.0f);
  expected.i32(160).f32(0.7f).i32(345).i32(542).i32(54).i32(1).i32(287).i32(651);
  Region(expected, 432, 253, 1.0f, 1, -12, 0, {5});
  Region(expected, 0, 0, 0.0f, 0, -12, 0);
  Region(expected, 0, 0, 0.0f, 0, 0, 0);
  expected.createdShape(0, 0, 0).createdShape(0, 0, 0).createdShape(0, 0, 0, {{1, 2, 3}});
  // the unfitted shapes keep the sphere's spin-button default (1, 1, 1)
  for (int k = 0; k < 3; ++k) {
    ByteBuilder one;
    one.f32(1).f32(1).f32(1);
    std::copy(one.bytes.begin(), one.bytes.end(),
              expected.bytes.begin() + 10512 + 572 + 112 * k + 92);
  }
  EXPECT_EQ(Serialize(study), expected.bytes);
  delete_study_object(study);
}

TEST(StudySerialization, RefusesWhatDoesNotFitItsType) {
  PcdStudyObject* study = new_study_object(PCD_STUDY_DIFFUSION_PROFILE);
  study->profile->region.shape->points = {{9, 9, 9}};
  const std::vector<uint8_t> good = Serialize(study);
  delete_study_object(study);
  auto patched = [&](size_t at, int32_t value) {
    std::vector<uint8_t> b = good;
    ByteBuilder w;
    w.i32(value);
    std::copy(w.bytes.begin(), w.bytes.end(), b.begin() + at);
    return PCD_NewStudyObjectFromSerializedData(b.data(), b.size());
  };
  testing::internal::CaptureStderr();
  EXPECT_EQ(patched(0, 4), nullptr);
  EXPECT_EQ(patched(10508, 572), nullptr);                 // settings of another type
  EXPECT_EQ(patched(10512 + 68 + 12, 65), nullptr);        // listed count beyond 64
  EXPECT_EQ(patched(10512 + 228 + 108, 2), nullptr);       // more points than bytes
  EXPECT_EQ(patched(0, 2), nullptr);                       // statistics: 192, not 228
  for (size_t n : {size_t{0}, size_t{3}, size_t{100}, size_t{10511}, good.size() - 1})
    EXPECT_EQ(PCD_NewStudyObjectFromSerializedData(good.data(), n), nullptr) << n;
  std::vector<uint8_t> longer = good;
  longer.push_back(0);
  EXPECT_EQ(PCD_NewStudyObjectFromSerializedData(longer.data(), longer.size()), nullptr);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(quorix_test::HasLine(err, "Err: Invalid study object type\n"));
  EXPECT_TRUE(quorix_test::HasLine(err, "Err: study object: settings of 572 bytes, 228 expected\n"));

  PcdStudyObject* bad = new_study_object(PCD_STUDY_FIBER_TRACKING);
  bad->type = 9;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_GetSerializedSizeOfStudyObject(bad), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: Invalid study object type\n");
  delete_study_object(bad);
}

TEST(StudyList, CopyDeleteSummaryAndPresetLabels) {
  PcdStudyList list;
  std::vector<int32_t> removed;
  list.removeViewerObject = [&](int32_t group) { removed.push_back(group); };
  PcdStudyObject* first = PCD_NewStudyObject(&list, PCD_STUDY_FIBER_TRACKING, nullptr);
  first->tract->regions[1].shape->points = {{1, 1, 1}};
  first->tract->step = 0.5f;
  first->analysed = 1;
  PcdStudyObject* copy = PCD_DuplicateSelectedStudyObject(&list, nullptr);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->label, "copy of Fiber tracking 1");
  EXPECT_EQ(copy->tract->step, 0.5f);
  EXPECT_EQ(copy->analysed, 0);
  first->tract->regions[1].shape->points[0].x = 9;
  EXPECT_EQ(copy->tract->regions[1].shape->points[0].x, 1);  // deep

  PCD_SetStudyLabel(copy, kPcdStudyPresetLabels[2]);
  EXPECT_STREQ(copy->label, "Corpse Callosum");

  const std::string page(10300, 'x');
  PCD_SetStudySummary(copy, page);
  EXPECT_EQ(PCD_GetStudySummary(copy), page.substr(0, 10240));

  first->viewerObjectGroup = 7;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_DeleteStudyObjectById(&list, first->id), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Requesting removal of Object 7\n");
  EXPECT_EQ(removed, std::vector<int32_t>{7});
  EXPECT_EQ(list.selectedId, 1);  // the copy stays selected
  EXPECT_EQ(PCD_DeleteStudyObjectById(&list, 1), 0);
  EXPECT_TRUE(list.items.empty());
  EXPECT_EQ(list.selectedId, kPcdNoObject);
  int runs = 0;
  EXPECT_EQ(PCD_AnalyzeAllStudies(&list, false, [&](PcdStudyObject*) { ++runs; }), 0);
  EXPECT_EQ(runs, 0);
}

TEST(StudyList, AnalyzeAllKeepsOrderSkipsDoneAndRestoresTheSelection) {
  PcdStudyList list;
  for (int type : {0, 1, 2}) PCD_NewStudyObject(&list, type, nullptr);
  list.selectedId = 1;
  for (auto& s : list.items) s->analysed = 1;
  std::vector<std::pair<int, int>> seen;  // (study id, selected id) at each call
  auto analyse = [&](PcdStudyObject* s) {
    seen.emplace_back(s->id, list.selectedId);
    s->analysed = 1;
  };
  EXPECT_EQ(PCD_AnalyzeAllStudies(&list, true, analyse), 0);
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(list.selectedId, 1);

  list.items[0]->analysed = 0;
  list.items[2]->analysed = 2;  // analysed in an earlier session: run again
  EXPECT_EQ(PCD_AnalyzeAllStudies(&list, true, analyse), 2);
  EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{0, 0}, {2, 2}}));
  EXPECT_EQ(list.selectedId, 1);
  seen.clear();
  EXPECT_EQ(PCD_AnalyzeAllStudies(&list, false, analyse), 3);
  EXPECT_EQ(seen.size(), 3u);

  PCD_SetStudyVisibility(&list, PCD_HIDE_ONLY_TYPE, PCD_STUDY_DIFFUSION_PROFILE);
  EXPECT_EQ(list.items[0]->visible + 2 * list.items[1]->visible + 4 * list.items[2]->visible, 5);
  PCD_CleanUpStudyObjects(&list);
  EXPECT_EQ(PCD_NewStudyObject(&list, 2, nullptr)->id, 0);
  EXPECT_STREQ(list.items[0]->label, "Voxel statistics 1");
}
