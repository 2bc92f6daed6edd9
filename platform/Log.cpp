#include "platform/Log.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace parlova {

namespace {

std::string &statusLine() {
  static std::string line;
  return line;
}

bool &routineShown() {
  static bool shown = true;
  return shown;
}

} // namespace

void showRoutineLines(bool shown) { routineShown() = shown; }

bool routineLinesShown() { return routineShown(); }

void setStatusLine(std::string text) {
  std::string out = statusLine().empty() ? "" : "\r\033[K";
  statusLine() = std::move(text);
  out += statusLine();
  if (!out.empty()) {
    std::fwrite(out.data(), 1, out.size(), stderr);
    std::fflush(stderr);
  }
}

void logLine(std::string_view text) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string line;
  line.reserve(text.size() + 64);
  if (!statusLine().empty())
    line += "\r\033[K";
  char prefix[96];
  std::snprintf(prefix, sizeof prefix, "%s.%03d parlova[%d] ", stamp, static_cast<int>(millis),
                static_cast<int>(getpid()));
  line += prefix;
  line += text;
  line += '\n';
  line += statusLine();
  // One write per line, so that lines from one run never interleave.
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

std::string formatText(std::string_view format, const std::vector<std::string> &arguments) {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == '@' && next < arguments.size()) {
      out += arguments[next++];
      ++i;
    } else {
      out += format[i];
    }
  }
  return out;
}

} // namespace parlova
