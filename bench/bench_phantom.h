// A phantom DTI data set owned for the length of a benchmark.
#pragma once

#include <cstdlib>

#include "tools/phantom/phantom.h"

struct BenchPhantom {
  PcdDtiData* dti;
  explicit BenchPhantom(const PcdPhantomOptions& o) : dti(PCD_MakeDwiPhantom(o, nullptr)) {}
  BenchPhantom(const BenchPhantom&) = delete;
  BenchPhantom& operator=(const BenchPhantom&) = delete;
  ~BenchPhantom() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
};
