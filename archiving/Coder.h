// What an archive decoder offers a class while it decodes one object: named
// values in a keyed archive, values in stream order in a typed stream.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "foundation/Object.h"

namespace parlova {

class Coder {
public:
  virtual ~Coder() = default;

  virtual bool allowsKeyedCoding() const = 0;

  // Keyed archives. An absent key gives null or 0.
  virtual ObjectRef decodeObjectForKey(std::string_view key) = 0;
  virtual int32_t decodeInt32ForKey(std::string_view key) = 0;

  // Typed streams: the next object, and the next value of type code "I".
  virtual ObjectRef decodeObject() = 0;
  virtual uint32_t decodeUnsignedInt() = 0;
  // Typed streams: the text of the next object, empty when it is no string.
  virtual std::string decodeStringObject() = 0;
};

// Makes the program's own object for an archived class name, reading its
// fields from the coder ("initWithCoder:").
using ClassFactory = std::function<ObjectRef(Coder &)>;

// Raised inside a decoder when the archive is damaged; the decoder turns it
// into a plain "could not decode" answer before it reaches its caller.
class ArchiveDamaged : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// Deep enough for any real transcript (message, text, attributes, font...),
// shallow enough that hostile nesting cannot exhaust the stack.
inline constexpr int kMaxNestingDepth = 200;

// Counts one level of a decoder's nesting while it lives; deeper than
// kMaxNestingDepth is damage.
class NestingGuard {
public:
  explicit NestingGuard(int &depth) : depth_(++depth) {
    if (depth_ > kMaxNestingDepth) {
      --depth_; // no destructor runs for a constructor that throws
      throw ArchiveDamaged("values nested too deeply");
    }
  }
  ~NestingGuard() { --depth_; }
  NestingGuard(const NestingGuard &) = delete;
  NestingGuard &operator=(const NestingGuard &) = delete;

private:
  int &depth_;
};

} // namespace parlova
