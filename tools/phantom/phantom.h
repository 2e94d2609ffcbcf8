// A synthetic DWI data set with known tensors, for tests, benchmarks and demonstrations:
// a head-shaped So, isotropic tissue, and straight, crossing and curved fiber bundles
// with FA about 0.7. Everything is deterministic for a given set of options.
#pragma once

#include <cstdint>
#include <vector>

#include "dti/dti_data.h"

struct PcdPhantomOptions {
  int32_t sizeX = 64, sizeY = 64, sizeZ = 24;
  int32_t soCount = 1;
  int32_t directions = 30;  // 6 .. 129, from the default direction table
  float bValue = 1000.0f;
  float noise = 0.0f;       // Rician noise sigma as a fraction of the tissue So
  uint32_t seed = 1;
  // one more straight bundle, along (1, 0, 1) in the xz-plane beside the crossing: the
  // other bundles lie in the xy-plane, where a flipped z axis of the MPG setting changes
  // no tensor, so a gradient-table check needs this one to see that flip
  bool oblique = false;
};

// The true values of every voxel (x fastest): FA, ADC (mm^2/s) and the principal
// direction (zero outside the head and where no single direction exists).
struct PcdPhantomTruth {
  std::vector<float> fa, adc;
  std::vector<PcdVector3D> direction;
};

// A new ready DTI record with its volume (free the volume with PCD_DeleteRawVolumeData,
// then the record with std::free), or null with an "Err: " line for bad options.
// truth, when given, receives the true maps.
PcdDtiData* PCD_MakeDwiPhantom(const PcdPhantomOptions& options, PcdPhantomTruth* truth);
