// quorix-batch model: fiber modeling through the RBF-interpolated tensor field of a
// control region, from a seed mask or box.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dti/dti_check.h"
#include "fiber/modeling.h"
#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "io/tract_file.h"
#include "study/fiber_dump.h"
#include "study/modeling_controls.h"
#include "study/study_runner.h"
#include "tools/batch/batch_input.h"
#include "tools/batch/batch_region.h"

namespace {

using VolumePtr = std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)>;

// A mask file (raw volume or NIfTI) of the data set's matrix: its non-zero voxels of
// channel 0 as 1 in a new one-byte volume, or null with an "Err: " line.
VolumePtr ReadMask(const std::string& path, const char* what, const PcdIntSize4D& size) {
  VolumePtr none(nullptr, PCD_DeleteRawVolumeData);
  std::string info;
  PcdWorldGeometry geometry{};
  VolumePtr mask(PCD_IsNiftiFile(path.c_str()) ? ReadNiftiVolumeFile(path.c_str(), &geometry, &info)
                                               : ReadRawVolumeFile(path.c_str(), &info),
                 PCD_DeleteRawVolumeData);
  if (!mask) {
    std::fprintf(stderr, "Err: cannot read the %s %s\n", what, path.c_str());
    return none;
  }
  const PcdIntSize4D& m = *mask->matrixSize;
  if (m.x != size.x || m.y != size.y || m.z != size.z) {
    std::fprintf(stderr, "Err: the %s is %d x %d x %d, the data set %d x %d x %d\n", what, m.x, m.y, m.z,
                 size.x, size.y, size.z);
    return none;
  }
  const PcdIntSize3D s3{m.x, m.y, m.z};
  VolumePtr binary(PCD_NewSingleChannelRawVolumeData(&s3, UINT8, PCD_MONOCHROME), PCD_DeleteRawVolumeData);
  if (!binary) {
    std::fputs("Err: out of memory for the mask\n", stderr);
    return none;
  }
  static const uint8_t zero[8] = {};
  const size_t element = static_cast<size_t>(PCD_SizeOfDataType(mask->dataType[0]));
  const auto* from = static_cast<const uint8_t*>(mask->data[0]);
  auto* to = static_cast<uint8_t*>(binary->data[0]);
  const size_t voxels = static_cast<size_t>(m.x) * static_cast<size_t>(m.y) * static_cast<size_t>(m.z);
  for (size_t at = 0; at < voxels; ++at) to[at] = std::memcmp(from + at * element, zero, element) != 0 ? 1 : 0;
  return binary;
}

int run_model(BatchArgs& args) {
  const BatchInputOptions options = TakeBatchInputOptions(args);
  const auto control = args.TakeValue({"--control-mask"});
  const auto seedMask = args.TakeValue({"--seed-mask"});
  const auto box = args.TakeValue({"--seed-box"});
  const auto perVoxel = args.TakeInteger({"--seeds-per-voxel"}, 1, 1000000);
  const auto faMin = args.TakeNumber({"--fa-min"}, -1, 2);
  const bool noFaMin = args.TakeFlag({"--no-fa-min"});
  const bool noSoMin = args.TakeFlag({"--no-so-min"});
  const auto adcMax = args.TakeNumber({"--adc-max"}, 0, 1);
  const auto soMin = args.TakeNumber({"--so-min"}, -40000, 40000);
  const auto soMax = args.TakeNumber({"--so-max"}, -40000, 40000);
  const auto angleMax = args.TakeNumber({"--angle-max"}, 0, 180);
  const auto step = args.TakeNumber({"--step"}, 1e-3, 100);
  const auto nodes = args.TakeInteger({"--nodes"}, 1, 32767);
  const auto threads = args.TakeInteger({"--threads"}, 1, 512);
  const auto fieldDump = args.TakeValue({"--field-dump"});
  const auto dump = args.TakeValue({"--dump"});
  const auto tck = args.TakeValue({"--tck"});
  const auto trk = args.TakeValue({"--trk"});
  if (seedMask.has_value() == box.has_value()) args.Fail("needs exactly one of --seed-mask and --seed-box");
  if (!args.Finish(1, 1)) return kBatchUsageError;
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(args.positional()[0], options);
  if (!set) return kBatchFailed;
  if (!PCDdti_CheckDataSetForAnalysis(set->dti, PCD_DTI_INTERPOLATED)) return kBatchFailed;

  const PcdIntSize4D& size = *set->volume->matrixSize;
  std::vector<PcdIntVector3D> voxels;
  if (seedMask) {
    VolumePtr seeds = ReadMask(*seedMask, "seed mask", size);
    if (!seeds) return kBatchFailed;
    const auto* bytes = static_cast<const uint8_t*>(seeds->data[0]);
    size_t at = 0;
    for (int z = 0; z < size.z; ++z)
      for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x, ++at)
          if (bytes[at] != 0) voxels.push_back({x, y, z});
  } else if (!BatchParseSeedBox(*box, size, &voxels)) {
    return kBatchFailed;
  }
  const int64_t k = perVoxel.value_or(1);
  if (static_cast<int64_t>(voxels.size()) * k > 100000000) {
    std::fputs("Err: more than 100000000 seeds\n", stderr);
    return kBatchFailed;
  }
  std::vector<PcdVector3D> seeds;
  seeds.reserve(voxels.size() * static_cast<size_t>(k));
  for (const PcdIntVector3D& v : voxels)
    for (int64_t i = 0; i < k; ++i) seeds.push_back(PCDdti_SeedInVoxel(v.x, v.y, v.z, static_cast<int>(i)));

  PcdFibeModelContext context;
  PcdDiffusionTensorLimits& l = context.limits;
  if (faMin) l.FAmin = static_cast<float>(*faMin);
  if (noFaMin) l.useFAmin = 0;
  if (noSoMin) l.useSoMin = 0;
  if (adcMax) l.useADCmax = 1, l.ADCmax = static_cast<float>(*adcMax);
  if (soMin) l.SoMin = static_cast<float>(*soMin);
  if (soMax) l.useSoMax = 1, l.SoMax = static_cast<float>(*soMax);
  if (angleMax) l.useAngleMax = 1, l.AngleMax = static_cast<float>(*angleMax);
  if (step) context.step = static_cast<float>(*step);
  if (nodes) context.nodeLimit = static_cast<int32_t>(*nodes);
  context.seedCount = static_cast<int32_t>(seeds.size());
  context.seedPoints = seeds.data();

  // without a mask, the default of a modeling study: tissue near the seeds
  VolumePtr controls(nullptr, PCD_DeleteRawVolumeData);
  if (control) {
    controls = ReadMask(*control, "control mask", size);
  } else {
    const PcdIntSize3D size3{size.x, size.y, size.z};
    std::vector<uint8_t> near(static_cast<size_t>(size.x) * static_cast<size_t>(size.y) * static_cast<size_t>(size.z), 0);
    for (const PcdIntVector3D& v : voxels)
      near[(static_cast<size_t>(v.z) * static_cast<size_t>(size3.y) + static_cast<size_t>(v.y)) * static_cast<size_t>(size3.x) +
           static_cast<size_t>(v.x)] = 1;
    controls.reset(PCD_NewBoundedModelingControlVolume(set->dti, &context.limits, near));
  }
  if (!controls) return kBatchFailed;

  if (fieldDump) std::remove(fieldDump->c_str());  // so that a file left from before cannot pass
  PcdFibeTrakBuffer* result =
      PCDdti_FiberModeling(set->dti, &context, controls.get(), static_cast<int>(threads.value_or(BatchDefaultThreads())),
                           fieldDump ? fieldDump->c_str() : nullptr);
  if (result == nullptr) return kBatchFailed;
  int64_t nodesWritten = 0;
  for (int32_t i = 0; i < result->lineCount; ++i) {
    result->pairs[i]->selection = 1;  // no ROI conditions here: every fiber is selected
    nodesWritten += PCD_FiberNodeCount(result->pairs[i]);
  }
  std::printf("Seed Points:   %d\n", result->seedCount);
  std::printf("Tracked Lines:   %d\n", result->lineCount);
  std::printf("Drawn Lines:   %d\n", result->lineCount);
  std::printf("Buffer Size:   %3.1f Mb\n", static_cast<double>(PCD_GetFibeTrakBufferMegabytes(result)));
  std::printf("Nodes:   %lld\n", static_cast<long long>(nodesWritten));
  int status = kBatchOk;
  if (fieldDump && !std::ifstream(*fieldDump).good()) status = kBatchFailed;
  const float voxelSize = set->dti->reserved;
  if (dump && PCDdti_DumpFibeTrakBufferToFile(result, voxelSize, dump->c_str()) < 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", dump->c_str());
    status = kBatchFailed;
  }
  if (tck && WriteTckFile(result, &set->geometry, tck->c_str()) != 0) status = kBatchFailed;
  if (trk && WriteTrkFile(result, &set->geometry, &size, trk->c_str()) != 0) status = kBatchFailed;
  PCDdti_DeleteFibeTrakBuffer(result);
  return status;
}

}  // namespace

extern const BatchCommand kBatchModelCommand = {
    "model", "fiber modeling through an RBF-interpolated tensor field",
    "Usage: quorix-batch model INPUT (--seed-mask MASK | --seed-box X0,Y0,Z0,X1,Y1,Z1)\n"
    "                          [--control-mask MASK] [options]\n"
    "\n"
    "Measures the tensor at the control voxels (the mask's non-zero voxels on a grid of\n"
    "pitch 1, 2, 4 or 6 by the matrix width: up to 64, 128, 256, beyond), interpolates\n"
    "each of its six components by radial basis functions (phi(r) = r) and follows the\n"
    "principal direction of the interpolated field from every seed, forward and backward.\n"
    "Prints the seed, line and node counts; every fiber is kept. The dense systems take\n"
    "about 12 (n + 4)^2 bytes and time growing as n^3 for n control voxels: a region\n"
    "past what the machine solves in three minutes is refused, as is one lying in a plane.\n"
    "\n"
    "Regions:\n"
    "  --control-mask MASK raw volume or NIfTI image of the data set's matrix size;\n"
    "                      default, as a modeling study: the voxels passing the stop\n"
    "                      criteria inside the head (So above its Otsu threshold) and\n"
    "                      within 16 voxels of a seed voxel\n"
    "  --seed-mask MASK    likewise; every non-zero voxel seeds\n"
    "  --seed-box ...      the voxels X0..X1, Y0..Y1, Z0..Z1 (inclusive) seed\n"
    "  --seeds-per-voxel K seeds per voxel, spread evenly inside it (default 1: the centre)\n"
    "Stop criteria (defaults: FA min 0.18 and So min 0 on, the others off):\n"
    "  --fa-min F  --adc-max A (mm^2/s)  --so-min S  --so-max S  --angle-max DEG\n"
    "  --no-fa-min  --no-so-min   switch the two stops that are on by default off\n"
    "Modeling:\n"
    "  --step H            step in voxels (default 0.7)\n"
    "  --nodes N           nodes per half-line, the seed included (default 160)\n"
    "  --threads T         worker threads (default: the number of cores)\n"
    "Output:\n"
    "  --field-dump FILE   the interpolated field as 7 SINT16 channels of b = 1000 signal\n"
    "                      (directions 0 and six at 45 degrees), the raw body alone\n"
    "  --dump FILE         the tracking dump (positions in mm, eigenvalues x 1000)\n"
    "  --tck FILE          MRtrix tracks in world mm\n"
    "  --trk FILE          TrackVis tracks\n"
    "Input options:\n"
    "  --mpg FILE  --bval FILE  --bvec FILE  --voxel-size MM   as for every command\n",
    run_model};
