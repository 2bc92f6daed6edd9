// A property list held as plain C++ values that can be changed in place,
// the way the archives of gathered links, images and totals are read with
// mutable containers, extended and written back.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "foundation/Date.h"
#include "foundation/PropertyList.h"

namespace parlova {

class PlistValue {
public:
  using Array = std::vector<PlistValue>;
  // Entries keep the order they were read or added in.
  using Dictionary = std::vector<std::pair<std::string, PlistValue>>;
  using Data = std::vector<uint8_t>;
  // A keyed-archive object reference: kept so that nothing read is lost.
  struct Uid {
    uint64_t value;
  };
  using Storage = std::variant<std::string, int64_t, double, bool, Date, Data, Array, Dictionary, Uid>;

  PlistValue() : storage_(Dictionary{}) {}
  template <class T>
    requires std::is_constructible_v<Storage, T &&>
  PlistValue(T &&value) : storage_(std::forward<T>(value)) {}
  PlistValue(const char *text) : storage_(std::string(text)) {}
  PlistValue(int32_t number) : storage_(int64_t{number}) {}

  // The whole tree of a borrowed node; nothing when any part of it is of
  // no known type or it nests deeper than kMostNesting.
  static constexpr int kMostNesting = 256;
  static std::optional<PlistValue> fromNode(plist_t node);
  // XML or binary bytes; nothing when they are not a property list.
  static std::optional<PlistValue> parse(std::span<const uint8_t> bytes);
  PlistPtr toNode() const;
  std::vector<uint8_t> serialized(PlistFormat format) const;
  // Whether serialized(XML) writes the tree itself, byte for byte as the
  // library would; it leaves reals, data, keyed-archive references and
  // keys that XML cannot hold or that repeat to the library.
  bool writesXmlItself() const;
  // serialized(XML) handed out in pieces as it is made, so that an archive
  // of a decade's links is never held as text; false, with nothing handed
  // out, when the tree cannot be turned into XML.
  bool writeXml(const std::function<void(std::string_view)> &piece) const;
  // Arrays written other than they are held, for a tree that would gain a
  // great many items only to be written: for an array it takes over,
  // `size` gives how many items to write in its place (nothing for one
  // written as held) and `items` hands them to the writer in order.
  struct ArrayStandIn {
    std::function<std::optional<size_t>(const Array &)> size;
    std::function<void(const Array &, const std::function<void(const PlistValue &)> &)> items;
  };
  // writeXml with the stand-in, for a tree that writesXmlItself; false with
  // nothing handed out for any other.
  bool writeXml(const std::function<void(std::string_view)> &piece, const ArrayStandIn &standIn) const;

  template <class T> T *get() { return std::get_if<T>(&storage_); }
  template <class T> const T *get() const { return std::get_if<T>(&storage_); }

  // For a dictionary: the value under `key`, or null (also when this is no
  // dictionary).
  PlistValue *objectForKey(std::string_view key);
  const PlistValue *objectForKey(std::string_view key) const;

  // Typed readings of a dictionary entry: nothing when missing or of
  // another type.
  const std::string *stringForKey(std::string_view key) const;
  std::optional<Date> dateForKey(std::string_view key) const;
  // A number read as Foundation's integerValue reads one: reals are cut
  // toward zero, booleans are 0 or 1, numeric strings are read.
  std::optional<int64_t> integerForKey(std::string_view key) const;

private:
  static std::optional<PlistValue> fromNode(plist_t node, int depth);
  Storage storage_;
};

} // namespace parlova
