#include "generator/LibraryPageNames.h"

namespace parlova {

namespace {

constexpr std::string_view kExtension = ".html";

} // namespace

LibraryPageNames::LibraryPageNames(const std::vector<std::pair<std::string, std::string>> &given) {
  for (const auto &[page, key] : given) {
    keyOfPage_.emplace(page, key);
    pageOfKey_.emplace(key, page);
  }
}

std::string LibraryPageNames::claim(const std::string &page, const std::string &key) {
  if (const auto given = pageOfKey_.find(key); given != pageOfKey_.end())
    return given->second;
  std::string name = page;
  for (int counter = 2; keyOfPage_.contains(name); ++counter) {
    const bool html = name.ends_with(kExtension);
    const std::string stem = html ? name.substr(0, name.size() - kExtension.size()) : name;
    name = stem + " #" + std::to_string(counter) + (html ? std::string(kExtension) : std::string());
  }
  keyOfPage_.emplace(name, key);
  pageOfKey_.emplace(key, name);
  return name;
}

} // namespace parlova
