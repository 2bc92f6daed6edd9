// What a message carries besides its text: the links and attached files the
// gathered pages and the statistics are built from.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "foundation/Date.h"
#include "foundation/FileWrapper.h"
#include "foundation/Object.h"

namespace parlova {

// Word, link and picture counters are 32-bit and wrap around like the
// integers they always were, without the undefined behaviour of signed
// overflow.
inline int32_t wrappingAdd(int32_t total, int64_t more) {
  return static_cast<int32_t>(static_cast<uint32_t>(total) + static_cast<uint32_t>(more));
}

// Words compare exactly: case, accents and punctuation all count.
using WordSet = std::unordered_set<std::string>;

// The words of one side of a chat: all of them, and those in each of two
// lists (a missing list counts every word).
struct WordCounts {
  int32_t all = 0;
  int32_t inFirst = 0;
  int32_t inSecond = 0;
};

struct LinkRecord {
  std::string speaker; // the display name
  Date time;
  std::vector<std::string> urls; // in text order
};

// The same links as the chat holds them (a string or a URL object each),
// for keeping past the call without a copy of each address.
struct LinkObjectRecord {
  std::string speaker;
  Date time;
  std::vector<ObjectRef> links;
};

struct ImageRecord {
  std::string speaker;
  Date time;
  std::vector<std::shared_ptr<const FileWrapper>> images;
};

} // namespace parlova
