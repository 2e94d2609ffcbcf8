// The diffusion tensor at one place of a DTI data set: the log-linear least-squares fit,
// the eigen-system (Householder + QL in single precision) and the indices derived from
// it (eigenvalues, FA, ADC, validity).
//
// One record serves one thread at a time and one DWI count; analyses give each worker
// thread its own record and reuse it for every voxel.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "dti/dti_data.h"
#include "vol/numerical.h"
#include "vol/raw_volume.h"

// Hot loops over many independent values are also built for AVX2 and picked at run time
// (no FMA: each operation rounds exactly as in the baseline build). Not under
// ThreadSanitizer: the clone resolver runs before its runtime is up and crashes the start.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && \
    !defined(__SANITIZE_THREAD__)
#define PCD_WIDE_VECTORS __attribute__((target_clones("avx2", "default")))
#else
#define PCD_WIDE_VECTORS
#endif

struct PcdVoxelMajorSignals;

struct PcdDiffusionTensorData {
  float** tensor = nullptr;  // 4 x 4, indices 1..3; eigenvectors in columns after diagonalising
  float eigenvalues[4] = {};  // 1..3, ascending after diagonalising: [3] is lambda1
  float work[4] = {};         // 1..3: off-diagonal, then sorting scratch
  PcdMatrix* design = nullptr;      // DWI count x 6, rebuilt for every estimate
  PcdVector* rightHand = nullptr;   // DWI count
  float Dxx = 0, Dyy = 0, Dzz = 0;
  float Dxy = 0, Dyz = 0, Dxz = 0;
  float So = 0;
  float RMS = 0;
  float turningAngle = 0;  // written and read by fiber tracking

  // The pseudo-inverse depends on the design matrix alone, which is the same for every
  // voxel of a data set: it is kept with the design it was made from and reused while
  // the design stays the same byte for byte (the bytes of the result do not change).
  PcdMatrix* cachedInverse = nullptr;
  std::vector<float> cachedDesign;
  // The So count, b values and directions the cached design was built from: while a data
  // set's setting equals them, the estimate neither rebuilds nor compares the design.
  std::vector<float> cachedSetting;
  PcdVector* solution = nullptr;

  // Optional, not owned: the data set's signals voxel-major (see below), shared by the
  // threads of a run. Point estimates then read one short run per stencil corner instead
  // of one block per channel; the values are the same.
  PcdVoxelMajorSignals* voxelMajor = nullptr;
};

// The data set's channels 0 .. channelCount-1 side by side for every voxel, made one row
// (an x row of every channel) at a time, the first time a read needs that row: a run pays
// only for the part of the volume it visits, and a run that visits little (a few seeds)
// costs next to nothing. Shared by the threads of one run; the volume and its channels
// must stay as they are while it lives.
struct PcdVoxelMajorSignals {
  const PcdRawVolumeData* volume = nullptr;
  int32_t channels = 0;
  int32_t sizeX = 0, sizeY = 0, sizeZ = 0;
  int16_t* copy = nullptr;  // sizeX * channels per row, rows in (y, z) order
  Pcd3DArray handle = nullptr;
  // per row: 0 not made, 1 being made by one thread, 2 made (released to every reader)
  std::unique_ptr<std::atomic<uint8_t>[]> rowState;

  PcdVoxelMajorSignals() = default;
  PcdVoxelMajorSignals(const PcdVoxelMajorSignals&) = delete;
  PcdVoxelMajorSignals& operator=(const PcdVoxelMajorSignals&) = delete;
  ~PcdVoxelMajorSignals();
};
// Sets up the (still empty) copy for a data set; false when memory for it cannot be had,
// and the reads then go to the channel blocks.
bool PCDdti_PrepareVoxelMajorSignals(const PcdDtiData* dti, PcdVoxelMajorSignals* signals);
// The copy, with the rows of the stencil's eight corners made.
const int16_t* PCDdti_VoxelMajorSignalsFor(PcdVoxelMajorSignals* signals,
                                          const PcdTrilinearStencil& stencil);

// Voxels estimated side by side with one record's pseudo-inverse. Each voxel goes through
// the arithmetic of PCDdti_CalcDiffusionTensorAtVoxel step for step; taking the voxels of
// a row together lets every step run over all of them at once.
constexpr int kPcdTensorLanes = 32;
struct PcdTensorBatch {
  int32_t count = 0;          // voxels in use, at most kPcdTensorLanes
  std::vector<float> signal;  // [channel * kPcdTensorLanes + voxel], filled by the caller
  std::vector<float> rightHand;  // [DWI * kPcdTensorLanes + voxel]
  float So[kPcdTensorLanes] = {};
  float component[6][kPcdTensorLanes] = {};  // Dxx, Dyy, Dzz, Dxy, Dyz, Dxz
  // after diagonalising: eigenvalues ascending in [1..3], unit eigenvectors in columns
  float values[kPcdTensorLanes][4] = {};
  float vectors[kPcdTensorLanes][4][4] = {};

  std::array<float, 6> componentOf(int32_t v) const {
    return {component[0][v], component[1][v], component[2][v],
            component[3][v], component[4][v], component[5][v]};
  }
};

// Makes the record hold the pseudo-inverse of the data set's design; false when the design
// has none (the per-voxel estimate then reports the failure voxel by voxel).
bool PCDdti_PreparePseudoInverse(const PcdDtiData* dti, PcdDiffusionTensorData* record);
void PCDdti_ResizeTensorBatch(const PcdDtiData* dti, PcdTensorBatch* batch);
// out[v] = static_cast<float>(std::log(double(S[v]) * inverse[v])) bit for bit, mostly
// without the library call; logInverse[v] = std::log(inverse[v]).
void PCDdti_LogRatiosAsFloats(const float* S, const double* inverse, const double* logInverse,
                              float* out, int32_t n);
// So and the six components of every voxel of the batch; the record must be prepared.
void PCDdti_EstimateTensorBatch(const PcdDtiData* dti, const PcdDiffusionTensorData* record,
                                PcdTensorBatch* batch);
// The signals at a point in voxel units, interpolated as PCDdti_CalcDiffusionTensor reads
// them (from the voxel-major copy when given), into lane v of the batch.
void PCDdti_InterpolateIntoTensorBatch(const PcdDtiData* dti, PcdVoxelMajorSignals* voxelMajor,
                                       const PcdVector3D* position, PcdTensorBatch* batch,
                                       int32_t v);
// The eigen-systems of every voxel of an estimated batch, each as
// PCDdti_DiagonalizeDiffusionTensorData finds it for the voxel's record.
void PCDdti_DiagonalizeTensorBatch(PcdTensorBatch* batch);
// Puts voxel v of an estimated batch into the record, as an estimate there would leave it;
// the second also as diagonalising would leave it.
void PCDdti_TakeFromTensorBatch(const PcdTensorBatch* batch, int32_t v,
                                PcdDiffusionTensorData* record);
void PCDdti_TakeDiagonalizedFromTensorBatch(const PcdTensorBatch* batch, int32_t v,
                                            PcdDiffusionTensorData* record);
// Reads the signals of batch->count voxels of one row (element rowStart + lanes[v] of every
// channel) into the batch, estimates and diagonalises them.
void PCDdti_FitRowLanesInTensorBatch(const PcdDtiData* dti, const PcdDiffusionTensorData* record,
                                     size_t rowStart, const int32_t* lanes, PcdTensorBatch* batch);

// The voxels x of one row for which select(x) holds, fitted side by side in batches and
// handed in x order to take(x) with the record holding the voxel's diagonalised tensor,
// as the voxel-by-voxel path would leave it.
template <class Select, class Take>
void PCDdti_FitRowInTensorBatches(const PcdDtiData* dti, PcdDiffusionTensorData* record, PcdTensorBatch* batch,
                                  size_t rowStart, int32_t sizeX, Select select, Take take) {
  int32_t lanes[kPcdTensorLanes];
  auto flush = [&]() {
    PCDdti_FitRowLanesInTensorBatch(dti, record, rowStart, lanes, batch);
    for (int32_t v = 0; v < batch->count; ++v) {
      PCDdti_TakeDiagonalizedFromTensorBatch(batch, v, record);
      take(lanes[v]);
    }
    batch->count = 0;
  };
  batch->count = 0;
  for (int32_t x = 0; x < sizeX; ++x) {
    if (!select(x)) continue;
    lanes[batch->count++] = x;
    if (batch->count == kPcdTensorLanes) flush();
  }
  if (batch->count > 0) flush();
}

PcdDiffusionTensorData* PCDdti_NewDiffusionTensorData(int32_t channelCount, int32_t soCount);
void PCDdti_DeleteDiffusionTensorData(PcdDiffusionTensorData* record);

// Estimates at a point in voxel units (signals interpolated) or at a voxel (signals read
// directly). 1 on success, 0 when the solver fails.
int PCDdti_CalcDiffusionTensor(const PcdDtiData* dti, PcdDiffusionTensorData* record,
                               const PcdVector3D* position);
int PCDdti_CalcDiffusionTensorAtVoxel(const PcdDtiData* dti, PcdDiffusionTensorData* record,
                                      const PcdIntVector3D* voxel);
int PCDdti_CalcAndDiagnalizeDiffusionTensor(const PcdDtiData* dti,
                                            PcdDiffusionTensorData* record,
                                            const PcdVector3D* position);
int PCDdti_CalcAndDiagnalizeDiffusionTensorAtVoxel(const PcdDtiData* dti,
                                                   PcdDiffusionTensorData* record,
                                                   const PcdIntVector3D* voxel);
int PCDdti_SolveLinearEquationsForDiffusionTensorData(PcdDiffusionTensorData* record);
void PCDdti_SetDiffusionTensorData(PcdDiffusionTensorData* record, float Dxx, float Dyy,
                                   float Dzz, float Dxy, float Dyz, float Dxz);
float PCDdti_GetADCofSingleDWI(const PcdDtiData* dti, const PcdVector3D* position,
                               int32_t channel);

// Eigen-system and indices.
int PCDdti_DiagonalizeDiffusionTensorData(PcdDiffusionTensorData* record);
float PCDdti_GetLambda1(const PcdDiffusionTensorData* record);
float PCDdti_GetLambda2(const PcdDiffusionTensorData* record);
float PCDdti_GetLambda3(const PcdDiffusionTensorData* record);
float PCDdti_GetFA(const PcdDiffusionTensorData* record);
float PCDdti_GetADC(const PcdDiffusionTensorData* record);
float PCDdti_GetSo(const PcdDiffusionTensorData* record);
float PCDdti_GetRMS(const PcdDiffusionTensorData* record);
int PCDdti_CheckDiffusionTensorIsValid(const PcdDiffusionTensorData* record);

// The eigen solver pieces, 1-based on n x n float arrays (exposed for the tests).
void tred2(float** a, int n, float* d, float* e);
// 1, or 0 when an eigenvalue needed more than 30 sweeps (a, d, e are then reset).
int tqli(float* d, float* e, int n, float** z);
float pythag(float a, float b);
void sort2(int n, float* arr, float* brr);
