// Styled text: UTF-16 characters with runs of attributes, as the chat
// window showed them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Object.h"

namespace parlova {

inline constexpr std::string_view kForegroundColorAttributeName = "NSColor";
inline constexpr std::string_view kFontAttributeName = "NSFont";
inline constexpr std::string_view kLinkAttributeName = "NSLink";
inline constexpr std::string_view kAttachmentAttributeName = "NSAttachment";

// One attribute set, in the order the archive listed it. It is an object
// itself because a typed stream's attribute dictionaries are decoded
// straight into it, and the archive may refer to them again.
class TextAttributes final : public Object {
public:
  using Entry = std::pair<std::string, ObjectRef>;
  TextAttributes() = default;
  explicit TextAttributes(std::vector<Entry> entries);
  explicit TextAttributes(std::span<const Entry> entries)
      : TextAttributes(std::vector<Entry>(entries.begin(), entries.end())) {}
  std::string className() const override { return "NSDictionary"; }
  std::string description() const override;
  std::span<const Entry> entries() const {
    return count_ <= 1 ? std::span<const Entry>(&single_, count_) : std::span<const Entry>(more_.get(), count_);
  }
  bool empty() const { return count_ == 0; }
  // The attribute set an archived object stands for: itself when it was
  // decoded as one, a dictionary's entries named by strings, or none.
  static std::shared_ptr<const TextAttributes> from(const ObjectRef &object);
  // Appends a string's next attribute set. A set already in the list is
  // added as a copy: each dictionary a string lists is a set of its own,
  // and only runs of one set are joined.
  static void appendDistinct(std::vector<std::shared_ptr<const TextAttributes>> &list,
                             std::shared_ptr<const TextAttributes> attributes);
  ObjectRef valueForName(std::string_view name) const;

private:
  // Most sets of a chat are one message's link alone, so one entry is kept
  // in place and only more go to the heap.
  Entry single_;
  std::unique_ptr<Entry[]> more_;
  size_t count_ = 0;
};

// Positions and lengths count UTF-16 units; a transcript's text is far
// below four billion of them.
struct AttributeRun {
  uint32_t location = 0;
  uint32_t length = 0;
  std::shared_ptr<const TextAttributes> attributes;
};

// A chat holds one of these for every message, so the runs and characters
// share one block, and a text whose every unit is below 256 keeps a byte
// for each. The positions are those of the UTF-16 text either way.
class AttributedString final : public Object {
public:
  struct RunSpec {
    size_t length;
    std::shared_ptr<const TextAttributes> attributes;
  };

  // The runs are laid end to end from 0; runs reaching past the text are cut
  // and a text the runs do not cover gets an empty run for the rest, so that
  // the runs always cover the text exactly.
  AttributedString(std::u16string_view text, const std::vector<RunSpec> &runs);
  explicit AttributedString(std::u16string_view text) : AttributedString(text, {}) {}
  AttributedString(const AttributedString &other);
  AttributedString(AttributedString &&other) noexcept;
  AttributedString &operator=(const AttributedString &) = delete;
  ~AttributedString() override;

  std::string className() const override { return "NSAttributedString"; }
  std::string description() const override;

  std::u16string string() const;
  size_t length() const { return length_; }
  std::span<const AttributeRun> runs() const { return {runArray(), runCount_}; }
  char16_t characterAtIndex(size_t index) const {
    return narrow_ ? static_cast<char16_t>(narrowUnits()[index]) : wideUnits()[index];
  }
  // Appends the units from `location` on, `count` of them.
  void appendCharacters(std::u16string &out, size_t location, size_t count) const;

  // The run covering `index` (the attributes and their effective range).
  // `index` must be below length().
  const AttributeRun &attributesAtIndex(size_t index) const;

private:
  AttributeRun *runArray() const { return reinterpret_cast<AttributeRun *>(block_.get()); }
  const unsigned char *narrowUnits() const {
    return reinterpret_cast<const unsigned char *>(block_.get() + runCount_ * sizeof(AttributeRun));
  }
  const char16_t *wideUnits() const {
    return reinterpret_cast<const char16_t *>(block_.get() + runCount_ * sizeof(AttributeRun));
  }
  void allocate(size_t runCount, size_t length, bool narrow);

  std::unique_ptr<std::byte[]> block_;
  uint32_t length_ = 0;
  uint32_t runCount_ = 0;
  bool narrow_ = true;
};

// Builds styled text piece by piece, as a mutable attributed string does:
// adjacent runs with the same attribute set (or both none) become one.
class AttributedStringBuilder {
public:
  void append(const AttributedString &text);
  void append(std::u16string_view plain); // without attributes
  size_t length() const { return text_.size(); }
  AttributedString build() &&;

private:
  void appendRun(size_t length, const std::shared_ptr<const TextAttributes> &attributes);
  std::u16string text_;
  std::vector<AttributedString::RunSpec> runs_;
};

} // namespace parlova
