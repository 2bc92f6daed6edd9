#include "platform/VCard.h"

#include <algorithm>
#include <cctype>

namespace parlova {
namespace {

std::string upper(std::string_view text) {
  std::string out(text);
  for (char &c : out)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// Joins folded lines: a line break followed by a blank or tab continues the
// line before it.
std::vector<std::string> unfoldedLines(std::string_view text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos)
      end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r')
      line.remove_suffix(1);
    if (!line.empty() && (line.front() == ' ' || line.front() == '\t') && !lines.empty())
      lines.back() += line.substr(1);
    else
      lines.emplace_back(line);
    pos = end + 1;
  }
  return lines;
}

std::string unescaped(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      const char next = text[++i];
      out += (next == 'n' || next == 'N') ? '\n' : next;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::vector<std::string> splitUnescaped(std::string_view text, char separator) {
  std::vector<std::string> parts(1);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      parts.back() += text.substr(i, 2);
      ++i;
    } else if (text[i] == separator) {
      parts.emplace_back();
    } else {
      parts.back() += text[i];
    }
  }
  for (auto &part : parts)
    part = unescaped(part);
  return parts;
}

std::optional<VCardProperty> parseLine(std::string_view line) {
  // The name and parameters end at the first colon outside double quotes.
  size_t colon = std::string_view::npos;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"')
      quoted = !quoted;
    else if (line[i] == ':' && !quoted) {
      colon = i;
      break;
    }
  }
  if (colon == std::string_view::npos)
    return std::nullopt;
  const std::string_view head = line.substr(0, colon);
  VCardProperty property;
  std::vector<std::string_view> pieces;
  size_t start = 0;
  quoted = false;
  for (size_t i = 0; i <= head.size(); ++i) {
    if (i < head.size() && head[i] == '"')
      quoted = !quoted;
    if (i == head.size() || (head[i] == ';' && !quoted)) {
      pieces.push_back(head.substr(start, i - start));
      start = i + 1;
    }
  }
  std::string_view name = pieces.front();
  if (const auto dot = name.find('.'); dot != std::string_view::npos)
    name.remove_prefix(dot + 1);
  property.name = upper(name);
  for (size_t i = 1; i < pieces.size(); ++i) {
    const auto equals = pieces[i].find('=');
    // vCard 2.1 allows bare types ("TEL;HOME;PREF:...").
    const std::string key = equals == std::string_view::npos ? "TYPE" : upper(pieces[i].substr(0, equals));
    std::string_view values = equals == std::string_view::npos ? pieces[i] : pieces[i].substr(equals + 1);
    size_t from = 0;
    while (from <= values.size()) {
      const auto comma = values.find(',', from);
      std::string value(values.substr(from, comma == std::string_view::npos ? std::string_view::npos : comma - from));
      value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
      property.parameters[key].push_back(value);
      if (comma == std::string_view::npos)
        break;
      from = comma + 1;
    }
  }
  const std::string_view raw = line.substr(colon + 1);
  property.value = unescaped(raw);
  property.components = splitUnescaped(raw, ';');
  return property;
}

} // namespace

bool VCardProperty::isPreferred() const {
  if (const auto types = parameters.find("TYPE"); types != parameters.end())
    for (const auto &type : types->second)
      if (upper(type) == "PREF")
        return true;
  return parameters.count("PREF") > 0;
}

const VCardProperty *VCard::first(std::string_view name) const {
  for (const auto &property : properties)
    if (property.name == name)
      return &property;
  return nullptr;
}

std::vector<VCard> parseVCards(std::string_view text) {
  std::vector<VCard> cards;
  std::optional<VCard> current;
  for (const std::string &line : unfoldedLines(text)) {
    auto property = parseLine(line);
    if (!property)
      continue;
    if (property->name == "BEGIN" && upper(property->value) == "VCARD") {
      current.emplace();
    } else if (property->name == "END" && upper(property->value) == "VCARD") {
      if (current)
        cards.push_back(std::move(*current));
      current.reset();
    } else if (current) {
      current->properties.push_back(std::move(*property));
    }
  }
  return cards;
}

} // namespace parlova
