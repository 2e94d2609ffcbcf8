// NIfTI-1 input and output (through nifticlib), with FSL-style .bval/.bvec files.
//
// Reading: every volume of a 3D or 4D image becomes one SINT16 monochrome channel.
//   - The stored value is first scaled by scl_slope/scl_inter when scl_slope is non-zero.
//   - When every scaled value is a whole number within -32768..32767 it is stored as it
//     is (the usual case: int16, uint8 and most uint16 or integral float data).
//   - Otherwise the whole image is multiplied by one factor, 32767 / (largest absolute
//     value), and rounded to the nearest integer; NaN and infinite values become 0. One
//     factor for all volumes keeps every DWI/So ratio, which is all a tensor fit uses. A
//     "Warning: " line names the factor.
//   Complex, RGB and 128-bit types are refused.
//
// Directions follow the FSL convention: a .bvec holds directions in image (voxel) axes,
// except that the x component is flipped when the voxel-to-world matrix has a positive
// determinant. An image without any transform code is taken as radiological (no flip),
// as FSL does. Volumes with b <= kPcdNiftiB0Threshold are So (b = 0) volumes; they are
// moved in front of the diffusion-weighted ones (keeping their order), which a
// "Warning: " line reports.
#pragma once

#include <cstdint>
#include <string>

#include "dti/dti_data.h"
#include "vol/raw_volume.h"

// Volumes with a b value at or below this (s/mm^2) count as b = 0.
constexpr float kPcdNiftiB0Threshold = 50.0f;

// Where the voxels of a data set lie in the world: kept beside the volume so that
// everything written from it (maps, DWI sets, tracts) lands in the same space.
struct PcdWorldGeometry {
  double voxelToWorld[4][4];  // world (mm) = voxelToWorld * (x, y, z, 1), row-major
  float voxelSize[3];         // mm along the volume's x, y and z
  int32_t xformCode;          // NIfTI transform code of the matrix (0: unknown)
  int32_t fromNifti;          // 1 when the matrix came from a NIfTI header
};

// Scaled identity (voxelSize on the diagonal), code 1 (scanner anatomical), not NIfTI.
void PCD_SetDefaultWorldGeometry(PcdWorldGeometry* geometry, float voxelSize);

// Determinant of the 3x3 part of the voxel-to-world matrix.
double PCD_WorldGeometryDeterminant(const PcdWorldGeometry* geometry);

// True when FSL .bvec files of this geometry carry a flipped x component.
bool PCD_BvecFlipsX(const PcdWorldGeometry* geometry);

// "dir/dwi.nii.gz" -> "dir/dwi" (also .nii, .hdr, .img); other names stay as they are.
std::string PCD_NiftiStem(const std::string& fileName);

// True for names ending .nii or .nii.gz, or files starting with a NIfTI-1 header.
bool PCD_IsNiftiFile(const char* fileName);

// Reads a 3D or 4D image into a new SINT16 volume and fills geometry. Null with an
// "Err: " line on any failure. information receives "Data Source: NIfTI file\nFile
// name: <name>\n".
PcdRawVolumeData* ReadNiftiVolumeFile(const char* fileName, PcdWorldGeometry* geometry,
                                      std::string* information);

// Reads a DWI image with its b values and directions into a new DTI record whose volume
// the caller owns as well (delete the volume, then std::free the record). bvalFile and
// bvecFile may be null: then <stem>.bval(s)/<stem>.bvec(s) or bvals/bvecs in the same
// folder are used. Without any gradient file the single-So default is applied, with a
// "Warning: " line. The record's voxel size (its float field) is the x voxel size.
// Null with an "Err: " line on any failure.
PcdDtiData* ReadNiftiDwiFile(const char* fileName, const char* bvalFile, const char* bvecFile,
                             PcdWorldGeometry* geometry, std::string* information);

// Whether a NIfTI-1 header can describe COUNT volumes of SIZE (16-bit dimensions); when it
// cannot, an "Err: " line naming fileName says so. Lets a command refuse before its work.
bool PCD_NiftiCanHold(const PcdIntSize3D& size, int32_t count, const char* fileName);

// Writes the listed channels (all of one data type and colour format) as one 3D or 4D
// image. A packed RGBA channel is written as RGB24 (alpha dropped). sclSlope, when
// non-zero, is stored so that other tools show value * sclSlope (e.g. 0.001 for FA x
// 1000). 0 on success, -1 with an "Err: " line on failure.
int WriteNiftiChannels(const PcdRawVolumeData* volume, const int32_t* channels, int32_t count,
                       const PcdWorldGeometry* geometry, const char* fileName,
                       float sclSlope = 0.0f);

// Writes the DTI channels as a 4D image and, when the MPG setting is ready, its b values
// and directions as <stem>.bval and <stem>.bvec beside it. 0 on success, -1 on failure.
int WriteNiftiDwiFile(const PcdDtiData* dti, const PcdWorldGeometry* geometry,
                      const char* fileName);
