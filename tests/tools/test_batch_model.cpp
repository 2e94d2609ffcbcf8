// quorix-batch model end to end: the built program on files it writes itself.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "io/raw_volume_file.h"
#include "support/test_support.h"

namespace {

using quorix_test::ReadFileBytes;
using quorix_test::RunCommand;
using quorix_test::TempDir;

std::string Batch(const std::string& arguments) { return quorix_test::BatchCommandLine(arguments); }

// A one-byte mask of the phantom's matrix: 1 in the box, 0 elsewhere.
void WriteBoxMask(const std::string& path, int x0, int y0, int z0, int x1, int y1, int z1, int sx = 32) {
  const PcdIntSize3D size{sx, 32, 12};
  PcdRawVolumeData* v = PCD_NewSingleChannelRawVolumeData(&size, UINT8, PCD_MONOCHROME);
  auto* bytes = static_cast<uint8_t*>(v->data[0]);
  for (int z = z0; z <= z1; ++z)
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) bytes[(z * 32 + y) * sx + x] = 1;
  ASSERT_EQ(WriteRawVolumeFile(v, path.c_str()), 0);
  PCD_DeleteRawVolumeData(v);
}

TEST(BatchModel, ModelsFromAControlMaskAndDumpsTheFieldTheSameForAnyThreadCount) {
  TempDir dir;
  const std::string stem = dir.file("ph");
  std::string out;
  ASSERT_EQ(RunCommand(Batch("phantom --size 32,32,12 --format raw --no-truth -o " + stem), &out), 0) << out;
  WriteBoxMask(dir.file("control.raw"), 4, 14, 4, 27, 17, 7);
  std::vector<uint8_t> firstField;
  std::string firstDump;
  for (const char* threads : {"1", "2"}) {
    const std::string field = dir.file(std::string("f") + threads + ".raw");
    const std::string dump = dir.file(std::string("d") + threads + ".txt");
    ASSERT_EQ(RunCommand(Batch("model " + stem + ".raw --control-mask " + dir.file("control.raw") +
                               " --seed-box 10,15,5,12,16,6 --seeds-per-voxel 2 --threads " + threads +
                               " --field-dump " + field + " --dump " + dump),
                         &out), 0) << out;
    EXPECT_TRUE(quorix_test::HasLine(out, "Seed Points:   24\n")) << out;
    EXPECT_TRUE(quorix_test::HasLine(out, "Tracked Lines:   24\n")) << out;
    EXPECT_TRUE(quorix_test::HasLine(out, ">>>>>>>>>>>> 384 control tensors (pitch:1)<<<<<<<<<<<<<\n")) << out;
    const std::vector<uint8_t> bytes = ReadFileBytes(field);
    EXPECT_EQ(bytes.size(), 32u * 32u * 12u * 7u * 2u);
    if (firstField.empty()) {
      firstField = bytes;
      firstDump = quorix_test::ReadFileText(dump);
    }
    EXPECT_EQ(bytes, firstField) << threads;
    EXPECT_EQ(quorix_test::ReadFileText(dump), firstDump) << threads;
  }
  EXPECT_EQ(RunCommand(Batch("model --help"), &out), 0);
  EXPECT_EQ(out.rfind("Usage: quorix-batch model ", 0), 0u);
  EXPECT_EQ(RunCommand(Batch("model " + stem + ".raw --control-mask " + dir.file("control.raw")), &out), 2);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: model: needs exactly one of --seed-mask and --seed-box")) << out;
  WriteBoxMask(dir.file("wide.raw"), 0, 0, 0, 1, 1, 1, 40);
  EXPECT_EQ(RunCommand(Batch("model " + stem + ".raw --control-mask " + dir.file("wide.raw") + " --seed-box 1,1,1,2,2,2"),
                       &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Err: the control mask is 40 x 32 x 12, the data set 32 x 32 x 12")) << out;
  // no control voxel: no field, status 1
  WriteBoxMask(dir.file("none.raw"), 0, 0, 0, -1, -1, -1);
  EXPECT_EQ(RunCommand(Batch("model " + stem + ".raw --control-mask " + dir.file("none.raw") + " --seed-box 1,1,1,2,2,2"),
                       &out), 1);
  EXPECT_TRUE(quorix_test::HasLine(out, "Control voxel NOT found\nWARNING: Tensor field is NOT created\n")) << out;
}

}  // namespace
