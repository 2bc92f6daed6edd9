// The low level of Apple's typed streams (NSArchiver, iChat 2 transcripts):
// the header, the tagged integers and floats, strings shared through a
// table, and type encodings.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "archiving/Coder.h"

namespace parlova {

// Head bytes with a meaning of their own; every other head byte is a small
// integer or, where a reference is expected, a reference number.
namespace typedstream {
inline constexpr int8_t kInteger2 = -127;     // 0x81: a 2-byte integer follows
inline constexpr int8_t kInteger4 = -126;     // 0x82: a 4-byte integer follows
inline constexpr int8_t kFloatingPoint = -125; // 0x83: a float or double follows
inline constexpr int8_t kNew = -124;          // 0x84: a new string, class or object
inline constexpr int8_t kNil = -123;          // 0x85
inline constexpr int8_t kEndOfObject = -122;  // 0x86
inline constexpr int8_t kInteger8 = -121;     // 0x87: an 8-byte integer follows
inline constexpr int8_t kFirstTag = -128;
inline constexpr int8_t kLastTag = -111;
inline constexpr int64_t kFirstReference = -110; // 0x92 refers to entry 0
} // namespace typedstream

class TypedStreamReader {
public:
  // Nothing when the bytes do not start with a typed stream header.
  static std::optional<TypedStreamReader> forData(std::span<const uint8_t> bytes);

  bool bigEndian() const { return bigEndian_; }
  int64_t systemVersion() const { return systemVersion_; }
  // Told the position each megabyte the stream is read on.
  void setProgress(std::function<void(size_t)> progress) {
    progress_ = std::move(progress);
    nextProgress_ = pos_ + kProgressStep;
  }

  bool atEnd() const { return pos_ >= bytes_.size(); }
  size_t remaining() const { return bytes_.size() - pos_; }

  int8_t readHead() {
    if (atEnd())
      throwEndOfStream();
    return static_cast<int8_t>(bytes_[pos_++]);
  }
  int8_t peekHead() const {
    if (atEnd())
      throwEndOfStream();
    return static_cast<int8_t>(bytes_[pos_]);
  }
  // Integers after an already read head byte.
  int64_t readInteger(int8_t head, bool isSigned) {
    if (head < typedstream::kFirstTag || head > typedstream::kLastTag)
      return isSigned ? head : static_cast<uint8_t>(head);
    return readTaggedInteger(head, isSigned);
  }
  double readFloat(int8_t head);
  double readDouble(int8_t head);
  std::span<const uint8_t> readBytes(size_t count);

  // Strings are views into the stream's bytes, valid as long as they are.
  // A length-prefixed string, or nothing for nil.
  std::optional<std::string_view> readUnsharedString(int8_t head);
  // A string stored once and referred to afterwards by number.
  std::optional<std::string_view> readSharedString(int8_t head);

  // A group's type encoding (a shared string) split into one encoding per
  // value; each distinct string is split once.
  const std::vector<std::string> &readTypeEncodings(int8_t head);

  // A view of the stream's bytes as where it lies in them, and back: a
  // table of a million texts is kept in half the room.
  struct Stretch {
    uint32_t offset = 0;
    uint32_t length = 0;
  };
  Stretch stretchOf(std::string_view text) const {
    if (text.empty())
      return {};
    return {static_cast<uint32_t>(reinterpret_cast<const uint8_t *>(text.data()) - bytes_.data()),
            static_cast<uint32_t>(text.size())};
  }
  std::string_view textOf(Stretch stretch) const {
    return {reinterpret_cast<const char *>(bytes_.data()) + stretch.offset, stretch.length};
  }

  // Turns a reference head (and what follows it) into a table index.
  size_t readReferenceIndex(int8_t head);

private:
  TypedStreamReader(std::span<const uint8_t> bytes, bool bigEndian) : bytes_(bytes), bigEndian_(bigEndian) {}
  uint64_t readUnsigned(size_t width);
  int64_t readTaggedInteger(int8_t head, bool isSigned);
  [[noreturn]] static void throwEndOfStream();

  static constexpr size_t kProgressStep = size_t{1} << 20;
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
  std::function<void(size_t)> progress_;
  size_t nextProgress_ = SIZE_MAX;
  bool bigEndian_ = false;
  int64_t systemVersion_ = 0;
  struct SharedString {
    std::string_view text;
    // Split when first used as a type encoding; held apart so that the
    // encodings stay put while nested values add strings.
    std::unique_ptr<const std::vector<std::string>> encodings;
  };
  std::vector<SharedString> sharedStrings_;
};

// Splits a type encoding such as "iI", "@", "[12c]" or "{_NSRange=II}" into
// one encoding per value. Damaged encodings raise ArchiveDamaged.
std::vector<std::string> splitTypeEncodings(std::string_view encodings);

} // namespace parlova
