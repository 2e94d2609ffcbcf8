// Tracks land where other tools put the data: checked by nibabel (and MRtrix3's tckinfo
// when it is installed) in tck_world.py, against a matrix with shears and an origin.
#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"

TEST(BatchWorld, TheTckSeedAndEveryDumpNodeLieWhereTheVoxelToWorldMatrixPutsThem) {
  quorix_test::TempDir dir;
  std::string out;
  const int status = quorix_test::RunCommand("/usr/bin/python3 " + std::string(QUORIX_SOURCE_DIR) +
                                                 "/tests/tools/tck_world.py " +
                                                 quorix_test::BuiltProgram("quorix-batch") + " " +
                                                 dir.path().string() + " 2>&1",
                                             &out);
  if (status == 77) GTEST_SKIP() << "python3-nibabel is not installed";
  EXPECT_EQ(status, 0) << out;
}
