#include "archiving/ArchiveDecoder.h"

namespace parlova {

std::string_view ArchiveDecoder::formatName() const {
  return format() == Format::TypedStream ? "typed stream" : "keyed archive";
}

} // namespace parlova
