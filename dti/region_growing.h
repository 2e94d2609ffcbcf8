// Region growing: a seed mask grows, generation by generation, into the face neighbours
// that pass a criterion: a signal range on one channel (grey growing) or tensor
// similarity, an FA minimum and an angle between principal directions (tensor growing).
// The region replaces the mask in place; everything runs on the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dti/dti_data.h"
#include "vol/raw_volume.h"

// Growing modes: distinct codes, never small indexes.
constexpr int32_t kPcdGrowBySingleSignal = 345;
constexpr int32_t kPcdGrowByTensorProperty = 654;

// Words of the tensor criteria block that growing reads; the other words belong to the
// caller, which fills them, and are carried along unread.
constexpr int kPcdGrowingFAminWord = 1;
constexpr int kPcdGrowingAngleMaxWord = 13;

// The core of the context: mode, criteria, generation limit, channel and bounds. It is
// also what a ROI object keeps of its growing settings, and its serialized form is 80
// little-endian bytes in field order: offset 0 mode, 4 the 60-byte criteria block, 64
// generation limit, 68 channel, 72 lower and 76 upper bound.
struct PcdDtiRegionGrowingCore {
  int32_t mode = 0;  // 345 grey growing, 654 tensor growing, anything else: nothing happens
  float tensorCriteria[15] = {};  // FA minimum in word 1, angle maximum (degrees) in word 13
  int32_t generationLimit = 0;    // the last generation that is grown from
  int32_t channel = 0;            // channel of the volume for grey growing
  float lowerBound = 0.0f, upperBound = 0.0f;  // signal range of grey growing, inclusive
};
constexpr size_t kPcdRegionGrowingCoreSize = 80;
static_assert(sizeof(PcdDtiRegionGrowingCore) == kPcdRegionGrowingCoreSize,
              "the core is its own serialized layout");

// The core followed by what one growing run works on; the mask and the direction are not
// serialized.
struct PcdDtiRegionGrowingContext : PcdDtiRegionGrowingCore {
  // Seed mask on entry, region on return: channel 0, one unsigned byte a voxel, the data
  // set's x, y and z. While growing a voxel holds 0 (outside) or its generation (seeds
  // are 1), kept in 8 bits: a run of more than 254 generations wraps.
  PcdRawVolumeData* mask = nullptr;
  PcdVector3D regionDirection = {0.0f, 0.0f, 0.0f};  // tensor growing: unit sum of the e1
};

size_t PCDdti_GetSerializedSizeOfRegionGrowingContextCore();
void PCDdti_SerializeRegionGrowingContextCore(const PcdDtiRegionGrowingCore* context,
                                              uint8_t* buffer);
void PCDdti_GetRegionGrowingContextCoreFromSerializedData(PcdDtiRegionGrowingCore* context,
                                                          const uint8_t* buffer);

// Grows the context's mask by its mode. Seeds are the mask voxels of value 1; seeds that
// fail the criterion are pruned first. Neighbours are examined in the order +x, +y, +z,
// -x, -y, -z, and the outermost layer of the volume is never grown into. Console lines:
// "Range: L - H" (grey), "seed voxel count (grey|tensor) = N", "Growing stopped G/LIMIT"
// when a generation adds nothing. A context, data set or mask that does not fit is
// refused with one "Err: " line and the mask stays as it was. Grey growing reads only its
// channel (a signed 16-bit channel of the volume) and needs no MPG setting.
void PCDdti_RegionGrowing(const PcdDtiData* dti, PcdDtiRegionGrowingContext* context);

// Tensor growing estimating the same voxel again each time it is looked at, one voxel
// after another through the record; kept to show that PCDdti_RegionGrowing, which
// estimates each voxel once, gives the same region and direction.
void PCDdti_RegionGrowingVoxelByVoxel(const PcdDtiData* dti, PcdDtiRegionGrowingContext* context);
