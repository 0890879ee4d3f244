// The file that `record` writes and `replay` reads: one JSON object a line.
//
//   {"recording":1,"started":"2026-02-03T09:05:00.123Z","paths":["/rgw"]}
//   {"t":1.204,"message":{"rgw":{"aapState":"bound"}}}
//
// "t" counts seconds from "started" (UTC) and never goes back. A "message" is what the store sent;
// a string is a text that was no JSON.
#ifndef TOOLS_PPCTL_RECORDING_H
#define TOOLS_PPCTL_RECORDING_H

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/ppctl/documents.h"

namespace ppctl {

/// The first line, with its newline.
std::string recording_header(std::chrono::system_clock::time_point started,
                             const std::vector<std::string>& paths);

/// A further line, with its newline. @param since  since the start
std::string recording_entry(std::chrono::milliseconds since, const Json& message);

struct RecordedDocument {
  std::chrono::milliseconds since;
  Json document;  ///< an object
};

struct Recording {
  std::vector<RecordedDocument> documents;
  std::size_t left_out = 0;  ///< messages that are no documents
};

/// Reads a whole file.
/// @param source  its name, for the message
/// @throws Failure kUsage, "SOURCE: line 2, column 7: REASON"
Recording parse_recording(const std::string& text, const std::string& source);

}  // namespace ppctl

#endif
