// The running totals as the statistics page shows them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/Date.h"

namespace parlova {

struct StatisticsTotals {
  int32_t userWords = 0;
  int32_t otherWords = 0;
  int32_t userCurses = 0;
  int32_t otherCurses = 0;
  int32_t userNetspeak = 0;
  int32_t otherNetspeak = 0;
  int32_t images = 0;
  int32_t links = 0;
  int32_t chats = 1;
  std::optional<Date> startDate;
  std::optional<Date> endDate;
};

// The template with every placeholder of the statistics page filled in, in
// the page's fixed order. Averages are 32-bit float quotients; the bar
// sizes out of 300 are worked out in double from the float operands and
// are left unguarded, so an empty side prints as "nan" or "inf".
std::string renderStatisticsPage(std::string page, const StatisticsTotals &totals);

} // namespace parlova
