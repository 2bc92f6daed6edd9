// The property-list kinds of object an archive holds: strings, numbers, data,
// dates, arrays and dictionaries.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "foundation/Date.h"
#include "foundation/Object.h"

namespace parlova {

class StringObject final : public Object {
public:
  explicit StringObject(std::string utf8) : value_(std::move(utf8)) {}
  std::string className() const override { return "NSString"; }
  std::string description() const override { return value_; }
  const std::string &value() const { return value_; }

private:
  std::string value_;
};

class NumberObject final : public Object {
public:
  using Value = std::variant<bool, int64_t, double>;
  explicit NumberObject(Value value) : value_(value) {}
  std::string className() const override { return "NSNumber"; }
  std::string description() const override;
  const Value &value() const { return value_; }

  // Foundation's conversions: a 32-bit reading truncates, non-zero is true.
  int32_t intValue() const;
  int64_t longLongValue() const;
  double doubleValue() const;
  bool boolValue() const;

private:
  Value value_;
};

class DataObject final : public Object {
public:
  explicit DataObject(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  std::string className() const override { return "NSData"; }
  std::string description() const override;
  const std::vector<uint8_t> &bytes() const { return bytes_; }

private:
  std::vector<uint8_t> bytes_;
};

class DateObject final : public Object {
public:
  explicit DateObject(Date date) : date_(date) {}
  std::string className() const override { return "NSDate"; }
  std::string description() const override;
  Date date() const { return date_; }

private:
  Date date_;
};

class ArrayObject final : public Object {
public:
  explicit ArrayObject(std::vector<ObjectRef> items) : items_(std::move(items)) {}
  std::string className() const override { return "NSArray"; }
  std::string description() const override;
  const std::vector<ObjectRef> &items() const { return items_; }
  size_t count() const { return items_.size(); }
  // Null past the end, so that callers reading a short root stay safe.
  ObjectRef objectAtIndex(size_t index) const {
    return index < items_.size() ? items_[index] : nullptr;
  }

private:
  std::vector<ObjectRef> items_;
};

class DictionaryObject final : public Object {
public:
  using Entry = std::pair<ObjectRef, ObjectRef>;
  explicit DictionaryObject(std::vector<Entry> entries) : entries_(std::move(entries)) {}
  std::string className() const override { return "NSDictionary"; }
  std::string description() const override;
  const std::vector<Entry> &entries() const { return entries_; }
  // Looks up an entry whose key is a string equal to `key`.
  ObjectRef objectForKey(std::string_view key) const;

private:
  std::vector<Entry> entries_;
};

// A string as Foundation's descriptions print it: bare when it is only
// letters, digits and underscores, quoted and escaped otherwise.
std::string quotedForDescription(const std::string &text);

// The text of a string object, or empty for anything else.
std::string stringValueOf(const ObjectRef &object);

} // namespace parlova
