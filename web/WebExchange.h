// A request as the pages see it and what they answer, apart from the HTTP
// server that carries both.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace parlova {

struct WebRequest {
  std::string path; // decoded
  std::multimap<std::string, std::string> parameters;
  std::vector<std::string> pathParts; // what the route's pattern captured

  std::optional<std::string> parameter(const std::string &name) const {
    const auto found = parameters.find(name);
    return found == parameters.end() ? std::nullopt : std::optional(found->second);
  }
  std::vector<std::string> all(const std::string &name) const {
    std::vector<std::string> values;
    for (auto [at, end] = parameters.equal_range(name); at != end; ++at)
      values.push_back(at->second);
    return values;
  }
};

struct WebAnswer {
  int status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;

  static WebAnswer json(std::string body) { return {200, "application/json; charset=utf-8", std::move(body)}; }
};

} // namespace parlova
