// Study objects: one analysis set up on the current data (fiber tracking, diffusion
// profile, voxel statistics, fiber modeling) with its settings, result text and
// visibility; the study list with its ids, names and selection; and the serialized form
// that study object files and work session files carry.
//
// Serialized study object (little-endian, no padding):
//
//   0      4      type: 0 fiber tracking, 1 diffusion profile, 2 voxel statistics,
//                 3 fiber modeling
//   4      4      status: 0 not analysed, 1 analysed, 2 analysed in an earlier session
//   8      4      visible
//   12     256    label, NUL-padded
//   268    10240  summary text, NUL-padded (a full block has no terminator)
//   10508  4      byte count B of the settings block (fixed per type, study_settings.h)
//   10512  B      the settings block
//   ...           the shapes of the regions, in region order (3 for tracking and
//                 modeling, 1 for the other two)
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "study/roi_object.h"
#include "study/study_settings.h"

constexpr size_t kPcdStudyLabelBytes = 256;
constexpr size_t kPcdStudySummaryBytes = 10240;
constexpr size_t kPcdStudyHeadBytes = 12 + kPcdStudyLabelBytes + kPcdStudySummaryBytes + 4;
constexpr char kPcdNotAnalyzedYet[] = "(not analyzed yet)";
extern const char* const kPcdStudyPresetLabels[3];  // "L. Pyramidal Tract", ...

struct PcdStudyObject {
  uint16_t id = 0;
  int32_t type = PCD_STUDY_FIBER_TRACKING;
  std::unique_ptr<PcdTractSettings> tract;            // tracking and modeling
  std::unique_ptr<PcdProfileSettings> profile;        // diffusion profile
  std::unique_ptr<PcdStatisticsSettings> statistics;  // voxel statistics
  std::shared_ptr<void> result;                       // the last run's result, if kept
  int32_t analysed = 0;
  int32_t visible = 1;
  char label[kPcdStudyLabelBytes] = {};
  char summary[kPcdStudySummaryBytes] = {};
  void* privateData = nullptr;
  int32_t viewerObjectGroup = -1;  // object group in the viewer, -1 when none
};

// What a study's settings may hold before a run: the node limit and step within what
// the command line takes, every choice code one of its table, finite limits, at most 64
// listed ROIs, finite spheres of radius >= 0.
constexpr int32_t kPcdMaxStudyNodeLimit = 32767;
constexpr float kPcdMinStudyStep = 0.001f;
constexpr float kPcdMaxStudyStep = 100.0f;
// 0, or -1 with one "Err: " line naming the study and the first setting out of range.
int PCD_CheckStudySettings(const PcdStudyObject* study);

// Label formats of new studies ("Fiber tracking %d", ...) by type; null when invalid.
const char* PCD_StudyLabelFormat(int32_t type);
// The regions of a study: 3 for tracking and modeling, 1 for the other two.
int32_t PCD_GetStudyRegionCount(const PcdStudyObject* study);
PcdStudyRegion* PCD_GetStudyRegion(PcdStudyObject* study, int32_t index);
const PcdStudyRegion* PCD_GetStudyRegion(const PcdStudyObject* study, int32_t index);

// A bare record of a valid type with its type's defaults and "(not analyzed yet)", or
// null with "Err: Invalid study object type\n" ("Err: new_study_object\n" when memory
// runs out). A region shape that cannot be made prints "memory FULL ?\n" and is left out.
PcdStudyObject* new_study_object(int32_t type);
void delete_study_object(PcdStudyObject* study);
// Deep copy of settings and regions, label "copy of <source label>". 0 or -1.
int PCD_CopyStudyObject(PcdStudyObject* dest, const PcdStudyObject* source);
void PCD_SetStudyLabel(PcdStudyObject* study, const char* text);  // cut to 255 characters
// Stores text as the summary, cut to 10,240 characters.
void PCD_SetStudySummary(PcdStudyObject* study, const std::string& text);
std::string PCD_GetStudySummary(const PcdStudyObject* study);
// The listed ROI ids of every region (the seed list first); with duplicates.
std::vector<uint16_t> PCD_GetStudyRoiIds(const PcdStudyObject* study);
// True when any region of the study lists ROIs by id.
bool PCD_StudyListsRoiIds(const PcdStudyObject* study);
// Sets a region's listed ROI ids (at most 64); the seed region's count is also the
// tracking settings' seed object count. -1 for a bad region or too many ids.
int PCD_SetStudyRegionIds(PcdStudyObject* study, int32_t region, const uint16_t* ids,
                          int32_t count);

// Serialized size; the public one prints "STUDY_OBJECT: size = %ld bytes\n", and
// "Err: Invalid study object type\n" (returning 0) for a record of an unknown type.
size_t PCD_GetSerializedSizeOfStudyObject(const PcdStudyObject* study);
size_t pcd_study_serialized_size(const PcdStudyObject* study);
// 0, or -1 with "Err: Invalid study object type\n".
int PCD_SerializeStudyObject(const PcdStudyObject* study, uint8_t* buffer);
// A new record from length bytes that the form must fill exactly; null with an "Err: "
// line otherwise (unknown type, a settings byte count that is not the type's, listed
// counts beyond 64, shapes that do not fit). The id is left 0.
PcdStudyObject* PCD_NewStudyObjectFromSerializedData(const uint8_t* buffer, size_t length);

// ---- the study list ---------------------------------------------------------------------
struct PcdStudyList {
  std::vector<std::unique_ptr<PcdStudyObject>> items;  // creation order
  uint16_t selectedId = kPcdNoObject;
  uint16_t idCounter = 0;
  uint16_t nameCounters[4] = {0, 0, 0, 0};
  // Called with a deleted study's viewer object group (the desktop program removes the
  // object from the viewer); may be empty.
  std::function<void(int32_t group)> removeViewerObject;
};

// Creates a study with the next id and its type's next name, appends and selects it and
// fits its region shapes to the volume (size may be null).
PcdStudyObject* PCD_NewStudyObject(PcdStudyList* list, int32_t type,
                                   const PcdIntSize3D* volumeSize);
// Appends an existing record (the list takes it). 0, or -1 with
// "Err: PCD_NewNodeAddedToList\n" (the record is then deleted).
int PCD_AppendStudyObject(PcdStudyList* list, PcdStudyObject* study);
PcdStudyObject* PCD_FindStudyObject(const PcdStudyList* list, uint16_t id);
// As PCD_TakeFreeRoiId, for studies.
uint16_t PCD_TakeFreeStudyId(PcdStudyList* list);
PcdStudyObject* PCD_GetSelectedStudyObject(const PcdStudyList* list);
// Unlinks and frees the study; a study with a viewer object prints
// "Requesting removal of Object %d\n" and asks for its removal. When the selected study
// goes, nothing stays selected. 0, or -1 when no study has the id.
int PCD_DeleteStudyObjectById(PcdStudyList* list, uint16_t id);
PcdStudyObject* PCD_DuplicateSelectedStudyObject(PcdStudyList* list,
                                                 const PcdIntSize3D* volumeSize);
void PCD_SetStudyVisibility(PcdStudyList* list, PcdVisibilityCommand command, int32_t type = 0);
// "Analyze all studies" (skipDone false) and "... but done" (true): selects each study
// in list order and calls analyse on it, skipping analysed ones (status 1) when asked;
// the selection is put back afterwards. Returns how many were analysed.
int PCD_AnalyzeAllStudies(PcdStudyList* list, bool skipDone,
                          const std::function<void(PcdStudyObject*)>& analyse);
// Deletes every study and resets the id counter and the name counters to 0.
void PCD_CleanUpStudyObjects(PcdStudyList* list);
