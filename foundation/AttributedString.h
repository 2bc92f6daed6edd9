// Styled text: UTF-16 characters with runs of attributes, as the chat
// window showed them.
#pragma once

#include <memory>
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
  explicit TextAttributes(std::vector<Entry> entries) : entries_(std::move(entries)) {}
  std::string className() const override { return "NSDictionary"; }
  std::string description() const override;
  const std::vector<Entry> &entries() const { return entries_; }
  bool empty() const { return entries_.empty(); }
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
  std::vector<Entry> entries_;
};

struct AttributeRun {
  size_t location = 0;
  size_t length = 0;
  std::shared_ptr<const TextAttributes> attributes;
};

class AttributedString final : public Object {
public:
  struct RunSpec {
    size_t length;
    std::shared_ptr<const TextAttributes> attributes;
  };

  // The runs are laid end to end from 0; runs reaching past the text are cut
  // and a text the runs do not cover gets an empty run for the rest, so that
  // the runs always cover the text exactly.
  AttributedString(std::u16string text, const std::vector<RunSpec> &runs);
  explicit AttributedString(std::u16string text) : AttributedString(std::move(text), {}) {}

  std::string className() const override { return "NSAttributedString"; }
  std::string description() const override;

  const std::u16string &string() const { return text_; }
  size_t length() const { return text_.size(); }
  const std::vector<AttributeRun> &runs() const { return runs_; }

  // The run covering `index` (the attributes and their effective range).
  // `index` must be below length().
  const AttributeRun &attributesAtIndex(size_t index) const;

private:
  std::u16string text_;
  std::vector<AttributeRun> runs_;
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
