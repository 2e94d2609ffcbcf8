// The DICOM element reader and the directory import on any bytes: the element search, the
// one-walk scan of a file, and a directory holding the input beside one valid slice.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "io/dicom_directory.h"
#include "io/dicom_element.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put16(Bytes* b, uint16_t v) {
  b->push_back(static_cast<uint8_t>(v));
  b->push_back(static_cast<uint8_t>(v >> 8));
}
void put32(Bytes* b, uint32_t v) {
  put16(b, static_cast<uint16_t>(v));
  put16(b, static_cast<uint16_t>(v >> 16));
}

// One element, explicit (vr given) or implicit (vr null); OB, OW, SQ and UN explicit heads
// take the 32-bit length.
void element(Bytes* b, uint16_t g, uint16_t e, const char* vr, const std::string& value) {
  put16(b, g), put16(b, e);
  if (vr == nullptr) {
    put32(b, static_cast<uint32_t>(value.size()));
  } else {
    b->push_back(static_cast<uint8_t>(vr[0])), b->push_back(static_cast<uint8_t>(vr[1]));
    const bool wide = !std::strcmp(vr, "OB") || !std::strcmp(vr, "OW") || !std::strcmp(vr, "SQ") || !std::strcmp(vr, "UN");
    if (wide) put16(b, 0), put32(b, static_cast<uint32_t>(value.size()));
    else put16(b, static_cast<uint16_t>(value.size()));
  }
  b->insert(b->end(), value.begin(), value.end());
}

// A 4 x 3 slice with the elements the import reads; implicit or explicit, with or without
// preamble, optionally with an undefined-length sequence in front.
Bytes slice(int instance, double z, bool isExplicit, bool preamble, bool sequence) {
  Bytes b;
  if (preamble) b.assign(128, 0), b.insert(b.end(), {'D', 'I', 'C', 'M'});
  auto vr = [&](const char* v) { return isExplicit ? v : nullptr; };
  if (preamble)
    element(&b, 0x0002, 0x0010, "UI", isExplicit ? std::string("1.2.840.10008.1.2.1\0", 20) : "1.2.840.10008.1.2 ");
  element(&b, 0x0008, 0x0080, vr("LO"), "Clinic");
  if (sequence) {
    put16(&b, 0x0008), put16(&b, 0x1140);
    if (isExplicit) b.insert(b.end(), {'S', 'Q', 0, 0});
    put32(&b, 0xFFFFFFFF);
    put16(&b, 0xFFFE), put16(&b, 0xE000), put32(&b, 0xFFFFFFFF);
    element(&b, 0x0020, 0x0013, vr("IS"), "99");
    put16(&b, 0xFFFE), put16(&b, 0xE00D), put32(&b, 0);
    put16(&b, 0xFFFE), put16(&b, 0xE0DD), put32(&b, 0);
  }
  element(&b, 0x0018, 0x0088, vr("DS"), "2 ");
  element(&b, 0x0018, 0x1100, vr("DS"), "8 ");
  double bValue = instance == 1 ? 0.0 : 1000.0;
  std::string fd(reinterpret_cast<const char*>(&bValue), 8);
  element(&b, 0x0018, 0x9087, vr("FD"), fd);
  element(&b, 0x0020, 0x0013, vr("IS"), std::to_string(instance) + (instance < 10 ? " " : ""));
  char position[64];
  std::snprintf(position, sizeof position, "0\\0\\%g", z);
  std::string p = position;
  if (p.size() % 2) p += ' ';
  element(&b, 0x0020, 0x0032, vr("DS"), p);
  element(&b, 0x0020, 0x0037, vr("DS"), "1\\0\\0\\0\\1\\0 ");
  element(&b, 0x0028, 0x0010, vr("US"), std::string("\x03\x00", 2));
  element(&b, 0x0028, 0x0011, vr("US"), std::string("\x04\x00", 2));
  element(&b, 0x0028, 0x0030, vr("DS"), "2\\2 ");
  element(&b, 0x0028, 0x0100, vr("US"), std::string("\x10\x00", 2));
  std::string pixels;
  for (int i = 0; i < 12; ++i) pixels += std::string{static_cast<char>(i * 7), static_cast<char>(instance)};
  element(&b, 0x7FE0, 0x0010, vr("OW"), pixels);
  return b;
}

// A directory of this process with one fixed valid slice (instance 2) beside the input.
const std::string& scratch_directory() {
  static const std::string dir = [] {
    // in memory where the system offers it: every run writes and lists the directory
    const char* tmp = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR");
    std::string d = std::string(tmp != nullptr ? tmp : "/tmp") + "/quorix-fuzz-dicom-" + std::to_string(getpid()) + "/";
    mkdir(d.c_str(), 0700);
    const Bytes fixed = slice(2, 2.0, true, true, false);
    std::FILE* f = std::fopen((d + "b.dcm").c_str(), "wb");
    if (f == nullptr) std::abort();
    std::fwrite(fixed.data(), 1, fixed.size(), f);
    std::fclose(f);
    // removed at exit through a copy that outlives the string (destroyed before this runs)
    static char removeAtExit[4096];
    std::snprintf(removeAtExit, sizeof removeAtExit, "%s", d.c_str());
    std::atexit([] {
      const std::string base = removeAtExit;
      std::remove((base + "a.dcm").c_str());
      std::remove((base + "b.dcm").c_str());
      rmdir(removeAtExit);
    });
    // the console lines of millions of runs are not wanted; the sanitizers still report on fd 2
    if (std::FILE* quiet = std::fopen("/dev/null", "w")) stderr = quiet;
    return d;
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& dir = scratch_directory();
  std::string value;
  int64_t length = 0;
  for (const uint32_t t : {0x00200013u, 0x7FE00010u, 0x00081140u, 0xFFFEE000u}) {
    const int64_t at = FindDicomElement(data, size, static_cast<uint16_t>(t >> 16), static_cast<uint16_t>(t), &value, &length);
    if (at >= 0 && length != kPcdDicomUndefinedLength &&
        (at > static_cast<int64_t>(size) || length > static_cast<int64_t>(size) - at || value.size() != static_cast<size_t>(length)))
      std::abort();  // a value that does not lie inside the bytes
  }
  const PcdDicomFileInfo info = pcd_scan_dicom_bytes(data, size);
  if (info.pixelOffset > static_cast<int64_t>(size)) std::abort();

  std::FILE* f = std::fopen((dir + "a.dcm").c_str(), "wb");
  if (f == nullptr) std::abort();
  if (size > 0) std::fwrite(data, 1, size, f);
  std::fclose(f);
  PcdDicomSeries series;
  std::string information;
  PcdRawVolumeData* volume = ReadDicomDirectory(dir.c_str(), &information, &series);
  PCD_DeleteRawVolumeData(volume);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PCDfuzz_WriteFile(dir, "explicit_preamble.dcm", slice(1, 0.0, true, true, false));
  PCDfuzz_WriteFile(dir, "implicit_bare.dcm", slice(1, 4.0, false, false, false));
  PCDfuzz_WriteFile(dir, "explicit_sequence.dcm", slice(1, -2.0, true, true, true));
  PCDfuzz_WriteFile(dir, "implicit_sequence.dcm", slice(3, 2.0, false, true, true));
  Bytes dicm = slice(1, 0.0, true, true, false);
  dicm.erase(dicm.begin(), dicm.begin() + 128);  // "DICM" at 0
  PCDfuzz_WriteFile(dir, "dicm_at_0.dcm", dicm);
}
