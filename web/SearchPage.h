// The search: the page with its hits, the part of it that the script
// puts in place as the user types, and the hits as JSON.
#pragma once

#include <filesystem>
#include <string>

#include "web/WebExchange.h"

namespace parlova {

class ReadConnections;

class SearchPage {
public:
  static constexpr size_t kHitsPerPage = 50;
  static constexpr size_t kLongestQuery = 1000; // bytes
  // Hits are counted up to this many; a page beyond them is not offered.
  static constexpr int64_t kMostCounted = 10000;

  SearchPage(ReadConnections &history, std::filesystem::path chatLibrary)
      : history_(history), chatLibrary_(std::move(chatLibrary)) {}

  // q, with (again for more), since, until, links, pictures, sort=date,
  // page (from 0), format=json|part. `origin`: "http://host:port".
  WebAnswer answer(const WebRequest &request, const std::string &origin) const;

private:
  ReadConnections &history_;
  std::filesystem::path chatLibrary_;
};

} // namespace parlova
