// Work session files: the whole working state in one binary file.
//
//   offset     size   content
//   0          57     "#Quorix-II work session file (not used in earlier Quorix)"
//   57         4      information block size, always 5120
//   61         4      byte size D of the serialized DTI record
//   65         4      S, the number of study objects
//   69         4      the study id counter at saving time (not read back)
//   73         8 S    per study in list order: id (low 16 bits; the upper two bytes are
//                     written as 0 and ignored), serialized size
//   73+8S      4      R, the number of ROI objects
//   77+8S      4      the ROI id counter at saving time (not read back)
//   81+8S      8 R    per ROI: id (low 16 bits), serialized size
//   then       5120   the information text, NUL-terminated within the block
//   then       D      the serialized DTI record, volume included
//   then              the R serialized ROI objects, then the S study objects
//
// Integers are 32-bit little-endian. The head lists studies first but the body stores
// the ROIs first, so every ROI exists before a study that refers to it is read.
#pragma once

#include "study/work_session.h"

extern const char kPcdSessionFileMagic[];  // 57 characters

// Writes the session; console lines only. 0, or -1 after an "Err: " line.
int WriteWorkSessionFile(const PcdWorkSession* session, const char* fileName);

// Replaces the session's data set by the file's and adds its ROIs and studies, which
// keep the ids of the file; the id counters end at the last id read of each list and an
// analysed status of 1 becomes 2. Every size and count is checked against the file
// before anything changes: a refused file leaves the session exactly as it was. 0, or -1.
int ReadWorkSessionFile(PcdWorkSession* session, const char* fileName);
