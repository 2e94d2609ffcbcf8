#include "cohort/done_marker.h"

#include <nlohmann/json.hpp>

#include "cohort/cohort_files.h"

namespace {

std::string FormatFiles(const std::vector<std::pair<std::string, std::string>>& files) {
  std::string text = "[";
  for (size_t i = 0; i < files.size(); ++i)
    text += std::string(i ? ",\n" : "\n") + "    {\"name\": " + CohortJsonString(files[i].first) +
            ", \"sha256\": " + CohortJsonString(files[i].second) + "}";
  return text + (files.empty() ? "]" : "\n  ]");
}

bool ReadFiles(const nlohmann::json& list, std::vector<std::pair<std::string, std::string>>* out) {
  if (!list.is_array()) return false;
  for (const nlohmann::json& entry : list) {
    if (!entry.is_object()) return false;
    const auto name = entry.find("name");
    const auto sum = entry.find("sha256");
    if (name == entry.end() || sum == entry.end() || !name->is_string() || !sum->is_string())
      return false;
    out->emplace_back(name->get<std::string>(), sum->get<std::string>());
  }
  return true;
}

bool ReadString(const nlohmann::json& object, const char* key, std::string* out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return false;
  *out = it->get<std::string>();
  return true;
}

}  // namespace

std::string FormatDoneMarker(const DoneMarker& m) {
  return "{\n  \"subject\": " + CohortJsonString(m.subject) +
         ",\n  \"session\": " + CohortJsonString(m.session) +
         ",\n  \"version\": " + CohortJsonString(m.version) +
         ",\n  \"analyses\": " + CohortJsonString(m.analyses) +
         ",\n  \"inputs\": " + FormatFiles(m.inputs) +
         ",\n  \"outputs\": " + FormatFiles(m.outputs) + "\n}\n";
}

std::optional<DoneMarker> ParseDoneMarker(const std::string& text) {
  // no exceptions: a broken marker is just not a marker
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) return std::nullopt;
  DoneMarker m;
  if (!ReadString(json, "subject", &m.subject) || !ReadString(json, "session", &m.session) ||
      !ReadString(json, "version", &m.version) || !ReadString(json, "analyses", &m.analyses))
    return std::nullopt;
  const auto inputs = json.find("inputs");
  const auto outputs = json.find("outputs");
  if (inputs == json.end() || outputs == json.end() || !ReadFiles(*inputs, &m.inputs) ||
      !ReadFiles(*outputs, &m.outputs))
    return std::nullopt;
  return m;
}

bool DoneMarkersDescribeSameWork(const DoneMarker& a, const DoneMarker& b) {
  return a.subject == b.subject && a.session == b.session && a.version == b.version &&
         a.analyses == b.analyses && a.inputs == b.inputs;
}
