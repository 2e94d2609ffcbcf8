// The scanner DICOM reader on any bytes: the structure check and the CSA header reader on
// one file, then the series list and the import of a directory of up to eight files cut
// from the input at the marker "QXSP" (one file when the input holds no marker). Seeds are
// small pydicom series of every layout (tests/io/scanner_series.py), joined the same way.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "io/dicom_directory.h"
#include "io/dicom_scanner.h"
#include "io/dicom_structure.h"

namespace {

constexpr char kMarker[] = "QXSP";
constexpr size_t kMaxFiles = 8;

const std::string& scratch_directory() {
  static const std::string dir = [] {
    const char* tmp = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR");
    std::string d = std::string(tmp != nullptr ? tmp : "/tmp") + "/quorix-fuzz-scanner-" + std::to_string(getpid()) + "/";
    mkdir(d.c_str(), 0700);
    static char removeAtExit[4096];
    std::snprintf(removeAtExit, sizeof removeAtExit, "%s", d.c_str());
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(removeAtExit, ignored);
    });
    if (std::FILE* quiet = std::fopen("/dev/null", "w")) stderr = quiet;
    return d;
  }();
  return dir;
}

std::vector<std::pair<const uint8_t*, size_t>> split(const uint8_t* data, size_t size) {
  std::vector<std::pair<const uint8_t*, size_t>> parts;
  const uint8_t* end = data + size;
  const uint8_t* at = data;
  while (parts.size() + 1 < kMaxFiles) {
    const uint8_t* next = std::search(at, end, kMarker, kMarker + 4);
    if (next == end) break;
    parts.push_back({at, static_cast<size_t>(next - at)});
    at = next + 4;
  }
  parts.push_back({at, static_cast<size_t>(end - at)});
  return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& dir = scratch_directory();
  const auto parts = split(data, size);
  for (size_t i = 0; i < kMaxFiles; ++i) {
    const std::string name = dir + "f" + std::to_string(i) + ".dcm";
    if (i >= parts.size()) {
      std::remove(name.c_str());
      continue;
    }
    pcd_dicom_structure_is_sound(parts[i].first, parts[i].second);
    PcdCsaHeader csa;
    pcd_parse_csa_header(parts[i].first, parts[i].second, &csa);
    std::FILE* f = std::fopen(name.c_str(), "wb");
    if (f == nullptr) std::abort();
    if (parts[i].second > 0) std::fwrite(parts[i].first, 1, parts[i].second, f);
    std::fclose(f);
  }
  PCD_ListDicomSeries(dir.c_str());
  PcdDicomSeries series;
  std::string information;
  PcdRawVolumeData* volume = pcd_read_scanner_dicom(dir, 0, &information, &series);
  PCD_DeleteRawVolumeData(volume);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  const std::string work = std::string(dir) + "/.scanner-seeds";
  const char* layouts[][2] = {
      {"mosaic", R"({"layout": "mosaic", "x": 3, "y": 2, "slices": 2})"},
      {"enhanced", R"({"layout": "enhanced", "x": 3, "y": 2, "slices": 2, "trace": true})"},
      {"ge", R"({"vendor": "ge", "x": 3, "y": 2, "slices": 1, "trace": true})"},
      {"philips", R"({"vendor": "philips", "x": 3, "y": 2, "slices": 1, "unsigned": true, "slope": 0.5})"},
      {"siemens", R"({"vendor": "siemens", "x": 3, "y": 2, "slices": 1, "implicit": true})"},
  };
  for (const auto& layout : layouts) {
    const std::string out = work + "/" + layout[0];
    const std::string command = "/usr/bin/python3 " QUORIX_SOURCE_DIR "/tests/io/scanner_series.py '" + out + "' '" + out +
                                "-expected' '" + layout[1] + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) continue;  // no pydicom: no seed
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(out)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::vector<uint8_t> joined;
    for (size_t i = 0; i < files.size() && i < kMaxFiles; ++i) {
      if (i > 0) joined.insert(joined.end(), kMarker, kMarker + 4);
      const std::vector<uint8_t> bytes = PCDfuzz_ReadFile(files[i].string());
      joined.insert(joined.end(), bytes.begin(), bytes.end());
    }
    PCDfuzz_WriteFile(dir, (std::string(layout[0]) + ".seed").c_str(), joined);
    if (!files.empty()) PCDfuzz_WriteFile(dir, (std::string(layout[0]) + "-one.seed").c_str(), PCDfuzz_ReadFile(files[0].string()));
  }
  std::error_code ignored;
  std::filesystem::remove_all(work, ignored);
}
