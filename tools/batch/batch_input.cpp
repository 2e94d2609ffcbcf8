#include "tools/batch/batch_input.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "io/dicom_directory.h"
#include "io/dti_file.h"
#include "io/file_util.h"
#include "io/raw_volume_file.h"

const char kBatchInputOptionsHelp[] =
    "INPUT may also be a directory of DICOM files: one file per slice and channel, Siemens\n"
    "mosaics, enhanced multi-frame files; `quorix-batch info DIR` lists its series.\n"
    "\n"
    "Input options:\n"
    "  --mpg FILE          replace the MPG setting with an MPG description file\n"
    "  --bval FILE         b values of a NIfTI input (default: <stem>.bval beside it)\n"
    "  --bvec FILE         directions of a NIfTI input (default: <stem>.bvec beside it)\n"
    "  --voxel-size MM     voxel size for inputs that carry none (raw volume files, DTI\n"
    "                      files without one); otherwise 1.0 is used with a warning\n"
    "  --series N          series N of a DICOM directory (as `info DIR` numbers them;\n"
    "                      default: the only series, else the diffusion series)\n";

BatchInputOptions TakeBatchInputOptions(BatchArgs& args) {
  BatchInputOptions options;
  options.mpgFile = args.TakeValue({"--mpg"});
  options.bvalFile = args.TakeValue({"--bval"});
  options.bvecFile = args.TakeValue({"--bvec"});
  options.voxelSize = args.TakeNumber({"--voxel-size"}, 1e-6, 1e6);
  options.series = args.TakeInteger({"--series"}, 1, 1000000);
  return options;
}

BatchDataSet::~BatchDataSet() {
  if (dti != nullptr) std::free(dti);
  PCD_DeleteRawVolumeData(volume);
}

const char* BatchInputKindName(BatchInputKind kind) {
  switch (kind) {
    case BatchInputKind::kRawVolume: return "raw volume file";
    case BatchInputKind::kDtiFile: return "DTI file";
    case BatchInputKind::kNifti: return "NIfTI file";
    case BatchInputKind::kDicom: return "DICOM directory";
  }
  return "?";
}

namespace {

// What the file's first bytes say it is; nullopt (with an "Err: " line) for none.
std::optional<BatchInputKind> detect_kind(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) return BatchInputKind::kDicom;
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    std::fprintf(stderr, "Err: cannot open %s\n", path.c_str());
    return std::nullopt;
  }
  char head[64] = {};
  const size_t got = std::fread(head, 1, sizeof head - 1, file);
  std::fclose(file);
  const size_t rawMagic = std::strlen(kPcdRawVolumeFileMagic);
  if (got >= static_cast<size_t>(kPcdDtiFileMagicLength) &&
      std::memcmp(head, kPcdDtiFileMagic, kPcdDtiFileMagicLength) == 0)
    return BatchInputKind::kDtiFile;
  if (got >= rawMagic && std::memcmp(head, kPcdRawVolumeFileMagic, rawMagic) == 0)
    return BatchInputKind::kRawVolume;
  if (PCD_IsNiftiFile(path.c_str())) return BatchInputKind::kNifti;
  std::fprintf(stderr, "Err: %s is neither a raw volume file, a DTI file nor a NIfTI file\n",
               path.c_str());
  return std::nullopt;
}

// The count of leading monochrome SINT16 channels: the channels a DTI record takes.
int32_t leading_dti_channels(const PcdRawVolumeData* volume) {
  int32_t count = 0;
  while (count < volume->matrixSize->channels && volume->dataType[count] == SINT16 &&
         volume->colorFormat[count] == PCD_MONOCHROME)
    ++count;
  return count;
}

// The DTI record over a volume read without one: its leading DWI channels, one So.
bool attach_default_dti(BatchDataSet* set) {
  const int32_t count = leading_dti_channels(set->volume);
  set->dti = PCDdti_NewDiffusionTensorImageData(set->volume, count);
  if (set->dti == nullptr) {
    std::fputs("Err: failed to create DTI data\n", stderr);
    return false;
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(set->dti, count);
  return true;
}

bool load_raw_volume(const std::string& path, bool mapBody, BatchDataSet* set) {
  set->volume = mapBody ? ReadRawVolumeFileMapped(path.c_str(), &set->information)
                        : ReadRawVolumeFile(path.c_str(), &set->information);
  if (set->volume == nullptr) {
    std::fprintf(stderr, "Err: cannot read the raw volume file %s\n", path.c_str());
    return false;
  }
  return attach_default_dti(set);
}

bool load_dti_file(const std::string& path, BatchDataSet* set) {
  set->dti = ReadDtiFile(path.c_str(), &set->information);
  if (set->dti == nullptr) {
    std::fprintf(stderr, "Err: cannot read the DTI file %s\n", path.c_str());
    return false;
  }
  set->volume = set->dti->volume;
  return true;
}

bool load_nifti(const std::string& path, const BatchInputOptions& options, BatchDataSet* set) {
  set->dti = ReadNiftiDwiFile(path.c_str(), options.bvalFile ? options.bvalFile->c_str() : nullptr,
                              options.bvecFile ? options.bvecFile->c_str() : nullptr,
                              &set->geometry, &set->information);
  if (set->dti == nullptr) return false;
  set->volume = set->dti->volume;
  return true;
}

bool load_dicom(const std::string& path, const BatchInputOptions& options, BatchDataSet* set) {
  PcdDicomSeries series;
  set->volume = ReadDicomDirectorySeries(path.c_str(), static_cast<int32_t>(options.series.value_or(0)),
                                         &set->information, &series);
  if (set->volume == nullptr) {
    std::fprintf(stderr, "Err: cannot import the DICOM directory %s\n", path.c_str());
    return false;
  }
  if (!attach_default_dti(set)) return false;
  PCD_SetDicomMpgSetting(set->dti, series);
  set->dti->reserved = series.voxelSize;
  set->geometry = series.geometry;  // xformCode 0 (a default follows) without orientation
  return true;
}

// The voxel size lives in the DTI record's float field; inputs without one get the
// option's value or 1.0, never a silent zero.
void settle_voxel_size(const std::string& path, const BatchInputOptions& options,
                       BatchDataSet* set) {
  const float own = set->dti->reserved;
  const bool hasOwn = std::isfinite(own) && own > 0.0f;
  if (hasOwn) {
    if (options.voxelSize)
      std::fprintf(stderr, "Warning: %s carries its voxel size (%f mm); --voxel-size ignored\n",
                   path.c_str(), static_cast<double>(own));
  } else if (options.voxelSize) {
    set->dti->reserved = static_cast<float>(*options.voxelSize);
  } else {
    std::fprintf(stderr,
                 "Warning: %s carries no voxel size; 1.0 mm is used (set it with "
                 "--voxel-size)\n",
                 path.c_str());
    set->dti->reserved = 1.0f;
  }
  if (!set->geometry.fromNifti && set->geometry.xformCode <= 0)
    PCD_SetDefaultWorldGeometry(&set->geometry, set->dti->reserved);
}

}  // namespace

std::unique_ptr<BatchDataSet> LoadBatchInput(const std::string& path,
                                             const BatchInputOptions& options) {
  const std::optional<BatchInputKind> kind = detect_kind(path);
  if (!kind) return nullptr;
  if (*kind != BatchInputKind::kNifti && (options.bvalFile || options.bvecFile)) {
    std::fprintf(stderr, "Err: --bval and --bvec only apply to NIfTI inputs\n");
    return nullptr;
  }
  if (*kind != BatchInputKind::kDicom && options.series) {
    std::fprintf(stderr, "Err: --series only applies to DICOM directories\n");
    return nullptr;
  }
  auto set = std::make_unique<BatchDataSet>();
  set->kind = *kind;
  const bool loaded = *kind == BatchInputKind::kRawVolume ? load_raw_volume(path, options.mapRawBody, set.get())
                      : *kind == BatchInputKind::kDtiFile ? load_dti_file(path, set.get())
                      : *kind == BatchInputKind::kDicom   ? load_dicom(path, options, set.get())
                                                          : load_nifti(path, options, set.get());
  if (!loaded) return nullptr;
  settle_voxel_size(path, options, set.get());

  if (options.mpgFile) {
    if (pcd_regular_file_size(options.mpgFile->c_str()) < 0) {
      std::fprintf(stderr, "Err: cannot open the MPG file %s\n", options.mpgFile->c_str());
      return nullptr;
    }
    if (ReadMpgDescriptionFile(options.mpgFile->c_str(), set->dti) != 1) {
      std::fprintf(stderr, "Err: the MPG file %s was not applied\n", options.mpgFile->c_str());
      return nullptr;
    }
  }
  return set;
}

bool BatchEndsWith(const std::string& text, const char* tail) {
  const size_t n = std::strlen(tail);
  return text.size() >= n && text.compare(text.size() - n, n, tail) == 0;
}

bool BatchFileStartsWith(const std::string& path, const char* magic) {
  const size_t n = std::strlen(magic);
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) return false;
  std::string head(n, '\0');
  return std::fread(head.data(), 1, n, file.get()) == n && head == magic;
}

bool IsBatchDataSetName(const std::string& path) {
  for (const char* tail : {".dti", ".raw", ".mpg", ".nii", ".nii.gz"})
    if (BatchEndsWith(path, tail)) return true;
  return false;
}

int WriteBatchDataSet(const PcdDtiData* dti, const PcdWorldGeometry* geometry,
                      const std::string& path) {
  int result = -1;
  if (BatchEndsWith(path, ".dti")) result = WriteDtiFile(dti, path.c_str());
  else if (BatchEndsWith(path, ".raw")) result = WriteRawVolumeFile(dti->volume, path.c_str());
  else if (BatchEndsWith(path, ".mpg")) result = WriteMpgDescriptionFile(path.c_str(), dti);
  else if (IsBatchDataSetName(path)) result = WriteNiftiDwiFile(dti, geometry, path.c_str());
  if (result != 0) std::fprintf(stderr, "Err: cannot write %s\n", path.c_str());
  return result;
}
