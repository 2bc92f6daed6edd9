// A calendar day as people type it and iChat names its folders:
// "YYYY-MM-DD", in the local time zone.
#pragma once

#include <compare>
#include <optional>
#include <string_view>

#include "foundation/Date.h"

namespace parlova {

class LocalDay {
public:
  // A day that exists, or nothing ("2005-02-30", "2005-3-1" are none).
  static std::optional<LocalDay> parse(std::string_view text);
  // The local day `date` falls on.
  static LocalDay of(Date date);

  // Its first instant in local time.
  Date start() const;
  LocalDay next() const;

  auto operator<=>(const LocalDay &) const = default;

private:
  LocalDay(int year, int month, int day) : year_(year), month_(month), day_(day) {}
  int year_;
  int month_;
  int day_;
};

} // namespace parlova
