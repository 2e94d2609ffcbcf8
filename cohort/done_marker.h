// The marker a subject's folder holds once every output is in place: what went in (the
// input files with their SHA-256), with which version and analyses, and what came out.
// A rerun skips the subject when a new marker of the same inputs would say the same.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

struct DoneMarker {
  std::string subject, session;
  std::string version;   // of the program that wrote it
  std::string analyses;  // "maps,track,stats"
  // (name, SHA-256) in a fixed order: inputs relative to the BIDS folder (and the atlas by
  // its file name), outputs relative to the subject's derivatives folder
  std::vector<std::pair<std::string, std::string>> inputs, outputs;
};

// The marker as JSON text, keys in a fixed order, ending with a line break.
std::string FormatDoneMarker(const DoneMarker& marker);
// Reads a marker; nullopt for anything that is not one (any bytes are safe).
std::optional<DoneMarker> ParseDoneMarker(const std::string& text);
// True when both describe the same work: subject, session, version, analyses and inputs.
bool DoneMarkersDescribeSameWork(const DoneMarker& a, const DoneMarker& b);
