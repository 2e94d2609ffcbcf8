// quorix-batch study: run saved studies on a data set, as " Analyze and Display " does.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "io/object_files.h"
#include "io/session_file.h"
#include "io/tract_file.h"
#include "study/study_runner.h"
#include "tools/batch/batch_input.h"

namespace {

struct StudyRunRequest {
  std::optional<long long> id;
  bool all = false;
  std::optional<std::string> dumpDir, tckDir;
};

// The session FILE holds, or the data set of --data with the study of FILE added (the
// matrix-size line of the study reader when they were made on different volumes).
bool LoadStudySession(const std::string& path, const std::optional<std::string>& data,
                      const BatchInputOptions& input, PcdWorkSession* session,
                      PcdWorldGeometry* geometry) {
  if (BatchFileStartsWith(path, kPcdSessionFileMagic)) {
    if (data) {
      std::fputs("Err: study run: a work session file brings its own data set; --data is for a study "
                 "object file\n",
                 stderr);
      return false;
    }
    if (ReadWorkSessionFile(session, path.c_str()) != 0) return false;
    PCD_SetDefaultWorldGeometry(geometry, session->dti->reserved > 0 ? session->dti->reserved : 1.0f);
    return true;
  }
  if (!BatchFileStartsWith(path, kPcdStudyFileMagic)) {
    std::fprintf(stderr, "Err: study run: %s is neither a work session file nor a study object file\n",
                 path.c_str());
    return false;
  }
  if (!data) {
    std::fprintf(stderr, "Err: study run: %s is a study object file; --data INPUT gives its data set\n",
                 path.c_str());
    return false;
  }
  std::unique_ptr<BatchDataSet> set = LoadBatchInput(*data, input);
  if (!set) return false;
  session->volume = set->volume;
  session->dti = set->dti;
  session->information = set->information;
  *geometry = set->geometry;
  set->volume = nullptr;  // the session owns them now
  set->dti = nullptr;
  return ReadStudyObjectFile(session, path.c_str()) == 0;
}

// A listed ROI that the session does not hold silently takes nothing: say so.
void WarnAboutMissingRois(const PcdWorkSession& session, const PcdStudyObject& study) {
  for (int32_t i = 0; i < PCD_GetStudyRegionCount(&study); ++i) {
    const PcdStudyRegion* r = PCD_GetStudyRegion(&study, i);
    const bool listed = study.tract && i == 0 ? study.tract->seedSource == kPcdSeedFromList
                                              : r->use == kPcdRegionInUse && r->kind == kPcdRegionListed;
    for (int32_t k = 0; listed && k < std::min(r->idCount, kPcdRegionMaxIds); ++k)
      if (PCD_FindRoiObject(&session.rois, r->ids[k]) == nullptr)
        std::fprintf(stderr, "Warning: study %u lists ROI %u, which is not loaded\n", study.id, r->ids[k]);
  }
}

std::vector<PcdStudyObject*> ChooseStudies(const PcdWorkSession& session, const StudyRunRequest& request,
                                           const std::string& path) {
  std::vector<PcdStudyObject*> chosen;
  const auto& items = session.studies.items;
  if (request.id) {
    if (PcdStudyObject* s = PCD_FindStudyObject(&session.studies, static_cast<uint16_t>(*request.id)))
      chosen.push_back(s);
    else
      std::fprintf(stderr, "Err: study run: %s holds no study %lld\n", path.c_str(), *request.id);
  } else if (request.all || items.size() == 1) {
    for (const auto& s : items) chosen.push_back(s.get());
  } else {
    std::fprintf(stderr, "Err: study run: %s holds %zu studies; name one with --study ID or run them all "
                 "with --all\n", path.c_str(), items.size());
  }
  return chosen;
}

std::string InDirectory(const std::optional<std::string>& dir, const PcdStudyObject& study, const char* name) {
  return (std::filesystem::path(*dir) / ("study" + std::to_string(study.id) + name)).string();
}

int run_study(BatchArgs& args) {
  const BatchInputOptions input = TakeBatchInputOptions(args);
  const auto data = args.TakeValue({"--data"});
  StudyRunRequest request;
  request.id = args.TakeInteger({"--study"}, 0, 65535);
  request.all = args.TakeFlag({"--all"});
  request.dumpDir = args.TakeValue({"--dump"});
  request.tckDir = args.TakeValue({"--tck"});
  if (request.id && request.all) args.Fail("--study and --all exclude each other");
  if (!args.Finish(2, 2)) return kBatchUsageError;
  if (args.positional()[0] != "run") {
    args.Fail("unknown subcommand '" + args.positional()[0] + "' (try 'run')");
    return kBatchUsageError;
  }
  for (const auto* dir : {&request.dumpDir, &request.tckDir})
    if (*dir && !std::filesystem::is_directory(**dir)) {
      std::fprintf(stderr, "Err: study run: %s is not a directory\n", (*dir)->c_str());
      return kBatchFailed;
    }
  const std::string& path = args.positional()[1];
  PcdWorkSession session;
  PcdWorldGeometry geometry{};
  if (!LoadStudySession(path, data, input, &session, &geometry)) return kBatchFailed;
  const std::vector<PcdStudyObject*> studies = ChooseStudies(session, request, path);
  if (studies.empty()) {
    if (session.studies.items.empty()) std::fprintf(stderr, "Err: study run: %s holds no study\n", path.c_str());
    return kBatchFailed;
  }
  bool failed = false;
  for (PcdStudyObject* study : studies) {
    WarnAboutMissingRois(session, *study);
    PcdStudyRunOptions options;
    options.dump = request.dumpDir.has_value();
    const bool modeling = study->type == PCD_STUDY_FIBER_MODELING;
    if (options.dump)
      options.dumpFile = InDirectory(request.dumpDir, *study,
                                     modeling ? "_fibemodel_dump.raw" : "_fibetrak_dump.txt");
    bool written = true;
    if (request.tckDir)
      options.drawFibers = [&](const PcdStudyObject* s, const PcdFibeTrakBuffer* fibers, int) {
        written = WriteTckFile(fibers, &geometry, InDirectory(request.tckDir, *s, ".tck").c_str()) == 0;
      };
    // a study that cannot run is reported and the others still run; the status tells
    if (PCD_RunStudy(&session, study, options) != 0 || !written) {
      failed = true;
      continue;
    }
    char type[32];
    std::string summary = PCD_GetStudySummary(study);
    if (summary.empty() || summary.back() != '\n') summary += '\n';
    std::printf("Study %u (%s): %s\n%s\n", study->id,
                PCD_ChoiceName(kPcdStudyTypeChoices, study->type, type, sizeof type),
                std::string(study->label, strnlen(study->label, sizeof study->label)).c_str(),
                summary.c_str());
  }
  return failed ? kBatchFailed : kBatchOk;
}

}  // namespace

extern const BatchCommand kBatchStudyCommand = {
    "study", "run the studies of a work session or study object file",
    "Usage: quorix-batch study run FILE [--data INPUT] [--study ID | --all] [--dump DIR]\n"
    "                              [--tck DIR] [options]\n"
    "\n"
    "Runs saved studies as the desktop program's \" Analyze and Display \" does and prints\n"
    "each one's summary: fiber tracking and fiber modeling (seed, target and avoidance\n"
    "regions), diffusion profile and voxel statistics (over their region; a \"Box VOI\"\n"
    "region is the whole volume here). This applies one saved study to many subjects.\n"
    "\n"
    "FILE is a work session file, which brings its data set and ROIs, or a study object\n"
    "file, whose data set --data names (a study made on another matrix size is run\n"
    "anyway after a console line; ROIs listed by id are not in such a file).\n"
    "\n"
    "Options:\n"
    "  --study ID          run the study with this id (\"quorix-batch session info\" lists\n"
    "                      them); needed when FILE holds more than one study, unless\n"
    "  --all               every study of FILE, in list order\n"
    "  --dump DIR          also write each result as \"Analyze and dump result\" does:\n"
    "                      DIR/study<ID>_fibetrak_dump.txt (tracking: positions in mm,\n"
    "                      eigenvalues x 1000) or DIR/study<ID>_fibemodel_dump.raw\n"
    "                      (modeling: the interpolated field, 7 SINT16 channels)\n"
    "  --tck DIR           the drawn fibers of tracking and modeling studies as MRtrix\n"
    "                      tracks, DIR/study<ID>.tck\n"
    "  --data INPUT        the data set of a study object file; with it the input options\n"
    "  --mpg FILE  --bval FILE  --bvec FILE  --voxel-size MM   as for every command\n"
    "\n"
    "Summaries go to standard output, each headed \"Study ID (kind): label\"; progress to\n"
    "standard error. Exit status 1 when a file cannot be used or a study cannot be run.\n",
    run_study};
