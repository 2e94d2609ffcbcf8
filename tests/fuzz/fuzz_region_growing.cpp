// The serialized core of a region growing context (80 bytes, as ROI files and work
// sessions carry it), followed by the bytes of a seed mask, run on a small noisy phantom.
// Any core must read back into the same bytes, grow without reading outside the volume,
// leave a region of 0 and 1 (or the mask untouched when refused), and give the same
// region whether each voxel is estimated once or every time it is looked at.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dti/region_growing.h"
#include "fuzz/fuzz_support.h"
#include "tools/phantom/phantom.h"
#include "vol/raw_volume.h"

namespace {

constexpr int kX = 7, kY = 6, kZ = 5;

const PcdDtiData* Phantom() {
  static const PcdDtiData* dti = [] {
    PcdPhantomOptions o;
    o.sizeX = kX, o.sizeY = kY, o.sizeZ = kZ, o.directions = 6, o.noise = 0.05f;
    return PCD_MakeDwiPhantom(o, nullptr);
  }();
  return dti;
}

struct MaskVolume {
  PcdRawVolumeData* v;
  MaskVolume() {
    const PcdIntSize3D s{kX, kY, kZ};
    v = PCD_NewSingleChannelRawVolumeData(&s, UINT8, PCD_MONOCHROME);
  }
  ~MaskVolume() { PCD_DeleteRawVolumeData(v); }
  uint8_t* bytes() const { return static_cast<uint8_t*>(v->data[0]); }
};

constexpr size_t kVoxels = static_cast<size_t>(kX) * kY * kZ;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t core = PCDdti_GetSerializedSizeOfRegionGrowingContextCore();
  if (size < core) return 0;
  PcdDtiRegionGrowingContext c;
  PCDdti_GetRegionGrowingContextCoreFromSerializedData(&c, data);
  uint8_t again[80];
  PCDdti_SerializeRegionGrowingContextCore(&c, again);
  if (std::memcmp(again, data, core) != 0) std::abort();

  const PcdDtiData* dti = Phantom();
  if (dti == nullptr) return 0;
  MaskVolume fast, plain;
  for (size_t i = 0; i < kVoxels; ++i)
    fast.bytes()[i] = size > core ? data[core + i % (size - core)] : (i == kVoxels / 2 ? 1 : 0);
  std::memcpy(plain.bytes(), fast.bytes(), kVoxels);
  const std::vector<uint8_t> before(fast.bytes(), fast.bytes() + kVoxels);

  PcdDtiRegionGrowingContext other = c;
  c.mask = fast.v;
  other.mask = plain.v;
  PCDdti_RegionGrowing(dti, &c);
  PCDdti_RegionGrowingVoxelByVoxel(dti, &other);
  if (std::memcmp(fast.bytes(), plain.bytes(), kVoxels) != 0) std::abort();
  if (std::memcmp(&c.regionDirection, &other.regionDirection, sizeof(PcdVector3D)) != 0)
    std::abort();
  const bool changed = std::memcmp(fast.bytes(), before.data(), kVoxels) != 0;
  if (changed) {
    for (size_t i = 0; i < kVoxels; ++i)
      if (fast.bytes()[i] > 1) std::abort();
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdDtiRegionGrowingContext tensor;
  tensor.mode = kPcdGrowByTensorProperty;
  tensor.tensorCriteria[kPcdGrowingFAminWord] = 0.2f;
  tensor.tensorCriteria[kPcdGrowingAngleMaxWord] = 30.0f;
  tensor.generationLimit = 10;
  tensor.lowerBound = 1.0f;
  tensor.upperBound = 10000.0f;
  PcdDtiRegionGrowingContext grey = tensor;
  grey.mode = kPcdGrowBySingleSignal;
  grey.channel = 0;
  grey.generationLimit = 300;
  const PcdDtiRegionGrowingContext* contexts[2] = {&tensor, &grey};
  const char* names[2] = {"tensor.bin", "grey.bin"};
  for (int k = 0; k < 2; ++k) {
    std::vector<uint8_t> bytes(PCDdti_GetSerializedSizeOfRegionGrowingContextCore());
    PCDdti_SerializeRegionGrowingContextCore(contexts[k], bytes.data());
    // a mask with a few seeds in the middle of the volume
    std::vector<uint8_t> mask(kVoxels, 0);
    for (size_t i = kVoxels / 2 - 3; i < kVoxels / 2 + 3; ++i) mask[i] = 1;
    bytes.insert(bytes.end(), mask.begin(), mask.end());
    PCDfuzz_WriteFile(dir, names[k], bytes);
  }
}
