#include "foundation/CalendarFormat.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace parlova {

namespace {

constexpr std::array<std::string_view, 12> kMonthNames = {"January", "February", "March",     "April",
                                                          "May",     "June",     "July",      "August",
                                                          "September", "October", "November", "December"};
constexpr std::array<std::string_view, 7> kWeekdayNames = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                           "Thursday", "Friday", "Saturday"};

// Dates beyond what time_t and struct tm hold give nothing.
std::optional<std::tm> localBrokenDown(Date date) {
  const double unix = std::floor(date.timeIntervalSince1970());
  if (!std::isfinite(unix) || unix < -6.7e10 || unix > 6.7e10)
    return std::nullopt;
  const auto seconds = static_cast<std::time_t>(unix);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr)
    return std::nullopt;
  return local;
}

std::string padded(int value, int width) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*d", width, value);
  return text;
}

std::string zoneOffset(const std::tm &local) {
  const long offset = local.tm_gmtoff;
  const long minutes = (offset < 0 ? -offset : offset) / 60;
  return std::string(offset < 0 ? "-" : "+") + padded(static_cast<int>(minutes / 60), 2) +
         padded(static_cast<int>(minutes % 60), 2);
}

std::chrono::sys_days civilDay(const std::tm &local) {
  using namespace std::chrono;
  return sys_days(year(local.tm_year + 1900) / month(static_cast<unsigned>(local.tm_mon + 1)) /
                  day(static_cast<unsigned>(local.tm_mday)));
}

} // namespace

std::string formatCalendarDate(Date date, std::string_view format) {
  const auto local = localBrokenDown(date);
  if (!local)
    return "(invalid date)";
  std::string out;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out += format[i];
      continue;
    }
    const char directive = format[++i];
    const int hour12 = local->tm_hour % 12 == 0 ? 12 : local->tm_hour % 12;
    switch (directive) {
    case 'B': out += kMonthNames[static_cast<size_t>(local->tm_mon)]; break;
    case 'a': out += kWeekdayNames[static_cast<size_t>(local->tm_wday)].substr(0, 3); break;
    case 'e': out += std::to_string(local->tm_mday); break;
    case 'd': out += padded(local->tm_mday, 2); break;
    case 'm': out += padded(local->tm_mon + 1, 2); break;
    case 'Y': out += std::to_string(local->tm_year + 1900); break;
    case 'H': out += padded(local->tm_hour, 2); break;
    case 'I': out += padded(hour12, 2); break;
    case 'M': out += padded(local->tm_min, 2); break;
    case 'S': out += padded(local->tm_sec, 2); break;
    case 'p': out += local->tm_hour < 12 ? "AM" : "PM"; break;
    case 'z': out += zoneOffset(*local); break;
    case '%': out += '%'; break;
    default:
      out += '%';
      out += directive;
    }
  }
  return out;
}

int localMonthOfYear(Date date) {
  const auto local = localBrokenDown(date);
  return local ? local->tm_mon + 1 : 0;
}

std::optional<Date> parseMonthTitle(std::string_view title) {
  const size_t blank = title.find(' ');
  if (blank == std::string_view::npos)
    return std::nullopt;
  const std::string_view name = title.substr(0, blank);
  const std::string_view yearText = title.substr(blank + 1);
  int month = 0;
  while (month < 12 && kMonthNames[static_cast<size_t>(month)] != name)
    ++month;
  if (month == 12 || yearText.empty() || yearText.size() > 6)
    return std::nullopt;
  int year = 0;
  for (const char c : yearText) {
    if (c < '0' || c > '9')
      return std::nullopt;
    year = year * 10 + (c - '0');
  }
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month;
  local.tm_mday = 1;
  local.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&local);
  if (seconds == static_cast<std::time_t>(-1) && !(local.tm_year == 69 && local.tm_mon == 11))
    return std::nullopt;
  return Date::fromUnixTime(static_cast<double>(seconds));
}

int32_t wholeDaysBetween(Date start, Date end) {
  const auto from = localBrokenDown(start);
  const auto to = localBrokenDown(end);
  if (!from || !to)
    return 0;
  auto days = static_cast<int32_t>((civilDay(*to) - civilDay(*from)).count());
  const auto secondOfDay = [](const std::tm &t) { return (t.tm_hour * 60 + t.tm_min) * 60 + t.tm_sec; };
  // A day that has only partly passed does not count, in either direction.
  if (days > 0 && secondOfDay(*to) < secondOfDay(*from))
    --days;
  else if (days < 0 && secondOfDay(*to) > secondOfDay(*from))
    ++days;
  return days;
}

std::string describeDate(Date date) { return formatCalendarDate(date, "%Y-%m-%d %H:%M:%S %z"); }

} // namespace parlova
