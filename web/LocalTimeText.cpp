#include "web/LocalTimeText.h"

#include <ctime>

namespace parlova {

std::string localTimeText(std::optional<double> seconds, const char *format) {
  if (!seconds)
    return "?";
  const auto time = static_cast<std::time_t>(*seconds);
  std::tm local{};
  if (!localtime_r(&time, &local))
    return "?";
  char text[64];
  const size_t length = std::strftime(text, sizeof text, format, &local);
  return std::string(text, length);
}

} // namespace parlova
