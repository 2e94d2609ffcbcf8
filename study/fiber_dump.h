// The fiber tracking dump file ("fibetrak_dump.txt"): every selected fiber end to end
// through its seed, positions in mm and eigenvalues x 1000.
#pragma once

#include <cstdio>

#include "fiber/trakline.h"

constexpr char kPcdFiberDumpDefaultName[] = "fibetrak_dump.txt";
// The interpolated field that a modeling run writes when asked to dump.
constexpr char kPcdModelDumpDefaultName[] = "fibemodel_dump.raw";

// Writes the dump of the selected pairs (selection word nonzero) to file and returns their
// number N. voxelSize scales the voxel coordinates to mm.
int PCDdti_DumpFibeTrakBuffer(const PcdFibeTrakBuffer* buffer, float voxelSize, FILE* file);
// The same into a new file; -1 when it cannot be written.
int PCDdti_DumpFibeTrakBufferToFile(const PcdFibeTrakBuffer* buffer, float voxelSize,
                                    const char* fileName);

// Calls visit(x, y, z, L1, L2, L3) for every node of a pair in dump order: the forward
// half-line from its last node down to node 1, then the backward one from the seed on.
template <typename Visit>
void PCD_ForEachFiberNode(const PcdTrakLinePair* pair, Visit visit) {
  const PcdTrakLineBuffer* f = pair->forward;
  const PcdTrakLineBuffer* b = pair->backward;
  for (int i = f->nodeCount - 1; i >= 1; --i) visit(f->x[i], f->y[i], f->z[i], f->L1[i], f->L2[i], f->L3[i]);
  for (int i = 0; i < b->nodeCount; ++i) visit(b->x[i], b->y[i], b->z[i], b->L1[i], b->L2[i], b->L3[i]);
}

// Node count of a fiber in dump order.
inline int PCD_FiberNodeCount(const PcdTrakLinePair* pair) {
  return pair->forward->nodeCount + pair->backward->nodeCount - 1;
}
