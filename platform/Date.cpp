#include "platform/Date.h"

#include <chrono>
#include <cmath>
#include <ctime>

namespace parlova {

Date Date::now() {
  using namespace std::chrono;
  const auto since = duration<double>(system_clock::now().time_since_epoch());
  return fromUnixTime(since.count());
}

std::string Date::description() const {
  const double unix = std::floor(timeIntervalSince1970());
  // Dates outside what time_t and struct tm can hold still print something.
  if (!std::isfinite(unix) || unix < -6.7e10 || unix > 6.7e10)
    return "(invalid date)";
  const auto seconds = static_cast<std::time_t>(unix);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr)
    return "(invalid date)";
  char text[64];
  const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &local);
  return std::string(text, n);
}

} // namespace parlova
