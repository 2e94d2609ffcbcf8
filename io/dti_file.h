// The DTI file (one complete DTI record, volume included) and the MPG description file
// (the b value and gradient direction of every channel, as text), plus the rotation that
// re-expresses every MPG direction in a new pair of axes.
//
// DTI file: the 45 characters "# DTI data including PELLUCID raw volume data" (no line
// end, no terminator), then the serialized DTI record.
//
// MPG description file, current layout:
//   #Quorix-II MPG description file (not used in earlier Quorix)
//   <u axis: three numbers>
//   <v axis: three numbers>
//   <n channels>
//   <m So channels>
//   <b> <x> <y> <z>            (n lines, channel order)
// Earlier layout (no magic line): n directions, one shared b value, n direction lines;
// it describes n + 1 channels, channel 0 being the single So channel.
//
// Numbers are read and written in the "C" locale whatever the user's locale is.
#pragma once

#include <string>

#include "dti/dti_data.h"

constexpr char kPcdDtiFileMagic[] = "# DTI data including PELLUCID raw volume data";
constexpr int kPcdDtiFileMagicLength = 45;
static_assert(sizeof kPcdDtiFileMagic == kPcdDtiFileMagicLength + 1);

constexpr char kPcdMpgFileMagic[] =
    "#Quorix-II MPG description file (not used in earlier Quorix)";

// New DTI record whose volume the caller owns as well (free the volume with
// PCD_DeleteRawVolumeData, then the record with std::free), or null. information
// receives "Data Source: DTI file\nFile name: <name>\n". A file that does not start with
// the magic raises the warning notice "This is NOT a DTI file."; a damaged or truncated
// body is refused with an "Err: " line. Nothing the caller holds is changed.
PcdDtiData* ReadDtiFile(const char* fileName, std::string* information);

// Writes the magic and the serialized record. 0 on success, -1 when the record cannot
// be serialized or the file cannot be written (an open failure prints nothing).
int WriteDtiFile(const PcdDtiData* dti, const char* fileName);

// Reads either layout into the record's MPG setting. Returns 1 when the setting was
// replaced (the record's ready flag then tells whether it passed its checks), 0 when the
// file cannot be opened or is refused with
// "Error: Invalid MPG axes.  Setting unchanged.\n"; the record is then unchanged.
int ReadMpgDescriptionFile(const char* fileName, PcdDtiData* dti);

// Writes the record's setting in the current layout with identity axes. 0 on success,
// -1 on failure.
int WriteMpgDescriptionFile(const char* fileName, const PcdDtiData* dti);

// Rewrites every MPG direction g of the record as (g.u, g.v, g.w) with w = u x v, and
// prints the three axes. Identity axes (u exactly (1,0,0), v exactly (0,1,0)) change
// nothing and print nothing. The axes are used as given: callers pass unit, orthogonal
// axes.
void RotateMpgVectors(PcdDtiData* dti, const PcdVector3D* v, const PcdVector3D* u);
