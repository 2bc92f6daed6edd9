// Pieces shared by the generated pages: the fragment formats and the
// placeholder replacement in the templates.
#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileManager.h"

namespace parlova {

// Fills each "%@" and "%d" of `format` with the next argument, already in
// text form, so that the fragments read in the code exactly as on the page.
std::string fillFormat(std::string_view format, std::initializer_list<std::string_view> arguments);

// Replaces every occurrence of `placeholder`, literally and case-sensitively,
// scanning left to right without looking at what was put in.
void replaceOccurrences(std::string &text, std::string_view placeholder, std::string_view replacement);
// The same replacement as pieces to be written one after another, for a
// replacement too long to copy: they point into `text` and `replacement`.
std::vector<std::string_view> piecesReplacing(std::string_view text, std::string_view placeholder,
                                              std::span<const std::string_view> replacement);
// The same with a replacement made as it is written, once for each
// occurrence, for one too long to hold; `text` must outlive the maker.
PieceMaker madeReplacing(std::string_view text, std::string_view placeholder, PieceMaker replacement);

// How text typed in a transcript (names, link addresses and texts) goes
// onto a page: as it is, as the pages always had it, or, with the setting
// escapeHTML on, escaped, and only addresses of the linkable schemes as
// links.
class PageEscaping {
public:
  static PageEscaping fromSettings();
  explicit PageEscaping(bool on) : on_(on) {}

  std::string text(std::string_view typed) const;
  bool linkable(std::string_view address) const;

private:
  bool on_;
};

// A count with its thousands parted by commas: "3,412".
std::string thousands(uint64_t count);

// A template's text; nothing when it is missing or unreadable.
std::optional<std::string> readTemplate(const std::filesystem::path &path);

// Writes a page through a temporary file, so a reader never sees half of it.
bool writePage(const std::filesystem::path &path, std::string_view text, Durability durability = Durability::Now);
bool writePage(const std::filesystem::path &path, std::span<const std::string_view> pieces,
               Durability durability = Durability::Now);
bool writePage(const std::filesystem::path &path, const PieceMaker &make, Durability durability = Durability::Now);

} // namespace parlova
