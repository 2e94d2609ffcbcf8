// Loading the INPUT of any command: a raw volume file with header, a DTI file, a NIfTI-1
// image or a directory of DICOM files, into one volume, its DTI record and its world
// geometry.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "dti/dti_data.h"
#include "io/nifti_file.h"
#include "tools/batch/batch.h"
#include "vol/raw_volume.h"

// The input options every loading command takes. Paste kBatchInputOptionsHelp into the
// command's --help text.
struct BatchInputOptions {
  std::optional<std::string> mpgFile;   // --mpg FILE: MPG description file
  std::optional<std::string> bvalFile;  // --bval FILE (NIfTI only)
  std::optional<std::string> bvecFile;  // --bvec FILE (NIfTI only)
  std::optional<double> voxelSize;      // --voxel-size MM, for inputs that carry none
  std::optional<long long> series;      // --series N: which series of a DICOM directory
  // map the body of a raw volume file instead of reading it (ReadRawVolumeFileMapped); the
  // command must not write to the input file then
  bool mapRawBody = false;
};

extern const char kBatchInputOptionsHelp[];

BatchInputOptions TakeBatchInputOptions(BatchArgs& args);

enum class BatchInputKind { kRawVolume, kDtiFile, kNifti, kDicom };

// A loaded data set. It owns the volume and the DTI record (which points at the volume).
struct BatchDataSet {
  BatchInputKind kind = BatchInputKind::kRawVolume;
  PcdRawVolumeData* volume = nullptr;
  PcdDtiData* dti = nullptr;
  PcdWorldGeometry geometry{};
  std::string information;  // the data-source text of the reader

  BatchDataSet() = default;
  BatchDataSet(const BatchDataSet&) = delete;
  BatchDataSet& operator=(const BatchDataSet&) = delete;
  ~BatchDataSet();
};

const char* BatchInputKindName(BatchInputKind kind);

// Loads INPUT as the desktop program's loading workflow does: a raw volume gets a DTI
// record over its leading monochrome SINT16 channels with the single-So default; a DTI
// file keeps its setting; a NIfTI image takes its .bval/.bvec; a DICOM directory takes
// the setting of its diffusion elements when its files carry them. Then --mpg replaces the
// setting. The voxel size is the input's own, else --voxel-size, else 1.0 with a
// "Warning: " line. Null (with an "Err: " line) when anything fails.
std::unique_ptr<BatchDataSet> LoadBatchInput(const std::string& path,
                                             const BatchInputOptions& options);

// Writes a data set in the format its name ends with: .dti (DTI file), .raw (raw volume
// file, every channel), .mpg (MPG description file), .nii/.nii.gz (the DTI channels with
// <stem>.bval/.bvec). 0, or -1 with an "Err: " line.
int WriteBatchDataSet(const PcdDtiData* dti, const PcdWorldGeometry* geometry,
                      const std::string& path);
// True when WriteBatchDataSet knows the ending of path.
bool IsBatchDataSetName(const std::string& path);
bool BatchEndsWith(const std::string& text, const char* tail);
// True when the file at path begins with the characters of magic.
bool BatchFileStartsWith(const std::string& path, const char* magic);
