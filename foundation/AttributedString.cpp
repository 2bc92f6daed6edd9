#include "foundation/AttributedString.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "foundation/FoundationValues.h"
#include "foundation/Unicode.h"

namespace parlova {

TextAttributes::TextAttributes(std::vector<Entry> entries) : count_(entries.size()) {
  if (count_ == 1) {
    single_ = std::move(entries.front());
  } else if (count_ > 1) {
    more_ = std::make_unique<Entry[]>(count_);
    std::move(entries.begin(), entries.end(), more_.get());
  }
}

ObjectRef TextAttributes::valueForName(std::string_view name) const {
  for (const auto &[key, value] : entries())
    if (key == name)
      return value;
  return nullptr;
}

std::string TextAttributes::description() const {
  std::vector<DictionaryObject::Entry> entries;
  for (const auto &[name, value] : this->entries())
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

AttributedString::AttributedString(std::u16string_view text, const std::vector<RunSpec> &runs) {
  static const auto kNoAttributes = std::make_shared<const TextAttributes>();
  text = text.substr(0, std::numeric_limits<uint32_t>::max());
  const auto forEachRun = [&](auto take) {
    size_t position = 0;
    for (const RunSpec &spec : runs) {
      if (position >= text.size())
        break;
      const size_t length = std::min(spec.length, text.size() - position);
      if (length == 0)
        continue;
      take(position, length, spec.attributes ? spec.attributes : kNoAttributes);
      position += length;
    }
    if (position < text.size())
      take(position, text.size() - position, kNoAttributes);
  };
  size_t count = 0;
  forEachRun([&count](size_t, size_t, const auto &) { ++count; });
  allocate(count, text.size(), std::all_of(text.begin(), text.end(), [](char16_t unit) { return unit < 0x100; }));
  AttributeRun *run = runArray();
  forEachRun([&run](size_t position, size_t length, const auto &attributes) {
    new (run++) AttributeRun{static_cast<uint32_t>(position), static_cast<uint32_t>(length), attributes};
  });
  if (narrow_) {
    auto *units = const_cast<unsigned char *>(narrowUnits());
    for (size_t i = 0; i < text.size(); ++i)
      units[i] = static_cast<unsigned char>(text[i]);
  } else if (!text.empty()) {
    std::memcpy(const_cast<char16_t *>(wideUnits()), text.data(), text.size() * sizeof(char16_t));
  }
}

AttributedString::AttributedString(const AttributedString &other) : Object(other) {
  allocate(other.runCount_, other.length_, other.narrow_);
  for (uint32_t i = 0; i < runCount_; ++i)
    new (runArray() + i) AttributeRun(other.runArray()[i]);
  if (length_ > 0)
    std::memcpy(block_.get() + runCount_ * sizeof(AttributeRun), other.block_.get() + runCount_ * sizeof(AttributeRun),
                length_ * (narrow_ ? 1 : sizeof(char16_t)));
}

AttributedString::AttributedString(AttributedString &&other) noexcept
    : Object(other), block_(std::move(other.block_)), length_(std::exchange(other.length_, 0)),
      runCount_(std::exchange(other.runCount_, 0)), narrow_(other.narrow_) {}

AttributedString::~AttributedString() {
  for (uint32_t i = 0; i < runCount_; ++i)
    runArray()[i].~AttributeRun();
}

void AttributedString::allocate(size_t runCount, size_t length, bool narrow) {
  const size_t bytes = runCount * sizeof(AttributeRun) + length * (narrow ? 1 : sizeof(char16_t));
  if (bytes > 0)
    block_.reset(new std::byte[bytes]);
  runCount_ = static_cast<uint32_t>(runCount);
  length_ = static_cast<uint32_t>(length);
  narrow_ = narrow;
}

std::u16string AttributedString::string() const {
  std::u16string text;
  appendCharacters(text, 0, length_);
  return text;
}

void AttributedString::appendCharacters(std::u16string &out, size_t location, size_t count) const {
  if (!narrow_) {
    out.append(wideUnits() + location, count);
    return;
  }
  const size_t start = out.size();
  out.resize(start + count);
  const unsigned char *units = narrowUnits() + location;
  for (size_t i = 0; i < count; ++i)
    out[start + i] = units[i];
}

const AttributeRun &AttributedString::attributesAtIndex(size_t index) const {
  const auto all = runs();
  const auto it = std::upper_bound(all.begin(), all.end(), index,
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
  text.appendCharacters(text_, 0, text.length());
  for (const AttributeRun &run : text.runs())
    appendRun(run.length, run.attributes);
}

void AttributedStringBuilder::append(std::u16string_view plain) {
  text_ += plain;
  appendRun(plain.size(), nullptr);
}

AttributedString AttributedStringBuilder::build() && { return AttributedString(text_, runs_); }

std::string AttributedString::description() const {
  std::string out;
  std::u16string characters;
  for (const AttributeRun &run : runs()) {
    characters.clear();
    appendCharacters(characters, run.location, run.length);
    out += utf16ToUtf8(characters);
    out += "{";
    for (const auto &[name, value] : run.attributes->entries())
      out += "\n    " + name + " = " + (value ? value->description() : std::string("<null>")) + ";";
    out += run.attributes->empty() ? "}" : "\n}";
  }
  return out;
}

} // namespace parlova
