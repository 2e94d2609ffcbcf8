// Fiber modeling through the RBF-interpolated tensor field, on synthetic data sets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fiber/modeling.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

namespace {

struct Phantom {
  PcdPhantomOptions options;
  PcdPhantomTruth truth;
  PcdDtiData* dti = nullptr;
  Phantom(int x, int y, int z, int directions = 30) {
    options.sizeX = x;
    options.sizeY = y;
    options.sizeZ = z;
    options.directions = directions;
    dti = PCD_MakeDwiPhantom(options, &truth);
  }
  ~Phantom() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
  size_t At(int x, int y, int z) const {
    return (static_cast<size_t>(z) * static_cast<size_t>(options.sizeY) + static_cast<size_t>(y)) *
               static_cast<size_t>(options.sizeX) + static_cast<size_t>(x);
  }
  // The straight bundle: one compartment along x.
  bool InStraightBundle(int x, int y, int z) const { return std::fabs(truth.direction[At(x, y, z)].x) == 1.0f; }
};

using VolumePtr = std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)>;

template <typename Pick>
VolumePtr Controls(const Phantom& p, const Pick& pick) {
  const PcdIntSize3D s{p.options.sizeX, p.options.sizeY, p.options.sizeZ};
  VolumePtr v(PCD_NewSingleChannelRawVolumeData(&s, UINT8, PCD_MONOCHROME), PCD_DeleteRawVolumeData);
  auto* bytes = static_cast<uint8_t*>(v->data[0]);
  for (int z = 0; z < s.z; ++z)
    for (int y = 0; y < s.y; ++y)
      for (int x = 0; x < s.x; ++x) bytes[p.At(x, y, z)] = pick(x, y, z) ? 1 : 0;
  return v;
}

struct ModelingRun {
  std::vector<PcdVector3D> seeds;
  PcdFibeModelContext context;
  PcdFibeTrakBuffer* result = nullptr;
  std::string said;
  void Model(const PcdDtiData* dti, const PcdRawVolumeData* controls, int threads, const char* dump = nullptr) {
    context.seedCount = static_cast<int32_t>(seeds.size());
    context.seedPoints = seeds.data();
    testing::internal::CaptureStderr();
    result = PCDdti_FiberModeling(dti, &context, controls, threads, dump);
    said = testing::internal::GetCapturedStderr();
  }
  ~ModelingRun() { PCDdti_DeleteFibeTrakBuffer(result); }
};

// Every node of every line, and the mark arrays' presence, as bytes.
std::string LineBytes(const PcdFibeTrakBuffer* b) {
  std::string out;
  auto put = [&out](const void* p, size_t n) { out.append(static_cast<const char*>(p), n); };
  put(&b->lineCount, sizeof b->lineCount);
  for (int32_t i = 0; i < b->lineCount; ++i)
    for (const PcdTrakLineBuffer* l : {b->pairs[i]->forward, b->pairs[i]->backward}) {
      put(&b->pairs[i]->seed, sizeof(PcdVector3D));
      put(&l->nodeCount, sizeof l->nodeCount);
      for (const float* a : {l->x, l->y, l->z, l->L1, l->L2, l->L3}) put(a, sizeof(float) * static_cast<size_t>(l->nodeCount));
      out += l->markArrays[0] != nullptr ? 'm' : '-';
    }
  return out;
}

TEST(FiberModeling, PitchFollowsTheWidthDeliberatelyStoppingAtSix) {
  const std::pair<int, int> cases[] = {{2, 1}, {64, 1}, {65, 2}, {128, 2}, {129, 4}, {256, 4}, {257, 6}, {300, 6}, {4096, 6}};
  for (const auto& [width, pitch] : cases) EXPECT_EQ(PCDdti_ModelingPitch(width), pitch) << width;
  EXPECT_EQ(SQR(0.0f), 0.0f);
  EXPECT_FALSE(std::signbit(SQR(-0.0f)));
  EXPECT_EQ(SQR(-3.0f), 9.0f);
}

// A run with no seeds prints the whole sequence; 64 wide every foreground voxel is a
// control voxel, 300 wide only those on the grid of six.
TEST(FiberModeling, ControlGridAndMessagesInOrder) {
  Phantom narrow(64, 4, 4, 6);
  VolumePtr some = Controls(narrow, [](int x, int y, int z) {
    return (x == 1 && y == 1 && z == 1) || (x == 2 && y == 1 && z == 1) || (x == 1 && y == 2 && z == 1) ||
           (x == 1 && y == 1 && z == 2) || (x == 3 && y == 3 && z == 3);
  });
  ModelingRun run;
  run.Model(narrow.dti, some.get(), 2);
  ASSERT_NE(run.result, nullptr);
  EXPECT_EQ(run.said,
            "Modeling start\nBuffer OK (0 seeds)\nInterpolator Initializing\nOriginally 5 places\n"
            "Control tensor loc. volume: 64 x 4 x 4 (x 1)\n"
            ">>>>>>>>>>>> 5 control tensors (pitch:1)<<<<<<<<<<<<<\n"
            "Component-wise Interpolators OK\ntmpDT data OK\nControl loc & val OK\nReconstruction OK\n"
            "Interpolator OK\nTracking start\n\nTracking OK\nInterpolator deleted\n");
  EXPECT_EQ(run.result->lineCount, 0);

  Phantom wide(300, 8, 8, 6);
  VolumePtr grid = Controls(wide, [](int x, int y, int z) {
    return (x == 0 && y == 0 && z == 0) || (x == 6 && y == 0 && z == 0) || (x == 0 && y == 6 && z == 0) ||
           (x == 0 && y == 0 && z == 6) || (x == 7 && y == 0 && z == 0) || (x == 3 && y == 3 && z == 3) ||
           (x == 294 && y == 6 && z == 6);
  });
  testing::internal::CaptureStderr();
  TensorInterPolator* t = new_tensor_interpolator(wide.dti, grid.get(), PCDdti_ModelingPitch(300), 1);
  const std::string said = testing::internal::GetCapturedStderr();
  ASSERT_NE(t, nullptr);
  EXPECT_TRUE(quorix_test::HasLine(said, "Originally 7 places\n")) << said;
  EXPECT_TRUE(quorix_test::HasLine(said, ">>>>>>>>>>>> 5 control tensors (pitch:6)<<<<<<<<<<<<<\n")) << said;
  EXPECT_EQ(t->n, 5);
  // z outermost, x innermost
  const PcdVector3D order[5] = {{0, 0, 0}, {6, 0, 0}, {0, 6, 0}, {0, 0, 6}, {294, 6, 6}};
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(t->Dzx->points[i]->x == order[i].x && t->Dzx->points[i]->y == order[i].y &&
                t->Dzx->points[i]->z == order[i].z) << i;
  delete_tensor_interpolator(t);
}

TEST(FiberModeling, RefusesWithoutATensorField) {
  Phantom p(16, 16, 6, 6);
  // foreground only off the grid (pitch 1 takes every voxel: use no foreground at all)
  VolumePtr empty = Controls(p, [](int, int, int) { return false; });
  ModelingRun run;
  run.seeds = {{8, 8, 3}};
  run.Model(p.dti, empty.get(), 1);
  EXPECT_EQ(run.result, nullptr);
  EXPECT_EQ(run.said,
            "Modeling start\nBuffer OK (1 seeds)\nInterpolator Initializing\nOriginally 0 places\n"
            "Control tensor loc. volume: 16 x 16 x 6 (x 1)\n"
            ">>>>>>>>>>>> 0 control tensors (pitch:1)<<<<<<<<<<<<<\n"
            "Control voxel NOT found\nWARNING: Tensor field is NOT created\n");

  // wider than 64: a foreground voxel off the even grid is no control voxel
  Phantom w(66, 4, 4, 6);
  VolumePtr off = Controls(w, [](int x, int y, int z) { return x == 1 && y == 2 && z == 2; });
  ModelingRun offGrid;
  offGrid.Model(w.dti, off.get(), 1);
  EXPECT_EQ(offGrid.result, nullptr);
  EXPECT_TRUE(quorix_test::HasLine(offGrid.said, "Originally 1 places\n"));
  EXPECT_TRUE(quorix_test::HasLine(offGrid.said, "Control voxel NOT found\nWARNING: Tensor field is NOT created\n"));

  ModelingRun notReady;
  notReady.Model(nullptr, empty.get(), 1);
  EXPECT_EQ(notReady.result, nullptr);
  EXPECT_EQ(notReady.said, "Modeling start\nDTI data NOT ready\n");

  Phantom other(8, 8, 6, 6);
  VolumePtr small = Controls(other, [](int, int, int) { return true; });
  ModelingRun mismatch;
  mismatch.Model(p.dti, small.get(), 1);
  EXPECT_EQ(mismatch.result, nullptr);
  EXPECT_EQ(mismatch.said, "Modeling start\nErr: the control-location volume is 8 x 8 x 6, the data set 16 x 16 x 6\n");
  ModelingRun none;
  none.Model(p.dti, nullptr, 1);
  EXPECT_EQ(none.said, "Modeling start\nErr: no control-location volume\n");
}

// 64 x 64 x 16 voxels all on the grid: 65,536 control points would need three matrices of
// 65,540^2 floats (52 GB). Refused before anything is allocated.
TEST(FiberModeling, RefusesAControlRegionWhoseSystemsExceedMemory) {
  Phantom p(64, 64, 16, 6);
  VolumePtr all = Controls(p, [](int, int, int) { return true; });
  ModelingRun run;
  run.Model(p.dti, all.get(), 2);
  EXPECT_EQ(run.result, nullptr);
  EXPECT_TRUE(quorix_test::HasLine(run.said, ">>>>>>>>>>>> 65536 control tensors (pitch:1)<<<<<<<<<<<<<\nErr: 65536 control tensors need ")) << run.said;
  EXPECT_TRUE(quorix_test::HasLine(run.said, "WARNING: Tensor field is NOT created\n"));
  EXPECT_EQ(run.said.find("Component-wise"), std::string::npos);
}

// Past the time budget (4 slices of 64 x 64 = 16384 controls: 2 * 16388^3 = 8.8e12
// operations, 440 s at the assumed speed) and, with memory limited to 1 MB,
// past memory (300 controls: 3 * 304^2 floats = 1.1 MB): one line naming the count and
// how to narrow it, nothing allocated.
TEST(FiberModeling, RefusesAControlCountPastTheMachinesBudget) {
  Phantom p(64, 64, 4, 6);
  VolumePtr all = Controls(p, [](int, int, int) { return true; });
  ModelingRun slow;
  slow.Model(p.dti, all.get(), 2);
  EXPECT_EQ(slow.result, nullptr);
  EXPECT_TRUE(quorix_test::HasLine(slow.said, ">>>>>>>>>>>> 16384 control tensors (pitch:1)<<<<<<<<<<<<<\n"
                                              "Err: 16384 control tensors need about ")) << slow.said;
  EXPECT_NE(slow.said.find("; narrow the control region ("), std::string::npos) << slow.said;
  EXPECT_EQ(slow.said.find("Component-wise"), std::string::npos);
  EXPECT_GT(PCDdti_EstimateModelingCost(16384).seconds, kPcdModelingSecondsBudget);

  Phantom q(10, 10, 3, 6);
  VolumePtr box = Controls(q, [](int, int, int) { return true; });
  const char* before = std::getenv("QUORIX_MEMORY_LIMIT_MB");
  const std::string saved = before != nullptr ? before : "";
  ModelingRun small;
  ModelingRun limited;
  small.Model(q.dti, box.get(), 1);
  setenv("QUORIX_MEMORY_LIMIT_MB", "1", 1);
  limited.Model(q.dti, box.get(), 1);
  if (before != nullptr) setenv("QUORIX_MEMORY_LIMIT_MB", saved.c_str(), 1); else unsetenv("QUORIX_MEMORY_LIMIT_MB");
  EXPECT_NE(small.result, nullptr) << small.said;  // the same region with memory to spare
  EXPECT_EQ(limited.result, nullptr);
  EXPECT_TRUE(quorix_test::HasLine(limited.said, "Err: 300 control tensors need about 0.00 GB and 0 s to solve, "
                                                 "more than the 0.00 GB and 180 s allowed here; narrow the "
                                                 "control region (a smaller seed or target region, or a control "
                                                 "mask or ROI of the tissue the fibers run through)\n"
                                                 "WARNING: Tensor field is NOT created\n")) << limited.said;
}

// Controls in one plane (one slice, or a line, or fewer than four points) make the
// system singular: refused before solving, where a solve would give a field of nonsense.
TEST(FiberModeling, RefusesControlsThatLieInOnePlane) {
  Phantom p(16, 16, 6, 6);
  const std::pair<const char*, std::function<bool(int, int, int)>> cases[] = {
      {"256", [](int, int, int z) { return z == 2; }},  // one slice
      {"16", [](int x, int y, int z) { return y == 5 && z == 3 && x >= 0; }},  // a line
      {"3", [](int x, int y, int z) { return z == 1 && y == 1 && x < 3; }},
      {"8", [](int x, int y, int z) { return x + y + z == 6 && x <= 2 && y <= 2; }},  // a tilted plane
  };
  for (const auto& [count, pick] : cases) {
    VolumePtr flat = Controls(p, [&](int x, int y, int z) { return pick(x, y, z); });
    ModelingRun run;
    run.seeds = {{8, 8, 3}};
    run.Model(p.dti, flat.get(), 1);
    EXPECT_EQ(run.result, nullptr) << count;
    EXPECT_TRUE(quorix_test::HasLine(run.said, std::string("Err: the ") + count +
                                                   " control tensors lie in one plane, which gives no tensor "
                                                   "field; the control region must be more than one slice thick\n"
                                                   "WARNING: Tensor field is NOT created\n")) << run.said;
  }
  // two slices span space
  VolumePtr thick = Controls(p, [](int, int, int z) { return z == 2 || z == 3; });
  ModelingRun run;
  run.Model(p.dti, thick.get(), 1);
  EXPECT_NE(run.result, nullptr) << run.said;
}

// The interpolator's components against what they are made of: control points on the
// grid, the voxel tensors as values, the shared reconstruction equal to each component's
// own, and the interpolated tensor at a control voxel equal to the measured one.
TEST(TensorInterpolator, SharedReconstructionEqualsEachComponentSolvedAlone) {
  Phantom p(32, 32, 12);
  VolumePtr bundle = Controls(p, [&](int x, int y, int z) { return p.InStraightBundle(x, y, z) && x % 3 == 0; });
  testing::internal::CaptureStderr();
  TensorInterPolator* t = new_tensor_interpolator(p.dti, bundle.get(), 1, 3);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(t, nullptr);
  ASSERT_GT(t->n, 50);
  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(p.dti->channelCount, p.dti->soCount);
  const PcdRbfSolution3D* components[6] = {t->Dxx, t->Dyy, t->Dzz, t->Dxy, t->Dyz, t->Dzx};
  for (const PcdRbfSolution3D* s : components) {
    PcdRbfSolution3D* alone = make_location_clone_interpolator(s);
    std::memcpy(alone->values->data, s->values->data, sizeof(float) * static_cast<size_t>(s->n));
    ASSERT_EQ(PCDrbf_RbfReconstruction3D(alone), 0);
    EXPECT_EQ(std::memcmp(alone->weights->data, s->weights->data, sizeof(float) * static_cast<size_t>(s->n + 4)), 0);
    PCDrbf_DeleteRbfSolution3D(alone);
  }
  for (int i : {0, t->n / 2, t->n - 1}) {
    const PcdVector3D& q = *t->Dxx->points[i];
    const PcdIntVector3D voxel{static_cast<int>(q.x), static_cast<int>(q.y), static_cast<int>(q.z)};
    EXPECT_TRUE(p.InStraightBundle(voxel.x, voxel.y, voxel.z));
    EXPECT_EQ(voxel.x % 3, 0);
    PCDdti_CalcDiffusionTensorAtVoxel(p.dti, record, &voxel);
    const float measured[6] = {record->Dxx, record->Dyy, record->Dzz, record->Dxy, record->Dyz, record->Dxz};
    get_interpolated_diffusion_tensor(t, &q, record);
    const float interpolated[6] = {record->Dxx, record->Dyy, record->Dzz, record->Dxy, record->Dyz, record->Dxz};
    for (int k = 0; k < 6; ++k) {
      EXPECT_EQ(components[k]->values->data[i], measured[k]);
      EXPECT_NEAR(interpolated[k], measured[k], 2e-6) << k;
    }
    EXPECT_NEAR(std::fabs(record->tensor[1][3]), 1.0, 1e-3);  // e1 along x in the bundle
  }
  PCDdti_DeleteDiffusionTensorData(record);
  delete_tensor_interpolator(t);
}

// ADC along g from the eigen-system: for diag(1, 2, 3) x 1e-3 along (0.707, 0, 0.707) it is
// 0.707^2 (1 + 3) x 1e-3.
TEST(TensorInterpolator, AdcAlongADirectionFromTheEigenSystem) {
  PcdDiffusionTensorData* r = PCDdti_NewDiffusionTensorData(7, 1);
  PCDdti_SetDiffusionTensorData(r, 1e-3f, 2e-3f, 3e-3f, 0, 0, 0);
  PCDdti_DiagonalizeDiffusionTensorData(r);
  const PcdVector3D g{0.707f, 0, 0.707f}, zero{0, 0, 0}, y{0, 1, 0};
  EXPECT_NEAR(get_ADC_value_of_rotated_tensor(r, &g), 0.707 * 0.707 * 4e-3, 1e-9);
  EXPECT_EQ(get_ADC_value_of_rotated_tensor(r, &zero), 0.0f);
  EXPECT_NEAR(get_ADC_value_of_rotated_tensor(r, &y), 2e-3, 1e-9);
  // a rotated tensor: 45 degrees in the xy-plane, eigenvalues 3e-3 and 1e-3
  PCDdti_SetDiffusionTensorData(r, 2e-3f, 2e-3f, 1e-3f, 1e-3f, 0, 0);
  PCDdti_DiagonalizeDiffusionTensorData(r);
  const PcdVector3D diagonal{0.707f, 0.707f, 0};
  EXPECT_NEAR(get_ADC_value_of_rotated_tensor(r, &diagonal), 0.707 * 0.707 * 2 * 3e-3, 1e-8);
  PCDdti_DeleteDiffusionTensorData(r);
}

// The dump: channel 0 is So itself (exp 0), an isotropic field decays by
// exp(-1000 d |g|^2) in every other channel; threads change no byte, and the side-by-side
// evaluation gives the plain per-voxel bytes.
TEST(FieldDump, SyntheticAcquisitionOfTheInterpolatedField) {
  Phantom p(24, 24, 8);
  const PcdIntSize4D& s = *p.dti->volume->matrixSize;
  VolumePtr tissue = Controls(p, [&](int x, int y, int z) {
    const size_t at = p.At(x, y, z);
    return p.truth.adc[at] > 0 && p.truth.adc[at] < 1e-3f && p.truth.fa[at] == 0 && (x + y + z) % 2 == 0;
  });
  quorix_test::TempDir dir;
  std::vector<std::vector<uint8_t>> dumps;
  for (int threads : {1, 2, 7}) {
    ModelingRun run;
    const std::string name = dir.file("dump" + std::to_string(threads) + ".raw");
    run.Model(p.dti, tissue.get(), threads, name.c_str());
    ASSERT_NE(run.result, nullptr);
    EXPECT_TRUE(quorix_test::HasLine(run.said, "Interpolator OK\nvolume data dumping...\r 12.500000 % done."));
    EXPECT_NE(run.said.find("\r 100.000000 % done.\ndone\nTracking start\n"), std::string::npos);
    dumps.push_back(quorix_test::ReadFileBytes(name));
  }
  const size_t voxels = static_cast<size_t>(s.x) * static_cast<size_t>(s.y) * static_cast<size_t>(s.z);
  ASSERT_EQ(dumps[0].size(), voxels * 7 * 2);
  EXPECT_EQ(dumps[0], dumps[1]);
  EXPECT_EQ(dumps[0], dumps[2]);
  auto channel = [&](int c, size_t at) {
    int16_t v;
    std::memcpy(&v, &dumps[0][(static_cast<size_t>(c) * voxels + at) * 2], 2);
    return v;
  };
  const auto* so = static_cast<const int16_t*>(p.dti->volume->data[0]);
  double tissueAdc = 0;
  for (size_t at = 0; at < voxels && tissueAdc == 0; ++at)
    if (p.truth.fa[at] == 0 && p.truth.adc[at] > 0 && p.truth.adc[at] < 1e-3f) tissueAdc = p.truth.adc[at];
  int checked = 0;
  for (size_t at = 0; at < voxels; ++at) {
    ASSERT_EQ(channel(0, at), so[at]) << at;
    if (p.truth.fa[at] != 0 || p.truth.adc[at] != static_cast<float>(tissueAdc)) continue;
    const double expected = so[at] * std::exp(-1000.0 * tissueAdc * 2 * 0.707 * 0.707);
    for (int c = 1; c < 7; ++c) ASSERT_NEAR(channel(c, at), expected, 2.0) << at << " " << c;
    ++checked;
  }
  EXPECT_GT(checked, 500);

  // the same field voxel by voxel through the plain evaluation
  VolumePtr none = Controls(p, [](int, int, int) { return false; });
  testing::internal::CaptureStderr();
  TensorInterPolator* t = new_tensor_interpolator(p.dti, tissue.get(), 1, 1);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(t, nullptr);
  PcdDiffusionTensorData* r = PCDdti_NewDiffusionTensorData(p.dti->channelCount, p.dti->soCount);
  const PcdVector3D g[7] = {{0, 0, 0}, {0.707f, 0, 0.707f}, {-0.707f, 0, 0.707f}, {0, 0.707f, 0.707f},
                            {0, 0.707f, -0.707f}, {0.707f, 0.707f, 0}, {-0.707f, 0.707f, 0}};
  size_t at = 0;
  for (int z = 0; z < s.z; ++z)
    for (int y = 0; y < s.y; ++y)
      for (int x = 0; x < s.x; ++x, ++at) {
        const PcdVector3D q{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
        get_interpolated_diffusion_tensor(t, &q, r);
        for (int c = 0; c < 7; ++c) {
          const float decay = static_cast<float>(std::exp(static_cast<double>(-1000.0f * get_ADC_value_of_rotated_tensor(r, &g[c]))));
          const float value = static_cast<float>(so[at]) * decay;
          ASSERT_EQ(channel(c, at), static_cast<int16_t>(static_cast<int32_t>(value))) << at << " " << c;
        }
      }
  PCDdti_DeleteDiffusionTensorData(r);
  delete_tensor_interpolator(t);

  // without a name: no dumping line and no file
  ModelingRun quiet;
  const auto before = std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator());
  quiet.Model(p.dti, tissue.get(), 2, nullptr);
  ASSERT_NE(quiet.result, nullptr);
  EXPECT_EQ(quiet.said.find("volume data dumping..."), std::string::npos);
  EXPECT_TRUE(quorix_test::HasLine(quiet.said, "Interpolator OK\nTracking start\n"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), std::filesystem::directory_iterator()), before);

  // in isotropic tissue the default FA bound stops at the seed: no line; with every enable
  // word 0 nothing stops it before the border or the node limit
  size_t seedAt = 0;
  while (!(p.truth.fa[seedAt] == 0 && p.truth.adc[seedAt] == static_cast<float>(tissueAdc))) ++seedAt;
  const PcdVector3D seed{static_cast<float>(seedAt % static_cast<size_t>(s.x)) + 0.5f,
                         static_cast<float>(seedAt / static_cast<size_t>(s.x) % static_cast<size_t>(s.y)) + 0.5f,
                         static_cast<float>(seedAt / static_cast<size_t>(s.x * s.y)) + 0.5f};
  ModelingRun stopped;
  stopped.seeds = {seed};
  stopped.Model(p.dti, tissue.get(), 1);
  ASSERT_NE(stopped.result, nullptr);
  EXPECT_EQ(stopped.result->lineCount, 0);
  ModelingRun unbounded;
  unbounded.seeds = {seed};
  PcdDiffusionTensorLimits& l = unbounded.context.limits;
  l.useFAmin = l.useSoMin = 0;
  unbounded.context.nodeLimit = 40;
  unbounded.Model(p.dti, tissue.get(), 1);
  ASSERT_EQ(unbounded.result->lineCount, 1);
  for (const PcdTrakLineBuffer* line : {unbounded.result->pairs[0]->forward, unbounded.result->pairs[0]->backward}) {
    const int last = line->nodeCount - 1;
    const PcdVector3D end{line->x[last] + (line->x[last] - line->x[std::max(last - 1, 0)]),
                          line->y[last] + (line->y[last] - line->y[std::max(last - 1, 0)]),
                          line->z[last] + (line->z[last] - line->z[std::max(last - 1, 0)])};
    EXPECT_TRUE(line->nodeCount == 40 || check_if_within_volume(&end, p.dti->volume->matrixSize) == 1)
        << line->nodeCount;
  }
}

// Seeds in the straight bundle, the bundle as control region: every node stays in the
// bundle's rows and slices and steps along x; 1, 2 and 7 threads, and node after node
// instead of side by side, give the same lines.
TEST(FiberModeling, StraightBundleStaysInTheBundleWhateverThePath) {
  Phantom p(32, 32, 12);
  VolumePtr bundle = Controls(p, [&](int x, int y, int z) { return p.InStraightBundle(x, y, z); });
  std::vector<PcdVector3D> seeds;
  for (int x = 10; x <= 20; x += 5)
    for (int k = 0; k < 6; ++k) seeds.push_back(PCDdti_SeedInVoxel(x, 15, 5, k));
  std::vector<std::string> results;
  for (int threads : {1, 2, 7}) {
    ModelingRun run;
    run.seeds = seeds;
    run.Model(p.dti, bundle.get(), threads);
    ASSERT_NE(run.result, nullptr);
    ASSERT_EQ(run.result->lineCount, static_cast<int32_t>(seeds.size()));
    results.push_back(LineBytes(run.result));
    if (threads != 1) continue;
    int nodes = 0;
    for (int32_t i = 0; i < run.result->lineCount; ++i)
      for (const PcdTrakLineBuffer* l : {run.result->pairs[i]->forward, run.result->pairs[i]->backward}) {
        for (int n = 0; n < l->nodeCount; ++n, ++nodes) {
          ASSERT_TRUE(p.InStraightBundle(12, static_cast<int>(l->y[n]), static_cast<int>(l->z[n])))
              << l->x[n] << " " << l->y[n] << " " << l->z[n];
          if (n > 0) {
            EXPECT_NEAR(std::fabs(l->x[n] - l->x[n - 1]), 0.7, 1e-3);
          }
        }
      }
    EXPECT_GT(nodes, 30 * static_cast<int>(seeds.size()));
    // one by one through the same interpolator
    PcdFibeTrakBuffer* plain = new_fibetrak_buffer(run.context.seedCount, run.context.seedPoints, run.context.nodeLimit);
    testing::internal::CaptureStderr();
    TensorInterPolator* t = new_tensor_interpolator(p.dti, bundle.get(), 1, 2);
    PCDdti_ModelFibersThroughInterpolator(p.dti, &run.context, t, plain, 3, false);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(LineBytes(plain), results.back());
    delete_tensor_interpolator(t);
    PCDdti_DeleteFibeTrakBuffer(plain);
  }
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

}  // namespace
