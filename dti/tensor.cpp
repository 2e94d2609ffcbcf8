#include "dti/tensor.h"

#include "dti/eigen_solver.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <climits>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>

namespace {

constexpr float kOneThird = 0.3333333432674408f;

// The sample at [z][y][x] of a channel, read straight from its block (the 3D handle
// points into the same block, so the value is the same).
int16_t SignalAtVoxel(const PcdRawVolumeData* v, int32_t channel, size_t at) {
  return static_cast<const int16_t*>(v->data[channel])[at];
}

float SignalAtPoint(const PcdRawVolumeData* v, int32_t channel, const PcdVector3D* p) {
  const PcdIntSize4D& s = *v->matrixSize;
  return static_cast<float>(
      PCD_GetValueOf3DArraySINT16i(v->array3D[channel], s.x, s.y, s.z, p->x, p->y, p->z));
}

// The design rows of the DWI channels: they depend on the MPG setting alone.
void BuildDesign(const PcdDtiData* dti, PcdDiffusionTensorData* r) {
  for (int32_t k = 0; k < r->design->rows; ++k) {
    const PcdVector3D& g = dti->mpgVectors[dti->soCount + k];
    float* row = r->design->m[k];
    row[0] = g.x * g.x;
    row[1] = g.y * g.y;
    row[2] = g.z * g.z;
    row[3] = 2.0f * g.x * g.y;
    row[4] = 2.0f * g.y * g.z;
    row[5] = 2.0f * g.z * g.x;
  }
}

// So and the right-hand side of one estimate from the channel signals S.
void BuildRightHand(const PcdDtiData* dti, PcdDiffusionTensorData* r, const float* S) {
  const int32_t soCount = dti->soCount;
  float sum = 0.0f;
  for (int32_t c = 0; c < soCount; ++c) sum += S[c];
  r->So = sum / static_cast<float>(soCount);
  const double inverseSo = 1.0 / static_cast<double>(r->So);
  for (int32_t k = 0; k < r->rightHand->n; ++k) {
    const int32_t c = soCount + k;
    const auto lg = static_cast<float>(std::log(static_cast<double>(S[c]) * inverseSo));
    r->rightHand->data[k] = -(lg / dti->bValues[c]);
  }
}

// The setting as one run of floats: So count, then b and direction of each DWI channel.
void SettingOf(const PcdDtiData* dti, int32_t dwi, std::vector<float>* out) {
  out->clear();
  out->push_back(static_cast<float>(dti->soCount));
  for (int32_t k = 0; k < dwi; ++k) {
    const int32_t c = dti->soCount + k;
    out->insert(out->end(), {dti->bValues[c], dti->mpgVectors[c].x, dti->mpgVectors[c].y,
                             dti->mpgVectors[c].z});
  }
}

bool SettingMatchesCache(const PcdDtiData* dti, const PcdDiffusionTensorData* r) {
  const int32_t dwi = r->design->rows;
  const std::vector<float>& key = r->cachedSetting;
  if (r->cachedInverse == nullptr || key.size() != 1 + 4 * static_cast<size_t>(dwi) ||
      key[0] != static_cast<float>(dti->soCount))
    return false;
  for (int32_t k = 0; k < dwi; ++k) {
    const int32_t c = dti->soCount + k;
    const float* at = &key[1 + 4 * static_cast<size_t>(k)];
    const float now[4] = {dti->bValues[c], dti->mpgVectors[c].x, dti->mpgVectors[c].y,
                          dti->mpgVectors[c].z};
    if (std::memcmp(at, now, sizeof now) != 0) return false;
  }
  return true;
}

// x = P y for the 6 x n pseudo-inverse P, with each entry accumulated exactly as the
// matrix-vector product does; the six entries run side by side, which changes nothing
// in their arithmetic but lets the processor overlap them.
void ApplyPseudoInverse(const PcdMatrix* p, const PcdVector* y, float* x) {
  float acc[6] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
  for (int32_t k = 0; k < y->n; ++k) {
    const double yk = y->data[k];
    for (int r = 0; r < 6; ++r)
      acc[r] = static_cast<float>(static_cast<double>(acc[r]) +
                                  static_cast<double>(p->m[r][k]) * yk);
  }
  for (int r = 0; r < 6; ++r) x[r] = acc[r];
}

// Writes the six components into the fields and the symmetric matrix, in the order
// that leaves both triangles equal.
void StoreComponents(PcdDiffusionTensorData* r, const float* x) {
  float** a = r->tensor;
  a[1][1] = r->Dxx = x[0];
  a[2][2] = r->Dyy = x[1];
  a[3][3] = r->Dzz = x[2];
  a[2][1] = x[3];
  a[1][2] = a[2][1];
  r->Dxy = x[3];
  a[3][2] = x[4];
  a[2][3] = a[3][2];
  r->Dyz = x[4];
  a[1][3] = x[5];
  a[3][1] = a[1][3];
  r->Dxz = x[5];
}

bool DesignMatchesCache(const PcdDiffusionTensorData* r) {
  const size_t n = static_cast<size_t>(r->design->rows) * 6;
  if (r->cachedInverse == nullptr || r->cachedDesign.size() != n) return false;
  for (int32_t k = 0; k < r->design->rows; ++k)
    if (std::memcmp(r->design->m[k], &r->cachedDesign[static_cast<size_t>(k) * 6],
                    6 * sizeof(float)) != 0)
      return false;
  return true;
}

void RememberDesign(PcdDiffusionTensorData* r) {
  r->cachedSetting.clear();  // a design from elsewhere: no setting is known to make it
  r->cachedDesign.resize(static_cast<size_t>(r->design->rows) * 6);
  for (int32_t k = 0; k < r->design->rows; ++k)
    std::memcpy(&r->cachedDesign[static_cast<size_t>(k) * 6], r->design->m[k],
                6 * sizeof(float));
}

template <typename Signal>
int Estimate(const PcdDtiData* dti, PcdDiffusionTensorData* r, Signal signal) {
  float S[kPcdDtiMaxChannels];
  const int32_t channels = dti->channelCount;
  for (int32_t c = 0; c < channels && c < kPcdDtiMaxChannels; ++c) S[c] = signal(c);
  BuildRightHand(dti, r, S);
  if (SettingMatchesCache(dti, r)) {
    // the design would come out as the cached one, byte for byte
    float x[6];
    ApplyPseudoInverse(r->cachedInverse, r->rightHand, x);
    StoreComponents(r, x);
    return 1;
  }
  BuildDesign(dti, r);
  const int solved = PCDdti_SolveLinearEquationsForDiffusionTensorData(r);
  if (solved == 1) SettingOf(dti, r->design->rows, &r->cachedSetting);
  return solved;
}

// The clamped trilinear read of every channel at one stencil, blended in the order of
// the single-channel reader so that each value is the same to the bit.
PCD_WIDE_VECTORS
void InterpolateInterleaved(const int16_t* data, int32_t channels, const PcdTrilinearStencil& st,
                            float* S, size_t stride) {
  const int16_t* corner[8];
  for (int i = 0; i < 8; ++i) corner[i] = data + st.offset[i] * static_cast<size_t>(channels);
  const double gx = 1.0 - st.fx, gy = 1.0 - st.fy, gz = 1.0 - st.fz;
  for (int32_t c = 0; c < channels; ++c) {
    const double r00 = corner[0][c] * gx + corner[1][c] * st.fx;
    const double r01 = corner[2][c] * gx + corner[3][c] * st.fx;
    const double r10 = corner[4][c] * gx + corner[5][c] * st.fx;
    const double r11 = corner[6][c] * gx + corner[7][c] * st.fx;
    const double p0 = r00 * gy + r01 * st.fy;
    const double p1 = r10 * gy + r11 * st.fy;
    S[c * stride] = static_cast<float>(static_cast<int32_t>(p0 * gz + p1 * st.fz));
  }
}

}  // namespace

PcdVoxelMajorSignals::~PcdVoxelMajorSignals() {
  PCD_Delete3DArray(handle, sizeX * channels, sizeY, sizeZ, SINT16);
}

bool PCDdti_PrepareVoxelMajorSignals(const PcdDtiData* dti, PcdVoxelMajorSignals* s) {
  const PcdIntSize4D& size = *dti->volume->matrixSize;
  const int64_t rowLength = static_cast<int64_t>(size.x) * dti->channelCount;
  if (rowLength > INT32_MAX || s->handle != nullptr) return false;
  const auto rows = static_cast<size_t>(size.y) * static_cast<size_t>(size.z);
  // a large copy is a fresh mapping whose pages cost nothing until a row is made in them
  s->handle = PCD_New3DArray(static_cast<int32_t>(rowLength), size.y, size.z, SINT16);
  s->rowState.reset(new (std::nothrow) std::atomic<uint8_t>[rows]());
  if (s->handle == nullptr || s->rowState == nullptr) {
    PCD_Delete3DArray(s->handle, static_cast<int32_t>(rowLength), size.y, size.z, SINT16);
    s->handle = nullptr;
    s->rowState.reset();
    return false;
  }
  s->volume = dti->volume;
  s->channels = dti->channelCount;
  s->sizeX = size.x;
  s->sizeY = size.y;
  s->sizeZ = size.z;
  s->copy = static_cast<int16_t*>(s->handle[0][0]);
  return true;
}

namespace {

// Row r (y + sizeY * z) of every channel into the copy: the one writer of the row.
void MakeVoxelMajorRow(PcdVoxelMajorSignals* s, size_t r) {
  const auto n = static_cast<size_t>(s->sizeX), channels = static_cast<size_t>(s->channels);
  int16_t* to = s->copy + r * n * channels;
  for (size_t c = 0; c < channels; ++c) {
    const int16_t* from = static_cast<const int16_t*>(s->volume->data[c]) + r * n;
    for (size_t x = 0; x < n; ++x) to[x * channels + c] = from[x];
  }
}

void EnsureVoxelMajorRow(PcdVoxelMajorSignals* s, size_t r) {
  std::atomic<uint8_t>& state = s->rowState[r];
  if (state.load(std::memory_order_acquire) == 2) return;
  uint8_t empty = 0;
  if (state.compare_exchange_strong(empty, 1, std::memory_order_acquire)) {
    MakeVoxelMajorRow(s, r);
    state.store(2, std::memory_order_release);
    return;
  }
  // another thread is making it: a row takes microseconds
  while (state.load(std::memory_order_acquire) != 2) std::this_thread::yield();
}

}  // namespace

const int16_t* PCDdti_VoxelMajorSignalsFor(PcdVoxelMajorSignals* s,
                                          const PcdTrilinearStencil& stencil) {
  // corners 0, 2, 4, 6 start the four rows the stencil reads (1, 3, 5, 7 are their x + 1)
  const auto n = static_cast<size_t>(s->sizeX);
  for (int i = 0; i < 8; i += 2) EnsureVoxelMajorRow(s, stencil.offset[i] / n);
  return s->copy;
}

bool PCDdti_PreparePseudoInverse(const PcdDtiData* dti, PcdDiffusionTensorData* r) {
  if (SettingMatchesCache(dti, r)) return true;
  BuildDesign(dti, r);
  if (!DesignMatchesCache(r)) {
    PCD_DeleteMatrix(r->cachedInverse);
    r->cachedInverse = PCDnumerical_GetInversedMatrix(r->design);
    if (r->cachedInverse == nullptr) return false;
    RememberDesign(r);
  }
  SettingOf(dti, r->design->rows, &r->cachedSetting);
  return true;
}

PcdDiffusionTensorData* PCDdti_NewDiffusionTensorData(int32_t channelCount, int32_t soCount) {
  const int32_t dwi = channelCount - soCount;
  auto* r = new (std::nothrow) PcdDiffusionTensorData;
  if (r == nullptr) return nullptr;
  r->tensor = reinterpret_cast<float**>(PCD_New2DArray(4, 4, FLOAT32));
  r->design = PCD_NewMatrix(dwi, 6);
  r->rightHand = PCD_NewVector(dwi);
  r->solution = PCD_NewVector(6);
  if (!r->tensor || !r->design || !r->rightHand || !r->solution) {
    PCDdti_DeleteDiffusionTensorData(r);
    return nullptr;
  }
  return r;
}

void PCDdti_DeleteDiffusionTensorData(PcdDiffusionTensorData* record) {
  if (record == nullptr) return;
  PCD_Delete2DArray(reinterpret_cast<Pcd2DArray>(record->tensor), 4, 4, FLOAT32);
  PCD_DeleteMatrix(record->design);
  PCD_DeleteVector(record->rightHand);
  PCD_DeleteMatrix(record->cachedInverse);
  PCD_DeleteVector(record->solution);
  delete record;
}

int PCDdti_SolveLinearEquationsForDiffusionTensorData(PcdDiffusionTensorData* r) {
  if (!DesignMatchesCache(r)) {
    PCD_DeleteMatrix(r->cachedInverse);
    r->cachedInverse = PCDnumerical_GetInversedMatrix(r->design);
    if (r->cachedInverse == nullptr) {
      std::fputs("invA = NULL?\n", stderr);
      std::fputs("Err: Linear Equations Solution failed\n", stderr);
      return 0;
    }
    RememberDesign(r);
  }
  if (PCD_MultiplyMatrixVectorInto(r->cachedInverse, r->rightHand, r->solution) != 0) {
    std::fputs("Err: Linear Equations Solution failed\n", stderr);
    return 0;
  }
  StoreComponents(r, r->solution->data);
  return 1;
}

int PCDdti_CalcDiffusionTensor(const PcdDtiData* dti, PcdDiffusionTensorData* record,
                               const PcdVector3D* position) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdTrilinearStencil stencil =
      PCD_GetTrilinearStencil(s.x, s.y, s.z, position->x, position->y, position->z);
  if (record->voxelMajor != nullptr) {
    float S[kPcdDtiMaxChannels];
    InterpolateInterleaved(PCDdti_VoxelMajorSignalsFor(record->voxelMajor, stencil),
                           dti->channelCount, stencil, S, 1);
    return Estimate(dti, record, [&](int32_t c) { return S[c]; });
  }
  return Estimate(dti, record, [&](int32_t c) {
    return static_cast<float>(PCD_GetValueOfSINT16BlockByStencil(dti->volume->data[c], stencil));
  });
}

void PCDdti_InterpolateIntoTensorBatch(const PcdDtiData* dti, PcdVoxelMajorSignals* voxelMajor,
                                       const PcdVector3D* position, PcdTensorBatch* batch,
                                       int32_t v) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const PcdTrilinearStencil stencil =
      PCD_GetTrilinearStencil(s.x, s.y, s.z, position->x, position->y, position->z);
  float* S = batch->signal.data() + v;
  if (voxelMajor != nullptr) {
    InterpolateInterleaved(PCDdti_VoxelMajorSignalsFor(voxelMajor, stencil), dti->channelCount,
                           stencil, S, kPcdTensorLanes);
    return;
  }
  for (int32_t c = 0; c < dti->channelCount; ++c)
    S[static_cast<size_t>(c) * kPcdTensorLanes] =
        static_cast<float>(PCD_GetValueOfSINT16BlockByStencil(dti->volume->data[c], stencil));
}

int PCDdti_CalcDiffusionTensorAtVoxel(const PcdDtiData* dti, PcdDiffusionTensorData* record,
                                      const PcdIntVector3D* voxel) {
  const PcdIntSize4D& s = *dti->volume->matrixSize;
  const size_t at = static_cast<size_t>(voxel->x) +
                    static_cast<size_t>(s.x) * (static_cast<size_t>(voxel->y) +
                                                static_cast<size_t>(s.y) * voxel->z);
  return Estimate(dti, record, [&](int32_t c) {
    return static_cast<float>(SignalAtVoxel(dti->volume, c, at));
  });
}

int PCDdti_CalcAndDiagnalizeDiffusionTensor(const PcdDtiData* dti,
                                            PcdDiffusionTensorData* record,
                                            const PcdVector3D* position) {
  if (PCDdti_CalcDiffusionTensor(dti, record, position) == 0) return 0;
  return PCDdti_DiagonalizeDiffusionTensorData(record);
}

int PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(const PcdDtiData* dti,
                                                   PcdDiffusionTensorData* record,
                                                   const PcdIntVector3D* voxel) {
  if (PCDdti_CalcDiffusionTensorAtVoxel(dti, record, voxel) == 0) return 0;
  return PCDdti_DiagonalizeDiffusionTensorData(record);
}

void PCDdti_SetDiffusionTensorData(PcdDiffusionTensorData* record, float Dxx, float Dyy,
                                   float Dzz, float Dxy, float Dyz, float Dxz) {
  const float x[6] = {Dxx, Dyy, Dzz, Dxy, Dyz, Dxz};
  StoreComponents(record, x);
}

float PCDdti_GetADCofSingleDWI(const PcdDtiData* dti, const PcdVector3D* position,
                               int32_t channel) {
  double sum = 0.0;
  for (int32_t c = 0; c < dti->soCount; ++c) sum += SignalAtPoint(dti->volume, c, position);
  const double so = sum / dti->soCount;
  const double s = SignalAtPoint(dti->volume, channel, position);
  return std::log(static_cast<float>(s / so)) * (-1.0f / dti->bValues[channel]);
}

// ---- eigen-system ----------------------------------------------------------------------

float pythag(float a, float b) { return pcd_eigen::Pythag(a, b); }

void tred2(float** a, int n, float* d, float* e) { pcd_eigen::Tred2Body(a, n, d, e); }
int tqli(float* d, float* e, int n, float** z) { return pcd_eigen::TqliBody(d, e, n, z); }
void sort2(int n, float* arr, float* brr) { pcd_eigen::Sort2Body(n, arr, brr); }

int PCDdti_DiagonalizeDiffusionTensorData(PcdDiffusionTensorData* record) {
  // worked on a local copy: the record's rows are separate blocks the compiler must
  // assume overlap the eigenvalues
  float a[4][4];
  float d[4], e[4];
  for (int i = 1; i <= 3; ++i) {
    for (int j = 1; j <= 3; ++j) a[i][j] = record->tensor[i][j];
    d[i] = record->eigenvalues[i];
    e[i] = record->work[i];
  }
  pcd_eigen::Diagonalize3(a, d, e);
  for (int i = 1; i <= 3; ++i) {
    for (int j = 1; j <= 3; ++j) record->tensor[i][j] = a[i][j];
    record->eigenvalues[i] = d[i];
    record->work[i] = e[i];
  }
  return 1;
}

float PCDdti_GetLambda1(const PcdDiffusionTensorData* r) { return r->eigenvalues[3]; }
float PCDdti_GetLambda2(const PcdDiffusionTensorData* r) { return r->eigenvalues[2]; }
float PCDdti_GetLambda3(const PcdDiffusionTensorData* r) { return r->eigenvalues[1]; }
float PCDdti_GetSo(const PcdDiffusionTensorData* r) { return r->So; }
float PCDdti_GetRMS(const PcdDiffusionTensorData* r) { return r->RMS; }

float PCDdti_GetADC(const PcdDiffusionTensorData* r) {
  return (PCDdti_GetLambda1(r) + PCDdti_GetLambda2(r) + PCDdti_GetLambda3(r)) * kOneThird;
}

// The expanded form q - 2ms + 3m^2 (rather than the sum of squared deviations) is kept
// because its rounding is part of the result.
float PCDdti_GetFA(const PcdDiffusionTensorData* r) {
  const float l1 = PCDdti_GetLambda1(r), l2 = PCDdti_GetLambda2(r), l3 = PCDdti_GetLambda3(r);
  const float s = l3 + l2 + l1;
  const float m = s * kOneThird;
  const float q = l3 * l3 + l2 * l2 + l1 * l1;
  const double ds = s, dm = m, dq = q;
  return static_cast<float>(std::sqrt((dq - 2.0 * dm * ds + 3.0 * dm * dm) / dq) *
                            std::sqrt(1.5));
}

int PCDdti_CheckDiffusionTensorIsValid(const PcdDiffusionTensorData* r) {
  if (PCDdti_GetLambda1(r) <= 0.0f) return 0;
  if (PCDdti_GetLambda2(r) <= 0.0f) return 0;
  if (PCDdti_GetLambda3(r) <= 0.0f) return 0;
  const float fa = PCDdti_GetFA(r);
  if (!(fa >= 0.0f && fa <= 1.0f)) return 0;
  return 1;
}
