// ROI object files and study object files: one object saved on its own, to be loaded
// into another session on a volume of the same matrix size.
//
//   offset  size      content
//   0       39 / 41   "#This is a ROI object file of Quorix-II" /
//                     "#This is a study object file of Quorix-II" (no terminator)
//   39 / 41 4, 4, 4   matrix size x, y, z of the volume the object was made on
//   then    the rest  the serialized object (study/roi_object.h, study/study_object.h)
//
// Integers are 32-bit little-endian; the object runs to the end of the file.
#pragma once

#include "study/work_session.h"

extern const char kPcdRoiFileMagic[];    // 39 characters
extern const char kPcdStudyFileMagic[];  // 41 characters

// Saves the selected ROI / study of the session with the session's matrix size. 0, or
// -1 when nothing is selected or the file cannot be written (silently). Saving a study
// that lists ROIs by id raises the "Listed ROI IDs can NOT be saved..." warning first and
// saves anyway.
int WriteRoiObjectFile(const PcdWorkSession* session, const char* fileName);
int WriteStudyObjectFile(const PcdWorkSession* session, const char* fileName);

// Adds the object of the file to the session: a ROI with the next ROI id; a study with
// the next study id and an analysed status of 1 turned into 2. A file made on another
// matrix size prints "Volume data matrix size mismatch. Open anyway.\n" and is still
// read. A wrong magic raises "This is NOT a Quorix-II ROI file." (for both kinds) in the
// "Warning" notice. 0, or -1 with the session unchanged.
int ReadRoiObjectFile(PcdWorkSession* session, const char* fileName);
int ReadStudyObjectFile(PcdWorkSession* session, const char* fileName);

// The pieces beneath, for callers without a session (the command-line tool): a new
// record from a file (with its matrix size when wanted), or a record saved with a given
// matrix size. The mismatch line is the caller's.
PcdRoiObject* PCD_LoadRoiObjectFile(const char* fileName, PcdIntSize3D* matrixSize);
PcdStudyObject* PCD_LoadStudyObjectFile(const char* fileName, PcdIntSize3D* matrixSize);
int PCD_SaveRoiObjectFile(const PcdRoiObject* roi, const PcdIntSize3D* matrixSize,
                          const char* fileName);
int PCD_SaveStudyObjectFile(const PcdStudyObject* study, const PcdIntSize3D* matrixSize,
                            const char* fileName);
