// Tract files compared with byte layouts built here from the TrackVis and MRtrix format
// descriptions: one selected fiber of four nodes and one fiber that is not selected.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "fiber/trakline.h"
#include "io/tract_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::ReadFileBytes;
using quorix_test::TempDir;

PcdTrakLineBuffer* Line(std::initializer_list<PcdVector3D> nodes) {
  PcdTrakLineBuffer* line = new_trakline_buffer(static_cast<int>(nodes.size()));
  for (const PcdVector3D& p : nodes) {
    const int i = line->nodeCount++;
    line->x[i] = p.x, line->y[i] = p.y, line->z[i] = p.z;
    line->L1[i] = line->L2[i] = line->L3[i] = 0.0f;
  }
  return line;
}

// Pair 0 (selected): forward (1,1,1) (2,1,1) (3,1.5,1), backward (1,1,1) (0.5,1,1): the
// fiber runs (3,1.5,1) (2,1,1) (1,1,1) (0.5,1,1). Pair 1 is not selected.
struct TwoFibers {
  PcdVector3D seeds[2] = {{1, 1, 1}, {2, 2, 2}};
  PcdFibeTrakBuffer* buffer;
  TwoFibers() {
    buffer = new_fibetrak_buffer(2, seeds, 10);
    buffer->lineCount = 2;
    for (int k = 0; k < 2; ++k) buffer->pairs[k] = new_trakline_pair(&seeds[k]);
    buffer->pairs[0]->selection = 1;
    buffer->pairs[0]->forward = Line({{1, 1, 1}, {2, 1, 1}, {3, 1.5f, 1}});
    buffer->pairs[0]->backward = Line({{1, 1, 1}, {0.5f, 1, 1}});
    buffer->pairs[1]->selection = 0;
    buffer->pairs[1]->forward = Line({{2, 2, 2}, {9, 9, 9}});
    buffer->pairs[1]->backward = Line({{2, 2, 2}});
  }
  ~TwoFibers() { delete_fibetrak_buffer(buffer); }
};

// Voxels of 2 x 2.5 x 3 mm, world = diag(2, 2.5, 3) * voxel + (10, 20, 30).
PcdWorldGeometry Geometry() {
  PcdWorldGeometry g{};
  PCD_SetDefaultWorldGeometry(&g, 1.0f);
  const float size[3] = {2.0f, 2.5f, 3.0f};
  for (int i = 0; i < 3; ++i) {
    g.voxelSize[i] = size[i];
    g.voxelToWorld[i][i] = size[i];
    g.voxelToWorld[i][3] = 10.0 * (i + 1);
  }
  g.voxelToWorld[0][1] = 0.25;  // an off-diagonal term, to tell rows from columns
  return g;
}

void PutF(std::vector<uint8_t>& b, size_t at, float v) { std::memcpy(&b[at], &v, 4); }
void PutI(std::vector<uint8_t>& b, size_t at, int32_t v) { std::memcpy(&b[at], &v, 4); }
void AddF(std::vector<uint8_t>& b, float v) {
  b.resize(b.size() + 4);
  PutF(b, b.size() - 4, v);
}

TEST(TractFiles, TrkHeaderAndPointsInVoxelMillimetres) {
  TempDir dir;
  TwoFibers fibers;
  const PcdWorldGeometry g = Geometry();
  const PcdIntSize4D size{300, 258, 5, 7};
  ASSERT_EQ(WriteTrkFile(fibers.buffer, &g, &size, dir.file("a.trk").c_str()), 0);

  std::vector<uint8_t> want(1000, 0);
  std::memcpy(&want[0], "TRACK", 5);                  // id_string, then a zero
  want[6] = 300 & 0xFF, want[7] = 300 >> 8;           // dim: int16 x, y, z
  want[8] = 258 & 0xFF, want[9] = 258 >> 8;
  want[10] = 5;
  PutF(want, 12, 2.0f), PutF(want, 16, 2.5f), PutF(want, 20, 3.0f);  // voxel_size
  // origin (24), scalars (36, 38) and properties (238, 240) stay zero
  const float ras[16] = {2, 0.25f, 0, 10, 0, 2.5f, 0, 20, 0, 0, 3, 30, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) PutF(want, 440 + 4 * static_cast<size_t>(i), ras[i]);  // vox_to_ras
  std::memcpy(&want[948], "RAS", 3);                  // voxel_order
  PutF(want, 956, 1.0f), PutF(want, 956 + 16, 1.0f);  // image_orientation_patient (1,0,0,0,1,0)
  PutI(want, 988, 1);                                 // n_count: the selected fiber only
  PutI(want, 992, 2);                                 // version
  PutI(want, 996, 1000);                              // hdr_size
  // the fiber: its point count, then millimetres from the volume's corner: voxel i's
  // centre (its sample, at the point i) lies (i + 0.5) voxel sizes from it
  want.resize(1004);
  PutI(want, 1000, 4);
  for (const PcdVector3D p : {PcdVector3D{3, 1.5f, 1}, PcdVector3D{2, 1, 1},
                              PcdVector3D{1, 1, 1}, PcdVector3D{0.5f, 1, 1}}) {
    AddF(want, (p.x + 0.5f) * 2.0f), AddF(want, (p.y + 0.5f) * 2.5f), AddF(want, (p.z + 0.5f) * 3.0f);
  }
  const std::vector<uint8_t> got = ReadFileBytes(dir.file("a.trk"));
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(got[i], want[i]) << "byte " << i;
}

TEST(TractFiles, TckHeaderWorldPointsAndTerminators) {
  TempDir dir;
  TwoFibers fibers;
  const PcdWorldGeometry g = Geometry();
  ASSERT_EQ(WriteTckFile(fibers.buffer, &g, dir.file("a.tck").c_str()), 0);
  const std::string header =
      "mrtrix tracks\ncount: 1\ndatatype: Float32LE\nfile: . 00000064\nEND\n";
  ASSERT_EQ(header.size(), 64u);
  std::vector<uint8_t> want(header.begin(), header.end());
  // tracking samples voxel (i, j, k) at the point (i, j, k), as NIfTI and MRtrix address
  // voxel centres: world = M * p
  const float points[4][3] = {{2 * 3.0f + 0.25f * 1.5f + 10, 2.5f * 1.5f + 20, 3 * 1.0f + 30},
                              {2 * 2.0f + 0.25f * 1.0f + 10, 2.5f * 1.0f + 20, 3 * 1.0f + 30},
                              {2 * 1.0f + 0.25f * 1.0f + 10, 2.5f * 1.0f + 20, 3 * 1.0f + 30},
                              {2 * 0.5f + 0.25f * 1.0f + 10, 2.5f * 1.0f + 20, 3 * 1.0f + 30}};
  for (const auto& p : points) AddF(want, p[0]), AddF(want, p[1]), AddF(want, p[2]);
  const std::vector<uint8_t> got = ReadFileBytes(dir.file("a.tck"));
  ASSERT_EQ(got.size(), want.size() + 24);
  for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(got[i], want[i]) << "byte " << i;
  float tail[6];
  std::memcpy(tail, &got[want.size()], sizeof tail);
  for (int k = 0; k < 3; ++k) EXPECT_TRUE(std::isnan(tail[k])) << k;       // end of a fiber
  for (int k = 3; k < 6; ++k) EXPECT_TRUE(std::isinf(tail[k]) && tail[k] > 0) << k;  // end of file
}

TEST(TractFiles, UnwritablePathIsAnError) {
  TwoFibers fibers;
  const PcdWorldGeometry g = Geometry();
  const PcdIntSize4D size{3, 3, 3, 7};
  testing::internal::CaptureStderr();
  EXPECT_EQ(WriteTrkFile(fibers.buffer, &g, &size, "/nonexistent/dir/a.trk"), -1);
  EXPECT_EQ(WriteTckFile(fibers.buffer, &g, "/nonexistent/dir/a.tck"), -1);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said, "Err: cannot write /nonexistent/dir/a.trk\nErr: cannot write /nonexistent/dir/a.tck\n");
}

}  // namespace
