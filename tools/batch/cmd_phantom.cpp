// quorix-batch phantom: writes a synthetic DWI data set with known tensors.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "io/nifti_file.h"
#include "io/raw_volume_file.h"
#include "tools/batch/batch_input.h"
#include "tools/phantom/phantom.h"

namespace {

// "X,Y,Z" or a single N for a cube.
bool ParseSize(const std::string& text, PcdPhantomOptions* o) {
  int x = 0, y = 0, z = 0;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%d,%d,%d%c", &x, &y, &z, &tail) == 3) {
  } else if (std::sscanf(text.c_str(), "%d%c", &x, &tail) == 1) {
    y = z = x;
  } else {
    return false;
  }
  if (x < 2 || y < 2 || z < 2 || x > 1024 || y > 1024 || z > 1024) return false;
  o->sizeX = x;
  o->sizeY = y;
  o->sizeZ = z;
  return true;
}

// The true maps as one FLOAT32 volume: FA, ADC (mm^2/s) and the direction x, y, z.
int WriteTruth(const PcdPhantomTruth& truth, const PcdPhantomOptions& o,
               const PcdWorldGeometry& geometry, const std::string& stem) {
  const PcdIntSize4D size{o.sizeX, o.sizeY, o.sizeZ, 5};
  const int32_t types[5] = {FLOAT32, FLOAT32, FLOAT32, FLOAT32, FLOAT32};
  const int32_t formats[5] = {0, 0, 0, 0, 0};
  PcdRawVolumeData* v = PCD_NewRawVolumeData(&size, types, formats);
  if (v == nullptr) return -1;
  for (size_t i = 0; i < truth.fa.size(); ++i) {
    static_cast<float*>(v->data[0])[i] = truth.fa[i];
    static_cast<float*>(v->data[1])[i] = truth.adc[i];
    static_cast<float*>(v->data[2])[i] = truth.direction[i].x;
    static_cast<float*>(v->data[3])[i] = truth.direction[i].y;
    static_cast<float*>(v->data[4])[i] = truth.direction[i].z;
  }
  const int32_t fa = 0, adc = 1, dir[3] = {2, 3, 4};
  int result = WriteNiftiChannels(v, &fa, 1, &geometry, (stem + "_true_fa.nii.gz").c_str());
  if (result == 0)
    result = WriteNiftiChannels(v, &adc, 1, &geometry, (stem + "_true_adc.nii.gz").c_str());
  if (result == 0)
    result = WriteNiftiChannels(v, dir, 3, &geometry, (stem + "_true_dir.nii.gz").c_str());
  PCD_DeleteRawVolumeData(v);
  return result;
}

int run_phantom(BatchArgs& args) {
  PcdPhantomOptions o;
  const auto size = args.TakeValue({"--size"});
  const auto directions = args.TakeInteger({"--directions"}, kPcdDtiMinDwi, kPcdDtiMaxDwi);
  const auto so = args.TakeInteger({"--so"}, 1, 16);
  const auto b = args.TakeNumber({"--b"}, 1, 100000);
  const auto noise = args.TakeNumber({"--noise"}, 0, 1);
  const auto seed = args.TakeInteger({"--seed"}, 0, 4294967295LL);
  const auto voxel = args.TakeNumber({"--voxel-size"}, 1e-3, 100);
  const bool noTruth = args.TakeFlag({"--no-truth"});
  o.oblique = args.TakeFlag({"--oblique"});
  const auto format = args.TakeValue({"--format"});
  const auto out = args.TakeValue({"-o", "--output"});
  if (size && !ParseSize(*size, &o)) args.Fail("--size takes X,Y,Z or N, each 2 to 1024");
  if (!out) args.Fail("needs -o STEM");
  if (format && *format != "raw" && *format != "nii" && *format != "both")
    args.Fail("--format takes raw, nii or both");
  if (!args.Finish(0, 0)) return kBatchUsageError;
  if (directions) o.directions = static_cast<int32_t>(*directions);
  if (so) o.soCount = static_cast<int32_t>(*so);
  if (b) o.bValue = static_cast<float>(*b);
  if (noise) o.noise = static_cast<float>(*noise);
  if (seed) o.seed = static_cast<uint32_t>(*seed);

  PcdPhantomTruth truth;
  PcdDtiData* dti = PCD_MakeDwiPhantom(o, noTruth ? nullptr : &truth);
  if (dti == nullptr) return kBatchFailed;
  if (voxel) dti->reserved = static_cast<float>(*voxel);
  PcdWorldGeometry geometry{};
  PCD_SetDefaultWorldGeometry(&geometry, dti->reserved);
  const std::string mode = format ? *format : "both";
  int result = 0;
  if (mode != "nii") {
    result |= WriteBatchDataSet(dti, &geometry, *out + ".raw");
    result |= WriteBatchDataSet(dti, &geometry, *out + ".mpg");
  }
  if (mode != "raw") result |= WriteBatchDataSet(dti, &geometry, *out + ".nii.gz");
  if (!noTruth && WriteTruth(truth, o, geometry, *out) != 0) result = -1;
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
  return result == 0 ? kBatchOk : kBatchFailed;
}

}  // namespace

extern const BatchCommand kBatchPhantomCommand = {
    "phantom", "write a synthetic DWI data set with known tensors",
    "Usage: quorix-batch phantom -o STEM [options]\n"
    "\n"
    "Writes a DWI data set with a head-shaped So, isotropic tissue, a fluid rim, and\n"
    "straight, crossing and curved fiber bundles (FA 0.80): STEM.raw with STEM.mpg, and\n"
    "STEM.nii.gz with STEM.bval/STEM.bvec, plus the true maps STEM_true_fa.nii.gz,\n"
    "STEM_true_adc.nii.gz (mm^2/s) and STEM_true_dir.nii.gz (principal direction; zero\n"
    "where two bundles cross). The same options always give the same bytes.\n"
    "\n"
    "Options:\n"
    "  --size X,Y,Z | N    matrix size (default 64,64,24)\n"
    "  --directions N      diffusion-weighted channels, 6 to 129 (default 30)\n"
    "  --so N              b = 0 channels in front of them (default 1)\n"
    "  --b B               b value in s/mm^2 (default 1000)\n"
    "  --noise S           Rician noise sigma as a fraction of the bundle So (default 0)\n"
    "  --seed N            seed of the noise (default 1)\n"
    "  --voxel-size MM     voxel size (default 2)\n"
    "  --format F          raw, nii or both (default both)\n"
    "  --no-truth          do not write the true maps\n"
    "  --oblique           add a straight bundle along (1,0,1) beside the crossing, which\n"
    "                      shows a flipped z axis of the MPG setting\n",
    run_phantom};
