// quorix-batch info: what a data set holds and how its channels are set up.
#include <cstdio>
#include <filesystem>

#include "io/dicom_scanner.h"
#include "tools/batch/batch_input.h"

namespace {

// The series of a DICOM directory, one line each, numbered as --series takes them.
void list_dicom_series(const std::string& path) {
  const std::vector<PcdDicomSeriesSummary> all = PCD_ListDicomSeries(path.c_str());
  for (size_t i = 0; i < all.size(); ++i) {
    const PcdDicomSeriesSummary& s = all[i];
    std::printf("Series %zu: number %d, \"%s\", %s, %d files, ", i + 1, s.seriesNumber, s.description.c_str(),
                s.layout.c_str(), s.files);
    if (s.channels > 0) std::printf("%d x %d x %d x %d", s.columns, s.rows, s.slices, s.channels);
    else std::printf("no volume");
    if (!s.bValues.empty()) {
      std::printf(", b =");
      for (float b : s.bValues) std::printf(" %g", static_cast<double>(b));
      std::printf(" (%s)", s.diffusionSource.c_str());
    }
    std::printf("\n");
  }
  std::fflush(stdout);
}

int run_info(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  if (!args.Finish(1, 1)) return kBatchUsageError;
  const std::string& path = args.positional()[0];
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) list_dicom_series(path);
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(path, options);
  if (!set) return kBatchFailed;

  const PcdIntSize4D& size = *set->volume->matrixSize;
  std::printf("%s", set->information.c_str());
  std::printf("Kind: %s\n", BatchInputKindName(set->kind));
  std::printf("Matrix: %d x %d x %d, %d channels\n", size.x, size.y, size.z, size.channels);
  std::printf("Voxel size: %g mm\n", static_cast<double>(set->dti->reserved));
  for (int32_t c = 0; c < size.channels; ++c) {
    std::printf("Channel %d: %s%s\n", c, PCD_NameOfDataType(set->volume->dataType[c]),
                set->volume->colorFormat[c] == PCD_RGBA_PACKED ? " RGBA" : "");
  }
  std::fflush(stdout);
  PCDdti_DumpMPGvectorSetting(set->dti);
  return kBatchOk;
}

}  // namespace

static const std::string kInfoUsage = std::string(
    "Usage: quorix-batch info INPUT [options]\n"
    "\n"
    "Loads INPUT (raw volume file with header, DTI file, NIfTI image or DICOM directory)\n"
    "as the desktop program does and prints its matrix size, voxel size and channel types\n"
    "on standard output, then the MPG setting on standard error. For a DICOM directory it\n"
    "first lists the series it holds (number, description, layout, files, matrix x y z\n"
    "channels, b values and where they come from).\n"
    "\n") +
    kBatchInputOptionsHelp;

extern const BatchCommand kBatchInfoCommand = {
    "info", "print the matrix, channel types and MPG setting of a data set",
    kInfoUsage.c_str(),
    run_info};
