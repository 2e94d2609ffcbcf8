// The serialized study object, as study object files and work session files carry it.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "study/study_object.h"

namespace {

std::vector<uint8_t> serialize(const PcdStudyObject* study) {
  std::vector<uint8_t> bytes(pcd_study_serialized_size(study));
  if (PCD_SerializeStudyObject(study, bytes.data()) != 0) std::abort();
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PcdStudyObject* study = PCD_NewStudyObjectFromSerializedData(data, size);
  if (study == nullptr) return 0;
  // every field is carried verbatim: the same bytes come out
  const std::vector<uint8_t> once = serialize(study);
  if (once.size() != size || !std::equal(once.begin(), once.end(), data)) std::abort();
  (void)PCD_GetStudyRoiIds(study);
  PcdStudyObject* copy = new_study_object(study->type);
  if (copy == nullptr || PCD_CopyStudyObject(copy, study) != 0) std::abort();
  delete_study_object(copy);
  delete_study_object(study);
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdStudyList list;
  const PcdIntSize3D volume{6, 5, 4};
  for (int type = 0; type < 4; ++type) PCD_NewStudyObject(&list, type, &volume);
  const uint16_t ids[] = {1, 2, 3};
  PCD_SetStudyRegionIds(list.items[0].get(), 0, ids, 3);
  list.items[0]->tract->regions[2].shape->points = {{1, 1, 1}};
  PCD_SetStudySummary(list.items[2].get(), "Tensors: 4\nValid Tensors: 4\n");
  const char* names[] = {"tracking.bin", "profile.bin", "statistics.bin", "modeling.bin"};
  for (size_t i = 0; i < 4; ++i) PCDfuzz_WriteFile(dir, names[i], serialize(list.items[i].get()));
}
