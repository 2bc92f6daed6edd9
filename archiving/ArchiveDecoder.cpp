#include "archiving/ArchiveDecoder.h"

#include "archiving/KeyedUnarchiver.h"
#include "archiving/TypedStreamUnarchiver.h"

namespace parlova {

namespace {

template <class Decoder>
std::variant<std::unique_ptr<ArchiveDecoder>, std::string> opened(std::span<const uint8_t> bytes) {
  auto decoder = Decoder::forData(bytes);
  if (auto *why = std::get_if<std::string>(&decoder))
    return std::move(*why);
  return std::unique_ptr<ArchiveDecoder>(std::move(std::get<std::unique_ptr<Decoder>>(decoder)));
}

} // namespace

std::variant<std::unique_ptr<ArchiveDecoder>, std::string> ArchiveDecoder::open(std::span<const uint8_t> bytes,
                                                                                 Format format) {
  return format == Format::TypedStream ? opened<TypedStreamUnarchiver>(bytes) : opened<KeyedUnarchiver>(bytes);
}

std::variant<std::unique_ptr<ArchiveDecoder>, std::string> ArchiveDecoder::open(std::span<const uint8_t> bytes) {
  auto stream = open(bytes, Format::TypedStream);
  if (std::holds_alternative<std::unique_ptr<ArchiveDecoder>>(stream))
    return stream;
  auto keyed = open(bytes, Format::Keyed);
  if (std::holds_alternative<std::unique_ptr<ArchiveDecoder>>(keyed))
    return keyed;
  return "neither a typed stream nor a keyed archive (" + std::get<std::string>(keyed) + ")";
}

std::string_view ArchiveDecoder::formatName() const {
  return format() == Format::TypedStream ? "typed stream" : "keyed archive";
}

} // namespace parlova
