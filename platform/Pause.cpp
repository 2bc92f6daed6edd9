#include "platform/Pause.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

namespace parlova {

double pauseSeconds() {
  constexpr double kDefault = 5;
  const char *text = std::getenv("PARLOVA_PAUSE_SECONDS");
  if (!text || !*text)
    return kDefault;
  char *end = nullptr;
  const double value = std::strtod(text, &end);
  if (*end != '\0' || !std::isfinite(value) || value < 0)
    return kDefault;
  return value;
}

void pauseBetweenEntries() {
  std::this_thread::sleep_for(std::chrono::duration<double>(pauseSeconds()));
}

} // namespace parlova
