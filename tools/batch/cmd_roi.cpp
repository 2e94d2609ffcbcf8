// quorix-batch roi: ROIs between the program's files and masks that other tools read.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "io/file_util.h"
#include "io/nifti_file.h"
#include "io/object_files.h"
#include "io/raw_volume_file.h"
#include "io/session_file.h"
#include "tools/batch/batch_input.h"

namespace {

struct VolumeDeleter {
  void operator()(PcdRawVolumeData* v) const { PCD_DeleteRawVolumeData(v); }
};
using VolumePtr = std::unique_ptr<PcdRawVolumeData, VolumeDeleter>;

int WriteMask(const std::vector<uint8_t>& mask, const PcdIntSize3D& size, const PcdWorldGeometry& geometry,
              const std::string& path) {
  VolumePtr volume(PCD_NewSingleChannelRawVolumeData(&size, UINT8, PCD_MONOCHROME));
  if (!volume) {
    std::fprintf(stderr, "Err: roi: no memory for a %d x %d x %d mask\n", size.x, size.y, size.z);
    return -1;
  }
  std::copy(mask.begin(), mask.end(), static_cast<uint8_t*>(volume->data[0]));
  if (BatchEndsWith(path, ".raw")) return WriteRawVolumeFile(volume.get(), path.c_str());
  const int32_t channel = 0;
  return WriteNiftiChannels(volume.get(), &channel, 1, &geometry, path.c_str());
}

struct RoiOptions {
  std::optional<std::string> data;  // the data set whose voxel-to-world matrix the mask takes
  BatchInputOptions input;
  std::optional<long long> id;
  std::optional<std::string> output;
  std::optional<std::string> label;
};

int run_export(BatchArgs& args, const RoiOptions& options) {
  const std::optional<long long>& id = options.id;
  const std::optional<std::string>& output = options.output;
  if (options.label) {
    args.Fail("--label belongs to import");
    return kBatchUsageError;
  }
  if (!output || !(BatchEndsWith(*output, ".raw") || BatchEndsWith(*output, ".nii") ||
                   BatchEndsWith(*output, ".nii.gz"))) {
    args.Fail("export needs -o MASK ending in .nii, .nii.gz or .raw");
    return kBatchUsageError;
  }
  const std::string& path = args.positional()[1];
  PcdWorkSession session;
  PcdIntSize3D size{0, 0, 0};
  float voxelSize = 1.0f;
  if (BatchFileStartsWith(path, kPcdRoiFileMagic)) {
    PcdRoiObject* roi = PCD_LoadRoiObjectFile(path.c_str(), &size);
    if (roi == nullptr) return kBatchFailed;
    PCD_AppendRoiObject(&session.rois, roi);
  } else if (BatchFileStartsWith(path, kPcdSessionFileMagic)) {
    if (ReadWorkSessionFile(&session, path.c_str()) != 0) return kBatchFailed;
    size = PCD_GetSessionMatrixSize(&session);
    voxelSize = session.dti->reserved > 0 ? session.dti->reserved : 1.0f;
  } else {
    std::fprintf(stderr, "Err: roi: %s is neither a ROI object file nor a work session file\n",
                 path.c_str());
    return kBatchFailed;
  }
  const PcdRoiObject* roi = nullptr;
  if (id) roi = PCD_FindRoiObject(&session.rois, static_cast<uint16_t>(*id));
  else if (session.rois.items.size() == 1) roi = session.rois.items[0].get();
  if (roi == nullptr) {
    std::fprintf(stderr, "Err: roi: %s holds %zu ROIs; --roi ID names %s\n", path.c_str(),
                 session.rois.items.size(), id ? "none of them" : "the one to export");
    return kBatchFailed;
  }
  if (size.x <= 0 || size.y <= 0 || size.z <= 0) {
    std::fprintf(stderr, "Err: roi: the ROI was saved without a volume (%d x %d x %d)\n", size.x,
                 size.y, size.z);
    return kBatchFailed;
  }
  if (PCD_CheckedVoxelCount(size, 1) < 0) {
    std::fprintf(stderr, "Err: roi: a mask of %d x %d x %d voxels is more than this machine can hold\n", size.x,
                 size.y, size.z);
    return kBatchFailed;
  }
  // a mask that the output cannot hold is refused before it is drawn
  if (!BatchEndsWith(*output, ".raw") && !PCD_NiftiCanHold(size, 1, output->c_str())) return kBatchFailed;
  // the mask overlays its data in other tools only with the data's voxel-to-world matrix
  PcdWorldGeometry geometry;
  PCD_SetDefaultWorldGeometry(&geometry, voxelSize);
  if (options.data) {
    std::unique_ptr<BatchDataSet> set = LoadBatchInput(*options.data, options.input);
    if (!set) return kBatchFailed;
    const PcdIntSize4D& m = *set->volume->matrixSize;
    if (m.x != size.x || m.y != size.y || m.z != size.z) {
      std::fprintf(stderr, "Err: roi: %s is %d x %d x %d; the ROI was made on %d x %d x %d\n",
                   options.data->c_str(), m.x, m.y, m.z, size.x, size.y, size.z);
      return kBatchFailed;
    }
    geometry = set->geometry;
  } else if (!BatchEndsWith(*output, ".raw")) {
    std::fprintf(stderr,
                 "Warning: roi: the voxel-to-world matrix is unknown: %s has %g mm voxels at the origin "
                 "(--data INPUT gives the data's)\n",
                 output->c_str(), static_cast<double>(voxelSize));
  }
  const std::vector<uint8_t> mask = PCD_RasterizeRoiObject(roi, &size);
  if (WriteMask(mask, size, geometry, *output) != 0) return kBatchFailed;
  const long long voxels = std::count(mask.begin(), mask.end(), 1);
  std::printf("ROI %u \"%s\": %lld voxels of %d x %d x %d written to %s\n", roi->id,
              std::string(roi->label, strnlen(roi->label, sizeof roi->label)).c_str(), voxels,
              size.x, size.y, size.z, output->c_str());
  return kBatchOk;
}

int run_import(BatchArgs& args, const RoiOptions& options) {
  const std::optional<std::string>& output = options.output;
  const std::optional<std::string>& label = options.label;
  if (options.id) {
    args.Fail("--roi belongs to export");
    return kBatchUsageError;
  }
  if (!output) {
    args.Fail("import needs -o FILE.roi");
    return kBatchUsageError;
  }
  const std::string& path = args.positional()[1];
  std::string information;
  PcdWorldGeometry geometry{};
  VolumePtr mask(PCD_IsNiftiFile(path.c_str())
                     ? ReadNiftiVolumeFile(path.c_str(), &geometry, &information)
                     : ReadRawVolumeFile(path.c_str(), &information));
  if (!mask) {
    std::fprintf(stderr, "Err: roi: cannot read the mask %s\n", path.c_str());
    return kBatchFailed;
  }
  const PcdIntSize4D& m = *mask->matrixSize;
  const int32_t elementSize = PCD_SizeOfDataType(mask->dataType[0]);
  const auto* data = static_cast<const uint8_t*>(mask->data[0]);
  auto set = [&](size_t at) {
    const uint8_t* e = data + at * static_cast<size_t>(elementSize);
    return std::any_of(e, e + elementSize, [](uint8_t b) { return b != 0; });
  };
  PcdIntVector3D low{m.x, m.y, m.z}, high{-1, -1, -1};
  size_t at = 0;
  for (int32_t z = 0; z < m.z; ++z)
    for (int32_t y = 0; y < m.y; ++y)
      for (int32_t x = 0; x < m.x; ++x, ++at)
        if (set(at)) {
          low = {std::min(low.x, x), std::min(low.y, y), std::min(low.z, z)};
          high = {std::max(high.x, x), std::max(high.y, y), std::max(high.z, z)};
        }
  if (high.x < 0) {
    std::fprintf(stderr, "Err: roi: the mask %s has no voxel set\n", path.c_str());
    return kBatchFailed;
  }
  std::unique_ptr<PcdRoiObject> roi(new_roi_object(PCD_ROI_VOXELGROUP));
  const PcdIntSize3D box{high.x - low.x + 1, high.y - low.y + 1, high.z - low.z + 1};
  roi->voxelGroup = PCD_NewVoxelGroup(&low, &box, nullptr, kPcdVoxelGroupBitPacked);
  if (!roi->voxelGroup) {
    std::fputs("Err: roi: no memory for the voxel group\n", stderr);
    return kBatchFailed;
  }
  int64_t voxels = 0;
  for (int32_t z = 0; z < box.z; ++z)
    for (int32_t y = 0; y < box.y; ++y)
      for (int32_t x = 0; x < box.x; ++x) {
        const size_t i = static_cast<size_t>(low.x + x) +
                         static_cast<size_t>(m.x) * (static_cast<size_t>(low.y + y) +
                                                     static_cast<size_t>(m.y) * (low.z + z));
        if (set(i)) {
          PCD_SetVoxelOfVoxelGroup(roi->voxelGroup.get(), x, y, z, 1);
          ++voxels;
        }
      }
  PCD_SetRoiLabel(roi.get(), label ? label->c_str() : "Voxelgroup 1");
  PCD_GetRoiColor(0, &roi->red, &roi->green, &roi->blue);
  const PcdIntSize3D size{m.x, m.y, m.z};
  if (PCD_SaveRoiObjectFile(roi.get(), &size, output->c_str()) != 0) {
    std::fprintf(stderr, "Err: roi: cannot write %s\n", output->c_str());
    return kBatchFailed;
  }
  std::printf("%lld voxels of %s in a %d x %d x %d voxel group at (%d, %d, %d) written to %s\n",
              static_cast<long long>(voxels), path.c_str(), box.x, box.y, box.z, low.x, low.y,
              low.z, output->c_str());
  return kBatchOk;
}

int run_roi(BatchArgs& args) {
  RoiOptions options;
  options.input = TakeBatchInputOptions(args);
  options.data = args.TakeValue({"--data"});
  options.id = args.TakeInteger({"--roi"}, 0, 65535);
  options.output = args.TakeValue({"-o", "--output"});
  options.label = args.TakeValue({"--label"});
  if (!args.Finish(2, 2)) return kBatchUsageError;
  const std::string& sub = args.positional()[0];
  if (sub == "export") return run_export(args, options);
  if (sub == "import") return run_import(args, options);
  args.Fail("unknown subcommand '" + sub + "' (try 'export' or 'import')");
  return kBatchUsageError;
}

}  // namespace

extern const BatchCommand kBatchRoiCommand = {
    "roi", "export a ROI as a mask, or import a mask as a voxelgroup ROI",
    "Usage: quorix-batch roi export FILE [--roi ID] [--data INPUT] -o MASK\n"
    "       quorix-batch roi import MASK -o FILE.roi [--label TEXT]\n"
    "\n"
    "export: FILE is a ROI object file or a work session file; the ROI (the one of a ROI\n"
    "object file, or the one whose id --roi gives) is written as a one-byte mask (1 inside)\n"
    "of the volume it was made on: NIfTI (.nii, .nii.gz) or raw volume file (.raw). A\n"
    "sphere takes the voxels whose centre lies within its radius, a freehand ROI its\n"
    "points, a voxelgroup its voxels. --data INPUT (the data set the ROI was drawn on)\n"
    "gives the NIfTI mask that data's voxel-to-world matrix, so that it overlays it in\n"
    "other tools; without it the geometry is unknown and said so.\n"
    "\n"
    "import: every non-zero voxel of MASK (NIfTI or raw volume file, first channel) goes\n"
    "into a bit-packed voxel group over their bounding box, saved as a ROI object file\n"
    "for a volume of the mask's size (label \"Voxelgroup 1\" unless --label is given).\n",
    run_roi};
