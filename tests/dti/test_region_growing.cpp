// Region growing on small volumes whose expected regions are drawn out below, the
// serialized core of its context, and the grown straight bundle of the phantom.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dti/region_growing.h"
#include "dti/tensor.h"
#include "test_region_growing_volumes.h"
#include "tools/phantom/phantom.h"

namespace {

using region_test::Mask;
using region_test::Prolate;
using region_test::TensorVolume;
using region_test::VoxelSpec;

// A one-channel signed 16-bit volume drawn as digits (x fastest, '|' between slices),
// under a DTI record that is not ready: grey growing reads the channel alone.
struct SignalVolume {
  PcdRawVolumeData* volume;
  PcdDtiData* dti;
  SignalVolume(int nx, int ny, int nz, const std::string& digits) {
    const PcdIntSize3D s{nx, ny, nz};
    volume = PCD_NewSingleChannelRawVolumeData(&s, SINT16, PCD_MONOCHROME);
    dti = static_cast<PcdDtiData*>(std::calloc(1, sizeof(PcdDtiData)));
    dti->volume = volume;
    dti->channelCount = 1;
    size_t i = 0;
    for (char c : digits)
      if (c >= '0' && c <= '9') static_cast<int16_t*>(volume->data[0])[i++] = static_cast<int16_t>(c - '0');
    EXPECT_EQ(static_cast<int64_t>(i), PCD_GetNumberOfVoxels(volume));
  }
  ~SignalVolume() {
    PCD_DeleteRawVolumeData(volume);
    std::free(dti);
  }
};

// 8 x 5 x 3. Every voxel holds 5 except the walls of 0 in the middle slice; only the
// middle slice's inner 6 x 3 voxels may be grown into.
const char kWalls[] =
    "55555555 55555555 55555555 55555555 55555555 |"
    "55555555 55505555 55005055 55550055 55555555 |"
    "55555555 55555555 55555555 55555555 55555555";
const std::string kEmptySlice = "........";

PcdDtiRegionGrowingContext GreyContext(Mask& mask, float low, float high, int32_t limit) {
  PcdDtiRegionGrowingContext c;
  c.mode = kPcdGrowBySingleSignal;
  c.lowerBound = low;
  c.upperBound = high;
  c.generationLimit = limit;
  c.mask = mask.v;
  return c;
}

std::string Slices(const std::string& middle) {
  const std::string empty(40, '.');
  return empty + "|" + middle + "|" + empty;
}

// Runs the growing and returns what it printed.
std::string Grow(const PcdDtiData* dti, PcdDtiRegionGrowingContext* c) {
  testing::internal::CaptureStderr();
  PCDdti_RegionGrowing(dti, c);
  return testing::internal::GetCapturedStderr();
}

TEST(GreyGrowing, GrowsThroughTheRangeGenerationByGenerationInsideTheOuterLayer) {
  SignalVolume v(8, 5, 3, kWalls);
  {
    Mask mask(8, 5, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = GreyContext(mask, 1.0f, 6.0f, 10);
    // generation 1 (1,1) -> 2 (2,1), (1,2) -> 3 (1,3) -> 4 (2,3) -> 5 (3,3), from which
    // nothing grows: generation 5 stops
    EXPECT_EQ(Grow(v.dti, &c), "Range: 1 - 6\nseed voxel count (grey) = 1\nGrowing stopped 5/10\n");
    EXPECT_EQ(mask.Picture(), Slices("........"
                                     ".##....."
                                     ".#......"
                                     ".###...."
                                     "........"));
  }
  {
    Mask mask(8, 5, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = GreyContext(mask, 1.9f, 6.99f, 1);  // bounds truncated
    EXPECT_EQ(Grow(v.dti, &c), "Range: 1 - 6\nseed voxel count (grey) = 1\n");  // silent stop
    EXPECT_EQ(mask.Picture(), Slices("........"
                                     ".##....."
                                     ".#......"
                                     "........"
                                     "........"));
  }
  {
    Mask mask(8, 5, 3);
    mask.at(1, 1, 1) = mask.at(3, 1, 1) = 1;  // the second lies on a wall of 0
    PcdDtiRegionGrowingContext c = GreyContext(mask, 1.0f, 6.0f, 0);
    EXPECT_EQ(Grow(v.dti, &c), "Range: 1 - 6\nseed voxel count (grey) = 2\n");
    EXPECT_EQ(mask.Picture(), Slices(".........#.............................."));
  }
}

TEST(GreyGrowing, OuterSeedsStayButGrowOnlyIntoTheInsideAndLowAboveHighPrunesAll) {
  SignalVolume v(8, 5, 3, kWalls);
  {
    Mask mask(8, 5, 3);
    mask.at(0, 0, 0) = 1;  // a corner: every neighbour lies in the outer layer
    mask.at(7, 2, 1) = 1;  // on a face: its -x neighbour (6,2,1) is inside
    PcdDtiRegionGrowingContext c = GreyContext(mask, 1.0f, 6.0f, 10);
    Grow(v.dti, &c);
    // (6,2) -> (6,1), (6,3) -> (5,1) -> (4,1) -> (4,2)
    EXPECT_EQ(mask.Picture(), "#.......................................|"
                              "........"
                              "....###."
                              "....#.##"
                              "......#."
                              "........|" +
                                  std::string(40, '.'));
  }
  {
    Mask mask(8, 5, 3);
    mask.at(1, 1, 1) = mask.at(2, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = GreyContext(mask, 6.0f, 1.0f, 10);
    EXPECT_EQ(Grow(v.dti, &c), "Range: 6 - 1\nseed voxel count (grey) = 2\nGrowing stopped 1/10\n");
    EXPECT_EQ(mask.Picture(), Slices(std::string(40, '.')));
  }
  {
    // bounds beyond 32 bits or undefined become 0x80000000, whose low 16 bits are 0;
    // 70000 keeps its low 16 bits, 4464
    Mask mask(8, 5, 3);
    PcdDtiRegionGrowingContext c = GreyContext(mask, 70000.0f, NAN, 10);
    EXPECT_EQ(Grow(v.dti, &c).substr(0, 16), "Range: 4464 - 0\n");
    c = GreyContext(mask, 5e9f, -5e9f, 10);
    EXPECT_EQ(Grow(v.dti, &c).substr(0, 13), "Range: 0 - 0\n");
  }
}

// Generations are kept in 8 bits: the voxel joined in generation 256 is stored as 0 and
// falls out of the region, and generation 256 finds no voxel of its own.
TEST(GreyGrowing, TheGenerationAfter255WrapsToZero) {
  const int n = 300;
  SignalVolume v(n, 3, 3, std::string(static_cast<size_t>(n) * 9, '5'));
  Mask mask(n, 3, 3);
  mask.at(1, 1, 1) = 1;
  PcdDtiRegionGrowingContext c = GreyContext(mask, 1.0f, 9.0f, 1000);
  EXPECT_NE(Grow(v.dti, &c).find("Growing stopped 256/1000\n"), std::string::npos);
  int inside = 0, last = 0;
  for (int x = 0; x < n; ++x)
    if (mask.at(x, 1, 1) == 1) ++inside, last = x;
  EXPECT_EQ(inside, 255);
  EXPECT_EQ(last, 255);
}

TEST(GreyGrowing, RefusesChannelsMasksAndUnknownModesWithoutTouchingTheMask) {
  SignalVolume v(8, 5, 3, kWalls);
  Mask mask(8, 5, 3);
  mask.at(1, 1, 1) = 1;
  PcdDtiRegionGrowingContext c = GreyContext(mask, 1.0f, 6.0f, 10);
  c.channel = 1;
  EXPECT_EQ(Grow(v.dti, &c), "Err: grey growing reads a signed 16-bit channel; channel 1 is none\n");
  c.channel = 0;
  c.mode = 346;
  EXPECT_EQ(Grow(v.dti, &c), "");
  Mask small(8, 5, 2);
  c = GreyContext(small, 1.0f, 6.0f, 10);
  EXPECT_EQ(Grow(v.dti, &c), "Err: the mask is 8 x 5 x 2, the data set 8 x 5 x 3\n");
  EXPECT_EQ(mask.Picture(), Slices(".........#.............................."));
}

// ---- tensor growing ----------------------------------------------------------------

// 7 x 3 x 3: the inner voxels are the line x = 1 .. 5 at y = 1, z = 1, holding the given
// tensors; every other voxel is nearly isotropic (FA 0.06).
std::unique_ptr<TensorVolume> Line(const std::vector<region_test::Tensor6>& line) {
  return std::make_unique<TensorVolume>(7, 3, 3, [line](int x, int y, int z) {
    if (y == 1 && z == 1 && x >= 1 && x <= 5) return VoxelSpec{20000, line[x - 1]};
    return VoxelSpec{20000, {1.0e-3, 0.9e-3, 0.9e-3, 0, 0, 0}};
  });
}

PcdDtiRegionGrowingContext TensorContext(Mask& mask, float faMin, float angle, int32_t limit) {
  PcdDtiRegionGrowingContext c;
  c.mode = kPcdGrowByTensorProperty;
  c.tensorCriteria[kPcdGrowingFAminWord] = faMin;
  c.tensorCriteria[kPcdGrowingAngleMaxWord] = angle;
  c.generationLimit = limit;
  c.mask = mask.v;
  return c;
}

// The line's voxels that are in the region, as a string of x positions.
std::string LineRegion(const Mask& mask) {
  std::string out;
  for (int x = 0; x < 7; ++x)
    if (mask.at(x, 1, 1) == 1) out += static_cast<char>('0' + x);
  int total = 0;
  for (int64_t i = 0; i < 63; ++i) total += mask.data()[i];
  return total == static_cast<int>(out.size()) ? out : out + " and more";
}

PcdVector3D E1At(const PcdDtiData* dti, int x, int y, int z) {
  PcdDiffusionTensorData* r = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  const PcdIntVector3D v{x, y, z};
  PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, r, &v);
  const PcdVector3D e1{r->tensor[1][3], r->tensor[2][3], r->tensor[3][3]};
  PCDdti_DeleteDiffusionTensorData(r);
  return e1;
}

// Each neighbour is compared with the voxel it grows from, not with the seeds: a bend of
// 4 degrees per voxel passes 5 degrees, a kink of 12 degrees needs 13.
TEST(TensorGrowing, NeighboursFollowTheVoxelTheyGrowFromWithinTheAngle) {
  auto v = Line({Prolate(0), Prolate(4), Prolate(8), Prolate(20), Prolate(20)});
  {
    Mask mask(7, 3, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 5.0f, 10);
    EXPECT_EQ(Grow(v->dti, &c), "seed voxel count (tensor) = 1\nGrowing stopped 3/10\n");
    EXPECT_EQ(LineRegion(mask), "123");
  }
  {
    Mask mask(7, 3, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 13.0f, 10);
    EXPECT_EQ(Grow(v->dti, &c), "seed voxel count (tensor) = 1\nGrowing stopped 5/10\n");
    EXPECT_EQ(LineRegion(mask), "12345");
  }
  for (int32_t limit : {0, 1, 2}) {
    Mask mask(7, 3, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 13.0f, limit);
    EXPECT_EQ(Grow(v->dti, &c), "seed voxel count (tensor) = 1\n");
    EXPECT_EQ(LineRegion(mask), std::string("123").substr(0, static_cast<size_t>(limit) + 1));
  }
}

// FA 0.80 along the line; the seeds' FA decides pruning, the neighbours' FA joining.
TEST(TensorGrowing, FaMinimumPrunesSeedsAndStopsNeighbours) {
  const region_test::Tensor6 round{1.0e-3, 0.9e-3, 0.9e-3, 0, 0, 0};  // FA 0.06
  auto v = Line({Prolate(0), Prolate(0), round, Prolate(0), Prolate(0)});
  {
    Mask mask(7, 3, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 90.0f, 10);
    Grow(v->dti, &c);
    EXPECT_EQ(LineRegion(mask), "12");
  }
  {
    Mask mask(7, 3, 3);
    mask.at(1, 1, 1) = mask.at(3, 1, 1) = 1;  // the second seed's FA is 0.06
    PcdDtiRegionGrowingContext c = TensorContext(mask, 0.85f, 90.0f, 10);
    EXPECT_EQ(Grow(v->dti, &c), "seed voxel count (tensor) = 2\nGrowing stopped 1/10\n");
    EXPECT_EQ(LineRegion(mask), "");
    EXPECT_EQ(c.regionDirection.x, 0.0f);  // nothing summed: left as zero
  }
}

// The angle limit is turned into a cosine with the factor 3.141592 / 180: a neighbour
// whose principal direction lies just inside the limit joins, just outside it does not.
TEST(TensorGrowing, TheAngleLimitHoldsToItsDegreeFactor) {
  auto v = Line({Prolate(0), Prolate(10), Prolate(10), Prolate(10), Prolate(10)});
  const PcdVector3D ea = E1At(v->dti, 1, 1, 1), eb = E1At(v->dti, 2, 1, 1);
  const double degrees = std::acos(std::fabs(PCD_InnerProduct3D(&ea, &eb))) / 0.01745328888888889;
  ASSERT_NEAR(degrees, 10.0, 0.1);
  for (double scale : {1.0005, 0.9995}) {
    Mask mask(7, 3, 3);
    mask.at(1, 1, 1) = 1;
    PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, static_cast<float>(degrees * scale), 1);
    Grow(v->dti, &c);
    EXPECT_EQ(LineRegion(mask), scale > 1.0 ? "12" : "1") << scale;
  }
}

// With 90 degrees every neighbour of sufficient FA joins, whatever its direction.
TEST(TensorGrowing, NinetyDegreesAcceptsAnyDirection) {
  auto v = Line({Prolate(0), Prolate(60), Prolate(120), Prolate(45), Prolate(130)});
  Mask mask(7, 3, 3);
  mask.at(1, 1, 1) = 1;
  PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 90.0f, 10);
  Grow(v->dti, &c);
  EXPECT_EQ(LineRegion(mask), "12345");
  Mask narrow(7, 3, 3);
  narrow.at(1, 1, 1) = 1;
  c = TensorContext(narrow, 0.2f, 59.0f, 10);
  Grow(v->dti, &c);
  EXPECT_EQ(LineRegion(narrow), "1");
}

// Principal directions are compared without their sign, and the region direction is the
// plain sum of the e1 vectors as the eigen solver gives them, normalised.
TEST(TensorGrowing, AntiparallelDirectionsJoinAndTheDirectionIsThePlainSum) {
  // two orientations a few degrees apart whose computed e1 point opposite ways
  double first = 0, second = 0;
  bool found = false;
  for (double a = 0.0; a < 180.0 && !found; a += 1.0)
    for (double b = a + 1.0; b <= a + 4.0 && !found; b += 1.0) {
      auto probe = Line({Prolate(a), Prolate(b), Prolate(0), Prolate(0), Prolate(0)});
      const PcdVector3D ea = E1At(probe->dti, 1, 1, 1), eb = E1At(probe->dti, 2, 1, 1);
      if (PCD_InnerProduct3D(&ea, &eb) < -0.99) first = a, second = b, found = true;
    }
  ASSERT_TRUE(found) << "no orientations with opposite e1 signs";
  const region_test::Tensor6 round{1.0e-3, 0.9e-3, 0.9e-3, 0, 0, 0};
  auto v = Line({Prolate(first), Prolate(second), round, round, round});
  Mask mask(7, 3, 3);
  mask.at(1, 1, 1) = 1;
  PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 7.0f, 10);
  Grow(v->dti, &c);
  EXPECT_EQ(LineRegion(mask), "12");
  const PcdVector3D ea = E1At(v->dti, 1, 1, 1), eb = E1At(v->dti, 2, 1, 1);
  const double sx = double(ea.x) + eb.x, sy = double(ea.y) + eb.y, sz = double(ea.z) + eb.z;
  const double length = std::sqrt(sx * sx + sy * sy + sz * sz);
  ASSERT_GT(length, 1e-3);  // opposite, but a few degrees apart: a short sum
  EXPECT_NEAR(c.regionDirection.x, sx / length, 1e-3);
  EXPECT_NEAR(c.regionDirection.y, sy / length, 1e-3);
  EXPECT_NEAR(c.regionDirection.z, sz / length, 1e-3);
}

TEST(TensorGrowing, NeedsAReadyDataSetAndAFittingMask) {
  auto v = Line({Prolate(0), Prolate(0), Prolate(0), Prolate(0), Prolate(0)});
  Mask mask(7, 3, 3);
  mask.at(1, 1, 1) = 1;
  PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 5.0f, 10);
  v->dti->isReady = 0;
  EXPECT_EQ(Grow(v->dti, &c).rfind("Err: ", 0), 0u);
  v->dti->isReady = 1;
  Mask wide(8, 3, 3);
  c.mask = wide.v;
  EXPECT_EQ(Grow(v->dti, &c), "Err: the mask is 8 x 3 x 3, the data set 7 x 3 x 3\n");
  EXPECT_EQ(LineRegion(mask), "1");
  EXPECT_EQ(Grow(v->dti, nullptr), "Err: no region growing context\n");
}

// ---- the serialized core ----------------------------------------------------------

TEST(GrowingContext, CoreIsEightyLittleEndianBytesAndReadsBack) {
  PcdDtiRegionGrowingContext c;
  c.mode = 654;
  for (int i = 0; i < 15; ++i) c.tensorCriteria[i] = static_cast<float>(i) + 0.5f;
  c.tensorCriteria[kPcdGrowingFAminWord] = 0.2f;       // 0x3E4CCCCD
  c.tensorCriteria[kPcdGrowingAngleMaxWord] = 5.0f;    // 0x40A00000
  c.generationLimit = 10;
  c.channel = -2;
  c.lowerBound = 1.0f;       // 0x3F800000
  c.upperBound = 10000.0f;   // 0x461C4000
  uint8_t mask = 0;
  c.mask = reinterpret_cast<PcdRawVolumeData*>(&mask);  // not part of the core
  ASSERT_EQ(PCDdti_GetSerializedSizeOfRegionGrowingContextCore(), 80u);
  uint8_t bytes[80];
  PCDdti_SerializeRegionGrowingContextCore(&c, bytes);
  const uint8_t mode[4] = {0x8E, 0x02, 0, 0};
  const uint8_t faMin[4] = {0xCD, 0xCC, 0x4C, 0x3E};
  const uint8_t angle[4] = {0x00, 0x00, 0xA0, 0x40};
  const uint8_t tail[16] = {10, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF,
                            0, 0, 0x80, 0x3F, 0, 0x40, 0x1C, 0x46};
  EXPECT_EQ(std::memcmp(bytes, mode, 4), 0);
  EXPECT_EQ(std::memcmp(bytes + 4 + 4, faMin, 4), 0);
  EXPECT_EQ(std::memcmp(bytes + 4 + 52, angle, 4), 0);
  EXPECT_EQ(std::memcmp(bytes + 64, tail, 16), 0);

  PcdDtiRegionGrowingContext back;
  back.regionDirection = {7, 8, 9};
  PCDdti_GetRegionGrowingContextCoreFromSerializedData(&back, bytes);
  EXPECT_EQ(back.mode, 654);
  EXPECT_EQ(std::memcmp(back.tensorCriteria, c.tensorCriteria, 60), 0);
  EXPECT_EQ(back.generationLimit, 10);
  EXPECT_EQ(back.channel, -2);
  EXPECT_EQ(back.lowerBound, 1.0f);
  EXPECT_EQ(back.upperBound, 10000.0f);
  EXPECT_EQ(back.mask, nullptr);
  EXPECT_EQ(back.regionDirection.x, 7.0f);
}

// ---- the phantom ------------------------------------------------------------------

struct PhantomData {
  PcdPhantomTruth truth;  // filled while dti is made
  PcdDtiData* dti;
  explicit PhantomData(const PcdPhantomOptions& o) : dti(PCD_MakeDwiPhantom(o, &truth)) {}
  ~PhantomData() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
};

// Estimating each voxel once gives the region and direction of estimating it each time
// it is looked at, on noisy data where directions and signs scatter.
TEST(TensorGrowing, EstimatingEachVoxelOnceEqualsEstimatingItEveryTime) {
  const PcdPhantomOptions o{.sizeX = 48, .sizeY = 48, .sizeZ = 16, .noise = 0.04f};
  PhantomData p(o);
  for (float angle : {5.0f, 25.0f}) {
    Mask fast(48, 48, 16), plain(48, 48, 16);
    for (int z = 7; z <= 9; ++z)
      for (int y = 22; y <= 25; ++y)
        for (int x = 14; x <= 16; ++x) fast.at(x, y, z) = plain.at(x, y, z) = 1;
    PcdDtiRegionGrowingContext a = TensorContext(fast, 0.3f, angle, 40);
    PcdDtiRegionGrowingContext b = TensorContext(plain, 0.3f, angle, 40);
    const std::string fastText = Grow(p.dti, &a);
    testing::internal::CaptureStderr();
    PCDdti_RegionGrowingVoxelByVoxel(p.dti, &b);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), fastText);
    EXPECT_EQ(std::memcmp(fast.data(), plain.data(), 48 * 48 * 16), 0);
    EXPECT_EQ(std::memcmp(&a.regionDirection, &b.regionDirection, sizeof(PcdVector3D)), 0);
    int64_t inside = 0;
    for (int64_t i = 0; i < 48 * 48 * 16; ++i) inside += fast.data()[i];
    EXPECT_GT(inside, 100) << angle;
  }
}

// Grown from 27 seed voxels for the default 10 generations, the straight bundle of the
// noise-free phantom fills the part of its cross-section within reach and no voxel outside
// it. The seeds lie beyond the crossing (x 27 to 36) and the curved bundle, which runs
// along x on top of the straight one west of the crossing and would be grown into there.
TEST(TensorGrowing, TheStraightBundleOfThePhantomGrowsFromItsSeeds) {
  const PcdPhantomOptions o{.sizeX = 64, .sizeY = 64, .sizeZ = 24};
  PhantomData p(o);
  Mask mask(64, 64, 24);
  for (int z = 11; z <= 13; ++z)
    for (int y = 31; y <= 33; ++y)
      for (int x = 47; x <= 49; ++x) mask.at(x, y, z) = 1;
  PcdDtiRegionGrowingContext c = TensorContext(mask, 0.2f, 5.0f, 10);
  Grow(p.dti, &c);
  int64_t expected = 0, wrong = 0;
  size_t i = 0;
  for (int z = 0; z < 24; ++z)
    for (int y = 0; y < 64; ++y)
      for (int x = 0; x < 64; ++x, ++i) {
        const PcdVector3D d = p.truth.direction[i];
        // generation g reaches the voxels g - 1 face steps from the seed block
        const int steps = std::max({0, 47 - x, x - 49}) + std::max({0, 31 - y, y - 33}) +
                          std::max({0, 11 - z, z - 13});
        const bool inside = d.x == 1.0f && d.y == 0.0f && d.z == 0.0f && steps <= 10;
        expected += inside;
        wrong += inside != (mask.data()[i] == 1);
      }
  EXPECT_GT(expected, 1000);
  EXPECT_EQ(wrong, 0);
  EXPECT_NEAR(std::fabs(c.regionDirection.x), 1.0f, 1e-5f);
  EXPECT_NEAR(c.regionDirection.y, 0.0f, 1e-4f);
  EXPECT_NEAR(c.regionDirection.z, 0.0f, 1e-4f);
}

}  // namespace
