#include "platform/Pause.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

namespace parlova {

std::optional<double> parseSeconds(const char *text) {
  if (!text || !*text)
    return std::nullopt;
  char *end = nullptr;
  const double value = std::strtod(text, &end);
  if (*end != '\0' || !std::isfinite(value) || value < 0)
    return std::nullopt;
  return value;
}

double pauseSeconds() { return parseSeconds(std::getenv("PARLOVA_PAUSE_SECONDS")).value_or(5); }

void pauseBetweenEntries() { pauseFor(pauseSeconds()); }

void pauseFor(double seconds) {
  if (seconds > 0)
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

} // namespace parlova
