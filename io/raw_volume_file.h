// The raw volume file with header, shared with the PELLUCID viewer: five text lines
// that describe a PcdRawVolumeData, then the voxel blocks exactly as they lie in memory.
//
//   # PELLUCID raw format file with header
//   <x> <y> <z> <channels>
//   <type code> ...            (one per channel, each followed by a blank)
//   <colour format code> ...   (likewise)
//   <byte count of all blocks> uncompressed
//   <block of channel 0><block of channel 1>...
//
// The reader takes the body to be the last <byte count> bytes of the file, so extra bytes
// between the header and the body are allowed. Readers never change anything the caller
// holds: they return a new volume or null.
#pragma once

#include <cstdint>
#include <string>

#include "vol/raw_volume.h"

constexpr char kPcdRawVolumeFileMagic[] = "# PELLUCID raw format file with header\n";
// The header reader keeps up to this many codes of each kind; more is outside the format.
constexpr int kPcdRawVolumeFileMaxChannels = 1024;

// Reads the header. dataType and colorFormat must have room for
// kPcdRawVolumeFileMaxChannels entries. Returns the offset of the body (file size minus
// the byte count), or -1 when the file cannot be opened, is not a raw volume file, or
// announces sizes it cannot hold (those print an "Err: " line).
int64_t ReadRawVolumeFileHeader(const char* fileName, PcdIntSize4D* size, int32_t* dataType,
                                int32_t* colorFormat);

// Reads the whole file into a new volume, or null. information receives the data-source
// text "Data Source: PELLUCID file: \nFile name: <name>\n" (also for a missing or empty
// file, which gives null without a message). A file that is not a raw volume file raises
// the warning notice "This is NOT a PELLUCID file.".
PcdRawVolumeData* ReadRawVolumeFile(const char* fileName, std::string* information);
// The same, with the body mapped from the file instead of copied where every channel's
// block lies on a boundary of its element size (elsewhere it is read as above). Reading
// then costs only the pages touched. The volume behaves as a read one (writes to it stay
// in memory), but it reads from the file as long as it lives: the file must not be
// shortened or rewritten meanwhile (check with PCD_IsSameFile before writing to a path).
PcdRawVolumeData* ReadRawVolumeFileMapped(const char* fileName, std::string* information);
// 1 when both paths name the same existing file.
int PCD_IsSameFile(const char* a, const char* b);

// Writes header and body. 0 on success, -1 when the file cannot be written or the body
// is too large for the header's 32-bit byte count (nothing is printed for an open
// failure).
int WriteRawVolumeFile(const PcdRawVolumeData* volume, const char* fileName);

// Writes the voxel blocks alone, in channel order, to a new file. Returns the number of
// bytes written, 0 when the file cannot be opened.
int64_t PCD_ExportRawVolumeData(const char* fileName, const PcdRawVolumeData* volume);

// Reads one x*y plane of a channel from the file at the byte offset into plane z of the
// volume. Returns the bytes read (the plane is only changed when all of them arrive);
// prints "File (<name>) not found\n" when the file cannot be opened.
int64_t ReadRawVolumeSlab(const char* fileName, PcdRawVolumeData* volume, int32_t channel,
                          int32_t z, int64_t offset);

// Byte count of all voxel blocks of a volume (what line 5 announces); -1 for a volume
// whose record is malformed.
int64_t PCD_GetRawVolumeBodySize(const PcdRawVolumeData* volume);
