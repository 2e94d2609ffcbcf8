// Study object files read into a session.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "io/notice.h"
#include "io/object_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = (PCD_SetNoticeHandler([](const PcdNotice&) {}), true);
  (void)quiet;
  const std::string path = PCDfuzz_TempFile(data, size, ".study");
  PcdWorkSession session;
  if (ReadStudyObjectFile(&session, path.c_str()) == 0) {
    if (session.studies.items.size() != 1 || session.studies.items[0]->analysed == 1)
      std::abort();
    session.studies.selectedId = session.studies.items[0]->id;
    const std::string again = path + ".again";
    if (WriteStudyObjectFile(&session, again.c_str()) != 0) std::abort();
    if (ReadStudyObjectFile(&session, again.c_str()) != 0) std::abort();
  } else if (!session.studies.items.empty()) {
    std::abort();
  }
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdWorkSession session;
  const PcdIntSize3D volume{6, 5, 4};
  const char* names[] = {"/tracking.study", "/profile.study", "/statistics.study"};
  for (int type = 0; type < 3; ++type) {
    PCD_NewStudyObject(&session.studies, type, &volume)->analysed = 1;
    WriteStudyObjectFile(&session, (std::string(dir) + names[type]).c_str());
  }
}
