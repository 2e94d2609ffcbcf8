#include "fiber/trakline.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <new>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "dti/channels.h"

namespace {

// The record, its six arrays and room for its four mark arrays are one allocation: a
// tracking run makes two lines per seed, and one block each instead of eleven saves most
// of the allocator's work. The arrays follow the record at fixed places, so a line can
// tell its own arrays from ones put in later (which are released one by one as before).
constexpr size_t kArraysStart = (sizeof(PcdTrakLineBuffer) + 15) / 16 * 16;

size_t Slots(const PcdTrakLineBuffer* line) {
  return static_cast<size_t>(line->capacity > 0 ? line->capacity : 1);
}

float* OwnArray(const PcdTrakLineBuffer* line, int k) {
  auto* base = reinterpret_cast<uint8_t*>(const_cast<PcdTrakLineBuffer*>(line)) + kArraysStart;
  return reinterpret_cast<float*>(base) + static_cast<size_t>(k) * Slots(line);
}

// Mark array s lives after the six float arrays; it holds capacity entries, which is
// never less than the node count it is made for.
int16_t* OwnMarks(const PcdTrakLineBuffer* line, int s) {
  return reinterpret_cast<int16_t*>(OwnArray(line, 6)) + static_cast<size_t>(s) * Slots(line);
}

// Lines come from slabs of one huge page each, a slab per thread at a time, instead of
// the allocator's heap: tracking makes two lines per seed on its worker threads, where
// the allocator grows its heaps a page at a time with a system call each, and every
// fresh page costs a fault of its own. Every line has a word before it naming its slab
// (null: the line came from malloc). A slab is unmapped when its last line is deleted
// and no thread takes lines from it any more. Under AddressSanitizer lines come from
// malloc, so that running past an array is still caught.
#if defined(__SANITIZE_ADDRESS__)
#define PCD_LINE_SLABS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PCD_LINE_SLABS 0
#endif
#endif
#ifndef PCD_LINE_SLABS
#define PCD_LINE_SLABS 1
#endif

constexpr size_t kLineHeader = 16;

struct LineSlab {
  std::atomic<int32_t> users;  // its lines, and 1 while it is a thread's current slab
  size_t used;                 // bytes handed out, written by its thread only
};

constexpr size_t kSlabBytes = size_t{2} << 20;

void ReleaseSlab(LineSlab* slab) {
  if (slab->users.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    slab->~LineSlab();
    munmap(slab, kSlabBytes);
  }
}

#if PCD_LINE_SLABS
LineSlab* NewSlab() {
  void* raw = mmap(nullptr, 2 * kSlabBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const auto start = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t aligned = (start + kSlabBytes - 1) / kSlabBytes * kSlabBytes;
  if (aligned > start) munmap(raw, aligned - start);
  if (start + 2 * kSlabBytes > aligned + kSlabBytes)
    munmap(reinterpret_cast<void*>(aligned + kSlabBytes), start + 2 * kSlabBytes - aligned - kSlabBytes);
#ifdef MADV_HUGEPAGE
  madvise(reinterpret_cast<void*>(aligned), kSlabBytes, MADV_HUGEPAGE);
#endif
  auto* slab = new (reinterpret_cast<void*>(aligned)) LineSlab;
  slab->users.store(1, std::memory_order_relaxed);
  slab->used = (sizeof(LineSlab) + 15) / 16 * 16;
  return slab;
}

struct CurrentSlab {
  LineSlab* slab = nullptr;
  ~CurrentSlab() {
    if (slab != nullptr) ReleaseSlab(slab);
  }
};
thread_local CurrentSlab currentSlab;
#endif

void* AllocateLine(size_t bytes) {
  const size_t need = (kLineHeader + bytes + 15) / 16 * 16;
#if PCD_LINE_SLABS
  if (need <= kSlabBytes / 8) {
    LineSlab*& slab = currentSlab.slab;
    if (slab == nullptr || slab->used + need > kSlabBytes) {
      if (slab != nullptr) ReleaseSlab(slab);
      slab = NewSlab();
    }
    if (slab != nullptr) {
      uint8_t* at = reinterpret_cast<uint8_t*>(slab) + slab->used;
      slab->used += need;
      slab->users.fetch_add(1, std::memory_order_relaxed);
      *reinterpret_cast<LineSlab**>(at) = slab;
      return at + kLineHeader;
    }
  }
#endif
  auto* at = static_cast<uint8_t*>(std::malloc(need));
  if (at == nullptr) return nullptr;
  *reinterpret_cast<LineSlab**>(at) = nullptr;
  return at + kLineHeader;
}

void FreeLine(void* line) {
  uint8_t* at = static_cast<uint8_t*>(line) - kLineHeader;
  LineSlab* slab = *reinterpret_cast<LineSlab**>(at);
  if (slab != nullptr)
    ReleaseSlab(slab);
  else
    std::free(at);
}

}  // namespace

PcdTrakLineBuffer* new_trakline_buffer(int capacity) {
  if (capacity > 32767) capacity = 32767;  // nodes are counted in 16 bits
  const size_t slots = static_cast<size_t>(capacity > 0 ? capacity : 1);
  auto* line = static_cast<PcdTrakLineBuffer*>(
      AllocateLine(kArraysStart + 6 * slots * sizeof(float) + kPcdMarkSlots * slots * sizeof(int16_t)));
  if (line == nullptr) return nullptr;
  line->nodeCount = 0;
  line->capacity = static_cast<int16_t>(capacity);
  for (int s = 0; s < kPcdMarkSlots; ++s) line->markArrays[s] = nullptr;
  float** arrays[6] = {&line->x, &line->y, &line->z, &line->L1, &line->L2, &line->L3};
  for (int k = 0; k < 6; ++k) *arrays[k] = OwnArray(line, k);
  return line;
}

void delete_trakline_buffer(PcdTrakLineBuffer* line) {
  if (line == nullptr) return;
  const float* arrays[6] = {line->x, line->y, line->z, line->L1, line->L2, line->L3};
  for (int k = 0; k < 6; ++k)
    if (arrays[k] != OwnArray(line, k)) std::free(const_cast<float*>(arrays[k]));
  for (int s = 0; s < kPcdMarkSlots; ++s)
    if (line->markArrays[s] != OwnMarks(line, s)) std::free(line->markArrays[s]);
  FreeLine(line);
}

PcdTrakLineBuffer* get_packed_trakline_buffer_of(const PcdTrakLineBuffer* work) {
  PcdTrakLineBuffer* line = new_trakline_buffer(work->nodeCount);
  if (line == nullptr) return nullptr;
  const auto n = static_cast<size_t>(work->nodeCount);
  line->nodeCount = work->nodeCount;
  std::memcpy(line->x, work->x, n * sizeof(float));
  std::memcpy(line->y, work->y, n * sizeof(float));
  std::memcpy(line->z, work->z, n * sizeof(float));
  std::memcpy(line->L1, work->L1, n * sizeof(float));
  std::memcpy(line->L2, work->L2, n * sizeof(float));
  std::memcpy(line->L3, work->L3, n * sizeof(float));
  return line;
}

void add_node_mark_to_trakline_buffer(PcdTrakLineBuffer* line) {
  // the room kept for them in the line's own block has capacity >= node count entries
  if (line->nodeCount <= line->capacity) {
    for (int s = 0; s < kPcdMarkSlots; ++s) {
      if (line->markArrays[s] != OwnMarks(line, s)) std::free(line->markArrays[s]);
      line->markArrays[s] = OwnMarks(line, s);
    }
    return;
  }
  const size_t n = static_cast<size_t>(line->nodeCount);
  bool failed = false;
  for (int s = 0; s < kPcdMarkSlots; ++s) {
    line->markArrays[s] = static_cast<int16_t*>(std::malloc(n * sizeof(int16_t)));
    failed = failed || line->markArrays[s] == nullptr;
  }
  if (!failed) return;
  for (int s = 0; s < kPcdMarkSlots; ++s) {
    std::free(line->markArrays[s]);
    line->markArrays[s] = nullptr;  // never leave a freed pointer behind
  }
}

PcdTrakLinePair* new_trakline_pair(const PcdVector3D* seed) {
  auto* pair = static_cast<PcdTrakLinePair*>(std::malloc(sizeof(PcdTrakLinePair)));
  if (pair == nullptr) return nullptr;
  pair->selection = 0;
  pair->application = 0;
  pair->seed = *seed;
  pair->forward = pair->backward = nullptr;
  return pair;
}

void delete_trakline_pair(PcdTrakLinePair* pair) {
  if (pair == nullptr) return;
  delete_trakline_buffer(pair->forward);
  delete_trakline_buffer(pair->backward);
  std::free(pair);
}

PcdFibeTrakBuffer* new_fibetrak_buffer(int seedCount, PcdVector3D* seedPoints, int nodeLimit) {
  auto* buffer = static_cast<PcdFibeTrakBuffer*>(std::malloc(sizeof(PcdFibeTrakBuffer)));
  if (buffer == nullptr) return nullptr;
  buffer->seedCount = seedCount;
  buffer->seedPoints = seedPoints;
  buffer->nodeLimit = nodeLimit;
  buffer->lineCount = 0;
  buffer->pairs = static_cast<PcdTrakLinePair**>(
      std::calloc(static_cast<size_t>(seedCount > 0 ? seedCount : 1), sizeof(PcdTrakLinePair*)));
  if (buffer->pairs == nullptr) return nullptr;
  return buffer;
}

// The pair array itself is released too: a buffer is only ever deleted whole.
void delete_fibetrak_buffer(PcdFibeTrakBuffer* buffer) {
  if (buffer == nullptr) return;
  for (int32_t i = 0; i < buffer->seedCount; ++i) delete_trakline_pair(buffer->pairs[i]);
  std::free(buffer->pairs);
  std::free(buffer);
}

void PCDdti_DeleteFibeTrakBuffer(PcdFibeTrakBuffer* buffer) { delete_fibetrak_buffer(buffer); }

void add_marks_to_fibetrak_buffer(PcdFibeTrakBuffer* buffer) {
  for (int32_t i = 0; i < buffer->seedCount; ++i) {
    PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair == nullptr) continue;
    if (pair->forward != nullptr) add_node_mark_to_trakline_buffer(pair->forward);
    if (pair->backward != nullptr) add_node_mark_to_trakline_buffer(pair->backward);
  }
}

void pack_fibetrak_buffer(PcdFibeTrakBuffer* buffer) {
  auto* packed = static_cast<PcdTrakLinePair**>(
      std::calloc(static_cast<size_t>(buffer->seedCount > 0 ? buffer->seedCount : 1),
                  sizeof(PcdTrakLinePair*)));
  if (packed == nullptr) {
    buffer->lineCount = 0;
    std::fputs("insufficient memory: pack_fibetrak_buffer()\n", stderr);
    return;
  }
  int32_t count = 0;
  for (int32_t i = 0; i < buffer->seedCount; ++i)
    if (buffer->pairs[i] != nullptr) packed[count++] = buffer->pairs[i];
  std::free(buffer->pairs);
  buffer->pairs = packed;
  buffer->lineCount = count;
}

namespace {

void ClearLineMark(PcdTrakLineBuffer* line, int slot) {
  if (line == nullptr) return;
  if (line->nodeCount > 0 && line->markArrays[slot] != nullptr)
    std::memset(line->markArrays[slot], 0, sizeof(int16_t) * static_cast<size_t>(line->nodeCount));
  line->markFlags[slot] = 0;
}

}  // namespace

void PCDdti_ClearMarkOfFibeTrakBuffer(PcdFibeTrakBuffer* buffer, int slot) {
  if (slot < 0 || slot >= kPcdMarkSlots) return;
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    ClearLineMark(buffer->pairs[i]->forward, slot);
    ClearLineMark(buffer->pairs[i]->backward, slot);
  }
}

// Only entry 0 of the node mark array is ever set: the mark belongs to the line.
void trakline_nodes_marking(PcdTrakLineBuffer* line, int slot, int16_t mask, PcdSegmentTest test) {
  if (line == nullptr || line->nodeCount < 1) return;
  PcdVector3D previous{line->x[0], line->y[0], line->z[0]};
  for (int i = 0; i < line->nodeCount; ++i) {
    PcdVector3D current{line->x[i], line->y[i], line->z[i]};
    if (test(&current, &previous) != 0) {
      if (line->markArrays[slot] != nullptr) line->markArrays[slot][0] |= mask;
      line->markFlags[slot] = static_cast<int16_t>(line->markFlags[slot] | mask);
      return;
    }
    previous = current;
  }
}

void* threaded_line_nodes_marking(void* argument) {
  auto* work = static_cast<PcdMarkingWork*>(argument);
  const auto mask = static_cast<int16_t>(1 << work->bit);
  for (int32_t i = work->first; i <= work->last; ++i) {
    PcdTrakLinePair* pair = work->buffer->pairs[i];
    trakline_nodes_marking(pair->forward, work->slot, mask, work->test);
    trakline_nodes_marking(pair->backward, work->slot, mask, work->test);
    work->done.store(i - work->first + 1, std::memory_order_relaxed);
  }
  return nullptr;
}

void PCDdti_TrakLineNodeMarking(PcdFibeTrakBuffer* buffer, int slot, int bit, int threads,
                                PcdSegmentTest test) {
  if (slot < 0 || slot >= kPcdMarkSlots || bit < 0 || bit > 15 || buffer->lineCount < 1) return;
  if (threads < 1) threads = 1;
  std::vector<int32_t> counts(static_cast<size_t>(threads));
  const int32_t used = distribute_objects_to_threads_optimally(buffer->lineCount, threads, counts.data());
  std::unique_ptr<PcdMarkingWork[]> works(new PcdMarkingWork[static_cast<size_t>(used)]);
  std::vector<std::thread> running;
  int32_t first = 0;
  for (int32_t t = 0; t < used; ++t) {
    PcdMarkingWork& w = works[t];
    w.buffer = buffer;
    w.first = first;
    w.last = first + counts[static_cast<size_t>(t)] - 1;
    w.slot = slot;
    w.bit = bit;
    w.threadCount = used;
    w.total = buffer->lineCount;
    w.test = test;
    first = w.last + 1;
    PCD_StartThread(&running, threaded_line_nodes_marking, &w);
  }
  for (std::thread& t : running) t.join();
}
