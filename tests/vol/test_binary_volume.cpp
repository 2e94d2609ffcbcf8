// Binary masks: the test for 0/1 channels, the counts, the four Boolean operators and one
// step of face-neighbour erosion and dilation, on masks drawn out below.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "vol/binary_volume.h"

namespace {

struct Volume {
  PcdRawVolumeData* v;
  Volume(int x, int y, int z, int32_t type) {
    const PcdIntSize3D s{x, y, z};
    v = PCD_NewSingleChannelRawVolumeData(&s, type, PCD_MONOCHROME);
  }
  ~Volume() { PCD_DeleteRawVolumeData(v); }
  template <typename T>
  T* data() const {
    return static_cast<T*>(v->data[0]);
  }
};

// A mask drawn as text, one character a voxel ('#' = 1, '.' = 0), x fastest, then rows,
// then slices separated by '|'.
template <typename T>
void Draw(const Volume& m, const std::string& picture) {
  size_t at = 0;
  for (char c : picture)
    if (c == '#' || c == '.') m.data<T>()[at++] = c == '#' ? T(1) : T(0);
  ASSERT_EQ(static_cast<int64_t>(at), PCD_GetNumberOfVoxels(m.v));
}

template <typename T>
std::string Picture(const Volume& m) {
  std::string s;
  const PcdIntSize4D& z = *m.v->matrixSize;
  for (int64_t i = 0; i < PCD_GetNumberOfVoxels(m.v); ++i) {
    if (i > 0 && i % (z.x * z.y) == 0) s += '|';
    s += m.data<T>()[i] == T(1) ? '#' : (m.data<T>()[i] == T(0) ? '.' : '?');
  }
  return s;
}

TEST(BinaryChannel, EachTypeAcceptsOnlyZeroAndOne) {
  {
    Volume m(3, 1, 1, SINT8);
    m.data<int8_t>()[1] = 1;
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 1);
    m.data<int8_t>()[2] = -1;  // 0xFF read unsigned
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
  }
  {
    Volume m(2, 1, 1, UINT16);
    m.data<uint16_t>()[0] = 256;  // low byte 0 does not make it binary
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
  }
  {
    Volume m(2, 1, 1, SINT32);
    m.data<int32_t>()[0] = 1;
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 1);
    m.data<int32_t>()[1] = 3;  // a bit besides the lowest
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
    m.data<int32_t>()[1] = INT32_MIN;  // only the top bit
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
  }
  {
    Volume m(3, 1, 1, FLOAT32);
    m.data<float>()[0] = 1.0f;
    m.data<float>()[1] = -0.0f;
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 1);
    m.data<float>()[2] = 0.5f;
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
    m.data<float>()[2] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
  }
  {
    Volume m(2, 1, 1, FLOAT64);
    m.data<double>()[0] = 1.0 + 1e-15;
    EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
  }
  Volume m(2, 1, 1, UINT8);
  EXPECT_EQ(PCD_IsBinaryChannel(m.v, 1), 0);  // no such channel
  EXPECT_EQ(PCD_IsBinaryChannel(nullptr, 0), 0);
  m.v->dataType[0] = 8;  // not a type code
  EXPECT_EQ(PCD_IsBinaryChannel(m.v, 0), 0);
  m.v->dataType[0] = UINT8;
}

TEST(BinaryChannel, CountsKeepTheMinusOneArithmeticAndLeaveTheVoxels) {
  Volume m(4, 3, 2, SINT16);  // 24 voxels
  Draw<int16_t>(m, "#..# .... ..#. | .... .##. ....");
  EXPECT_EQ(PCD_CountBackgroundVoxelsOfBinaryVolume(m.v, 0), 19);
  EXPECT_EQ(PCD_CountForegroundVoxelsOfBinaryVolume(m.v, 0), 5);
  EXPECT_EQ(m.v->dataType[0], SINT16);
  EXPECT_EQ(Picture<int16_t>(m), "#..#......#.|.....##.....");

  m.data<int16_t>()[7] = -1;  // no longer binary: -1, and voxels + 1
  EXPECT_EQ(PCD_CountBackgroundVoxelsOfBinaryVolume(m.v, 0), -1);
  EXPECT_EQ(PCD_CountForegroundVoxelsOfBinaryVolume(m.v, 0), 25);

  Volume f(3, 1, 1, FLOAT64);
  f.data<double>()[1] = 1.0;
  EXPECT_EQ(PCD_CountForegroundVoxelsOfBinaryVolume(f.v, 0), 1);
  EXPECT_EQ(f.data<double>()[1], 1.0);
}

// d = "##..", s = "#.#." covers the four cases (1,1), (1,0), (0,1), (0,0) in that order.
TEST(BinaryChannel, BooleanOperatorsOnEveryPairOfValues) {
  struct Case {
    const char* op;
    const char* result;
  } cases[] = {{"OR", "###."}, {"AND", "#..."}, {"NAND", ".#.."}, {"XOR", "###."}};
  for (const Case& c : cases) {
    Volume d(4, 1, 1, FLOAT32), s(4, 1, 1, UINT8);
    Draw<float>(d, "##..");
    Draw<uint8_t>(s, "#.#.");
    PCD_BooleanOperationOfBinaryVolumes(d.v, 0, s.v, 0, c.op);
    EXPECT_EQ(Picture<float>(d), c.result) << c.op;  // written as 1.0 and 0.0
  }
}

TEST(BinaryChannel, BooleanOperatorsOfAMaskWithItself) {
  Volume m(3, 2, 1, UINT32);
  Draw<uint32_t>(m, "#.# .##");
  PCD_BooleanOperationOfBinaryVolumes(m.v, 0, m.v, 0, "AND");
  EXPECT_EQ(Picture<uint32_t>(m), "#.#.##");
  PCD_BooleanOperationOfBinaryVolumes(m.v, 0, m.v, 0, "XOR");
  EXPECT_EQ(Picture<uint32_t>(m), "#.#.##");
  PCD_BooleanOperationOfBinaryVolumes(m.v, 0, m.v, 0, "NAND");
  EXPECT_EQ(Picture<uint32_t>(m), "......");
}

TEST(BinaryChannel, BooleanOperationRefusesOperatorsSizesAndNonBinaryChannels) {
  Volume d(3, 1, 1, UINT8), s(3, 1, 1, UINT8), big(3, 2, 1, UINT8);
  Draw<uint8_t>(d, "#..");
  Draw<uint8_t>(s, ".##");
  testing::internal::CaptureStderr();
  PCD_BooleanOperationOfBinaryVolumes(d.v, 0, s.v, 0, "and");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid operator <and>\n");
  EXPECT_EQ(Picture<uint8_t>(d), "#..");

  testing::internal::CaptureStderr();
  PCD_BooleanOperationOfBinaryVolumes(d.v, 0, big.v, 0, "OR");    // other size
  PCD_BooleanOperationOfBinaryVolumes(d.v, 0, big.v, 0, "nope");  // ...before the operator
  s.data<uint8_t>()[0] = 2;
  PCD_BooleanOperationOfBinaryVolumes(d.v, 0, s.v, 0, "OR");  // source not binary
  PCD_BooleanOperationOfBinaryVolumes(s.v, 0, d.v, 0, "OR");  // destination not binary
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(Picture<uint8_t>(d), "#..");
  EXPECT_EQ(s.data<uint8_t>()[1], 1);
}

TEST(BinaryMorphology, ErosionAndDilationInThreeDimensionsUseFaceNeighbours) {
  Volume m(5, 5, 3, UINT8);
  // a 3 x 3 x 3 cube whose face neighbours inside the volume are all set
  Draw<uint8_t>(m, ".....|.###.|.###.|.###.|.....|"
                   ".....|.###.|.###.|.###.|.....|"
                   ".....|.###.|.###.|.###.|.....");
  ASSERT_EQ(PCD_ErodeBinaryVolume(m.v, 0), 0);
  // only the centre of the middle slice has all six neighbours set
  EXPECT_EQ(Picture<uint8_t>(m), ".........................|"
                                 "............#............|"
                                 ".........................");
  ASSERT_EQ(PCD_DilateBinaryVolume(m.v, 0), 0);  // the six face neighbours, no corners
  EXPECT_EQ(Picture<uint8_t>(m), "............#............|"
                                 ".......#...###...#.......|"
                                 "............#............");
}

TEST(BinaryMorphology, OutsideCountsAsBackgroundAndNonBinaryMasksAreRefused) {
  Volume m(4, 3, 1, FLOAT64);
  Draw<double>(m, "#### #### ####");
  ASSERT_EQ(PCD_ErodeBinaryVolume(m.v, 0), 0);  // one slice: every voxel sees outside in z
  EXPECT_EQ(Picture<double>(m), "............");

  // a plane keeps its interior: erosion looks at the four in-plane neighbours only
  Pcd2DArray plane = PCD_New2DArray(4, 3, SINT16);
  auto* p = static_cast<int16_t*>(plane[0]);
  for (int i = 0; i < 12; ++i) p[i] = 1;
  ASSERT_EQ(PCD_ErodeBinary2DArray(plane, 4, 3, SINT16), 0);
  EXPECT_EQ(std::vector<int16_t>(p, p + 12),
            (std::vector<int16_t>{0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0}));
  ASSERT_EQ(PCD_DilateBinary2DArray(plane, 4, 3, SINT16), 0);
  EXPECT_EQ(std::vector<int16_t>(p, p + 12),
            (std::vector<int16_t>{0, 1, 1, 0, 1, 1, 1, 1, 0, 1, 1, 0}));

  p[0] = 2;
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_DilateBinary2DArray(plane, 4, 3, SINT16), -1);
  EXPECT_EQ(PCD_ErodeBinaryVolume(m.v, 3), -1);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("Err: ", 0), 0u) << err;
  EXPECT_EQ(p[1], 1);
  PCD_Delete2DArray(plane, 4, 3, SINT16);
}

TEST(BinaryMask, ProblemsNameSizeAndType) {
  Volume m(4, 3, 2, UINT8), f(4, 3, 2, FLOAT32);
  EXPECT_EQ(PCD_FindMaskProblem(m.v, PcdIntSize4D{4, 3, 2, 31}), "");
  EXPECT_EQ(PCD_FindMaskProblem(m.v, PcdIntSize4D{4, 3, 3, 31}),
            "Err: the mask is 4 x 3 x 2, the data set 4 x 3 x 3\n");
  EXPECT_EQ(PCD_FindMaskProblem(f.v, PcdIntSize4D{4, 3, 2, 31}),
            "Err: the mask holds FLOAT32 voxels; it must hold UINT8 voxels\n");
  EXPECT_EQ(PCD_FindMaskProblem(nullptr, PcdIntSize4D{4, 3, 2, 31}).rfind("Err: ", 0), 0u);
}

}  // namespace
