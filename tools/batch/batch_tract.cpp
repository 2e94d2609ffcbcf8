#include "tools/batch/batch_tract.h"

#include <cstdio>
#include <cstring>

#include "dti/dti_check.h"
#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "io/tract_file.h"
#include "study/fiber_dump.h"
#include "study/study_runner.h"

BatchTractOptions TakeBatchTractOptions(BatchArgs& args) {
  BatchTractOptions o;
  o.seedMask = args.TakeValue({"--seed-mask"});
  o.seedBox = args.TakeValue({"--seed-box"});
  o.perVoxel = args.TakeInteger({"--seeds-per-voxel"}, 1, 1000000);
  o.faMin = args.TakeNumber({"--fa-min"}, -1, 2);
  o.noFaMin = args.TakeFlag({"--no-fa-min"});
  o.noSoMin = args.TakeFlag({"--no-so-min"});
  o.adcMax = args.TakeNumber({"--adc-max"}, 0, 1);
  o.soMin = args.TakeNumber({"--so-min"}, -40000, 40000);
  o.soMax = args.TakeNumber({"--so-max"}, -40000, 40000);
  o.angleMax = args.TakeNumber({"--angle-max"}, 0, 180);
  o.step = args.TakeNumber({"--step"}, 1e-3, 100);
  o.nodes = args.TakeInteger({"--nodes"}, 1, 32767);
  o.threads = args.TakeInteger({"--threads"}, 1, 512);
  o.dump = args.TakeValue({"--dump"});
  o.tck = args.TakeValue({"--tck"});
  o.trk = args.TakeValue({"--trk"});
  if (o.seedMask.has_value() == o.seedBox.has_value()) args.Fail("needs exactly one of --seed-mask and --seed-box");
  return o;
}

void ApplyBatchTractStops(const BatchTractOptions& o, PcdDiffusionTensorLimits* l, float* step, int32_t* nodeLimit) {
  if (o.faMin) l->FAmin = static_cast<float>(*o.faMin);
  if (o.noFaMin) l->useFAmin = 0;
  if (o.noSoMin) l->useSoMin = 0;
  if (o.adcMax) l->useADCmax = 1, l->ADCmax = static_cast<float>(*o.adcMax);
  if (o.soMin) l->SoMin = static_cast<float>(*o.soMin);
  if (o.soMax) l->useSoMax = 1, l->SoMax = static_cast<float>(*o.soMax);
  if (o.angleMax) l->useAngleMax = 1, l->AngleMax = static_cast<float>(*o.angleMax);
  if (o.step) *step = static_cast<float>(*o.step);
  if (o.nodes) *nodeLimit = static_cast<int32_t>(*o.nodes);
}

int BatchTractThreads(const BatchTractOptions& options) {
  return static_cast<int>(options.threads.value_or(BatchDefaultThreads()));
}

BatchVolumePtr ReadBatchBinaryMask(const std::string& path, const char* what, const PcdIntSize4D& size) {
  std::string info;
  PcdWorldGeometry geometry{};
  BatchVolumePtr mask(PCD_IsNiftiFile(path.c_str()) ? ReadNiftiVolumeFile(path.c_str(), &geometry, &info)
                                                    : ReadRawVolumeFile(path.c_str(), &info));
  if (!mask) {
    std::fprintf(stderr, "Err: cannot read the %s %s\n", what, path.c_str());
    return nullptr;
  }
  const PcdIntSize4D& m = *mask->matrixSize;
  if (m.x != size.x || m.y != size.y || m.z != size.z) {
    std::fprintf(stderr, "Err: the %s is %d x %d x %d, the data set %d x %d x %d\n", what, m.x, m.y, m.z,
                 size.x, size.y, size.z);
    return nullptr;
  }
  const PcdIntSize3D s3{m.x, m.y, m.z};
  BatchVolumePtr binary(PCD_NewSingleChannelRawVolumeData(&s3, UINT8, PCD_MONOCHROME));
  if (!binary) {
    std::fputs("Err: out of memory for the mask\n", stderr);
    return nullptr;
  }
  static const uint8_t zero[8] = {};
  const size_t element = static_cast<size_t>(PCD_SizeOfDataType(mask->dataType[0]));
  const auto* from = static_cast<const uint8_t*>(mask->data[0]);
  auto* to = static_cast<uint8_t*>(binary->data[0]);
  const size_t voxels = static_cast<size_t>(m.x) * static_cast<size_t>(m.y) * static_cast<size_t>(m.z);
  for (size_t at = 0; at < voxels; ++at) to[at] = std::memcmp(from + at * element, zero, element) != 0 ? 1 : 0;
  return binary;
}

bool BatchTractSeeds(const BatchTractOptions& options, const PcdIntSize4D& size,
                     std::vector<PcdIntVector3D>* voxels, std::vector<PcdVector3D>* seeds) {
  if (options.seedMask) {
    BatchVolumePtr mask = ReadBatchBinaryMask(*options.seedMask, "seed mask", size);
    if (!mask) return false;
    const auto* bytes = static_cast<const uint8_t*>(mask->data[0]);
    size_t at = 0;
    for (int z = 0; z < size.z; ++z)
      for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x, ++at)
          if (bytes[at] != 0) voxels->push_back({x, y, z});
  } else if (!BatchParseSeedBox(*options.seedBox, size, voxels)) {
    return false;
  }
  const int64_t k = options.perVoxel.value_or(1);
  if (static_cast<int64_t>(voxels->size()) * k > 100000000) {
    std::fputs("Err: more than 100000000 seeds\n", stderr);
    return false;
  }
  seeds->reserve(voxels->size() * static_cast<size_t>(k));
  for (const PcdIntVector3D& v : *voxels)
    for (int64_t i = 0; i < k; ++i) seeds->push_back(PCDdti_SeedInVoxel(v.x, v.y, v.z, static_cast<int>(i)));
  return true;
}

int FinishBatchTract(const BatchTractOptions& options, const BatchDataSet& set, const PcdFibeTrakBuffer* result,
                     int drawn) {
  int64_t nodesWritten = 0;
  for (int32_t i = 0; i < result->lineCount; ++i)
    if (result->pairs[i]->selection) nodesWritten += PCD_FiberNodeCount(result->pairs[i]);
  std::printf("Seed Points:   %d\n", result->seedCount);
  std::printf("Tracked Lines:   %d\n", result->lineCount);
  std::printf("Drawn Lines:   %d\n", drawn);
  std::printf("Buffer Size:   %3.1f Mb\n", static_cast<double>(PCD_GetFibeTrakBufferMegabytes(result)));
  std::printf("Nodes:   %lld\n", static_cast<long long>(nodesWritten));
  int status = kBatchOk;
  const float voxelSize = set.dti->reserved;
  if (options.dump && PCDdti_DumpFibeTrakBufferToFile(result, voxelSize, options.dump->c_str()) < 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", options.dump->c_str());
    status = kBatchFailed;
  }
  const PcdIntSize4D& size = *set.volume->matrixSize;
  if (options.tck && WriteTckFile(result, &set.geometry, options.tck->c_str()) != 0) status = kBatchFailed;
  if (options.trk && WriteTrkFile(result, &set.geometry, &size, options.trk->c_str()) != 0) status = kBatchFailed;
  return status;
}
