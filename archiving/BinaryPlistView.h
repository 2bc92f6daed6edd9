// A binary property list ("bplist00") read where it lies: an object is found
// through the offset table when it is asked for, and nothing is copied or
// built up front. This is how keyed archives are decoded at the speed the
// file can be read; every answer is checked against the bounds of the data,
// so damaged or hostile files give "nothing", never a crash.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace parlova {

class BinaryPlistView {
public:
  using Ref = uint64_t;
  enum class Type { Invalid, Null, Boolean, Integer, Real, Date, Data, String, Uid, Array, Set, Dictionary };

  // Nothing unless the header, the trailer and the offset table are sound.
  static std::optional<BinaryPlistView> open(std::span<const uint8_t> bytes);

  Ref top() const { return top_; }
  uint64_t objectCount() const { return objectCount_; }

  // Where an object lies and what it is; every reading below has a form
  // that takes it, so that an object is looked up once however it is read.
  struct Entry {
    Type type = Type::Invalid;
    uint64_t length = 0; // bytes, characters, elements or entries
    uint64_t payload = 0;
    uint8_t width = 0; // of integers, reals and UIDs; 2 for UTF-16 strings
  };
  Entry describe(Ref ref) const;

  Type type(Ref ref) const { return describe(ref).type; }
  std::optional<bool> boolean(Ref ref) const;
  std::optional<int64_t> integer(Ref ref) const;
  // Reals, and dates as seconds since 2001-01-01.
  std::optional<double> real(Ref ref) const;
  std::optional<std::span<const uint8_t>> data(Ref ref) const;
  // ASCII strings as they are, UTF-16 ones converted to UTF-8.
  std::optional<std::string> string(Ref ref) const;
  bool stringEquals(Ref ref, std::string_view text) const;

  std::optional<Ref> valueForKey(Ref dictionary, std::string_view key) const;

  std::optional<bool> boolean(const Entry &entry) const;
  std::optional<int64_t> integer(const Entry &entry) const;
  std::optional<double> real(const Entry &entry) const;
  std::optional<uint64_t> uid(const Entry &entry) const;
  std::optional<std::span<const uint8_t>> data(const Entry &entry) const;
  std::optional<std::string> string(const Entry &entry) const;
  // Elements of arrays and sets; entries of dictionaries.
  Ref element(const Entry &container, uint64_t index) const;
  Ref keyAt(const Entry &dictionary, uint64_t index) const;
  Ref valueAt(const Entry &dictionary, uint64_t index) const;
  std::optional<Ref> valueForKey(const Entry &dictionary, std::string_view key) const;

private:
  using Object = Entry;

  BinaryPlistView(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  uint64_t readUnsigned(uint64_t position, uint8_t width) const;
  Ref refAt(uint64_t position) const { return readUnsigned(position, refWidth_); }

  std::span<const uint8_t> bytes_;
  uint64_t objectCount_ = 0;
  uint64_t top_ = 0;
  uint64_t offsetTable_ = 0;
  uint8_t offsetWidth_ = 0;
  uint8_t refWidth_ = 0;
};

} // namespace parlova
