#include "archiving/ArchiveOpening.h"

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

std::variant<std::unique_ptr<ArchiveDecoder>, std::string> openArchive(std::span<const uint8_t> bytes,
                                                                       ArchiveDecoder::Format format) {
  return format == ArchiveDecoder::Format::TypedStream ? opened<TypedStreamUnarchiver>(bytes)
                                                       : opened<KeyedUnarchiver>(bytes);
}

std::variant<std::unique_ptr<ArchiveDecoder>, std::string> openArchive(std::span<const uint8_t> bytes) {
  auto stream = openArchive(bytes, ArchiveDecoder::Format::TypedStream);
  if (std::holds_alternative<std::unique_ptr<ArchiveDecoder>>(stream))
    return stream;
  auto keyed = openArchive(bytes, ArchiveDecoder::Format::Keyed);
  if (std::holds_alternative<std::unique_ptr<ArchiveDecoder>>(keyed))
    return keyed;
  return "neither a typed stream nor a keyed archive (" + std::get<std::string>(keyed) + ")";
}

} // namespace parlova
