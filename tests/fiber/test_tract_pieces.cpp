// Long results through the .tck writer, which writes a piece at a time: every float of a
// file several pieces long must be where the format puts it, and lines whose arrays were
// replaced after creation are still released correctly.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fiber/trakline.h"
#include "io/nifti_file.h"
#include "io/tract_file.h"

namespace {

std::vector<uint8_t> ReadAll(const std::string& path) {
  std::vector<uint8_t> bytes;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return bytes;
  int c;
  while ((c = std::fgetc(f)) != EOF) bytes.push_back(static_cast<uint8_t>(c));
  std::fclose(f);
  return bytes;
}

float FloatAt(const std::vector<uint8_t>& b, size_t at) {
  float v;
  std::memcpy(&v, &b[at], 4);  // the test machine is little-endian, as the format
  return v;
}

// A half-line of n nodes along x from the seed (1, 2, 3), x step s per node.
PcdTrakLineBuffer* Straight(int n, float s) {
  PcdTrakLineBuffer* l = new_trakline_buffer(n);
  for (int i = 0; i < n; ++i) {
    l->x[i] = 1.0f + s * static_cast<float>(i);
    l->y[i] = 2.0f;
    l->z[i] = 3.0f;
    l->L1[i] = l->L2[i] = l->L3[i] = 0.0f;
  }
  l->nodeCount = static_cast<int16_t>(n);
  return l;
}

TEST(TckPieces, FibersLongerThanAPieceLandWhereTheFormatPutsThem) {
  // three fibers of 2 x 3000 - 1 nodes, 72 KB each: every 64 KB piece boundary falls
  // inside a fiber, one inside a separator
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(3, nullptr, 3000);
  for (int i = 0; i < 3; ++i) {
    const PcdVector3D seed{1.0f, 2.0f, 3.0f};
    PcdTrakLinePair* pair = new_trakline_pair(&seed);
    pair->forward = Straight(3000, 0.5f);
    pair->backward = Straight(3000, -0.25f);
    pair->selection = i == 1 ? 0 : 1;  // the middle fiber is not selected: not written
    buffer->pairs[i] = pair;
  }
  buffer->lineCount = 3;
  PcdWorldGeometry g{};
  PCD_SetDefaultWorldGeometry(&g, 2.0f);
  g.voxelToWorld[0][3] = -10.0;
  const std::string path = testing::TempDir() + "pieces_" + std::to_string(getpid()) + ".tck";
  ASSERT_EQ(WriteTckFile(buffer, &g, path.c_str()), 0);
  const std::vector<uint8_t> tck = ReadAll(path);
  std::remove(path.c_str());
  const std::string head(tck.begin(), tck.begin() + 80);
  ASSERT_EQ(head.rfind("mrtrix tracks\ncount: 2\n", 0), 0u);
  const size_t offset = std::stoul(head.substr(head.find("file: . ") + 8));
  const size_t points = 2 * 3000 - 1;
  ASSERT_EQ(tck.size(), offset + 12 * (2 * (points + 1) + 1));
  for (int fiber = 0; fiber < 2; ++fiber) {
    const size_t first = offset + static_cast<size_t>(fiber) * 12 * (points + 1);
    for (size_t k = 0; k < points; ++k) {
      // forward nodes 2999 .. 1, then backward nodes 0 .. 2999; nodes are voxel index
      // coordinates (voxel i sampled at i): world x = x * 2 - 10
      const double x = k < 2999 ? 1.0 + 0.5 * static_cast<double>(2999 - k)
                                : 1.0 - 0.25 * static_cast<double>(k - 2999);
      ASSERT_EQ(FloatAt(tck, first + 12 * k), static_cast<float>(x * 2.0 - 10.0)) << fiber << " " << k;
      ASSERT_EQ(FloatAt(tck, first + 12 * k + 4), 4.0f);
      ASSERT_EQ(FloatAt(tck, first + 12 * k + 8), 6.0f);
    }
    for (int c = 0; c < 3; ++c) EXPECT_TRUE(std::isnan(FloatAt(tck, first + 12 * points + 4 * c)));
  }
  for (int c = 0; c < 3; ++c) EXPECT_TRUE(std::isinf(FloatAt(tck, tck.size() - 12 + 4 * c)));
  PCDdti_DeleteFibeTrakBuffer(buffer);
}

TEST(TckPieces, AFileThatCannotBeWrittenIsReported) {
  PcdFibeTrakBuffer* buffer = new_fibetrak_buffer(1, nullptr, 3000);
  const PcdVector3D seed{1.0f, 2.0f, 3.0f};
  buffer->pairs[0] = new_trakline_pair(&seed);
  buffer->pairs[0]->forward = Straight(3000, 0.5f);
  buffer->pairs[0]->backward = Straight(3000, -0.5f);
  buffer->pairs[0]->selection = 1;
  buffer->lineCount = 1;
  PcdWorldGeometry g{};
  PCD_SetDefaultWorldGeometry(&g, 1.0f);
  testing::internal::CaptureStderr();
  // a full device: the pieces fail to arrive
  EXPECT_EQ(WriteTckFile(buffer, &g, "/dev/full"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: cannot write /dev/full\n");
  PCDdti_DeleteFibeTrakBuffer(buffer);
}

TEST(TrakLineBlock, ArraysPutInAfterCreationAreReleasedWithTheLine) {
  // a line whose arrays live with the record; two of them replaced by arrays of the
  // caller's own, which the line then owns (under ASan: no leak, no bad free)
  PcdTrakLineBuffer* l = new_trakline_buffer(5);
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(l->capacity, 5);
  float* arrays[6] = {l->x, l->y, l->z, l->L1, l->L2, l->L3};
  for (int k = 0; k < 6; ++k)
    for (int i = 0; i < 5; ++i) arrays[k][i] = static_cast<float>(10 * k + i);
  // the six arrays do not overlap: every value is still there
  for (int k = 0; k < 6; ++k)
    for (int i = 0; i < 5; ++i) ASSERT_EQ(arrays[k][i], static_cast<float>(10 * k + i));
  l->y = static_cast<float*>(std::malloc(5 * sizeof(float)));
  l->L3 = static_cast<float*>(std::malloc(7 * sizeof(float)));
  l->nodeCount = 3;
  PcdTrakLineBuffer* packed = get_packed_trakline_buffer_of(l);
  EXPECT_EQ(packed->capacity, 3);
  EXPECT_EQ(packed->x[2], 2.0f);
  EXPECT_EQ(packed->L2[0], 40.0f);
  add_node_mark_to_trakline_buffer(packed);
  delete_trakline_buffer(packed);
  delete_trakline_buffer(l);
  // a line of no nodes still has room for one in each array
  PcdTrakLineBuffer* empty = new_trakline_buffer(0);
  empty->x[0] = empty->L3[0] = 1.0f;
  delete_trakline_buffer(empty);
}

TEST(TrakLineBlock, LinesMadeOnManyThreadsOutliveThemAndKeepTheirValues) {
  // enough lines to fill several of a thread's blocks of lines, made on three threads that
  // end before the lines are read and deleted, in an order of their own
  constexpr int kPerThread = 3000;
  std::vector<PcdTrakLineBuffer*> lines(3 * kPerThread);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&lines, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const int k = t * kPerThread + i;
        PcdTrakLineBuffer* l = new_trakline_buffer(1 + k % 200);
        for (int n = 0; n < l->capacity; ++n) l->x[n] = l->L3[n] = static_cast<float>(k);
        l->nodeCount = l->capacity;
        add_node_mark_to_trakline_buffer(l);
        l->markArrays[3][l->nodeCount - 1] = static_cast<int16_t>(k);
        lines[static_cast<size_t>(k)] = l;
      }
    });
  for (std::thread& t : threads) t.join();
  for (size_t step : {size_t{2}, size_t{1}}) {
    for (size_t k = step - 1; k < lines.size(); k += 2) {
      PcdTrakLineBuffer* l = lines[k];
      ASSERT_EQ(l->capacity, 1 + static_cast<int>(k) % 200);
      ASSERT_EQ(l->x[0], static_cast<float>(k));
      ASSERT_EQ(l->L3[l->capacity - 1], static_cast<float>(k));
      ASSERT_EQ(l->markArrays[3][l->nodeCount - 1], static_cast<int16_t>(k));
      delete_trakline_buffer(l);
    }
  }
}

}  // namespace
