// Opens the bytes of an archive with the decoder of its format.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <variant>

#include "archiving/ArchiveDecoder.h"

namespace parlova {

// A decoder over `bytes`, which must outlive it; or why they are no archive
// of that format at all.
std::variant<std::unique_ptr<ArchiveDecoder>, std::string> openArchive(std::span<const uint8_t> bytes,
                                                                       ArchiveDecoder::Format format);
// Whichever of the two formats the bytes are (a typed stream is known by its
// first bytes, so it is tried first).
std::variant<std::unique_ptr<ArchiveDecoder>, std::string> openArchive(std::span<const uint8_t> bytes);

} // namespace parlova
