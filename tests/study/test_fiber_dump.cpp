// The tracking dump and the tract files written from one hand-made result.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "io/tract_file.h"
#include "study/fiber_dump.h"
#include "support/test_support.h"
#include "vol/serialize.h"

namespace {

using quorix_test::TempDir;

PcdTrakLineBuffer* Line(std::initializer_list<PcdVector3D> nodes, float l1) {
  PcdTrakLineBuffer* l = new_trakline_buffer(static_cast<int>(nodes.size()));
  for (const PcdVector3D& n : nodes) {
    const int i = l->nodeCount++;
    l->x[i] = n.x;
    l->y[i] = n.y;
    l->z[i] = n.z;
    l->L1[i] = l1;
    l->L2[i] = 0.0005f;
    l->L3[i] = 0.00025f;
  }
  return l;
}

// Two fibers through seeds (1, 2, 3) and (5, 5, 5); the second is not selected.
struct Result {
  PcdVector3D seeds[2] = {{1, 2, 3}, {5, 5, 5}};
  PcdFibeTrakBuffer* buffer;
  Result() : buffer(new_fibetrak_buffer(2, seeds, 10)) {
    for (int i = 0; i < 2; ++i) buffer->pairs[i] = new_trakline_pair(&seeds[i]);
    buffer->pairs[0]->forward = Line({{1, 2, 3}, {1.5f, 2, 3}, {2, 2, 3}}, 0.0017f);
    buffer->pairs[0]->backward = Line({{1, 2, 3}, {0.5f, 2, 3}}, 0.0016f);
    buffer->pairs[1]->forward = Line({{5, 5, 5}}, 0.001f);
    buffer->pairs[1]->backward = Line({{5, 5, 5}}, 0.001f);
    pack_fibetrak_buffer(buffer);
    buffer->pairs[0]->selection = 1;
    buffer->pairs[1]->selection = 0;
  }
  ~Result() { PCDdti_DeleteFibeTrakBuffer(buffer); }
};

TEST(FiberDump, HeaderThenSelectedFibersEndToEndThroughTheSeed) {
  TempDir dir;
  Result r;
  ASSERT_EQ(PCDdti_DumpFibeTrakBufferToFile(r.buffer, 2.0f, dir.file("d.txt").c_str()), 1);
  const std::string text = quorix_test::ReadFileText(dir.file("d.txt"));
  EXPECT_EQ(text.rfind("=========================<This is a dump file of fiber tracking result in "
                       "Quorix-II. Format is below>========================\n\n\tN (number of "
                       "total lines)\n",
                       0),
            0u);
  const std::string tail =
      "================================================<Dump result is from here>"
      "================================================\n"
      "1\n4\n"
      "4.00\t4.00\t6.00\t1.70\t0.50\t0.25\n"
      "3.00\t4.00\t6.00\t1.70\t0.50\t0.25\n"
      "2.00\t4.00\t6.00\t1.60\t0.50\t0.25\n"
      "1.00\t4.00\t6.00\t1.60\t0.50\t0.25\n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 15 + 2 + 4);  // header, N and M, nodes
}

TEST(TractFiles, TckHoldsWorldMillimetresAndTrkItsHeader) {
  TempDir dir;
  Result r;
  PcdWorldGeometry g{};
  PCD_SetDefaultWorldGeometry(&g, 2.0f);
  g.voxelToWorld[0][3] = -10.0;  // a translation goes through as well
  ASSERT_EQ(WriteTckFile(r.buffer, &g, dir.file("t.tck").c_str()), 0);
  const std::vector<uint8_t> tck = quorix_test::ReadFileBytes(dir.file("t.tck"));
  const std::string head(tck.begin(), tck.begin() + 64);
  ASSERT_EQ(head.rfind("mrtrix tracks\ncount: 1\ndatatype: Float32LE\nfile: . ", 0), 0u);
  const size_t offset = std::stoul(head.substr(head.find("file: . ") + 8));
  ASSERT_EQ(tck.size(), offset + 12 * (4 + 1 + 1));
  EXPECT_EQ(std::string(tck.begin() + static_cast<long>(offset) - 4, tck.begin() + static_cast<long>(offset)), "END\n");
  // the first node (2, 2, 3) is voxel (2, 2, 3)'s sample, its centre: 2 * 2 - 10 = -6
  EXPECT_EQ(PCD_GetFloat32LE(&tck[offset]), -6.0f);
  EXPECT_EQ(PCD_GetFloat32LE(&tck[offset + 4]), 4.0f);
  EXPECT_TRUE(std::isnan(PCD_GetFloat32LE(&tck[offset + 48])));
  EXPECT_TRUE(std::isinf(PCD_GetFloat32LE(&tck[offset + 60])));

  const PcdIntSize4D size{10, 11, 12, 1};
  ASSERT_EQ(WriteTrkFile(r.buffer, &g, &size, dir.file("t.trk").c_str()), 0);
  const std::vector<uint8_t> trk = quorix_test::ReadFileBytes(dir.file("t.trk"));
  ASSERT_EQ(trk.size(), 1000u + 4 + 4 * 12);
  EXPECT_EQ(std::memcmp(trk.data(), "TRACK", 6), 0);
  EXPECT_EQ(trk[8], 11);                          // dim y
  EXPECT_EQ(PCD_GetFloat32LE(&trk[12]), 2.0f);    // voxel size x
  EXPECT_EQ(PCD_GetInt32LE(&trk[988]), 1);        // tracks
  EXPECT_EQ(PCD_GetInt32LE(&trk[996]), 1000);     // header size
  EXPECT_EQ(PCD_GetInt32LE(&trk[1000]), 4);       // points of the fiber
  EXPECT_EQ(PCD_GetFloat32LE(&trk[1004]), 5.0f);  // voxel mm from the corner: (2 + 0.5) * 2

  std::string out;
  if (quorix_test::RunCommand("command -v tckinfo >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "MRtrix3 is not installed";
  ASSERT_EQ(quorix_test::RunCommand("tckinfo -count " + dir.file("t.tck") + " 2>&1", &out), 0) << out;
  EXPECT_TRUE(quorix_test::HasLine(out, "actual count in file: 1")) << out;
}

}  // namespace
