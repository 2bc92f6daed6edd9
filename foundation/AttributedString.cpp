#include "foundation/AttributedString.h"

#include <algorithm>

#include "foundation/FoundationValues.h"
#include "foundation/Unicode.h"

namespace parlova {

ObjectRef TextAttributes::valueForName(std::string_view name) const {
  for (const auto &[key, value] : entries_)
    if (key == name)
      return value;
  return nullptr;
}

std::string TextAttributes::description() const {
  std::vector<DictionaryObject::Entry> entries;
  for (const auto &[name, value] : entries_)
    entries.emplace_back(std::make_shared<StringObject>(name), value);
  return DictionaryObject(std::move(entries)).description();
}

std::shared_ptr<const TextAttributes> TextAttributes::from(const ObjectRef &object) {
  if (auto attributes = std::dynamic_pointer_cast<const TextAttributes>(object))
    return attributes;
  std::vector<Entry> entries;
  if (const auto *dictionary = dynamic_cast<const DictionaryObject *>(object.get()))
    for (const auto &[key, value] : dictionary->entries())
      if (const auto *name = dynamic_cast<const StringObject *>(key.get()))
        entries.emplace_back(name->value(), value);
  return std::make_shared<const TextAttributes>(std::move(entries));
}

void TextAttributes::appendDistinct(std::vector<std::shared_ptr<const TextAttributes>> &list,
                                    std::shared_ptr<const TextAttributes> attributes) {
  if (std::find(list.begin(), list.end(), attributes) != list.end())
    attributes = std::make_shared<const TextAttributes>(attributes->entries());
  list.push_back(std::move(attributes));
}

AttributedString::AttributedString(std::u16string text, const std::vector<RunSpec> &runs)
    : text_(std::move(text)) {
  static const auto kNoAttributes = std::make_shared<const TextAttributes>();
  // Held for every message of a chat: made at its size when the runs cover
  // the text, as a transcript's do.
  runs_.reserve(runs.size());
  size_t position = 0;
  for (const RunSpec &spec : runs) {
    if (position >= text_.size())
      break;
    const size_t length = std::min(spec.length, text_.size() - position);
    if (length == 0)
      continue;
    runs_.push_back({position, length, spec.attributes ? spec.attributes : kNoAttributes});
    position += length;
  }
  if (position < text_.size())
    runs_.push_back({position, text_.size() - position, kNoAttributes});
}

const AttributeRun &AttributedString::attributesAtIndex(size_t index) const {
  const auto it = std::upper_bound(runs_.begin(), runs_.end(), index,
                                   [](size_t i, const AttributeRun &run) { return i < run.location; });
  return *(it - 1);
}

void AttributedStringBuilder::appendRun(size_t length, const std::shared_ptr<const TextAttributes> &attributes) {
  if (length == 0)
    return;
  const bool plain = !attributes || attributes->empty();
  if (!runs_.empty()) {
    const auto &last = runs_.back().attributes;
    if (last == attributes || (plain && (!last || last->empty()))) {
      runs_.back().length += length;
      return;
    }
  }
  runs_.push_back({length, attributes});
}

void AttributedStringBuilder::append(const AttributedString &text) {
  text_ += text.string();
  for (const AttributeRun &run : text.runs())
    appendRun(run.length, run.attributes);
}

void AttributedStringBuilder::append(std::u16string_view plain) {
  text_ += plain;
  appendRun(plain.size(), nullptr);
}

AttributedString AttributedStringBuilder::build() && { return AttributedString(std::move(text_), runs_); }

std::string AttributedString::description() const {
  std::string out;
  for (const AttributeRun &run : runs_) {
    out += utf16ToUtf8(std::u16string_view(text_).substr(run.location, run.length));
    out += "{";
    for (const auto &[name, value] : run.attributes->entries())
      out += "\n    " + name + " = " + (value ? value->description() : std::string("<null>")) + ";";
    out += run.attributes->empty() ? "}" : "\n}";
  }
  return out;
}

} // namespace parlova
