#include "dti/region_growing.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "dti/dti_check.h"
#include "dti/tensor.h"
#include "vol/binary_volume.h"

// ---- the serialized core -------------------------------------------------------------

namespace {

void PutWord(uint8_t* at, uint32_t w) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(w >> (8 * i));
}
uint32_t GetWord(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 |
         static_cast<uint32_t>(at[2]) << 16 | static_cast<uint32_t>(at[3]) << 24;
}
template <typename T>
uint32_t BitsOf(T value) {
  static_assert(sizeof(T) == 4);
  uint32_t w;
  std::memcpy(&w, &value, 4);
  return w;
}
template <typename T>
T FromBits(uint32_t w) {
  T value;
  std::memcpy(&value, &w, 4);
  return value;
}

}  // namespace

size_t PCDdti_GetSerializedSizeOfRegionGrowingContextCore() { return kPcdRegionGrowingCoreSize; }

void PCDdti_SerializeRegionGrowingContextCore(const PcdDtiRegionGrowingCore* c,
                                              uint8_t* buffer) {
  PutWord(buffer, BitsOf(c->mode));
  for (int i = 0; i < 15; ++i) PutWord(buffer + 4 + 4 * i, BitsOf(c->tensorCriteria[i]));
  PutWord(buffer + 64, BitsOf(c->generationLimit));
  PutWord(buffer + 68, BitsOf(c->channel));
  PutWord(buffer + 72, BitsOf(c->lowerBound));
  PutWord(buffer + 76, BitsOf(c->upperBound));
}

void PCDdti_GetRegionGrowingContextCoreFromSerializedData(PcdDtiRegionGrowingCore* c,
                                                          const uint8_t* buffer) {
  c->mode = FromBits<int32_t>(GetWord(buffer));
  for (int i = 0; i < 15; ++i) c->tensorCriteria[i] = FromBits<float>(GetWord(buffer + 4 + 4 * i));
  c->generationLimit = FromBits<int32_t>(GetWord(buffer + 64));
  c->channel = FromBits<int32_t>(GetWord(buffer + 68));
  c->lowerBound = FromBits<float>(GetWord(buffer + 72));
  c->upperBound = FromBits<float>(GetWord(buffer + 76));
}

// ---- growing -------------------------------------------------------------------------

namespace {

// The mask while it grows, and the geometry both modes share.
struct Grid {
  int32_t nx, ny, nz;
  uint8_t* mask;
  size_t Voxels() const {
    return static_cast<size_t>(nx) * static_cast<size_t>(ny) * static_cast<size_t>(nz);
  }
};

// Face neighbours in the order they are examined: +x, +y, +z, -x, -y, -z.
constexpr int kDx[6] = {1, 0, 0, -1, 0, 0};
constexpr int kDy[6] = {0, 1, 0, 0, -1, 0};
constexpr int kDz[6] = {0, 0, 1, 0, 0, -1};

// Neighbour k of voxel (x, y, z) at index at, when it lies inside the outermost layer
// (which is never grown into); false otherwise.
bool InnerNeighbour(const Grid& g, int32_t x, int32_t y, int32_t z, size_t at, int k, size_t* n) {
  const int32_t X = x + kDx[k], Y = y + kDy[k], Z = z + kDz[k];
  if (X < 1 || X >= g.nx - 1 || Y < 1 || Y >= g.ny - 1 || Z < 1 || Z >= g.nz - 1) return false;
  const auto sx = static_cast<ptrdiff_t>(1), sy = static_cast<ptrdiff_t>(g.nx),
             sz = sy * static_cast<ptrdiff_t>(g.ny);
  *n = static_cast<size_t>(static_cast<ptrdiff_t>(at) + kDx[k] * sx + kDy[k] * sy + kDz[k] * sz);
  return true;
}

// Calls visit(index, x, y, z) for every voxel whose mask value is value, z outermost.
template <typename Visit>
void ForEachVoxelOf(const Grid& g, int value, Visit visit) {
  size_t at = 0;
  for (int32_t z = 0; z < g.nz; ++z)
    for (int32_t y = 0; y < g.ny; ++y)
      for (int32_t x = 0; x < g.nx; ++x, ++at)
        if (g.mask[at] == value) visit(at, x, y, z);
}

// One generation: every voxel of generation gen (after begin(voxel)) tries its six
// neighbours, and those with mask 0 that accept(neighbour) join as gen + 1 (in 8 bits).
// True when anything joined.
template <typename Begin, typename Accept>
bool GrowGeneration(const Grid& g, int gen, Begin begin, Accept accept) {
  bool changed = false;
  ForEachVoxelOf(g, gen, [&](size_t at, int32_t x, int32_t y, int32_t z) {
    begin(at);
    for (int k = 0; k < 6; ++k) {
      size_t n;
      if (!InnerNeighbour(g, x, y, z, at, k, &n) || g.mask[n] != 0) continue;
      if (!accept(n)) continue;
      g.mask[n] = static_cast<uint8_t>(gen + 1);
      changed = true;
    }
  });
  return changed;
}

// Generations from 1 while they add voxels, up to the limit; prepare(gen) runs before
// each. A generation past 255 finds no voxel of its own (the mask holds 8 bits), so at
// most 256 run whatever the limit.
template <typename Prepare, typename Begin, typename Accept>
void GrowGenerations(const Grid& g, int32_t limit, Prepare prepare, Begin begin, Accept accept) {
  if (limit < 1) return;
  for (int gen = 1;;) {
    prepare(gen);
    if (!GrowGeneration(g, gen, begin, accept)) {
      std::fprintf(stderr, "Growing stopped %d/%d\n", gen, limit);
      return;
    }
    if (++gen > limit) return;
  }
}

// A bound as the processor truncates it to 32 bits (out of range and NaN give
// 0x80000000), then kept to 16 bits.
int16_t BoundToSINT16(float bound) {
  const double v = bound;
  const int32_t i = v > -2147483649.0 && v < 2147483648.0 ? static_cast<int32_t>(v) : INT32_MIN;
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(i) & 0xFFFFu));
}

void GrowBySingleSignal(const PcdRawVolumeData* volume, PcdDtiRegionGrowingContext* c) {
  const PcdIntSize4D& s = *volume->matrixSize;
  const Grid g{s.x, s.y, s.z, static_cast<uint8_t*>(c->mask->data[0])};
  const auto* signal = static_cast<const int16_t*>(volume->data[c->channel]);
  const int16_t low = BoundToSINT16(c->lowerBound), high = BoundToSINT16(c->upperBound);
  std::fprintf(stderr, "Range: %d - %d\n", low, high);
  auto inRange = [&](size_t at) { return !(signal[at] < low || signal[at] > high); };
  int32_t seeds = 0;
  ForEachVoxelOf(g, 1, [&](size_t at, int32_t, int32_t, int32_t) {
    ++seeds;
    if (!inRange(at)) g.mask[at] = 0;
  });
  std::fprintf(stderr, "seed voxel count (grey) = %d\n", seeds);
  GrowGenerations(g, c->generationLimit, [](int) {}, [](size_t) {}, inRange);
  for (size_t i = 0; i < g.Voxels(); ++i)
    if (g.mask[i] != 0) g.mask[i] = 1;
}

// ---- tensor growing ----------------------------------------------------------------

// What tensor growing needs of a voxel: its FA and principal direction.
struct VoxelTensor {
  float fa;
  PcdVector3D e1;
};

VoxelTensor TensorOfRecord(const PcdDiffusionTensorData* r) {
  return {PCDdti_GetFA(r), {r->tensor[1][3], r->tensor[2][3], r->tensor[3][3]}};
}

struct RecordDeleter {
  void operator()(PcdDiffusionTensorData* r) const { PCDdti_DeleteDiffusionTensorData(r); }
};
using OwnedRecord = std::unique_ptr<PcdDiffusionTensorData, RecordDeleter>;

// Estimates one voxel after another through the record, every time one is asked for.
class PlainTensors {
 public:
  PlainTensors(const PcdDtiData* dti, PcdDiffusionTensorData* record) : dti_(dti), r_(record) {}
  void Prepare(const std::vector<size_t>&) {}
  VoxelTensor At(size_t at) {
    const PcdIntSize4D& s = *dti_->volume->matrixSize;
    const size_t plane = static_cast<size_t>(s.x) * static_cast<size_t>(s.y);
    const PcdIntVector3D v{static_cast<int32_t>(at % static_cast<size_t>(s.x)),
                           static_cast<int32_t>(at / static_cast<size_t>(s.x) % static_cast<size_t>(s.y)),
                           static_cast<int32_t>(at / plane)};
    // a failed estimate leaves the previous tensor, which is judged in its place
    PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(dti_, r_, &v);
    return TensorOfRecord(r_);
  }

 private:
  const PcdDtiData* dti_;
  PcdDiffusionTensorData* r_;
};

// Estimates every voxel once, side by side in batches, before it is first asked for;
// the values are those of the one-voxel estimate (the record must hold the
// pseudo-inverse, so no estimate can fail).
class CachedTensors {
 public:
  CachedTensors(const PcdDtiData* dti, PcdDiffusionTensorData* record, size_t voxels)
      : dti_(dti), r_(record), slot_(voxels, kNone) {
    PCDdti_ResizeTensorBatch(dti, &batch_);
  }
  // Estimates the voxels of the list that are not known yet.
  void Prepare(const std::vector<size_t>& wanted) {
    std::vector<size_t> todo;
    for (size_t at : wanted)
      if (slot_[at] == kNone) {
        slot_[at] = kQueued;
        todo.push_back(at);
      }
    for (size_t first = 0; first < todo.size(); first += kPcdTensorLanes) {
      const size_t count = std::min(todo.size() - first, static_cast<size_t>(kPcdTensorLanes));
      batch_.count = static_cast<int32_t>(count);
      for (int32_t c = 0; c < dti_->channelCount; ++c) {
        const auto* block = static_cast<const int16_t*>(dti_->volume->data[c]);
        float* to = &batch_.signal[static_cast<size_t>(c) * kPcdTensorLanes];
        for (size_t v = 0; v < count; ++v) to[v] = static_cast<float>(block[todo[first + v]]);
      }
      PCDdti_EstimateTensorBatch(dti_, r_, &batch_);
      PCDdti_DiagonalizeTensorBatch(&batch_);
      for (size_t v = 0; v < count; ++v) {
        PCDdti_TakeDiagonalizedFromTensorBatch(&batch_, static_cast<int32_t>(v), r_);
        slot_[todo[first + v]] = static_cast<int32_t>(known_.size());
        known_.push_back(TensorOfRecord(r_));
      }
    }
  }
  VoxelTensor At(size_t at) { return known_[static_cast<size_t>(slot_[at])]; }

 private:
  static constexpr int32_t kNone = -1, kQueued = -2;
  const PcdDtiData* dti_;
  PcdDiffusionTensorData* r_;
  PcdTensorBatch batch_;
  std::vector<int32_t> slot_;  // index into known_, or kNone / kQueued
  std::vector<VoxelTensor> known_;
};

void AddTo(PcdVector3D* d, const PcdVector3D& e) {
  d->x += e.x;
  d->y += e.y;
  d->z += e.z;
}

// The voxels a generation will look at: its own and their inner neighbours with mask 0.
std::vector<size_t> VoxelsOfGeneration(const Grid& g, int gen) {
  std::vector<size_t> out;
  ForEachVoxelOf(g, gen, [&](size_t at, int32_t x, int32_t y, int32_t z) {
    out.push_back(at);
    for (int k = 0; k < 6; ++k) {
      size_t n;
      if (InnerNeighbour(g, x, y, z, at, k, &n) && g.mask[n] == 0) out.push_back(n);
    }
  });
  return out;
}

template <typename Tensors>
void GrowByTensor(const PcdDtiData* dti, PcdDtiRegionGrowingContext* c, Tensors& tensors) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const Grid g{s.x, s.y, s.z, static_cast<uint8_t*>(c->mask->data[0])};
  const float faMin = c->tensorCriteria[kPcdGrowingFAminWord];
  const auto cosMax = static_cast<float>(
      std::cos(c->tensorCriteria[kPcdGrowingAngleMaxWord] * 0.01745328888888889));

  // seeds below the FA minimum are pruned (an undefined FA keeps its seed)
  PcdVector3D D{0.0f, 0.0f, 0.0f};
  std::vector<size_t> seeds;
  ForEachVoxelOf(g, 1, [&](size_t at, int32_t, int32_t, int32_t) { seeds.push_back(at); });
  tensors.Prepare(seeds);
  bool first = true;
  for (size_t at : seeds) {
    const VoxelTensor t = tensors.At(at);
    if (t.fa < faMin) {
      g.mask[at] = 0;
    } else if (first) {
      D = t.e1;
      first = false;
    } else {
      AddTo(&D, t.e1);
    }
  }
  std::fprintf(stderr, "seed voxel count (tensor) = %d\n", static_cast<int32_t>(seeds.size()));

  // principal directions compared without their sign; NaN fails both tests
  PcdVector3D e1OfVoxel{0.0f, 0.0f, 0.0f};
  GrowGenerations(
      g, c->generationLimit, [&](int gen) { tensors.Prepare(VoxelsOfGeneration(g, gen)); },
      [&](size_t v) { e1OfVoxel = tensors.At(v).e1; },
      [&](size_t n) {
        const VoxelTensor t = tensors.At(n);
        if (!(t.fa >= faMin)) return false;
        if (!(std::fabs(PCD_InnerProduct3D(&e1OfVoxel, &t.e1)) >= cosMax)) return false;
        AddTo(&D, t.e1);
        return true;
      });
  PCD_ThresholdingBySingleFloat32Value(c->mask, 0, 1.0f);
  PCD_NormalizeVector3D(&D);
  c->regionDirection = D;
}

void GrowByTensorProperty(const PcdDtiData* dti, PcdDtiRegionGrowingContext* c, bool cached) {
  OwnedRecord record(PCDdti_NewDiffusionTensorData(dti->channelCount, dti->soCount));
  if (!record) {
    std::fputs("insufficient memory\n", stderr);
    return;
  }
  // estimates fail only without a pseudo-inverse; then each reports, voxel by voxel
  if (cached && PCDdti_PreparePseudoInverse(dti, record.get())) {
    std::unique_ptr<CachedTensors> tensors;
    try {
      tensors = std::make_unique<CachedTensors>(dti, record.get(), PCD_GetNumberOfVoxels(dti->volume));
    } catch (const std::bad_alloc&) {
      tensors.reset();
    }
    if (tensors) {
      GrowByTensor(dti, c, *tensors);
      return;
    }
  }
  PlainTensors tensors(dti, record.get());
  GrowByTensor(dti, c, tensors);
}

// Why grey growing cannot read its channel, or "" when it can.
std::string FindChannelProblem(const PcdDtiData* dti, const PcdDtiRegionGrowingContext* c) {
  const PcdRawVolumeData* v = dti == nullptr ? nullptr : dti->volume;
  if (v == nullptr || v->matrixSize == nullptr || v->data == nullptr || v->dataType == nullptr)
    return "Err: no volume is loaded\n";
  const PcdIntSize4D& s = *v->matrixSize;
  if (s.x < 1 || s.y < 1 || s.z < 1) return "Err: the volume is empty\n";
  if (c->channel < 0 || c->channel >= s.channels || v->data[c->channel] == nullptr ||
      v->dataType[c->channel] != SINT16) {
    char line[160];
    std::snprintf(line, sizeof line,
                  "Err: grey growing reads a signed 16-bit channel; channel %d is none\n",
                  c->channel);
    return line;
  }
  return "";
}

// Whether the data set, the channel and the mask let the growing run; one "Err: " line
// when not.
bool MayGrow(const PcdDtiData* dti, const PcdDtiRegionGrowingContext* c) {
  if (c->mode == kPcdGrowByTensorProperty) {
    if (!PCDdti_CheckDataSetForAnalysis(dti, PCD_DTI_AT_VOXELS)) return false;
  } else {
    const std::string problem = FindChannelProblem(dti, c);
    if (!problem.empty()) {
      std::fputs(problem.c_str(), stderr);
      return false;
    }
  }
  const std::string problem = PCD_FindMaskProblem(c->mask, *dti->volume->matrixSize);
  if (!problem.empty()) std::fputs(problem.c_str(), stderr);
  return problem.empty();
}

void Grow(const PcdDtiData* dti, PcdDtiRegionGrowingContext* c, bool cached) {
  if (c == nullptr) {
    std::fputs("Err: no region growing context\n", stderr);
    return;
  }
  if (c->mode != kPcdGrowBySingleSignal && c->mode != kPcdGrowByTensorProperty) return;
  if (!MayGrow(dti, c)) return;
  if (c->mode == kPcdGrowBySingleSignal)
    GrowBySingleSignal(dti->volume, c);
  else
    GrowByTensorProperty(dti, c, cached);
}

}  // namespace

void PCDdti_RegionGrowing(const PcdDtiData* dti, PcdDtiRegionGrowingContext* context) {
  Grow(dti, context, true);
}

void PCDdti_RegionGrowingVoxelByVoxel(const PcdDtiData* dti, PcdDtiRegionGrowingContext* context) {
  Grow(dti, context, false);
}
