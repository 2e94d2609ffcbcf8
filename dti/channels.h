// The computed maps of a DTI data set: directional colour, FA x 1000, ADC x 10^6 and the
// isotropic DWI, appended to the data set's volume as four new channels. The volume is
// cut into slabs of whole slices, one per worker thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "dti/dti_data.h"
#include "dti/tensor.h"

// The work of one worker thread. Workers share nothing writable: each owns its slab of
// the outputs and its progress counter, which the monitor only reads.
struct PcdChannelWork {
  const PcdDtiData* dti = nullptr;
  int32_t sizeX = 0, sizeY = 0, sizeZ = 0;
  const int16_t* soSignal = nullptr;  // channel 0, x fastest
  uint32_t* colorOut = nullptr;
  int16_t* faOut = nullptr;
  int16_t* adcOut = nullptr;
  int16_t* isotropicOut = nullptr;
  int32_t firstSlice = 0, lastSlice = -1;  // inclusive
  std::atomic<int32_t> slicesDone{0};
  int32_t threadCount = 0;
  int32_t totalSlices = 0;
  int16_t threshold = 0;
  float bValue = 0.0f;
};

// Appends the four channels (colour, FA, ADC, isotropic) and returns 4; 0 when a
// temporary volume cannot be created (nothing is appended then).
int PCDdti_AddComputationalChannels(PcdDtiData* dti, int16_t threshold, int32_t maxThreads);

// Splits n objects over at most t threads: counts[0 .. t-1] receive the share of each
// thread (0 for unused ones) and the number of threads to start is returned.
int32_t distribute_objects_to_threads_optimally(int32_t n, int32_t t, int32_t* counts);

// Starts a worker thread running entry(argument) and keeps it in threads. A thread that
// cannot be created prints "Warning: thread creation err (%d)\n" and leaves its work
// undone; false then. Shared by every threaded analysis.
bool PCD_StartThread(std::vector<std::thread>* threads, void* (*entry)(void*), void* argument);

void* threaded_channel_computation(void* work);
void* check_completion_for_channel_computation(void* works);

void get_directional_color(const PcdDiffusionTensorData* record, uint32_t* red,
                           uint32_t* green, uint32_t* blue, uint32_t* alpha);

// A computed value as the maps store it: the float widened to double, truncated to 32
// bits as the processor does (out of range and NaN give 0x80000000), low 16 bits kept.
int16_t PCDdti_MapValueToSINT16(float value);
