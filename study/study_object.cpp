#include "study/study_object.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "study/byte_cursor.h"

const char* const kPcdStudyPresetLabels[3] = {"L. Pyramidal Tract", "R. Pyramidal Tract",
                                              "Corpse Callosum"};

const char* PCD_StudyLabelFormat(int32_t type) {
  switch (type) {
    case PCD_STUDY_FIBER_TRACKING: return "Fiber tracking %d";
    case PCD_STUDY_DIFFUSION_PROFILE: return "Diffusion profile %d";
    case PCD_STUDY_VOXEL_STATISTICS: return "Voxel statistics %d";
    case PCD_STUDY_FIBER_MODELING: return "Fiber modeling %d";
  }
  return nullptr;
}

int32_t PCD_GetStudyRegionCount(const PcdStudyObject* study) {
  if (study->tract) return 3;
  return (study->profile || study->statistics) ? 1 : 0;
}

PcdStudyRegion* PCD_GetStudyRegion(PcdStudyObject* study, int32_t index) {
  return const_cast<PcdStudyRegion*>(
      PCD_GetStudyRegion(static_cast<const PcdStudyObject*>(study), index));
}

const PcdStudyRegion* PCD_GetStudyRegion(const PcdStudyObject* study, int32_t index) {
  if (index < 0 || index >= PCD_GetStudyRegionCount(study)) return nullptr;
  if (study->tract) return &study->tract->regions[index];
  if (study->profile) return &study->profile->region;
  return &study->statistics->region;
}

// ---- creation --------------------------------------------------------------------------

static void give_shape(PcdStudyRegion* region) {
  region->shape = PCD_NewRoiShape();
  if (!region->shape) std::fputs("memory FULL ?\n", stderr);
}

static void set_region(PcdStudyRegion* region, int32_t use, int32_t kind, float weight,
                       int32_t third, int32_t fourth) {
  region->use = use;
  region->kind = kind;
  region->weight = weight;
  region->carried[2] = third;
  region->carried[3] = fourth;
  give_shape(region);
}

PcdStudyObject* new_study_object(int32_t type) {
  if (PCD_StudyLabelFormat(type) == nullptr) {
    std::fputs("Err: Invalid study object type\n", stderr);
    return nullptr;
  }
  PcdStudyObject* study = new (std::nothrow) PcdStudyObject;
  try {
    if (study == nullptr) throw std::bad_alloc();
    study->type = type;
    if (type == PCD_STUDY_FIBER_TRACKING || type == PCD_STUDY_FIBER_MODELING) {
      study->tract = std::make_unique<PcdTractSettings>();
      PcdStudyRegion* r = study->tract->regions;
      set_region(&r[0], kPcdRegionInUse, kPcdRegionSphere, 1.0f, -12, 0);
      set_region(&r[1], 0, 0, 0.0f, -12, 0);
      set_region(&r[2], 0, 0, 0.0f, 0, 0);
    } else if (type == PCD_STUDY_DIFFUSION_PROFILE) {
      study->profile = std::make_unique<PcdProfileSettings>();
      set_region(&study->profile->region, kPcdRegionInUse, kPcdRegionBoxVoi, 0.0f, 0, 0);
    } else {
      study->statistics = std::make_unique<PcdStatisticsSettings>();
      set_region(&study->statistics->region, kPcdRegionInUse, kPcdRegionBoxVoi, 0.0f, 0, 0);
    }
  } catch (const std::bad_alloc&) {
    delete study;
    std::fputs("Err: new_study_object\n", stderr);
    return nullptr;
  }
  PCD_SetStudySummary(study, kPcdNotAnalyzedYet);
  return study;
}

void delete_study_object(PcdStudyObject* study) { delete study; }

void PCD_SetStudyLabel(PcdStudyObject* study, const char* text) {
  std::memset(study->label, 0, sizeof study->label);
  std::snprintf(study->label, sizeof study->label, "%s", text);
}

void PCD_SetStudySummary(PcdStudyObject* study, const std::string& text) {
  std::memset(study->summary, 0, sizeof study->summary);
  std::memcpy(study->summary, text.data(), std::min(text.size(), sizeof study->summary));
}

std::string PCD_GetStudySummary(const PcdStudyObject* study) {
  return std::string(study->summary, strnlen(study->summary, sizeof study->summary));
}

static void copy_region(PcdStudyRegion* dest, const PcdStudyRegion& source) {
  std::unique_ptr<PcdRoiShape> shape =
      source.shape ? std::make_unique<PcdRoiShape>(*source.shape) : nullptr;
  dest->use = source.use;
  dest->kind = source.kind;
  dest->weight = source.weight;
  dest->idCount = source.idCount;
  std::copy(std::begin(source.carried), std::end(source.carried), dest->carried);
  std::copy(std::begin(source.ids), std::end(source.ids), dest->ids);
  dest->shape = std::move(shape);
}

int PCD_CopyStudyObject(PcdStudyObject* dest, const PcdStudyObject* source) {
  if (dest == nullptr || source == nullptr || dest == source) return -1;
  try {
    PcdStudyObject copy;  // built aside, so a failure leaves dest as it was
    copy.type = source->type;
    if (source->tract) {
      copy.tract = std::make_unique<PcdTractSettings>();
      PcdTractSettings& t = *copy.tract;
      const PcdTractSettings& s = *source->tract;
      t.limits = s.limits;
      t.nodeLimit = s.nodeLimit;
      t.step = s.step;
      t.scheme = s.scheme;
      t.seedDensity = s.seedDensity;
      t.seedSource = s.seedSource;
      t.seedObjectCount = s.seedObjectCount;
      t.primitive = s.primitive;
      t.coloring = s.coloring;
    }
    if (source->profile) {
      copy.profile = std::make_unique<PcdProfileSettings>();
      PcdProfileSettings& p = *copy.profile;
      const PcdProfileSettings& s = *source->profile;
      p.useFAmin = s.useFAmin, p.FAmin = s.FAmin, p.useFAmax = s.useFAmax, p.FAmax = s.FAmax;
      p.useADCmin = s.useADCmin, p.ADCmin = s.ADCmin, p.useADCmax = s.useADCmax;
      p.ADCmax = s.ADCmax, p.useSoMin = s.useSoMin, p.SoMin = s.SoMin;
      p.useSoMax = s.useSoMax, p.SoMax = s.SoMax;
      p.symbolDensity = s.symbolDensity, p.primitive = s.primitive, p.coloring = s.coloring;
      p.fourth = s.fourth, p.emphasis = s.emphasis;
    }
    if (source->statistics) {
      copy.statistics = std::make_unique<PcdStatisticsSettings>();
      PcdStatisticsSettings& q = *copy.statistics;
      const PcdStatisticsSettings& s = *source->statistics;
      std::copy(std::begin(s.carriedFloats), std::end(s.carriedFloats), q.carriedFloats);
      q.word1 = s.word1, q.mode = s.mode, q.option = s.option, q.word2 = s.word2;
      q.coloring = s.coloring;
    }
    for (int32_t i = 0; i < PCD_GetStudyRegionCount(source); ++i)
      copy_region(PCD_GetStudyRegion(&copy, i), *PCD_GetStudyRegion(source, i));
    dest->type = copy.type;
    dest->tract = std::move(copy.tract);
    dest->profile = std::move(copy.profile);
    dest->statistics = std::move(copy.statistics);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  std::string label = "copy of ";
  label.append(source->label, strnlen(source->label, sizeof source->label));
  PCD_SetStudyLabel(dest, label.c_str());
  return 0;
}

std::vector<uint16_t> PCD_GetStudyRoiIds(const PcdStudyObject* study) {
  std::vector<uint16_t> ids;
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study); ++i) {
    const PcdStudyRegion* r = PCD_GetStudyRegion(study, i);
    ids.insert(ids.end(), r->ids, r->ids + std::clamp(r->idCount, 0, kPcdRegionMaxIds));
  }
  return ids;
}

bool PCD_StudyListsRoiIds(const PcdStudyObject* study) {
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study); ++i)
    if (PCD_GetStudyRegion(study, i)->idCount >= 1) return true;
  return false;
}

int PCD_SetStudyRegionIds(PcdStudyObject* study, int32_t region, const uint16_t* ids,
                          int32_t count) {
  PcdStudyRegion* r = PCD_GetStudyRegion(study, region);
  if (r == nullptr || count < 0 || count > kPcdRegionMaxIds) return -1;
  std::fill(std::begin(r->ids), std::end(r->ids), 0);
  std::copy(ids, ids + count, r->ids);
  r->idCount = count;
  if (study->tract && region == 0) study->tract->seedObjectCount = count;
  return 0;
}

// ---- serialization -----------------------------------------------------------------------

static void write_region(const PcdStudyRegion& r, PcdByteWriter& w) {
  w.Int32(r.use);
  w.Int32(r.kind);
  w.Float32(r.weight);
  w.Int32(r.idCount);
  for (int32_t c : r.carried) w.Int32(c);
  for (uint16_t id : r.ids) w.UInt16(id);
}

static bool read_region(PcdStudyRegion* r, PcdByteReader& rd) {
  r->use = rd.Int32();
  r->kind = rd.Int32();
  r->weight = rd.Float32();
  r->idCount = rd.Int32();
  for (int32_t& c : r->carried) c = rd.Int32();
  for (uint16_t& id : r->ids) id = rd.UInt16();
  return rd.ok() && r->idCount >= 0 && r->idCount <= kPcdRegionMaxIds;
}

static void write_limits(const PcdDiffusionTensorLimits& l, PcdByteWriter& w) {
  w.Int32(l.useFAmin), w.Float32(l.FAmin);
  w.Int32(l.unusedEnable1), w.Float32(l.unusedValue1);
  w.Int32(l.unusedEnable2), w.Float32(l.unusedValue2);
  w.Int32(l.useADCmax), w.Float32(l.ADCmax);
  w.Int32(l.useSoMin), w.Float32(l.SoMin);
  w.Int32(l.useSoMax), w.Float32(l.SoMax);
  w.Int32(l.useAngleMax), w.Float32(l.AngleMax);
  w.Float32(l.cosAngleMax);
}

static void read_limits(PcdDiffusionTensorLimits* l, PcdByteReader& r) {
  l->useFAmin = r.Int32(), l->FAmin = r.Float32();
  l->unusedEnable1 = r.Int32(), l->unusedValue1 = r.Float32();
  l->unusedEnable2 = r.Int32(), l->unusedValue2 = r.Float32();
  l->useADCmax = r.Int32(), l->ADCmax = r.Float32();
  l->useSoMin = r.Int32(), l->SoMin = r.Float32();
  l->useSoMax = r.Int32(), l->SoMax = r.Float32();
  l->useAngleMax = r.Int32(), l->AngleMax = r.Float32();
  l->cosAngleMax = r.Float32();
}

static void write_settings(const PcdStudyObject* s, PcdByteWriter& w) {
  if (const PcdTractSettings* t = s->tract.get()) {
    write_limits(t->limits, w);
    w.Int32(t->nodeLimit), w.Float32(t->step), w.Int32(t->scheme);
    w.Int32(t->seedDensity), w.Int32(t->seedSource), w.Int32(t->seedObjectCount);
    w.Int32(t->primitive), w.Int32(t->coloring);
    for (const PcdStudyRegion& r : t->regions) write_region(r, w);
  } else if (const PcdProfileSettings* p = s->profile.get()) {
    w.Int32(p->useFAmin), w.Float32(p->FAmin), w.Int32(p->useFAmax), w.Float32(p->FAmax);
    w.Int32(p->useADCmin), w.Float32(p->ADCmin), w.Int32(p->useADCmax), w.Float32(p->ADCmax);
    w.Int32(p->useSoMin), w.Float32(p->SoMin), w.Int32(p->useSoMax), w.Float32(p->SoMax);
    w.Int32(p->symbolDensity), w.Int32(p->primitive), w.Int32(p->coloring);
    w.Int32(p->fourth), w.Int32(p->emphasis);
    write_region(p->region, w);
  } else if (const PcdStatisticsSettings* q = s->statistics.get()) {
    for (float f : q->carriedFloats) w.Float32(f);
    w.Int32(q->word1), w.Int32(q->mode), w.Int32(q->option), w.Int32(q->word2);
    w.Int32(q->coloring);
    write_region(q->region, w);
  }
}

static bool read_settings(PcdStudyObject* s, PcdByteReader& r) {
  if (PcdTractSettings* t = s->tract.get()) {
    read_limits(&t->limits, r);
    t->nodeLimit = r.Int32(), t->step = r.Float32(), t->scheme = r.Int32();
    t->seedDensity = r.Int32(), t->seedSource = r.Int32(), t->seedObjectCount = r.Int32();
    t->primitive = r.Int32(), t->coloring = r.Int32();
    for (PcdStudyRegion& region : t->regions)
      if (!read_region(&region, r)) return false;
    return t->seedObjectCount >= 0 && t->seedObjectCount <= kPcdRegionMaxIds;
  }
  if (PcdProfileSettings* p = s->profile.get()) {
    p->useFAmin = r.Int32(), p->FAmin = r.Float32(), p->useFAmax = r.Int32();
    p->FAmax = r.Float32(), p->useADCmin = r.Int32(), p->ADCmin = r.Float32();
    p->useADCmax = r.Int32(), p->ADCmax = r.Float32(), p->useSoMin = r.Int32();
    p->SoMin = r.Float32(), p->useSoMax = r.Int32(), p->SoMax = r.Float32();
    p->symbolDensity = r.Int32(), p->primitive = r.Int32(), p->coloring = r.Int32();
    p->fourth = r.Int32(), p->emphasis = r.Int32();
    return read_region(&p->region, r);
  }
  PcdStatisticsSettings* q = s->statistics.get();
  for (float& f : q->carriedFloats) f = r.Float32();
  q->word1 = r.Int32(), q->mode = r.Int32(), q->option = r.Int32(), q->word2 = r.Int32();
  q->coloring = r.Int32();
  return read_region(&q->region, r);
}

static const PcdRoiShape& shape_or_default(const PcdStudyRegion* r) {
  static const PcdRoiShape kCreated;  // a region left without a shape is written as created
  return r->shape ? *r->shape : kCreated;
}

size_t pcd_study_serialized_size(const PcdStudyObject* study) {
  size_t size = kPcdStudyHeadBytes + PCD_GetSettingsBlockSize(study->type);
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study); ++i)
    size += PCD_GetSerializedSizeOfRoiShape(&shape_or_default(PCD_GetStudyRegion(study, i)));
  return size;
}

static bool has_settings_of_type(const PcdStudyObject* study) {
  switch (study->type) {
    case PCD_STUDY_FIBER_TRACKING:
    case PCD_STUDY_FIBER_MODELING: return study->tract != nullptr;
    case PCD_STUDY_DIFFUSION_PROFILE: return study->profile != nullptr;
    case PCD_STUDY_VOXEL_STATISTICS: return study->statistics != nullptr;
  }
  return false;
}

size_t PCD_GetSerializedSizeOfStudyObject(const PcdStudyObject* study) {
  if (!has_settings_of_type(study)) {
    std::fputs("Err: Invalid study object type\n", stderr);
    return 0;
  }
  const size_t size = pcd_study_serialized_size(study);
  std::fprintf(stderr, "STUDY_OBJECT: size = %ld bytes\n", static_cast<long>(size));
  return size;
}

int PCD_SerializeStudyObject(const PcdStudyObject* study, uint8_t* buffer) {
  if (!has_settings_of_type(study)) {
    std::fputs("Err: Invalid study object type\n", stderr);
    return -1;
  }
  PcdByteWriter w{buffer};
  w.Int32(study->type);
  w.Int32(study->analysed);
  w.Int32(study->visible);
  w.Bytes(study->label, sizeof study->label);
  w.Bytes(study->summary, sizeof study->summary);
  w.Int32(static_cast<int32_t>(PCD_GetSettingsBlockSize(study->type)));
  write_settings(study, w);
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study); ++i) {
    const PcdRoiShape& shape = shape_or_default(PCD_GetStudyRegion(study, i));
    PCD_SerializeRoiShape(&shape, w.at);
    w.at += PCD_GetSerializedSizeOfRoiShape(&shape);
  }
  return 0;
}

PcdStudyObject* PCD_NewStudyObjectFromSerializedData(const uint8_t* buffer, size_t length) {
  PcdByteReader r{buffer, length};
  const int32_t type = r.Int32();
  if (!r.ok()) {
    std::fputs("Err: study object too short\n", stderr);
    return nullptr;
  }
  std::unique_ptr<PcdStudyObject> study(new_study_object(type));
  if (!study) return nullptr;
  study->analysed = r.Int32();
  study->visible = r.Int32();
  r.Bytes(study->label, sizeof study->label);
  r.Bytes(study->summary, sizeof study->summary);
  const int32_t settingsBytes = r.Int32();
  if (!r.ok()) {
    std::fputs("Err: study object too short\n", stderr);
    return nullptr;
  }
  if (settingsBytes < 0 || static_cast<size_t>(settingsBytes) != PCD_GetSettingsBlockSize(type)) {
    std::fprintf(stderr, "Err: study object: settings of %d bytes, %zu expected\n",
                 settingsBytes, PCD_GetSettingsBlockSize(type));
    return nullptr;
  }
  if (!read_settings(study.get(), r)) {
    std::fputs("Err: study object: settings do not fit\n", stderr);
    return nullptr;
  }
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study.get()); ++i) {
    PcdStudyRegion* region = PCD_GetStudyRegion(study.get(), i);
    region->shape = PCD_ReadRoiShape(&r);
    if (!region->shape) {
      std::fputs("Err: study object: region shape does not fit\n", stderr);
      return nullptr;
    }
  }
  if (r.left() != 0) {
    std::fprintf(stderr, "Err: study object: %zu bytes do not hold one study object\n", length);
    return nullptr;
  }
  return study.release();
}

// ---- the study list ------------------------------------------------------------------------

int PCD_AppendStudyObject(PcdStudyList* list, PcdStudyObject* study) {
  try {
    list->items.emplace_back(study);
  } catch (const std::bad_alloc&) {
    delete study;
    std::fputs("Err: PCD_NewNodeAddedToList\n", stderr);
    return -1;
  }
  return 0;
}

uint16_t PCD_TakeFreeStudyId(PcdStudyList* list) {
  for (int tries = 0; tries < 65536; ++tries, ++list->idCounter)
    if (PCD_FindStudyObject(list, list->idCounter) == nullptr) break;
  return list->idCounter;
}

PcdStudyObject* PCD_NewStudyObject(PcdStudyList* list, int32_t type,
                                   const PcdIntSize3D* volumeSize) {
  if (list == nullptr) return nullptr;
  PcdStudyObject* study = new_study_object(type);
  if (study == nullptr) return nullptr;
  study->id = PCD_TakeFreeStudyId(list);
  char label[64];
  std::snprintf(label, sizeof label, PCD_StudyLabelFormat(type), list->nameCounters[type] + 1);
  PCD_SetStudyLabel(study, label);
  if (PCD_AppendStudyObject(list, study) != 0) return nullptr;
  ++list->idCounter;
  ++list->nameCounters[type];
  list->selectedId = study->id;
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(study); ++i)
    PCD_FitRoiShapeToVolume(PCD_GetStudyRegion(study, i)->shape.get(), volumeSize);
  return study;
}

PcdStudyObject* PCD_FindStudyObject(const PcdStudyList* list, uint16_t id) {
  if (list == nullptr) return nullptr;
  for (const auto& study : list->items)
    if (study->id == id) return study.get();
  return nullptr;
}

PcdStudyObject* PCD_GetSelectedStudyObject(const PcdStudyList* list) {
  // 65535 means none, even when a ROI or study carries that id after the ids wrapped
  if (list == nullptr || list->items.empty() || list->selectedId == kPcdNoObject) return nullptr;
  return PCD_FindStudyObject(list, list->selectedId);
}

int PCD_DeleteStudyObjectById(PcdStudyList* list, uint16_t id) {
  if (list == nullptr) return -1;
  for (auto it = list->items.begin(); it != list->items.end(); ++it) {
    if ((*it)->id != id) continue;
    const int32_t group = (*it)->viewerObjectGroup;
    list->items.erase(it);
    if (group >= 0) {
      std::fprintf(stderr, "Requesting removal of Object %d\n", group);
      if (list->removeViewerObject) list->removeViewerObject(group);
    }
    if (list->selectedId == id) list->selectedId = kPcdNoObject;
    return 0;
  }
  return -1;
}

PcdStudyObject* PCD_DuplicateSelectedStudyObject(PcdStudyList* list,
                                                 const PcdIntSize3D* volumeSize) {
  const PcdStudyObject* source = PCD_GetSelectedStudyObject(list);
  if (source == nullptr) return nullptr;
  PcdStudyObject* copy = PCD_NewStudyObject(list, source->type, volumeSize);
  if (copy != nullptr) PCD_CopyStudyObject(copy, source);
  return copy;
}

void PCD_SetStudyVisibility(PcdStudyList* list, PcdVisibilityCommand command, int32_t type) {
  for (auto& study : list->items)
    study->visible = pcd_visibility_after(command, study->visible, study->type == type,
                                          study->id == list->selectedId);
}

int PCD_AnalyzeAllStudies(PcdStudyList* list, bool skipDone,
                          const std::function<void(PcdStudyObject*)>& analyse) {
  const uint16_t previous = list->selectedId;
  std::vector<PcdStudyObject*> order;
  for (auto& study : list->items) order.push_back(study.get());
  int done = 0;
  for (PcdStudyObject* study : order) {
    if (skipDone && study->analysed == 1) continue;
    list->selectedId = study->id;
    analyse(study);
    ++done;
  }
  list->selectedId = previous;
  return done;
}

void PCD_CleanUpStudyObjects(PcdStudyList* list) {
  while (!list->items.empty()) PCD_DeleteStudyObjectById(list, list->items.front()->id);
  list->selectedId = kPcdNoObject;
  list->idCounter = 0;
  for (uint16_t& c : list->nameCounters) c = 0;
}

// ---- settings checked before a run ---------------------------------------------------

namespace {

// One refusal: the study and the setting named, with the value and what it may be.
struct SettingCheck {
  const PcdStudyObject* study;
  bool ok = true;

  void Refuse(const char* setting, const std::string& value, const char* allowed) {
    if (!ok) return;  // one line per study
    ok = false;
    std::fprintf(stderr, "Err: study %u \"%s\": %s %s is out of range (%s)\n", study->id,
                 std::string(study->label, strnlen(study->label, sizeof study->label)).c_str(), setting,
                 value.c_str(), allowed);
  }
  void Code(const char* setting, const PcdChoiceTable& table, int32_t code) {
    if (PCD_FindChoiceByCode(table, code) == nullptr) Refuse(setting, std::to_string(code), "not a code of its table");
  }
  void Finite(const char* setting, float v) {
    if (!std::isfinite(v)) Refuse(setting, std::to_string(v), "a finite number");
  }
  void Region(const char* setting, const PcdStudyRegion& r) {
    if (r.idCount < 0 || r.idCount > kPcdRegionMaxIds)
      Refuse(setting, "ROI count " + std::to_string(r.idCount), "0 to 64");
    if (r.shape && (!std::isfinite(r.shape->radius) || r.shape->radius < 0 || !std::isfinite(r.shape->centre.x) ||
                    !std::isfinite(r.shape->centre.y) || !std::isfinite(r.shape->centre.z)))
      Refuse(setting, "sphere radius " + std::to_string(r.shape->radius), "a finite centre and radius >= 0");
  }
};

void check_tract(SettingCheck& c, const PcdTractSettings& t) {
  if (t.nodeLimit < 1 || t.nodeLimit > kPcdMaxStudyNodeLimit)
    c.Refuse("node limit", std::to_string(t.nodeLimit), "1 to 32767");
  if (!(t.step >= kPcdMinStudyStep && t.step <= kPcdMaxStudyStep))
    c.Refuse("step", std::to_string(t.step), "0.001 to 100 voxels");
  c.Code("tracking scheme", kPcdTrackingSchemeChoices, t.scheme);
  c.Code("seed density", kPcdSeedDensityChoices, t.seedDensity);
  c.Code("seed source", kPcdSeedSourceChoices, t.seedSource);
  if (t.seedObjectCount < 0 || t.seedObjectCount > kPcdRegionMaxIds)
    c.Refuse("seed object count", std::to_string(t.seedObjectCount), "0 to 64");
  c.Code("primitive type", kPcdPrimitiveTypeChoices, t.primitive);
  c.Code("coloring", kPcdFiberColoringChoices, t.coloring);
  for (float v : {t.limits.FAmin, t.limits.ADCmax, t.limits.SoMin, t.limits.SoMax, t.limits.AngleMax})
    c.Finite("stop criterion", v);
  const char* names[3] = {"seed region", "target region", "avoidance region"};
  for (int r = 0; r < 3; ++r) c.Region(names[r], t.regions[r]);
}

void check_profile(SettingCheck& c, const PcdProfileSettings& p) {
  c.Code("symbol density", kPcdSymbolDensityChoices, p.symbolDensity);
  c.Code("primitive", kPcdProfilePrimitiveChoices, p.primitive);
  c.Code("coloring", kPcdProfileColoringChoices, p.coloring);
  c.Code("anisotropy emphasis", kPcdEmphasisChoices, p.emphasis);
  for (float v : {p.FAmin, p.FAmax, p.ADCmin, p.ADCmax, p.SoMin, p.SoMax}) c.Finite("limit", v);
  c.Region("region", p.region);
}

}  // namespace

int PCD_CheckStudySettings(const PcdStudyObject* study) {
  if (study == nullptr) return -1;
  SettingCheck c{study};
  switch (study->type) {
    case PCD_STUDY_FIBER_TRACKING:
    case PCD_STUDY_FIBER_MODELING:
      if (study->tract) check_tract(c, *study->tract);
      else c.Refuse("settings", "missing", "a settings block");
      break;
    case PCD_STUDY_DIFFUSION_PROFILE:
      if (study->profile) check_profile(c, *study->profile);
      else c.Refuse("settings", "missing", "a settings block");
      break;
    case PCD_STUDY_VOXEL_STATISTICS:
      if (study->statistics) {
        c.Code("coloring", kPcdStatisticsColoringChoices, study->statistics->coloring);
        c.Region("region", study->statistics->region);
      } else {
        c.Refuse("settings", "missing", "a settings block");
      }
      break;
    default:  // the runner refuses it with its own message
      break;
  }
  return c.ok ? 0 : -1;
}
