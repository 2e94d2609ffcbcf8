#include "study/modeling_controls.h"

#include <algorithm>
#include <cstdio>

int32_t PCD_OtsuThreshold(const int16_t* values, size_t count) {
  if (values == nullptr || count == 0) return 0;
  std::vector<int64_t> histogram(65536, 0);
  int32_t lo = 32767, hi = -32768;
  for (size_t i = 0; i < count; ++i) {
    ++histogram[static_cast<size_t>(values[i] + 32768)];
    lo = std::min<int32_t>(lo, values[i]);
    hi = std::max<int32_t>(hi, values[i]);
  }
  if (lo == hi) return lo - 1;
  double total = 0.0;
  for (int32_t v = lo; v <= hi; ++v) total += static_cast<double>(v) * histogram[static_cast<size_t>(v + 32768)];
  const double n = static_cast<double>(count);
  double below = 0.0, belowSum = 0.0, best = -1.0;
  int32_t threshold = lo;
  for (int32_t t = lo; t < hi; ++t) {
    const auto h = static_cast<double>(histogram[static_cast<size_t>(t + 32768)]);
    below += h;
    belowSum += h * t;
    if (below == 0.0 || below == n) continue;
    const double mean0 = belowSum / below, mean1 = (total - belowSum) / (n - below);
    const double between = below / n * ((n - below) / n) * (mean0 - mean1) * (mean0 - mean1);
    if (between > best) {  // strictly: the smallest t of a tie
      best = between;
      threshold = t;
    }
  }
  return threshold;
}

std::vector<uint8_t> PCD_GetHeadMask(const PcdDtiData* dti) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const size_t voxels = static_cast<size_t>(s.x) * static_cast<size_t>(s.y) * static_cast<size_t>(s.z);
  const auto* so = static_cast<const int16_t*>(dti->volume->data[0]);
  const int32_t t = PCD_OtsuThreshold(so, voxels);
  std::vector<uint8_t> head(voxels);
  for (size_t i = 0; i < voxels; ++i) head[i] = so[i] > t ? 1 : 0;
  return head;
}

std::vector<uint8_t> PCD_DilateMask(const std::vector<uint8_t>& mask, const PcdIntSize3D& size, int radius) {
  const int64_t n[3] = {size.x, size.y, size.z};
  const int64_t stride[3] = {1, size.x, int64_t{size.x} * size.y};
  std::vector<uint8_t> in = mask, out(mask.size(), 0);
  // a cube is three passes of a line: along x, then y, then z
  for (int axis = 0; axis < 3; ++axis) {
    std::fill(out.begin(), out.end(), 0);
    for (int64_t z = 0; z < n[2]; ++z)
      for (int64_t y = 0; y < n[1]; ++y)
        for (int64_t x = 0; x < n[0]; ++x) {
          const int64_t at = x + n[0] * (y + n[1] * z);
          if (in[static_cast<size_t>(at)] == 0) continue;
          const int64_t c[3] = {x, y, z};
          const int64_t from = std::max<int64_t>(c[axis] - radius, 0) - c[axis];
          const int64_t to = std::min<int64_t>(c[axis] + radius, n[axis] - 1) - c[axis];
          for (int64_t d = from; d <= to; ++d) out[static_cast<size_t>(at + d * stride[axis])] = 1;
        }
    in.swap(out);
  }
  return in;
}

std::vector<uint8_t> PCD_MaskOfPoints(const std::vector<PcdVector3D>& points, const PcdIntSize3D& size) {
  std::vector<uint8_t> mask(static_cast<size_t>(std::max(size.x, 0)) * std::max(size.y, 0) * std::max(size.z, 0), 0);
  size_t at = 0;
  for (const PcdVector3D& p : points)
    if (PCDdti_VoxelIndexOfPoint(p.x, p.y, p.z, size, &at)) mask[at] = 1;
  return mask;
}

PcdRawVolumeData* PCD_NewBoundedModelingControlVolume(const PcdDtiData* dti,
                                                      const PcdDiffusionTensorLimits* limits,
                                                      const std::vector<uint8_t>& near) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdIntSize3D size{s.x, s.y, s.z};
  const size_t voxels = static_cast<size_t>(s.x) * static_cast<size_t>(s.y) * static_cast<size_t>(s.z);
  if (near.size() != voxels) {
    std::fputs("Err: the seed and target regions do not have the size of the volume\n", stderr);
    return nullptr;
  }
  PcdRawVolumeData* controls = PCD_NewModelingControlVolume(dti, limits);
  if (controls == nullptr) return nullptr;
  const std::vector<uint8_t> head = PCD_GetHeadMask(dti);
  const std::vector<uint8_t> around = PCD_DilateMask(near, size, kPcdModelingNeighbourhood);
  auto* bytes = static_cast<uint8_t*>(controls->data[0]);
  for (size_t i = 0; i < voxels; ++i) bytes[i] = bytes[i] != 0 && head[i] != 0 && around[i] != 0 ? 1 : 0;
  return controls;
}

PcdRawVolumeData* PCD_NewModelingControlVolume(const PcdDtiData* dti,
                                               const PcdDiffusionTensorLimits* limits) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdIntSize3D size{s.x, s.y, s.z};
  PcdRawVolumeData* controls = PCD_NewSingleChannelRawVolumeData(&size, UINT8, PCD_MONOCHROME);
  PcdDiffusionTensorData* record = PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount);
  if (controls == nullptr || record == nullptr) {
    std::fputs("insufficient memory\n", stderr);
    PCD_DeleteRawVolumeData(controls);
    PCDdti_DeleteDiffusionTensorData(record);
    return nullptr;
  }
  auto* bytes = static_cast<uint8_t*>(controls->data[0]);
  size_t at = 0;
  for (int32_t z = 0; z < s.z; ++z)
    for (int32_t y = 0; y < s.y; ++y)
      for (int32_t x = 0; x < s.x; ++x, ++at) {
        const PcdIntVector3D voxel{x, y, z};
        bytes[at] = 0;
        if (PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti, record, &voxel) == 0 ||
            PCDdti_CheckDiffusionTensorIsValid(record) != 1)
          continue;
        const float fa = PCDdti_GetFA(record), adc = PCDdti_GetADC(record), so = PCDdti_GetSo(record);
        const bool pass = !(limits->useFAmin == 1 && fa < limits->FAmin) &&
                          !(limits->useADCmax == 1 && adc > limits->ADCmax) &&
                          !(limits->useSoMin == 1 && so < limits->SoMin) &&
                          !(limits->useSoMax == 1 && so > limits->SoMax);
        bytes[at] = pass ? 1 : 0;
      }
  PCDdti_DeleteDiffusionTensorData(record);
  return controls;
}
