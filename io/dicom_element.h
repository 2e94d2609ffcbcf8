// Our own minimal reader of DICOM elements: a walk over the element heads of a file's
// bytes, little-endian, explicit or implicit VR decided head by head. No DICOM library.
//
// Where the data set starts: after a leading "DICM" (offset 4, announced with "DICOM
// identifier found at position:0"), after a 128-byte preamble and "DICM" (offset 132), or
// at offset 0.
//
// An element head is group, element (16 bits each) and four bytes b0 b1 b2 b3. When b0 b1
// look like a value representation (b1 at least 'A', and not both 0xFF) the head is
// explicit: "OB", "OW", "SQ" and "UN" carry a 32-bit length after b2 b3 (a 12-byte
// head), any other VR the 16-bit length b2 b3 (8 bytes), except that a zero length in
// the groups 7F88, 7FE0 and FFFE is read as the 32-bit word b0..b3. Otherwise the head
// is implicit and b0..b3 is the 32-bit length. The pair (0000,0000) ends every walk with
// "Invalid pair of group ID and element ID".
//
// Every length is checked against the bytes before it is used. A value of undefined
// length (0xFFFFFFFF: sequences, encapsulated pixel data) is stepped over as a whole,
// items and delimiters counted, never searched inside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

constexpr int64_t kPcdDicomUndefinedLength = 0xFFFFFFFF;

struct PcdDicomElementHead {
  uint16_t group;
  uint16_t element;
  char vr[3];      // the two VR letters of an explicit head, "" for an implicit one
  int64_t offset;  // of the value, from the first byte of the file
  int64_t length;  // kPcdDicomUndefinedLength, or a length that lies within the bytes
};

// Offset where the element heads begin; prints the "DICM" line when the bytes start with it.
size_t pcd_dicom_data_set_start(const uint8_t* bytes, size_t size);

// What a visitor answers for each element head.
enum class PcdDicomVisit { kContinue, kStop };

// Ends of a walk.
enum class PcdDicomWalkEnd {
  kStopped,  // the visitor asked to stop
  kEnd,      // every head read; the bytes end exactly after the last value
  kCorrupt,  // a head or value runs past the end, or the (0000,0000) pair was met
};

// Calls visit for every element head of the data set's top level, in file order.
// visit is any callable taking const PcdDicomElementHead& and returning PcdDicomVisit.
template <typename Visitor>
PcdDicomWalkEnd pcd_walk_dicom_elements(const uint8_t* bytes, size_t size, size_t start,
                                        Visitor&& visit);

// Searches the bytes of one file for (group, element). Returns the offset of its value and
// its length in *length (kPcdDicomUndefinedLength for a value of undefined length), or -1
// when the element is missing, the walk reaches the end, or a length runs past the end.
// value, when given, receives a copy of the value (left empty for an undefined length).
int64_t FindDicomElement(const uint8_t* bytes, size_t size, uint16_t group, uint16_t element,
                         std::string* value = nullptr, int64_t* length = nullptr);
// The same over a file, read once; -1 also when the file cannot be read.
int64_t FindDicomElement(const char* fileName, uint16_t group, uint16_t element,
                         std::string* value = nullptr, int64_t* length = nullptr);

// ---- the walk -------------------------------------------------------------------------

// One head at pos, or false when it runs past the end. The length is checked later.
bool pcd_read_dicom_head(const uint8_t* bytes, size_t size, size_t pos, PcdDicomElementHead* head);

// The offset just after the value of undefined length that starts at pos (items and
// sequence delimiters counted), or 0 when it runs past the end or meets (0000,0000).
size_t pcd_skip_undefined_length(const uint8_t* bytes, size_t size, size_t pos);

// Prints the message of the (0000,0000) pair.
void pcd_dicom_invalid_pair();

template <typename Visitor>
PcdDicomWalkEnd pcd_walk_dicom_elements(const uint8_t* bytes, size_t size, size_t start,
                                        Visitor&& visit) {
  size_t pos = start;
  while (pos < size) {
    PcdDicomElementHead head;
    if (!pcd_read_dicom_head(bytes, size, pos, &head)) return PcdDicomWalkEnd::kCorrupt;
    if (head.group == 0 && head.element == 0) {
      pcd_dicom_invalid_pair();
      return PcdDicomWalkEnd::kCorrupt;
    }
    const size_t valueAt = static_cast<size_t>(head.offset);
    if (head.length != kPcdDicomUndefinedLength &&
        static_cast<uint64_t>(head.length) > size - valueAt)
      return PcdDicomWalkEnd::kCorrupt;
    if (visit(static_cast<const PcdDicomElementHead&>(head)) == PcdDicomVisit::kStop)
      return PcdDicomWalkEnd::kStopped;
    if (head.length == kPcdDicomUndefinedLength) {
      pos = pcd_skip_undefined_length(bytes, size, valueAt);
      if (pos == 0) return PcdDicomWalkEnd::kCorrupt;
    } else {
      pos = valueAt + static_cast<size_t>(head.length);
    }
  }
  return PcdDicomWalkEnd::kEnd;
}
