#include "generator/StatisticsPage.h"

#include <cmath>
#include <cstdio>

#include "foundation/CalendarFormat.h"
#include "generator/PageText.h"
#include "model/ContentRecords.h"

namespace parlova {

namespace {

// printf prints x86's default NaN with its sign bit as "-nan"; the page
// shows a not-a-number as plain "nan", whatever its sign.
std::string fixed(double value, int decimals) {
  if (std::isnan(value))
    return "nan";
  char text[512];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string average(float numerator, float denominator) {
  return fixed(static_cast<double>(numerator / denominator), 1);
}

std::string barSize(float numerator, float denominator) {
  return fixed(static_cast<double>(numerator) * 300.0 / static_cast<double>(denominator), 0);
}

std::string pageDate(const std::optional<Date> &date) {
  return date ? formatCalendarDate(*date, "%B %e, %Y") : std::string();
}

} // namespace

std::string renderStatisticsPage(std::string page, const StatisticsTotals &t) {
  const auto f = [](int32_t value) { return static_cast<float>(value); };
  const float chats = f(t.chats);
  const float wordSum = f(t.userWords) + f(t.otherWords);
  const int32_t days = t.startDate && t.endDate ? wholeDaysBetween(*t.startDate, *t.endDate) : 0;

  const std::pair<std::string_view, std::string> values[] = {
      {"____USERTOTAL", std::to_string(t.userWords)},
      {"____OTHERTOTAL", std::to_string(t.otherWords)},
      {"____SUMTOTAL", std::to_string(wrappingAdd(t.userWords, t.otherWords))},
      {"____USERWORDAVG", average(f(t.userWords), chats)},
      {"____OTHERWORDAVG", average(f(t.otherWords), chats)},
      {"____SUMWORDAVG", average(wordSum, chats)},
      {"____CHATRATIOSIZE", barSize(f(t.userWords), wordSum)},
      {"____CHATIMAGEAVG", average(f(t.images), chats)},
      {"____CHATLINKAVG", average(f(t.links), chats)},
      {"____CHATIMAGETOTAL", std::to_string(t.images)},
      {"____CHATLINKTOTAL", std::to_string(t.links)},
      {"____USERCURSETOTAL", std::to_string(t.userCurses)},
      {"____OTHERCURSETOTAL", std::to_string(t.otherCurses)},
      {"____SUMCURSETOTAL", std::to_string(wrappingAdd(t.userCurses, t.otherCurses))},
      {"____CURSERATIOSIZE", barSize(f(t.userCurses), f(t.userWords))},
      {"____CURSERECRATIOSIZE", barSize(f(t.otherCurses), f(t.otherWords))},
      {"____NETSPEAKTOTAL", std::to_string(t.userNetspeak)},
      {"____NETSPEAKOTHERTOTAL", std::to_string(t.otherNetspeak)},
      {"____NETSPEAKSUMTOTAL", std::to_string(wrappingAdd(t.userNetspeak, t.otherNetspeak))},
      {"____NETSPEAKRATIOSIZE", barSize(f(t.userNetspeak), f(t.userWords))},
      {"____DATE1", pageDate(t.startDate)},
      {"____DATE2", pageDate(t.endDate)},
      {"____AVGCHATSPERDAY", days == 0 ? std::string("0.0") : average(chats, f(days))},
  };
  for (const auto &[placeholder, value] : values)
    replaceOccurrences(page, placeholder, value);
  return page;
}

} // namespace parlova
