#include "generator/PageText.h"

#include <span>

#include "context/Settings.h"
#include "foundation/HtmlText.h"
#include "platform/FileManager.h"

namespace parlova {

PageEscaping PageEscaping::fromSettings() { return PageEscaping(appSettings().boolValue("escapeHTML")); }

std::string PageEscaping::text(std::string_view typed) const {
  return on_ ? escapedForHtml(typed) : std::string(typed);
}

bool PageEscaping::linkable(std::string_view address) const { return !on_ || hasLinkableScheme(address); }

std::string fillFormat(std::string_view format, std::initializer_list<std::string_view> arguments) {
  std::string out;
  out.reserve(format.size() + 64);
  auto next = arguments.begin();
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size() && (format[i + 1] == '@' || format[i + 1] == 'd')) {
      if (next != arguments.end())
        out += *next++;
      ++i;
      continue;
    }
    out += format[i];
  }
  return out;
}

namespace {

// The text between the occurrences of `placeholder` to `between`, and each
// occurrence to `atPlaceholder`, left to right.
template <class Between, class AtPlaceholder>
void walkReplacing(std::string_view text, std::string_view placeholder, const Between &between,
                   const AtPlaceholder &atPlaceholder) {
  size_t from = 0;
  if (!placeholder.empty()) {
    for (size_t found = text.find(placeholder); found != std::string_view::npos; found = text.find(placeholder, from)) {
      between(text.substr(from, found - from));
      atPlaceholder();
      from = found + placeholder.size();
    }
  }
  between(text.substr(from));
}

} // namespace

std::vector<std::string_view> piecesReplacing(std::string_view text, std::string_view placeholder,
                                              std::span<const std::string_view> replacement) {
  std::vector<std::string_view> pieces;
  walkReplacing(
      text, placeholder, [&pieces](std::string_view between) { pieces.push_back(between); },
      [&] { pieces.insert(pieces.end(), replacement.begin(), replacement.end()); });
  return pieces;
}

PieceMaker madeReplacing(std::string_view text, std::string_view placeholder, PieceMaker replacement) {
  return [text, placeholder, replacement = std::move(replacement)](const std::function<void(std::string_view)> &piece) {
    walkReplacing(text, placeholder, piece, [&] { replacement(piece); });
  };
}

void replaceOccurrences(std::string &text, std::string_view placeholder, std::string_view replacement) {
  const auto pieces = piecesReplacing(text, placeholder, std::span(&replacement, 1));
  if (pieces.size() == 1)
    return;
  size_t size = 0;
  for (const std::string_view piece : pieces)
    size += piece.size();
  std::string out;
  out.reserve(size);
  for (const std::string_view piece : pieces)
    out += piece;
  text = std::move(out);
}

std::string thousands(uint64_t count) {
  const std::string digits = std::to_string(count);
  std::string grouped;
  for (size_t at = 0; at < digits.size(); ++at) {
    if (at > 0 && (digits.size() - at) % 3 == 0)
      grouped += ',';
    grouped += digits[at];
  }
  return grouped;
}

std::optional<std::string> readTemplate(const std::filesystem::path &path) {
  const auto bytes = readFileContents(path);
  if (!bytes)
    return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

bool writePage(const std::filesystem::path &path, std::string_view text, Durability durability) {
  return writeFileAtomically(path, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()), durability);
}

bool writePage(const std::filesystem::path &path, std::span<const std::string_view> pieces, Durability durability) {
  return writeFileAtomically(path, pieces, durability);
}

bool writePage(const std::filesystem::path &path, const PieceMaker &make, Durability durability) {
  return writeFileAtomically(path, make, durability);
}

} // namespace parlova
