// What both archive decoders offer, keyed archives and typed streams alike:
// the archive's root object and, where the format has one, its metadata;
// or why the archive is damaged, in the decoder's own words.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "archiving/Coder.h"
#include "foundation/Object.h"

namespace parlova {

class ArchiveDecoder {
public:
  enum class Format { TypedStream, Keyed };

  virtual ~ArchiveDecoder() = default;

  virtual Format format() const = 0;
  // "typed stream" or "keyed archive".
  std::string_view formatName() const;

  // Objects archived under `archivedName` are made by `factory` instead.
  virtual void setClass(std::string archivedName, ClassFactory factory) = 0;
  // Every archived object becomes a GenericObject holding what was stored
  // for it, for showing an archive as it is.
  virtual void setDecodesEverythingGenerically(bool generic) = 0;

  // Told now and then, while the root is decoded, how far into its bytes
  // the decoder has read: what lies before is read again only where the
  // archive refers back to it. A keyed archive is read anywhere and says
  // nothing.
  using ReadProgress = std::function<void(size_t bytesBehind)>;
  virtual void setReadProgress(ReadProgress) {}

  // The root object (null for an archived nil), or why it cannot be had.
  virtual std::variant<ObjectRef, std::string> decodeRoot() = 0;
  // A keyed archive's "metadata" (null when absent, and always for a typed
  // stream), or why it cannot be had.
  virtual std::variant<ObjectRef, std::string> decodeMetadata() = 0;
};

} // namespace parlova
