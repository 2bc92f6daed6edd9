#include "foundation/LocalDay.h"

#include <ctime>

namespace parlova {

namespace {

std::tm noon(int year, int month, int day) {
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_hour = 12; // clear of any change of clocks
  local.tm_isdst = -1;
  return local;
}

} // namespace

std::optional<LocalDay> LocalDay::parse(std::string_view text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-')
    return std::nullopt;
  int fields[3] = {0, 0, 0};
  for (size_t i = 0, field = 0; i < text.size(); ++i) {
    if (i == 4 || i == 7) {
      ++field;
      continue;
    }
    if (text[i] < '0' || text[i] > '9')
      return std::nullopt;
    fields[field] = fields[field] * 10 + (text[i] - '0');
  }
  std::tm checked = noon(fields[0], fields[1], fields[2]);
  if (fields[0] < 1900 || std::mktime(&checked) == -1 || checked.tm_mday != fields[2] ||
      checked.tm_mon != fields[1] - 1)
    return std::nullopt;
  return LocalDay(fields[0], fields[1], fields[2]);
}

LocalDay LocalDay::of(Date date) {
  const auto when = static_cast<std::time_t>(date.timeIntervalSince1970());
  std::tm local{};
  localtime_r(&when, &local);
  return LocalDay(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

Date LocalDay::start() const {
  std::tm local = noon(year_, month_, day_);
  local.tm_hour = 0;
  return Date::fromUnixTime(static_cast<double>(std::mktime(&local)));
}

LocalDay LocalDay::next() const {
  std::tm local = noon(year_, month_, day_ + 1);
  std::mktime(&local);
  return LocalDay(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

} // namespace parlova
