#include "archiving/TypedStreamReader.h"

#include <cctype>
#include <cstring>

namespace parlova {

using namespace typedstream;

namespace {

constexpr std::string_view kLittleEndianSignature = "streamtyped";
constexpr std::string_view kBigEndianSignature = "typedstream";
constexpr uint8_t kStreamerVersion = 4;

// Length of the one encoding at the start of `text`, or 0 when damaged.
size_t encodingLength(std::string_view text, int depth) {
  if (text.empty() || depth > 64)
    return 0;
  const char first = text.front();
  if (first == '[' || first == '{' || first == '(') {
    const char close = first == '[' ? ']' : first == '{' ? '}' : ')';
    size_t i = 1;
    if (first == '[') {
      while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])))
        ++i;
    } else {
      // A struct or union's name runs up to '=' (or the end of the group).
      while (i < text.size() && text[i] != '=' && text[i] != close && text[i] != '{' && text[i] != '[')
        ++i;
      if (i < text.size() && text[i] == '=')
        ++i;
    }
    while (i < text.size() && text[i] != close) {
      const size_t inner = encodingLength(text.substr(i), depth + 1);
      if (inner == 0)
        return 0;
      i += inner;
    }
    return i < text.size() ? i + 1 : 0;
  }
  if (first == '^')
    return text.size() > 1 ? 1 + encodingLength(text.substr(1), depth + 1) : 0;
  static constexpr std::string_view kSimple = "cCsSiIlLqQfdBv*@#:%+!?";
  return kSimple.find(first) == std::string_view::npos ? 0 : 1;
}

} // namespace

std::optional<TypedStreamReader> TypedStreamReader::forData(std::span<const uint8_t> bytes) {
  if (bytes.size() < 2 + kLittleEndianSignature.size() || bytes[0] != kStreamerVersion ||
      bytes[1] != kLittleEndianSignature.size())
    return std::nullopt;
  const std::string_view signature(reinterpret_cast<const char *>(bytes.data() + 2), kLittleEndianSignature.size());
  if (signature != kLittleEndianSignature && signature != kBigEndianSignature)
    return std::nullopt;
  TypedStreamReader reader(bytes, signature == kBigEndianSignature);
  reader.pos_ = 2 + kLittleEndianSignature.size();
  try {
    reader.systemVersion_ = reader.readInteger(reader.readHead(), false);
  } catch (const ArchiveDamaged &) {
    return std::nullopt;
  }
  return reader;
}

void TypedStreamReader::throwEndOfStream() { throw ArchiveDamaged("typed stream ends too soon"); }

std::span<const uint8_t> TypedStreamReader::readBytes(size_t count) {
  if (count > remaining())
    throw ArchiveDamaged("typed stream ends inside a value");
  const auto out = bytes_.subspan(pos_, count);
  pos_ += count;
  if (pos_ >= nextProgress_ && progress_) {
    progress_(pos_);
    nextProgress_ = pos_ + kProgressStep;
  }
  return out;
}

uint64_t TypedStreamReader::readUnsigned(size_t width) {
  const auto raw = readBytes(width);
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) {
    const size_t index = bigEndian_ ? i : width - 1 - i;
    value = (value << 8) | raw[index];
  }
  return value;
}

int64_t TypedStreamReader::readTaggedInteger(int8_t head, bool isSigned) {
  if (head == kInteger2) {
    const auto v = static_cast<uint16_t>(readUnsigned(2));
    return isSigned ? static_cast<int16_t>(v) : v;
  }
  if (head == kInteger4) {
    const auto v = static_cast<uint32_t>(readUnsigned(4));
    return isSigned ? static_cast<int32_t>(v) : v;
  }
  if (head == kInteger8)
    return static_cast<int64_t>(readUnsigned(8)); // "Q" above 2^63 wraps, as it would in C
  throw ArchiveDamaged("a tag where an integer belongs");
}

double TypedStreamReader::readFloat(int8_t head) {
  if (head != kFloatingPoint)
    return static_cast<double>(readInteger(head, true));
  const auto bits = static_cast<uint32_t>(readUnsigned(4));
  float value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

double TypedStreamReader::readDouble(int8_t head) {
  if (head != kFloatingPoint)
    return static_cast<double>(readInteger(head, true));
  const uint64_t bits = readUnsigned(8);
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

std::optional<std::string_view> TypedStreamReader::readUnsharedString(int8_t head) {
  if (head == kNil)
    return std::nullopt;
  const int64_t length = readInteger(head, false);
  const auto raw = readBytes(static_cast<size_t>(length));
  return std::string_view(reinterpret_cast<const char *>(raw.data()), raw.size());
}

std::optional<std::string_view> TypedStreamReader::readSharedString(int8_t head) {
  if (head == kNil)
    return std::nullopt;
  if (head == kNew) {
    const auto text = readUnsharedString(readHead());
    if (!text)
      throw ArchiveDamaged("a new shared string that is nil");
    sharedStrings_.push_back({*text, nullptr});
    return text;
  }
  const size_t index = readReferenceIndex(head);
  if (index >= sharedStrings_.size())
    throw ArchiveDamaged("reference to a string not read yet");
  return sharedStrings_[index].text;
}

const std::vector<std::string> &TypedStreamReader::readTypeEncodings(int8_t head) {
  if (head == kNil)
    throw ArchiveDamaged("a group without type encoding");
  size_t index = sharedStrings_.size();
  if (head == kNew) {
    readSharedString(head);
  } else {
    index = readReferenceIndex(head);
    if (index >= sharedStrings_.size())
      throw ArchiveDamaged("reference to a string not read yet");
  }
  SharedString &shared = sharedStrings_[index];
  if (!shared.encodings)
    shared.encodings = std::make_unique<const std::vector<std::string>>(splitTypeEncodings(shared.text));
  return *shared.encodings;
}

size_t TypedStreamReader::readReferenceIndex(int8_t head) {
  const int64_t number = readInteger(head, true);
  if (number < kFirstReference)
    throw ArchiveDamaged("reference number out of range");
  return static_cast<size_t>(number - kFirstReference);
}

std::vector<std::string> splitTypeEncodings(std::string_view encodings) {
  std::vector<std::string> parts;
  while (!encodings.empty()) {
    const size_t length = encodingLength(encodings, 0);
    if (length == 0)
      throw ArchiveDamaged("damaged type encoding");
    parts.emplace_back(encodings.substr(0, length));
    encodings.remove_prefix(length);
  }
  if (parts.empty())
    throw ArchiveDamaged("empty type encoding");
  return parts;
}

} // namespace parlova
