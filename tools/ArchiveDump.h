// Prints any keyed archive or typed stream as the object graph it stores,
// class by class, for files that do not load as transcripts.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace parlova {

// Text in double quotes with quotes, backslashes and control characters
// escaped, so that every character of it is visible.
std::string quotedForDisplay(std::string_view text);

struct DumpedArchive {
  std::string text; // the format's name, then each top-level object's graph
};

// The printed graph, or why the bytes are neither format or the archive is
// damaged.
std::variant<DumpedArchive, std::string> dumpArchive(std::span<const uint8_t> bytes);

} // namespace parlova
