// The settings of the four study kinds, their choice codes and their one fixed byte
// layout. Choices are stored as distinct 32-bit codes, never as small indexes; each
// choice has one table (code, name, label) that the GUI, the files and the command line
// all use, so a code is named the same way everywhere.
//
// Serialized settings block (little-endian, no padding), preceded in the study form by
// its byte count, which a reader compares with the count for the study's type:
//
// Region record, 160 bytes (seed, target and avoidance of tracking and modeling; the one
// region of diffusion profile and voxel statistics):
//   0   use code: 432 = the region takes part, anything else = it does not
//   4   kind: 253 Sphere, 431 Freehand, 65757 Listed, 3564 Box VOI (0: none chosen)
//   8   float carried unread (1.0 in a new seed region)
//   12  listed ROI count (0 .. 64)
//   16  two words carried unread
//   24  two words carried unread (-12, 0 in a new seed or target region)
//   32  64 listed ROI ids, unsigned 16-bit each, unused ones 0
//
// Fiber tracking and fiber modeling, 572 bytes:
//   0    stop criteria, 15 words in the order of PcdDiffusionTensorLimits
//   60   node limit, step (float), scheme (123 basic, 345 advanced)
//   72   seed density (542 normal, 723 high), seed source (435 sphere, 21 or 981
//        freehand, 54 listed ROIs), seed object count (0 .. 64)
//   84   primitive type, coloring
//   92   seed, target and avoidance regions (3 x 160)
//
// Diffusion profile, 228 bytes:
//   0    six enable/value pairs: FA min, FA max, ADC min, ADC max, So min, So max
//   48   symbol density, primitive, coloring, a word carried unread (0), anisotropy
//        emphasis
//   68   the region (160)
//
// Voxel statistics, 192 bytes:
//   0    three floats carried unread (1.0, 0.5, 0.25), a word (0), the mode code (3564),
//        a code (-456), a word (0)
//   28   coloring
//   32   the region (160)
//
// The shapes of the regions (the shape record of ROI objects, 112 + 4 points bytes each)
// follow the settings block in region order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "fiber/tracking.h"
#include "study/roi_object.h"

// ---- choice tables ------------------------------------------------------------------
struct PcdChoice {
  int32_t code;
  const char* name;   // command line and text output
  const char* label;  // the GUI's radio button or menu text
};
struct PcdChoiceTable {
  const char* title;  // what the choice is called
  const PcdChoice* choices;
  int32_t count;
};

enum PcdStudyType : int32_t {
  PCD_STUDY_FIBER_TRACKING = 0,
  PCD_STUDY_DIFFUSION_PROFILE = 1,
  PCD_STUDY_VOXEL_STATISTICS = 2,
  PCD_STUDY_FIBER_MODELING = 3,
};

constexpr int32_t kPcdRegionInUse = 432;
constexpr int32_t kPcdRegionSphere = 253;
constexpr int32_t kPcdRegionFreehand = 431;
constexpr int32_t kPcdRegionListed = 65757;
constexpr int32_t kPcdRegionBoxVoi = 3564;

constexpr int32_t kPcdSeedDensityNormal = 542;
constexpr int32_t kPcdSeedDensityHigh = 723;
constexpr int32_t kPcdSeedFromSphere = 435;
constexpr int32_t kPcdSeedFromFreehand = 21;
constexpr int32_t kPcdSeedFromFreehandToo = 981;  // read as freehand, never written
constexpr int32_t kPcdSeedFromList = 54;

constexpr int32_t kPcdSymbolDensityNormal = 347;
constexpr int32_t kPcdSymbolDensityHigh = 836;

constexpr int32_t kPcdOptionOff = -456;
constexpr int32_t kPcdOptionOn = 456;

constexpr int32_t kPcdPrimitiveHairline = 287;
constexpr int32_t kPcdPrimitiveTubular = 782;
constexpr int32_t kPcdColorAnisotropy = 651;
constexpr int32_t kPcdColorDirection = 824;
constexpr int32_t kPcdColorDistance = 913;
constexpr int32_t kPcdColorUnique = 914;
constexpr int32_t kPcdColorUniform = 915;

extern const PcdChoiceTable kPcdStudyTypeChoices;
extern const PcdChoiceTable kPcdTrackingSchemeChoices;
extern const PcdChoiceTable kPcdSeedDensityChoices;
extern const PcdChoiceTable kPcdSeedSourceChoices;
extern const PcdChoiceTable kPcdPrimitiveTypeChoices;
extern const PcdChoiceTable kPcdFiberColoringChoices;
extern const PcdChoiceTable kPcdTractRegionChoices;   // Sphere, Freehand, Listed
extern const PcdChoiceTable kPcdVoxelRegionChoices;   // Box VOI, Sphere, Freehand, Listed
extern const PcdChoiceTable kPcdSymbolDensityChoices;
extern const PcdChoiceTable kPcdProfilePrimitiveChoices;
extern const PcdChoiceTable kPcdProfileColoringChoices;
extern const PcdChoiceTable kPcdEmphasisChoices;
extern const PcdChoiceTable kPcdStatisticsColoringChoices;

const PcdChoice* PCD_FindChoiceByCode(const PcdChoiceTable& table, int32_t code);
const PcdChoice* PCD_FindChoiceByName(const PcdChoiceTable& table, const char* name);
// The choice's name, or "code N" for a code the table does not hold.
const char* PCD_ChoiceName(const PcdChoiceTable& table, int32_t code, char* scratch,
                           size_t scratchSize);

// ---- records -------------------------------------------------------------------------
constexpr int32_t kPcdRegionMaxIds = 64;

struct PcdStudyRegion {
  int32_t use = 0;
  int32_t kind = 0;
  float weight = 0.0f;
  int32_t idCount = 0;
  int32_t carried[4] = {0, 0, 0, 0};
  uint16_t ids[kPcdRegionMaxIds] = {};
  std::unique_ptr<PcdRoiShape> shape;
};

struct PcdTractSettings {  // fiber tracking and fiber modeling
  PcdDiffusionTensorLimits limits;  // FA 0.18 on, ADC 0.003 off, So 0 on, 900 off, 30 deg off
  int32_t nodeLimit = 160;
  float step = 0.7f;
  int32_t scheme = PCD_TRACK_BY_E1;
  int32_t seedDensity = kPcdSeedDensityNormal;
  int32_t seedSource = kPcdSeedFromSphere;
  int32_t seedObjectCount = 0;
  int32_t primitive = kPcdPrimitiveHairline;
  int32_t coloring = kPcdColorAnisotropy;
  PcdStudyRegion regions[3];  // seed, target, avoidance
};

struct PcdProfileSettings {
  int32_t useFAmin = 1;
  float FAmin = 0.18f;
  int32_t useFAmax = 1;
  float FAmax = 1.0f;
  int32_t useADCmin = 1;
  float ADCmin = 0.0f;
  int32_t useADCmax = 1;
  float ADCmax = 0.003f;
  int32_t useSoMin = 1;
  float SoMin = 0.0f;
  int32_t useSoMax = 1;
  float SoMax = 900.0f;
  int32_t symbolDensity = kPcdSymbolDensityNormal;
  int32_t primitive = 978;
  int32_t coloring = 651;
  int32_t fourth = 0;
  int32_t emphasis = kPcdOptionOff;
  PcdStudyRegion region;
};

struct PcdStatisticsSettings {
  float carriedFloats[3] = {1.0f, 0.5f, 0.25f};
  int32_t word1 = 0;
  int32_t mode = kPcdRegionBoxVoi;
  int32_t option = kPcdOptionOff;
  int32_t word2 = 0;
  int32_t coloring = kPcdColorDirection;
  PcdStudyRegion region;
};

constexpr size_t kPcdRegionRecordBytes = 160;
constexpr size_t kPcdTractSettingsBytes = 92 + 3 * kPcdRegionRecordBytes;   // 572
constexpr size_t kPcdProfileSettingsBytes = 68 + kPcdRegionRecordBytes;    // 228
constexpr size_t kPcdStatisticsSettingsBytes = 32 + kPcdRegionRecordBytes; // 192

// Byte count of the settings block of a study type; 0 for an invalid type.
size_t PCD_GetSettingsBlockSize(int32_t type);
