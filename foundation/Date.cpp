#include "foundation/Date.h"

#include <chrono>

#include "foundation/CalendarFormat.h"

namespace parlova {

Date Date::now() {
  using namespace std::chrono;
  const auto since = duration<double>(system_clock::now().time_since_epoch());
  return fromUnixTime(since.count());
}

std::string Date::description() const { return formatCalendarDate(*this, "%Y-%m-%d %H:%M:%S %z"); }

} // namespace parlova
