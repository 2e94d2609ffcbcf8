// quorix-batch study run end to end: sessions and study object files written by the
// core, run by the built program.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "io/dti_file.h"
#include "io/object_files.h"
#include "io/session_file.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

using quorix_test::ReadFileText;
using quorix_test::RunCommand;
using quorix_test::TempDir;

constexpr float kVoxelSize = 2.0f;
constexpr int kNx = 32, kNy = 32, kNz = 12;

// The built program with stdout and stderr apart.
int RunBatch(const TempDir& dir, const std::string& arguments, std::string* out, std::string* err) {
  return quorix_test::RunBatchApart(dir, arguments, out, err);
}

// The crossing of the phantom's two bundles, as the sphere ROI of the session covers it.
bool InCrossing(int x, int y, int z) {
  const float dx = x + 0.5f - 16.0f, dy = y + 0.5f - 16.0f, dz = z + 0.5f - 6.0f;
  return dx * dx + dy * dy + dz * dz <= 4.0f;
}

PcdRoiObject* Sphere(PcdWorkSession* s, float x, float y, float z, float r) {
  PcdRoiObject* roi = PCD_NewRoiObject(&s->rois, PCD_ROI_SPHERICAL, nullptr);
  roi->shape->centre = {x, y, z};
  roi->shape->radius = r;
  return roi;
}

PcdStudyObject* Tracking(PcdWorkSession* s, const uint16_t seeds[2]) {
  PcdStudyObject* study = PCD_NewStudyObject(&s->studies, PCD_STUDY_FIBER_TRACKING, nullptr);
  study->tract->seedSource = kPcdSeedFromList;
  PCD_SetStudyRegionIds(study, 0, seeds, 2);
  return study;
}

void Condition(PcdStudyObject* study, int region, uint16_t id) {
  study->tract->regions[region].use = kPcdRegionInUse;
  study->tract->regions[region].kind = kPcdRegionListed;
  PCD_SetStudyRegionIds(study, region, &id, 1);
}

// The 32 x 32 x 12 phantom (voxel size 2 mm) with seeds in both bundles away from the
// crossing and four studies: tracking with the crossing as target (id 0), as avoidance
// (1), without conditions (2), and voxel statistics over a sphere in the x bundle (3).
void WriteSession(const std::string& path) {
  PcdWorkSession s;
  PcdPhantomOptions options;
  options.sizeX = kNx, options.sizeY = kNy, options.sizeZ = kNz, options.directions = 12;
  s.dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(s.dti, nullptr);
  s.volume = s.dti->volume;
  s.dti->reserved = kVoxelSize;
  const uint16_t seeds[2] = {Sphere(&s, 6.5f, 15.5f, 5.5f, 1.5f)->id, Sphere(&s, 15.5f, 26.5f, 5.5f, 1.5f)->id};
  const uint16_t crossing = Sphere(&s, 16.0f, 16.0f, 6.0f, 2.0f)->id;
  Condition(Tracking(&s, seeds), 1, crossing);
  Condition(Tracking(&s, seeds), 2, crossing);
  Tracking(&s, seeds);
  PcdStudyObject* stats = PCD_NewStudyObject(&s.studies, PCD_STUDY_VOXEL_STATISTICS, nullptr);
  stats->statistics->region.kind = kPcdRegionSphere;
  stats->statistics->region.shape->centre = {6.5f, 15.5f, 5.5f};
  stats->statistics->region.shape->radius = 1.0f;  // the centre voxel and its 6 neighbours
  ASSERT_EQ(WriteWorkSessionFile(&s, path.c_str()), 0);
}

int Count(const std::string& text, const std::string& what) {
  const size_t at = text.find(what);
  return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + what.size());
}

// The fibers of a tracking dump, node positions turned back into voxels: the voxel whose
// sample (at its integer coordinates) is nearest.
std::vector<std::vector<std::array<int, 3>>> DumpedFibers(const std::string& text) {
  std::vector<std::vector<std::array<int, 3>>> fibers;
  const size_t start = text.find('\n', text.find("<Dump result is from here>"));
  std::istringstream in(text.substr(start + 1));
  int n = 0;
  in >> n;
  for (int i = 0; i < n && in; ++i) {
    int m = 0;
    in >> m;
    fibers.emplace_back();
    for (int k = 0; k < m; ++k) {
      float p[6];
      for (float& v : p) in >> v;
      fibers.back().push_back({static_cast<int>(std::lround(p[0] / kVoxelSize)),
                               static_cast<int>(std::lround(p[1] / kVoxelSize)),
                               static_cast<int>(std::lround(p[2] / kVoxelSize))});
    }
  }
  return fibers;
}

bool TouchesCrossing(const std::vector<std::array<int, 3>>& fiber) {
  for (const auto& v : fiber)
    if (InCrossing(v[0], v[1], v[2])) return true;
  return false;
}

}  // namespace

TEST(BatchStudy, RunsEveryStudyOfASessionWithItsTargetAndAvoidanceRegions) {
  TempDir dir;
  const std::string session = dir.file("s.qws");
  WriteSession(session);
  std::string out, err;
  ASSERT_EQ(RunBatch(dir, "study run " + session + " --all --dump " + dir.path().string() + " --tck " +
                              dir.path().string(), &out, &err), 0) << err;
  // summaries on stdout, in list order, each under its head
  const size_t heads[4] = {out.find("Study 0 (tracking): Fiber tracking 1\nSeed Points:   38\n"),
                           out.find("Study 1 (tracking): Fiber tracking 2\nSeed Points:   38\n"),
                           out.find("Study 2 (tracking): Fiber tracking 3\nSeed Points:   38\n"),
                           out.find("Study 3 (statistics): Voxel statistics 1\nTensors: 7\nValid Tensors: 7\n")};
  for (int k = 0; k < 4; ++k) ASSERT_NE(heads[k], std::string::npos) << k << out;
  EXPECT_TRUE(heads[0] < heads[1] && heads[1] < heads[2] && heads[2] < heads[3]);
  EXPECT_EQ(err.find("Seed Points:"), std::string::npos);
  const std::string part[3] = {out.substr(heads[0], heads[1] - heads[0]), out.substr(heads[1], heads[2] - heads[1]),
                               out.substr(heads[2], heads[3] - heads[2])};
  const int tracked = Count(part[2], "Tracked Lines:   ");
  ASSERT_GT(tracked, 10);
  for (const std::string& p : part) EXPECT_EQ(Count(p, "Tracked Lines:   "), tracked);
  EXPECT_EQ(Count(part[2], "Drawn Lines:   "), tracked);
  const int reaching = Count(part[0], "Drawn Lines:   ");
  EXPECT_GT(reaching, 0);
  EXPECT_LT(reaching, tracked);
  EXPECT_EQ(Count(part[1], "Drawn Lines:   "), tracked - reaching);

  // the dumps, read back node by node: the target's fibers all reach the crossing, the
  // avoidance's none touches it, the unconditioned ones are both kinds together
  const auto target = DumpedFibers(ReadFileText(dir.file("study0_fibetrak_dump.txt")));
  const auto avoid = DumpedFibers(ReadFileText(dir.file("study1_fibetrak_dump.txt")));
  const auto all = DumpedFibers(ReadFileText(dir.file("study2_fibetrak_dump.txt")));
  ASSERT_EQ(static_cast<int>(target.size()), reaching);
  ASSERT_EQ(static_cast<int>(avoid.size()), tracked - reaching);
  ASSERT_EQ(static_cast<int>(all.size()), tracked);
  for (const auto& f : target) EXPECT_TRUE(TouchesCrossing(f));
  for (const auto& f : avoid) EXPECT_FALSE(TouchesCrossing(f));
  int touching = 0;
  for (const auto& f : all) touching += TouchesCrossing(f);
  EXPECT_EQ(touching, reaching);
  // and the MRtrix tracks hold the drawn fibers
  EXPECT_NE(ReadFileText(dir.file("study0.tck")).find("count: " + std::to_string(reaching) + "\n"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir.file("study3.tck")));

  // one study by its id
  ASSERT_EQ(RunBatch(dir, "study run " + session + " --study 1", &out, &err), 0) << err;
  EXPECT_EQ(out.rfind("Study 1 (tracking): Fiber tracking 2\n", 0), 0u) << out;
  EXPECT_EQ(out.find("Study 0"), std::string::npos);
}

TEST(BatchStudy, AStudyObjectFileRunsOnTheDataSetOfData) {
  TempDir dir;
  PcdPhantomOptions options;
  options.sizeX = kNx, options.sizeY = kNy, options.sizeZ = kNz, options.directions = 12;
  PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
  ASSERT_NE(dti, nullptr);
  ASSERT_EQ(WriteDtiFile(dti, dir.file("p.dti").c_str()), 0);
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  std::unique_ptr<PcdStudyObject> study(new_study_object(PCD_STUDY_VOXEL_STATISTICS));
  PCD_SetStudyLabel(study.get(), "L. Pyramidal Tract");
  study->analysed = 1;
  study->statistics->region.kind = kPcdRegionSphere;
  study->statistics->region.shape->centre = {6.5f, 15.5f, 5.5f};
  study->statistics->region.shape->radius = 0.5f;  // one voxel
  const PcdIntSize3D made{64, 64, 24};  // made on another volume: run anyway
  ASSERT_EQ(PCD_SaveStudyObjectFile(study.get(), &made, dir.file("s.qso").c_str()), 0);
  std::string out, err;
  ASSERT_EQ(RunBatch(dir, "study run " + dir.file("s.qso") + " --data " + dir.file("p.dti"), &out, &err), 0) << err;
  EXPECT_EQ(out.rfind("Study 0 (statistics): L. Pyramidal Tract\nTensors: 1\nValid Tensors: 1\n", 0), 0u) << out;
  EXPECT_NE(err.find("Volume data matrix size mismatch. Open anyway.\n"), std::string::npos) << err;

  // bad input: one "Err: " line and status 1
  const struct {
    std::string arguments, line;
  } refusals[] = {
      {"study run " + dir.file("s.qso"), "Err: study run: " + dir.file("s.qso") + " is a study object file; --data"},
      {"study run " + dir.file("p.dti"), "Err: study run: " + dir.file("p.dti") + " is neither a work session file"},
      {"study run " + dir.file("s.qso") + " --data " + dir.file("s.qso"), "Err: "},
      {"study run " + dir.file("s.qso") + " --data " + dir.file("p.dti") + " --study 4",
       "Err: study run: " + dir.file("s.qso") + " holds no study 4"},
      {"study run " + dir.file("s.qso") + " --data " + dir.file("p.dti") + " --dump " + dir.file("nowhere"),
       "Err: study run: " + dir.file("nowhere") + " is not a directory"},
  };
  for (const auto& r : refusals) {
    EXPECT_EQ(RunBatch(dir, r.arguments, &out, &err), 1) << r.arguments;
    EXPECT_NE(err.find(r.line), std::string::npos) << err;
    size_t lines = 0;
    for (size_t at = err.find("Err: "); at != std::string::npos; at = err.find("Err: ", at + 1)) ++lines;
    EXPECT_EQ(lines, 1u) << err;
    EXPECT_TRUE(out.empty()) << out;
  }
  EXPECT_EQ(RunBatch(dir, "study run " + dir.file("s.qso") + " --study 0 --all", &out, &err), 2);
  EXPECT_EQ(RunBatch(dir, "study walk " + dir.file("s.qso"), &out, &err), 2);
  EXPECT_EQ(RunBatch(dir, "study --help", &out, &err), 0);
  EXPECT_EQ(out.rfind("Usage: quorix-batch study run FILE", 0), 0u);
}

TEST(BatchStudy, ASessionOfSeveralStudiesNeedsStudyOrAll) {
  TempDir dir;
  const std::string session = dir.file("s.qws");
  WriteSession(session);
  std::string out, err;
  EXPECT_EQ(RunBatch(dir, "study run " + session, &out, &err), 1);
  EXPECT_NE(err.find("Err: study run: " + session + " holds 4 studies; name one with --study ID"), std::string::npos)
      << err;
  EXPECT_EQ(RunBatch(dir, "study run " + session + " --data " + session, &out, &err), 1);
  EXPECT_NE(err.find("Err: study run: a work session file brings its own data set"), std::string::npos) << err;
}

// A modeling study and "quorix-batch model" without a control mask take the same bounded
// default (the same control count for the same seed voxel) and refuse alike when the
// systems exceed what the machine allows.
TEST(BatchStudy, ModelingStudyAndModelCommandShareTheDefaultControlsAndRefusals) {
  TempDir dir;
  std::string out, err;
  ASSERT_EQ(RunBatch(dir, "phantom --size 32,32,12 --directions 12 --noise 0.05 --format raw --no-truth -o " +
                              dir.file("n"), &out, &err), 0) << err;
  std::unique_ptr<PcdStudyObject> study(new_study_object(PCD_STUDY_FIBER_MODELING));
  study->tract->regions[0].shape->centre = {6.5f, 15.5f, 5.5f};
  study->tract->regions[0].shape->radius = 0.5f;  // the voxel (6, 15, 5)
  const PcdIntSize3D size{kNx, kNy, kNz};
  ASSERT_EQ(PCD_SaveStudyObjectFile(study.get(), &size, dir.file("m.qso").c_str()), 0);
  const std::string studyRun = "study run " + dir.file("m.qso") + " --data " + dir.file("n.raw");
  const std::string model = "model " + dir.file("n.raw") + " --seed-box 6,15,5,6,15,5";
  auto controlLine = [](const std::string& text) {
    const size_t at = text.find(">>>>>>>>>>>> ");
    return at == std::string::npos ? std::string() : text.substr(at, text.find('\n', at) - at);
  };
  ASSERT_EQ(RunBatch(dir, studyRun, &out, &err), 0) << err;
  const std::string fromStudy = controlLine(err);
  EXPECT_NE(out.find("Seed Points:   1\n"), std::string::npos) << out;
  ASSERT_EQ(RunBatch(dir, model, &out, &err), 0) << err;
  EXPECT_EQ(controlLine(err), fromStudy);
  // tissue within 16 voxels of one voxel: at most 33^3, and some
  const int count = std::atoi(fromStudy.c_str() + 13);
  EXPECT_GT(count, 10) << fromStudy;
  EXPECT_LE(count, 33 * 33 * 33) << fromStudy;

  const std::string refusal = "Err: " + std::to_string(count) + " control tensors need about ";
  for (const std::string& command : {studyRun, model}) {
    EXPECT_EQ(RunCommand("QUORIX_MEMORY_LIMIT_MB=1 " + quorix_test::BuiltProgram("quorix-batch") + " " + command +
                             " 2>" + dir.file("e.txt"), &out), 1) << command;
    err = ReadFileText(dir.file("e.txt"));
    EXPECT_NE(err.find(refusal), std::string::npos) << err;
    EXPECT_NE(err.find("narrow the control region"), std::string::npos) << err;
  }
}
