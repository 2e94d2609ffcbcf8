// DICOM as scanners write it, beside the one-slice-per-file reader of dicom_directory:
// several series in one directory, Siemens mosaic images with their CSA header, enhanced
// (multi-frame) MR with per-frame functional groups, classic one-slice-per-file GE,
// Philips, Siemens and Canon series with the vendors' diffusion fields, and the
// compressed transfer syntaxes GDCM decodes. Built on GDCM (Debian libgdcm-dev); every
// value taken from a file is checked before it sizes anything.
//
// ReadDicomDirectory (dicom_directory.h) is the one entry point: it asks
// pcd_dicom_directory_needs_scanner whether the directory is a series the minimal reader
// describes, and hands it here when it is not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "io/dicom_series.h"
#include "vol/raw_volume.h"

// One series of a directory, as `quorix-batch info DIR` lists it.
struct PcdDicomSeriesSummary {
  int32_t seriesNumber = -1;  // (0020,0011), -1 when missing
  std::string uid;            // (0020,000E)
  std::string description;    // (0008,103E)
  std::string layout;         // "one slice per file", "Siemens mosaic", "enhanced multi-frame"
  int32_t files = 0;
  // the volume it would make (before the z resampling); 0 when the frames do not form one
  int32_t columns = 0, rows = 0, slices = 0, channels = 0;
  std::vector<float> bValues;      // distinct b values, ascending; empty without diffusion
  std::string diffusionSource;     // where they come from ("" without diffusion)
};

// The series of a directory, sorted by series number (then UID); empty when no file is
// DICOM. Prints nothing.
std::vector<PcdDicomSeriesSummary> PCD_ListDicomSeries(const char* directory);

// True when the directory holds something the minimal reader does not describe: several
// series, mosaic or multi-frame files, compressed pixels, pixels other than 16 bits, or
// diffusion in vendor fields only. False also when no file can be parsed at all (the
// minimal reader then says what it finds).
bool pcd_dicom_directory_needs_scanner(const std::string& directory);

// The headers of every file of a directory, read once (GDCM, up to the pixel data), for
// the two calls below.
struct PcdDicomDirectoryScan;
std::shared_ptr<const PcdDicomDirectoryScan> pcd_scan_dicom_directory(const std::string& directory);
bool pcd_dicom_scan_needs_scanner(const PcdDicomDirectoryScan& scan);
PcdRawVolumeData* pcd_read_scanner_dicom(const PcdDicomDirectoryScan& scan, int32_t seriesIndex,
                                         std::string* information, PcdDicomSeries* series);

// Imports series seriesIndex (1-based position in PCD_ListDicomSeries; 0 picks: the only
// series, else the diffusion series with most channels, else the one with most files).
// Null with an "Err: " line when no volume can be made.
PcdRawVolumeData* pcd_read_scanner_dicom(const std::string& directory, int32_t seriesIndex,
                                         std::string* information, PcdDicomSeries* series);

// ---- one file (exposed for the fuzz harness and the tests) ------------------------------

// The diffusion of one frame as the file states it: the direction in the patient (LPS)
// frame, except GE's, which is in the image axes (along a row, up a column, along the
// slice normal), as dcm2niix reads it.
struct PcdDicomFrameDiffusion {
  bool hasB = false;
  double b = 0.0;
  bool hasDirection = false;
  double direction[3] = {};
  bool inImageAxes = false;
  bool isotropic = false;  // a trace image: stated so, or b > 0 with a zero direction
  const char* source = "";
};

// A Siemens CSA image header in its SV10 layout ("SV10", 4 bytes, tag count, 4 bytes; per
// tag a 64-byte name, vm, 4-byte VR, syngodt, item count, 4 bytes; per item four 32-bit
// words, the second its length, then the value padded to 4 bytes): each element's
// non-empty items as text. Read by hand because GDCM's parser asserts on headers it
// dislikes. False when the bytes are no such header or run short.
using PcdCsaHeader = std::map<std::string, std::vector<std::string>>;
bool pcd_parse_csa_header(const uint8_t* bytes, size_t size, PcdCsaHeader* csa);
