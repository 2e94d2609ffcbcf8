// A check of a DICOM file's element structure before a library parses it: GDCM as Debian
// builds it keeps its assertions, and a length that points past its parent aborts the
// process there. So a file goes to GDCM only when every length lies within its parent,
// sequences and items nest properly (to a bounded depth) and the data set ends exactly
// at the end of the bytes. Little-endian only, explicit or implicit VR as the meta group's
// transfer syntax says (or, without one, as the first element head looks).
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <streambuf>

// True when bytes hold a preamble and "DICM" (or no preamble at all, starting with an
// element head) and a sound little-endian data set. pixelBytes, when given, receives the
// length of the top-level pixel data (7FE0,0010), for encapsulated data the bytes of its
// fragments; 0 without pixel data.
bool pcd_dicom_structure_is_sound(const uint8_t* bytes, size_t size, int64_t* pixelBytes = nullptr);

// The bytes GDCM is given: a sound file (as above, with a non-empty data set) rebuilt as a
// zero preamble, "DICM", a meta group of its group length and the transfer syntax the
// check read the data set with, then the data set's bytes unchanged. So GDCM never
// meets a meta group of its own choosing or guesses an encoding the check did not use.
// False (out untouched) for a file that is not sound.
// pixels, when given, receives where the top-level pixel data lie in out.
#include <string>
struct PcdDicomPixelSpan {
  int64_t offset = -1;        // of the value in the rebuilt bytes, -1 without pixel data
  int64_t fileOffset = -1;    // of the value in the given bytes
  int64_t length = 0;         // of the value; for encapsulated data the bytes of its items
  bool encapsulated = false;  // undefined length: compressed fragments
};
// With headerOnly the data set is cut before its pixel data, which an empty pixel element
// replaces (offset then points past the rebuilt bytes; fileOffset still holds).
bool pcd_dicom_canonical_bytes(const uint8_t* bytes, size_t size, std::string* out, PcdDicomPixelSpan* pixels,
                               bool headerOnly = false);

// A read-only stream over bytes that stay alive elsewhere, seekable (GDCM seeks).
class PcdMemoryStreamBuf : public std::streambuf {
 public:
  PcdMemoryStreamBuf(const char* data, size_t size);

 protected:
  pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override;
  pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;
};
