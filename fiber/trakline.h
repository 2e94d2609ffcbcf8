// The result of a fiber tracking run: per seed a pair of half-lines (forward along the
// principal direction, backward against it), each a list of nodes with position and
// eigenvalues, plus per-line mark bits telling which ROI tests a line met.
#pragma once

#include <atomic>
#include <cstdint>

#include "vol/raw_volume.h"

constexpr int kPcdMarkSlots = 4;

struct PcdTrakLineBuffer {
  int16_t nodeCount = 0;
  int16_t capacity = 0;
  float* x = nullptr;
  float* y = nullptr;
  float* z = nullptr;
  float* L1 = nullptr;  // largest eigenvalue at the node
  float* L2 = nullptr;
  float* L3 = nullptr;  // smallest
  int16_t markFlags[kPcdMarkSlots];              // bit b: hit by the ROI test of bit b
  int16_t* markArrays[kPcdMarkSlots] = {};       // node-count entries each, or null
};

struct PcdTrakLinePair {
  int32_t selection;    // set by the application: nonzero = shown and dumped
  int32_t application;  // the application's own word
  PcdVector3D seed;
  PcdTrakLineBuffer* forward = nullptr;
  PcdTrakLineBuffer* backward = nullptr;
};

struct PcdFibeTrakBuffer {
  int32_t seedCount = 0;
  PcdVector3D* seedPoints = nullptr;  // not owned
  int32_t nodeLimit = 0;
  int32_t lineCount = 0;              // pairs in use after packing
  PcdTrakLinePair** pairs = nullptr;  // seedCount slots
};

PcdTrakLineBuffer* new_trakline_buffer(int capacity);
void delete_trakline_buffer(PcdTrakLineBuffer* line);
PcdTrakLineBuffer* get_packed_trakline_buffer_of(const PcdTrakLineBuffer* work);
void add_node_mark_to_trakline_buffer(PcdTrakLineBuffer* line);

PcdTrakLinePair* new_trakline_pair(const PcdVector3D* seed);
void delete_trakline_pair(PcdTrakLinePair* pair);

PcdFibeTrakBuffer* new_fibetrak_buffer(int seedCount, PcdVector3D* seedPoints, int nodeLimit);
void delete_fibetrak_buffer(PcdFibeTrakBuffer* buffer);
void add_marks_to_fibetrak_buffer(PcdFibeTrakBuffer* buffer);
void pack_fibetrak_buffer(PcdFibeTrakBuffer* buffer);

void PCDdti_DeleteFibeTrakBuffer(PcdFibeTrakBuffer* buffer);
void PCDdti_ClearMarkOfFibeTrakBuffer(PcdFibeTrakBuffer* buffer, int slot);

// The segment test: current node, previous node; nonzero = the line meets the ROI.
using PcdSegmentTest = int (*)(PcdVector3D* current, PcdVector3D* previous);
void PCDdti_TrakLineNodeMarking(PcdFibeTrakBuffer* buffer, int slot, int bit, int threads,
                                PcdSegmentTest test);

// Marks one line: at the first segment the test accepts, mask goes into entry 0 of mark
// array slot and into the slot's flag word.
void trakline_nodes_marking(PcdTrakLineBuffer* line, int slot, int16_t mask, PcdSegmentTest test);

struct PcdMarkingWork {
  PcdFibeTrakBuffer* buffer = nullptr;
  int32_t first = 0, last = -1;  // pair indices, inclusive
  int slot = 0, bit = 0;
  std::atomic<int32_t> done{0};
  int32_t threadCount = 0, total = 0;
  PcdSegmentTest test = nullptr;
};
void* threaded_line_nodes_marking(void* work);
