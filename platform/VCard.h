// Reads contact cards from vCard text (versions 2.1, 3.0 and 4.0 as address
// books export them): folded lines, groups, parameters and escapes.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlova {

struct VCardProperty {
  std::string name;                                      // upper case, group removed
  std::map<std::string, std::vector<std::string>> parameters; // names upper case
  std::string value;                                     // unescaped

  // Whether a parameter (TYPE=pref, PREF=1, a bare PREF) marks the value
  // as the preferred one.
  bool isPreferred() const;
  // The value split at unescaped semicolons, each part unescaped (N, ADR).
  std::vector<std::string> components;
};

struct VCard {
  std::vector<VCardProperty> properties;
  const VCardProperty *first(std::string_view name) const;
};

std::vector<VCard> parseVCards(std::string_view text);

} // namespace parlova
