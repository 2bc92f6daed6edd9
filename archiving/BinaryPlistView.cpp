#include "archiving/BinaryPlistView.h"

#include <cstring>

#include "foundation/Unicode.h"

namespace parlova {

namespace {

constexpr std::string_view kHeader = "bplist00";
constexpr size_t kTrailerSize = 32;

} // namespace

uint64_t BinaryPlistView::readUnsigned(uint64_t position, uint8_t width) const {
  const uint8_t *at = bytes_.data() + position;
  switch (width) {
  case 1:
    return at[0];
  case 2:
    return static_cast<uint64_t>(at[0]) << 8 | at[1];
  case 4:
    return static_cast<uint64_t>(at[0]) << 24 | static_cast<uint64_t>(at[1]) << 16 |
           static_cast<uint64_t>(at[2]) << 8 | at[3];
  default: {
    uint64_t value = 0;
    for (uint8_t i = 0; i < width; ++i)
      value = value << 8 | at[i];
    return value;
  }
  }
}

std::optional<BinaryPlistView> BinaryPlistView::open(std::span<const uint8_t> bytes) {
  if (bytes.size() < kHeader.size() + kTrailerSize ||
      std::memcmp(bytes.data(), kHeader.data(), kHeader.size()) != 0)
    return std::nullopt;
  BinaryPlistView view(bytes);
  const uint64_t trailer = bytes.size() - kTrailerSize;
  view.offsetWidth_ = bytes[trailer + 6];
  view.refWidth_ = bytes[trailer + 7];
  view.objectCount_ = view.readUnsigned(trailer + 8, 8);
  view.top_ = view.readUnsigned(trailer + 16, 8);
  view.offsetTable_ = view.readUnsigned(trailer + 24, 8);
  if (view.offsetWidth_ < 1 || view.offsetWidth_ > 8 || view.refWidth_ < 1 || view.refWidth_ > 8 ||
      view.objectCount_ == 0 || view.top_ >= view.objectCount_ || view.offsetTable_ < kHeader.size() ||
      view.offsetTable_ > trailer || view.objectCount_ > (trailer - view.offsetTable_) / view.offsetWidth_)
    return std::nullopt;
  return view;
}

BinaryPlistView::Object BinaryPlistView::describe(Ref ref) const {
  Object object;
  if (ref >= objectCount_)
    return object;
  const uint64_t position = readUnsigned(offsetTable_ + ref * offsetWidth_, offsetWidth_);
  if (position < kHeader.size() || position >= offsetTable_)
    return object;
  const uint8_t marker = bytes_[position];
  const uint8_t high = marker >> 4;
  const uint8_t low = marker & 0x0F;
  uint64_t payload = position + 1;
  // Fixed-size values: the width is the whole story.
  const auto fixed = [&](Type type, uint8_t width) {
    if (width == 0 || width > offsetTable_ - payload)
      return Object{};
    return Object{type, width, payload, width};
  };
  switch (high) {
  case 0x0:
    if (low == 0x0)
      return Object{Type::Null, 0, payload, 0};
    if (low == 0x8 || low == 0x9)
      return Object{Type::Boolean, low == 0x9 ? 1u : 0u, payload, 0};
    return object;
  case 0x1:
    return low <= 4 ? fixed(Type::Integer, static_cast<uint8_t>(1u << low)) : object;
  case 0x2:
    return low == 2 || low == 3 ? fixed(Type::Real, static_cast<uint8_t>(1u << low)) : object;
  case 0x3:
    return low == 3 ? fixed(Type::Date, 8) : object;
  case 0x8:
    return low <= 7 ? fixed(Type::Uid, static_cast<uint8_t>(low + 1)) : object;
  default:
    break;
  }

  Type type = Type::Invalid;
  uint64_t unit = 1;
  switch (high) {
  case 0x4:
    type = Type::Data;
    break;
  case 0x5:
    type = Type::String;
    break;
  case 0x6:
    type = Type::String, unit = 2;
    break;
  case 0xA:
    type = Type::Array, unit = refWidth_;
    break;
  case 0xC:
    type = Type::Set, unit = refWidth_;
    break;
  case 0xD:
    type = Type::Dictionary, unit = 2u * refWidth_;
    break;
  default:
    return object;
  }
  uint64_t length = low;
  if (low == 0xF) {
    // The length follows as an integer object of its own.
    if (payload >= offsetTable_)
      return object;
    const uint8_t lengthMarker = bytes_[payload];
    const uint8_t width = static_cast<uint8_t>(1u << (lengthMarker & 0x0F));
    if ((lengthMarker >> 4) != 0x1 || (lengthMarker & 0x0F) > 3 || width > offsetTable_ - payload - 1)
      return object;
    length = readUnsigned(payload + 1, width);
    payload += 1 + width;
  }
  if (length > (offsetTable_ - payload) / unit)
    return object;
  return Object{type, length, payload, static_cast<uint8_t>(high == 0x6 ? 2 : 1)};
}

std::optional<bool> BinaryPlistView::boolean(Ref ref) const { return boolean(describe(ref)); }

std::optional<bool> BinaryPlistView::boolean(const Entry &object) const {
  return object.type == Type::Boolean ? std::optional<bool>(object.length != 0) : std::nullopt;
}

std::optional<int64_t> BinaryPlistView::integer(Ref ref) const { return integer(describe(ref)); }

std::optional<int64_t> BinaryPlistView::integer(const Entry &object) const {
  if (object.type != Type::Integer)
    return std::nullopt;
  // Sixteen-byte integers hold unsigned 64-bit values in their low half.
  const uint8_t width = object.width == 16 ? 8 : object.width;
  const uint64_t position = object.payload + (object.width - width);
  return static_cast<int64_t>(readUnsigned(position, width));
}

std::optional<double> BinaryPlistView::real(Ref ref) const { return real(describe(ref)); }

std::optional<double> BinaryPlistView::real(const Entry &object) const {
  if (object.type != Type::Real && object.type != Type::Date)
    return std::nullopt;
  const uint64_t bits = readUnsigned(object.payload, object.width);
  if (object.width == 4) {
    const auto narrow = static_cast<uint32_t>(bits);
    float value;
    std::memcpy(&value, &narrow, sizeof value);
    return value;
  }
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

std::optional<uint64_t> BinaryPlistView::uid(const Entry &object) const {
  return object.type == Type::Uid ? std::optional<uint64_t>(readUnsigned(object.payload, object.width))
                                  : std::nullopt;
}

std::optional<std::span<const uint8_t>> BinaryPlistView::data(Ref ref) const { return data(describe(ref)); }

std::optional<std::span<const uint8_t>> BinaryPlistView::data(const Entry &object) const {
  if (object.type != Type::Data)
    return std::nullopt;
  return bytes_.subspan(object.payload, object.length);
}

std::optional<std::string> BinaryPlistView::string(Ref ref) const { return string(describe(ref)); }

std::optional<std::string> BinaryPlistView::string(const Entry &object) const {
  if (object.type != Type::String)
    return std::nullopt;
  const auto *start = reinterpret_cast<const char *>(bytes_.data() + object.payload);
  if (object.width == 1)
    return std::string(start, object.length);
  std::u16string units(object.length, u'\0');
  for (uint64_t i = 0; i < object.length; ++i)
    units[i] = static_cast<char16_t>(readUnsigned(object.payload + 2 * i, 2));
  return utf16ToUtf8(units);
}

bool BinaryPlistView::stringEquals(Ref ref, std::string_view text) const {
  // Keys are short ASCII strings with the length in the marker: compared
  // without describing them in full.
  if (ref < objectCount_ && text.size() < 15) {
    const uint64_t position = readUnsigned(offsetTable_ + ref * offsetWidth_, offsetWidth_);
    if (position >= kHeader.size() && position < offsetTable_ && (bytes_[position] >> 4) == 0x5 &&
        (bytes_[position] & 0x0F) != 0x0F) {
      const uint64_t length = bytes_[position] & 0x0F;
      return length == text.size() && length <= offsetTable_ - position - 1 &&
             std::memcmp(bytes_.data() + position + 1, text.data(), length) == 0;
    }
  }
  const Object object = describe(ref);
  if (object.type != Type::String)
    return false;
  if (object.width == 1)
    return object.length == text.size() && std::memcmp(bytes_.data() + object.payload, text.data(), text.size()) == 0;
  return string(ref) == text;
}

BinaryPlistView::Ref BinaryPlistView::element(const Entry &object, uint64_t index) const {
  if ((object.type != Type::Array && object.type != Type::Set) || index >= object.length)
    return objectCount_; // no object: every query on it answers nothing
  return refAt(object.payload + index * refWidth_);
}

// A dictionary's keys come first, then its values.
BinaryPlistView::Ref BinaryPlistView::keyAt(const Entry &object, uint64_t index) const {
  if (object.type != Type::Dictionary || index >= object.length)
    return objectCount_;
  return refAt(object.payload + index * refWidth_);
}

BinaryPlistView::Ref BinaryPlistView::valueAt(const Entry &object, uint64_t index) const {
  if (object.type != Type::Dictionary || index >= object.length)
    return objectCount_;
  return refAt(object.payload + (object.length + index) * refWidth_);
}

std::optional<BinaryPlistView::Ref> BinaryPlistView::valueForKey(Ref dictionary, std::string_view key) const {
  return valueForKey(describe(dictionary), key);
}

std::optional<BinaryPlistView::Ref> BinaryPlistView::valueForKey(const Entry &object, std::string_view key) const {
  if (object.type != Type::Dictionary)
    return std::nullopt;
  for (uint64_t i = 0; i < object.length; ++i)
    if (stringEquals(refAt(object.payload + i * refWidth_), key))
      return refAt(object.payload + (object.length + i) * refWidth_);
  return std::nullopt;
}

} // namespace parlova
