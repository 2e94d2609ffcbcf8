// A volume from a directory of DICOM files written by an MR scanner: one file per slice
// and channel, uncompressed 16-bit little-endian pixels.
//
// The files are ordered by instance number (up to the first missing number). The channel
// count is the number of files that share the first file's image position; a slice is
// the set of files that share one position, and within a slice the channels follow the
// instance numbers. So a series may store the channels of one slice together or one
// channel's slices after another. Slices whose positions run against the slice normal
// (the cross product of the orientation's row and column directions, or the patient z
// axis without an orientation) are reversed ("Flip in Z"), so the volume's z axis runs
// along the normal. Finally every channel is resampled along z by linear interpolation
// to cubic voxels (see PCD_ResampleDicomVolumeInZ).
//
// Where the files carry the standard diffusion elements, b value (0018,9087) and gradient
// direction (0018,9089), the series also yields an MPG setting: directions turned into
// the volume's axes through the image orientation (0020,0037), the b = 0 channels moved
// in front.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dti/dti_data.h"
#include "io/dicom_series.h"
#include "io/nifti_file.h"
#include "vol/raw_volume.h"


// Imports the directory (a trailing separator is added when missing). Null when no volume
// can be made, with an "Err: " line; every step prints its console line. information
// receives the data-source text.
//
// This is the one entry point for DICOM: a directory that holds one series of single-slice
// uncompressed files is read as above; anything else (several series, Siemens mosaic,
// enhanced multi-frame, vendor diffusion fields, compressed pixels) goes to the scanner
// reader of dicom_scanner.h, which picks a series as ReadDicomDirectorySeries says.
PcdRawVolumeData* ReadDicomDirectory(const char* directory, std::string* information,
                                     PcdDicomSeries* series);
// The same for series seriesIndex of the directory (1-based, as `quorix-batch info DIR`
// lists them); 0 picks the only series, else the diffusion series with most channels.
PcdRawVolumeData* ReadDicomDirectorySeries(const char* directory, int32_t seriesIndex,
                                           std::string* information, PcdDicomSeries* series);

// Replaces the MPG setting of dti (made over the imported volume) with the series' own and
// says so on stderr. Returns 1 when the setting was applied and is ready, 0 otherwise.
int PCD_SetDicomMpgSetting(PcdDtiData* dti, const PcdDicomSeries& series);


// ---- one file -------------------------------------------------------------------------

// The elements of one file that the import uses, found in a single walk.
struct PcdDicomFileInfo {
  bool hasInstance = false;
  int32_t instance = 0;
  bool hasPosition = false;
  double position[3] = {};
  bool hasOrientation = false;
  double orientation[6] = {};
  int32_t rows = 0, columns = 0;  // 0 when missing
  int32_t bitsAllocated = 0;      // 0 when missing
  int32_t pixelRepresentation = -1;  // (0028,0103): 0 unsigned, 1 signed, -1 when missing
  std::string pixelSpacing, sliceSpacing, fieldOfView, transferSyntax;
  std::string institution, date, patientName, patientId, maker, model;
  bool hasBValue = false;
  double bValue = 0.0;
  bool hasDirection = false;
  double direction[3] = {};
  int64_t pixelOffset = -1;  // value offset of the first pixel element found
  int64_t pixelLength = 0;   // its length (kPcdDicomUndefinedLength for encapsulated data)
  bool corrupt = false;      // the walk ended early on a length past the end or (0000,0000)
};

// Scans one file's bytes once.
PcdDicomFileInfo pcd_scan_dicom_bytes(const uint8_t* bytes, size_t size);
