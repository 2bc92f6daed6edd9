#include "platform/Beep.h"

#include <unistd.h>

namespace parlova {

void beep() {
  if (isatty(STDERR_FILENO))
    [[maybe_unused]] const auto written = write(STDERR_FILENO, "\a", 1);
}

} // namespace parlova
