#include "tools/batch/batch_region.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "io/raw_volume_file.h"
#include "tools/batch/batch_input.h"
#include "vol/binary_volume.h"

namespace {

using OwnedVolume = std::unique_ptr<PcdRawVolumeData, PcdRawVolumeDataDeleter>;

// Voxel i of a monochrome channel as a double; packed colours as their 32-bit word.
double ValueAt(const PcdRawVolumeData* v, size_t i) {
  const void* block = v->data[0];
  auto load = [&](auto zero) {
    decltype(zero) value;
    std::memcpy(&value, static_cast<const uint8_t*>(block) + i * sizeof value, sizeof value);
    return static_cast<double>(value);
  };
  switch (v->dataType[0]) {
    case UINT8: return load(uint8_t{});
    case SINT8: return load(int8_t{});
    case UINT16: return load(uint16_t{});
    case SINT16: return load(int16_t{});
    case UINT32: return load(uint32_t{});
    case SINT32: return load(int32_t{});
    case FLOAT32: return load(float{});
    default: return load(double{});
  }
}

}  // namespace

PcdRawVolumeData* LoadBatchRegionMask(const std::string& path, const PcdIntSize4D& size,
                                      std::optional<long long> label) {
  std::string info;
  PcdWorldGeometry geometry{};
  OwnedVolume mask(PCD_IsNiftiFile(path.c_str())
                       ? ReadNiftiVolumeFile(path.c_str(), &geometry, &info)
                       : ReadRawVolumeFile(path.c_str(), &info));
  if (!mask) {
    std::fprintf(stderr, "Err: cannot read the mask %s\n", path.c_str());
    return nullptr;
  }
  const PcdIntSize4D& m = *mask->matrixSize;
  if (m.channels != 1) {
    std::fprintf(stderr, "Err: the mask %s has %d channels; a mask has one\n", path.c_str(),
                 m.channels);
    return nullptr;
  }
  if (m.x != size.x || m.y != size.y || m.z != size.z) {
    std::fprintf(stderr, "Err: the mask %s is %d x %d x %d, the data set %d x %d x %d\n",
                 path.c_str(), m.x, m.y, m.z, size.x, size.y, size.z);
    return nullptr;
  }
  if (!label && PCD_IsBinaryChannel(mask.get(), 0) != 1) {
    std::fprintf(stderr,
                 "Err: the mask %s is not binary (every voxel 0 or 1); pick one value of an "
                 "atlas with --label N\n",
                 path.c_str());
    return nullptr;
  }
  const PcdIntSize3D s{m.x, m.y, m.z};
  PcdRawVolumeData* region = PCD_NewSingleChannelRawVolumeData(&s, UINT8, PCD_MONOCHROME);
  if (region == nullptr) {
    std::fputs("Err: not enough memory for the mask\n", stderr);
    return nullptr;
  }
  const double wanted = label ? static_cast<double>(*label) : 1.0;
  auto* out = static_cast<uint8_t*>(region->data[0]);
  const auto n = static_cast<size_t>(PCD_GetNumberOfVoxels(region));
  for (size_t i = 0; i < n; ++i) out[i] = ValueAt(mask.get(), i) == wanted ? 1 : 0;
  return region;
}

bool IsBatchRegionName(const std::string& path) {
  return BatchEndsWith(path, ".nii") || BatchEndsWith(path, ".nii.gz") ||
         BatchEndsWith(path, ".raw");
}

int WriteBatchRegion(const PcdRawVolumeData* region, const PcdWorldGeometry* geometry,
                     const std::string& path) {
  if (BatchEndsWith(path, ".raw")) {
    if (WriteRawVolumeFile(region, path.c_str()) == 0) return 0;
    std::fprintf(stderr, "Err: cannot write %s\n", path.c_str());
    return -1;
  }
  const int32_t channel = 0;
  return WriteNiftiChannels(region, &channel, 1, geometry, path.c_str());
}

bool BatchParseSeedBox(const std::string& text, const PcdIntSize4D& size, std::vector<PcdIntVector3D>* out) {
  int b[6];
  char tail = 0;
  if (std::sscanf(text.c_str(), "%d,%d,%d,%d,%d,%d%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &tail) != 6 ||
      b[0] < 0 || b[1] < 0 || b[2] < 0 || b[3] >= size.x || b[4] >= size.y || b[5] >= size.z ||
      b[0] > b[3] || b[1] > b[4] || b[2] > b[5]) {
    std::fprintf(stderr, "Err: --seed-box takes X0,Y0,Z0,X1,Y1,Z1 inside the %d x %d x %d matrix\n",
                 size.x, size.y, size.z);
    return false;
  }
  for (int z = b[2]; z <= b[5]; ++z)
    for (int y = b[1]; y <= b[4]; ++y)
      for (int x = b[0]; x <= b[3]; ++x) out->push_back({x, y, z});
  return true;
}

int32_t BatchDefaultThreads() {
  const unsigned cores = std::thread::hardware_concurrency();
  return cores == 0 ? 1 : static_cast<int32_t>(cores);
}
