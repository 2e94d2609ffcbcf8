// What a cohort run reads from disk that others may have written: done markers, FSL
// .bval/.bvec texts, and a dwi image with its sidecars as the dataset check sees them.
// The first byte picks the reader; for the check, the rest is the three files joined by
// the separator "#QX#": image, b values, directions.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "cohort/bids_layout.h"
#include "cohort/done_marker.h"
#include "dti/dti_data.h"
#include "fuzz/fuzz_support.h"
#include "io/nifti_file.h"
#include "tools/phantom/phantom.h"

namespace {

constexpr std::string_view kSeparator = "#QX#";

std::vector<std::string> Split(std::string_view input) {
  std::vector<std::string> parts;
  size_t at;
  while (parts.size() < 2 && (at = input.find(kSeparator)) != std::string_view::npos) {
    parts.emplace_back(input.substr(0, at));
    input.remove_prefix(at + kSeparator.size());
  }
  parts.emplace_back(input);
  return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  switch (data[0] % 3) {
    case 0: {
      const auto marker = ParseDoneMarker(text);
      if (marker) (void)FormatDoneMarker(*marker);
      break;
    }
    case 1: {
      std::string problem;
      (void)ParseBidsGradientText(text, &problem);
      break;
    }
    default: {
      const std::vector<std::string> parts = Split(text);
      BidsDwiRun run;
      const auto* bytes = reinterpret_cast<const uint8_t*>(parts[0].data());
      run.image = PCDfuzz_TempFile(bytes, parts[0].size(), "_dwi.nii");
      if (parts.size() > 1)
        run.bval = PCDfuzz_TempFile(reinterpret_cast<const uint8_t*>(parts[1].data()), parts[1].size(), "_dwi.bval");
      if (parts.size() > 2)
        run.bvec = PCDfuzz_TempFile(reinterpret_cast<const uint8_t*>(parts[2].data()), parts[2].size(), "_dwi.bvec");
      (void)CheckBidsDwiRun(run);
      break;
    }
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  DoneMarker marker{"01", "", "2.0", "maps,track", {{"sub-01/dwi/sub-01_dwi.nii.gz", "ab"}}, {{"dwi/x.tsv", "cd"}}};
  const std::string seed = std::string(1, '\0') + FormatDoneMarker(marker);
  PCDfuzz_WriteFile(dir, "marker", std::vector<uint8_t>(seed.begin(), seed.end()));
  const std::string bvals = std::string(1, '\1') + "0 1000 1000 1000 1000 1000 1000\n";
  PCDfuzz_WriteFile(dir, "bval", std::vector<uint8_t>(bvals.begin(), bvals.end()));
  // a small phantom image with its sidecars, written by the project's own writer
  PcdPhantomOptions options;
  options.sizeX = 4, options.sizeY = 4, options.sizeZ = 2, options.directions = 6;
  PcdDtiData* dti = PCD_MakeDwiPhantom(options, nullptr);
  if (dti == nullptr) return;
  PcdWorldGeometry geometry;
  PCD_SetDefaultWorldGeometry(&geometry, 2.0f);
  const std::string stem = std::string(dir) + "/seed_dwi";
  if (WriteNiftiDwiFile(dti, &geometry, (stem + ".nii").c_str()) == 0) {
    std::vector<uint8_t> all{2};
    for (const char* tail : {".nii", ".bval", ".bvec"}) {
      const std::vector<uint8_t> part = PCDfuzz_ReadFile(stem + tail);
      all.insert(all.end(), part.begin(), part.end());
      if (std::string(tail) != ".bvec") all.insert(all.end(), kSeparator.begin(), kSeparator.end());
    }
    PCDfuzz_WriteFile(dir, "run", all);
  }
  for (const char* tail : {".nii", ".bval", ".bvec"}) std::remove((stem + tail).c_str());
  PCD_DeleteRawVolumeData(dti->volume);
  std::free(dti);
}
