#include "study/fiber_dump.h"

namespace {

const char* const kHeader[] = {
    "=========================<This is a dump file of fiber tracking result in Quorix-II. "
    "Format is below>========================\n\n",
    "\tN (number of total lines)\n",
    "\tM[1] (number of nodes in the 1st line)\n",
    "\tX\tY\tZ\tL1\tL2\tL3 (1st node position (mm) and tensor lambdas<x1000> in 1st line)\n",
    "\t\t\t\t\t:\n",
    "\tX\tY\tZ\tL1\tL2\tL3 (last node position and lambdas in 1st line)\n",
    "\t\t\t:\n",
    "\t\t\t:\n",
    "\tM[N] (number of nodes in the Nth(last) line)\n",
    "\tX\tY\tZ\tL1\tL2\tL3\n",
    "\t\t\t\t\t:\n",
    "\tX\tY\tZ\tL1\tL2\tL3 (last node position and lambdas of Nth line)\n\n",
    "================================================<Dump result is from "
    "here>================================================\n",
};

}  // namespace

int PCDdti_DumpFibeTrakBuffer(const PcdFibeTrakBuffer* buffer, float voxelSize, FILE* file) {
  for (const char* line : kHeader) std::fputs(line, file);
  int selected = 0;
  for (int32_t i = 0; i < buffer->lineCount; ++i)
    if (buffer->pairs[i]->selection != 0) ++selected;
  std::fprintf(file, "%d\n", selected);
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair->selection == 0) continue;
    std::fprintf(file, "%d\n", PCD_FiberNodeCount(pair));
    PCD_ForEachFiberNode(pair, [&](float x, float y, float z, float l1, float l2, float l3) {
      std::fprintf(file, "%3.2f\t%3.2f\t%3.2f\t%3.2f\t%3.2f\t%3.2f\n",
                   static_cast<double>(x * voxelSize), static_cast<double>(y * voxelSize),
                   static_cast<double>(z * voxelSize), static_cast<double>(l1 * 1000.0f),
                   static_cast<double>(l2 * 1000.0f), static_cast<double>(l3 * 1000.0f));
    });
  }
  return selected;
}

int PCDdti_DumpFibeTrakBufferToFile(const PcdFibeTrakBuffer* buffer, float voxelSize,
                                    const char* fileName) {
  FILE* file = std::fopen(fileName, "w");
  if (file == nullptr) return -1;
  const int n = PCDdti_DumpFibeTrakBuffer(buffer, voxelSize, file);
  return std::fclose(file) == 0 ? n : -1;
}
