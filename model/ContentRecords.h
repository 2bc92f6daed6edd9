// What a message carries besides its text: the links and attached files the
// gathered pages and the statistics are built from.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/Date.h"
#include "platform/FileWrapper.h"

namespace parlova {

// Words compare exactly: case, accents and punctuation all count.
using WordSet = std::unordered_set<std::string>;

struct LinkRecord {
  std::string speaker; // the display name
  Date time;
  std::vector<std::string> urls; // in text order
};

struct ImageRecord {
  std::string speaker;
  Date time;
  std::vector<std::shared_ptr<const FileWrapper>> images;
};

} // namespace parlova
