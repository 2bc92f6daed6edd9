#include "generator/HistoryCharts.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "foundation/CalendarFormat.h"
#include "foundation/HtmlText.h"
#include "foundation/Unicode.h"
#include "generator/PageText.h"

namespace parlova {

namespace {

constexpr const char *kYou = "#2f6fde";
constexpr const char *kThem = "#e0803a";
constexpr const char *kMuted = "#6b7385";
constexpr const char *kEmpty = "#eef0f5";

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

// Names were typed by others: as XML text they must be escaped, and
// characters XML cannot hold at all (controls, bytes that are no UTF-8)
// become U+FFFD.
std::string svgText(std::string_view typed) {
  std::u16string units = utf8ToUtf16(typed);
  for (char16_t &unit : units)
    if ((unit < 0x20 && unit != u'\t') || unit == 0xFFFE || unit == 0xFFFF)
      unit = 0xFFFD;
  return escapedForHtml(utf16ToUtf8(units));
}

// At most `longest` characters, an ellipsis standing for the rest.
std::string shortened(std::string_view name, size_t longest) {
  const std::u16string units = utf8ToUtf16(name);
  if (units.size() <= longest)
    return std::string(name);
  size_t cut = longest - 1;
  if (cut > 0 && units[cut - 1] >= 0xD800 && units[cut - 1] < 0xDC00)
    --cut; // not half a surrogate pair
  return utf16ToUtf8(units.substr(0, cut)) + "\xE2\x80\xA6";
}

std::string svgOpen(int width, int height, const std::string &label) {
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + std::to_string(width) + " " +
         std::to_string(height) + "\" width=\"" + std::to_string(width) + "\" height=\"" + std::to_string(height) +
         "\" style=\"max-width: 100%; height: auto\" role=\"img\" aria-label=\"" + label +
         "\" font-family=\"sans-serif\" font-size=\"11\">";
}

std::string section(const std::string &title, const std::string &body) {
  return "\n  <section style=\"grid-column: 1 / -1\">\n    <h2>" + title + "</h2>\n    " + body + "\n  </section>";
}

std::string monthName(int year, int month) {
  std::tm middle{};
  middle.tm_year = year - 1900;
  middle.tm_mon = month - 1;
  middle.tm_mday = 15;
  middle.tm_hour = 12;
  middle.tm_isdst = -1;
  return formatCalendarDate(Date::fromUnixTime(static_cast<double>(std::mktime(&middle))), "%B %Y");
}

// One bar per month from the first to the last, empty months included.
std::string monthBars(const HistorySummary &history, bool words, const std::string &label) {
  const auto &months = history.months;
  const int first = months.front().year * 12 + months.front().month - 1;
  const int last = months.back().year * 12 + months.back().month - 1;
  const int count = last - first + 1;
  std::vector<int64_t> values(static_cast<size_t>(count), 0);
  for (const auto &month : months)
    values[static_cast<size_t>(month.year * 12 + month.month - 1 - first)] = words ? month.words : month.chats;
  const int64_t highest = std::max<int64_t>(1, *std::max_element(values.begin(), values.end()));

  constexpr int kLeft = 56, kTop = 8, kWidth = 720, kHeight = 120, kBottom = 22;
  const double slot = static_cast<double>(kWidth) / count;
  const double gap = slot > 4 ? slot * 0.15 : 0;
  std::string svg = svgOpen(kLeft + kWidth + 8, kTop + kHeight + kBottom, label);
  svg += "<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + std::to_string(kTop + kHeight) + "\" x2=\"" +
         std::to_string(kLeft + kWidth) + "\" y2=\"" + std::to_string(kTop + kHeight) + "\" stroke=\"" + kMuted +
         "\" stroke-width=\"0.5\"/>";
  svg += "<text x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + std::to_string(kTop + 9) +
         "\" text-anchor=\"end\" fill=\"" + kMuted + "\">" + thousands(highest) + "</text>";
  // A year's label needs some 30 pixels; in a long span only every so
  // many years is labelled.
  const int years = count / 12 + 1;
  const int every = std::max(1, static_cast<int>(std::ceil(years * 30.0 / kWidth)));
  for (int i = 0; i < count; ++i) {
    const int year = (first + i) / 12, month = (first + i) % 12 + 1;
    const int64_t value = values[static_cast<size_t>(i)];
    const double height = static_cast<double>(value) * kHeight / static_cast<double>(highest);
    const double x = kLeft + i * slot;
    svg += "<rect class=\"month\" data-value=\"" + std::to_string(value) + "\" x=\"" + number(x + gap) + "\" y=\"" +
           number(kTop + kHeight - height) + "\" width=\"" + number(std::max(slot - 2 * gap, 0.5)) + "\" height=\"" +
           number(height) + "\" fill=\"" + kYou + "\"><title>" + monthName(year, month) + ": " + thousands(value) +
           (words ? " words" : value == 1 ? " chat" : " chats") + "</title></rect>";
    if ((month == 1 || i == 0) && year % every == 0)
      svg += "<text x=\"" + number(x) + "\" y=\"" + std::to_string(kTop + kHeight + 15) + "\" fill=\"" + kMuted +
             "\">" + std::to_string(year) + "</text>";
  }
  return svg + "</svg>";
}

} // namespace

std::string monthsChart(const HistorySummary &history) {
  if (history.months.empty())
    return {};
  return section("Chats a month", monthBars(history, false, "Chats a month")) +
         section("Words a month", monthBars(history, true, "Words a month"));
}

std::string peopleChart(const HistorySummary &history) {
  if (history.people.empty())
    return {};
  constexpr int kLabel = 180, kBars = 520, kRow = 22, kTop = 22;
  int64_t highest = 1;
  for (const auto &person : history.people)
    highest = std::max(highest, person.userWords + person.otherWords);
  const int height = kTop + static_cast<int>(history.people.size()) * kRow + 4;
  std::string svg = svgOpen(kLabel + kBars + 90, height, "The people you talked with most");
  svg += std::string("<rect x=\"") + std::to_string(kLabel) + "\" y=\"4\" width=\"10\" height=\"10\" fill=\"" + kYou +
         "\"/><text x=\"" + std::to_string(kLabel + 14) + "\" y=\"13\" fill=\"" + kMuted + "\">your words</text>";
  svg += std::string("<rect x=\"") + std::to_string(kLabel + 90) + "\" y=\"4\" width=\"10\" height=\"10\" fill=\"" +
         kThem + "\"/><text x=\"" + std::to_string(kLabel + 104) + "\" y=\"13\" fill=\"" + kMuted +
         "\">theirs</text>";
  for (size_t i = 0; i < history.people.size(); ++i) {
    const auto &person = history.people[i];
    const std::string name = svgText(shortened(person.name, 28));
    const int y = kTop + static_cast<int>(i) * kRow;
    const double yours = static_cast<double>(person.userWords) * kBars / static_cast<double>(highest);
    const double theirs = static_cast<double>(person.otherWords) * kBars / static_cast<double>(highest);
    svg += "<g class=\"person\"><text x=\"" + std::to_string(kLabel - 8) + "\" y=\"" + std::to_string(y + 14) +
           "\" text-anchor=\"end\">" + name + "</text>";
    svg += "<rect class=\"yours\" data-value=\"" + std::to_string(person.userWords) + "\" x=\"" +
           std::to_string(kLabel) + "\" y=\"" + std::to_string(y + 3) + "\" width=\"" + number(yours) +
           "\" height=\"15\" fill=\"" + kYou + "\"><title>" + name + ": " + thousands(person.userWords) +
           " words by you</title></rect>";
    svg += "<rect class=\"theirs\" data-value=\"" + std::to_string(person.otherWords) + "\" x=\"" +
           number(kLabel + yours) + "\" y=\"" + std::to_string(y + 3) + "\" width=\"" + number(theirs) +
           "\" height=\"15\" fill=\"" + kThem + "\"><title>" + name + ": " + thousands(person.otherWords) +
           " words by them</title></rect>";
    svg += "<text x=\"" + number(kLabel + yours + theirs + 6) + "\" y=\"" + std::to_string(y + 14) + "\" fill=\"" +
           kMuted + "\">" + thousands(person.userWords + person.otherWords) + "</text></g>";
  }
  return section("Who you talked with most", svg + "</svg>");
}

std::string hoursChart(const HistorySummary &history) {
  int64_t highest = 0;
  for (const auto &day : history.slots)
    for (const int64_t count : day)
      highest = std::max(highest, count);
  if (highest == 0)
    return {};
  static constexpr const char *kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  constexpr int kLeft = 40, kTop = 18, kCell = 28, kRow = 22;
  std::string svg = svgOpen(kLeft + 24 * kCell + 4, kTop + 7 * kRow + 4, "Messages by weekday and hour");
  for (int hour = 0; hour < 24; hour += 3)
    svg += "<text x=\"" + std::to_string(kLeft + hour * kCell + 2) + "\" y=\"12\" fill=\"" + kMuted + "\">" +
           std::to_string(hour) + ":00</text>";
  for (int row = 0; row < 7; ++row) {
    const int day = (row + 1) % 7; // Monday first
    const int y = kTop + row * kRow;
    svg += "<text x=\"0\" y=\"" + std::to_string(y + 15) + "\" fill=\"" + kMuted + "\">" + kDays[day] + "</text>";
    for (int hour = 0; hour < 24; ++hour) {
      const int64_t count = history.slots[static_cast<size_t>(day)][static_cast<size_t>(hour)];
      const double share = static_cast<double>(count) / static_cast<double>(highest);
      svg += "<rect class=\"cell\" data-value=\"" + std::to_string(count) + "\" x=\"" +
             std::to_string(kLeft + hour * kCell) + "\" y=\"" + std::to_string(y) + "\" width=\"" +
             std::to_string(kCell - 2) + "\" height=\"" + std::to_string(kRow - 2) + "\" fill=\"" +
             (count == 0 ? kEmpty : kYou) + "\" fill-opacity=\"" + (count == 0 ? "1" : number(0.1 + 0.9 * share)) +
             "\"><title>" + kDays[day] + " " + std::to_string(hour) + ":00: " + thousands(count) +
             (count == 1 ? " message" : " messages") + "</title></rect>";
    }
  }
  return section("When the chats happened", svg + "</svg>");
}

std::string spanText(const HistorySummary &history) {
  if (history.chats == 0 || !history.firstTime || !history.lastTime)
    return {};
  const Date first = Date::fromUnixTime(*history.firstTime);
  const Date last = Date::fromUnixTime(*history.lastTime);
  const double days = std::max(1.0, (*history.lastTime - *history.firstTime) / 86400.0);
  char perDay[32];
  const double rate = static_cast<double>(history.chats) / days;
  // A few chats over years are still more than none a day.
  std::snprintf(perDay, sizeof perDay, rate < 0.095 ? "%.2f" : "%.1f", rate);
  return formatCalendarDate(first, "%B %Y") + " \xE2\x80\x93 " + formatCalendarDate(last, "%B %Y") + " \xC2\xB7 " +
         thousands(history.chats) + (history.chats == 1 ? " chat" : " chats") + " \xC2\xB7 " + perDay + " a day";
}

void fillHistoryPlaceholders(std::string &page, const std::optional<HistorySummary> &history) {
  const bool shown = history && history->chats > 0;
  const std::string span = shown ? spanText(*history) : std::string();
  replaceOccurrences(page, "____SPAN", span.empty() ? span : "\n  <p>" + span + "</p>");
  replaceOccurrences(page, "____CHARTMONTHS", shown ? monthsChart(*history) : std::string());
  replaceOccurrences(page, "____CHARTHOURS", shown ? hoursChart(*history) : std::string());
  // Last: the names in it were typed by others and may hold a placeholder.
  replaceOccurrences(page, "____CHARTPEOPLE", shown ? peopleChart(*history) : std::string());
}

} // namespace parlova
