#include <cstdio>
#include <span>
#include <variant>

#include "driver/CommandLine.h"
#include "driver/RunDriver.h"

int main(int argc, char **argv) {
  const auto parsed = parlova::parseCommandLine(std::span<const char *const>(argv + 1, argc - 1));
  if (const auto *complaint = std::get_if<std::string>(&parsed)) {
    std::fprintf(stderr, "parlova: %s (try --help)\n", complaint->c_str());
    return 2;
  }
  const auto &options = std::get<parlova::RunOptions>(parsed);
  if (options.help) {
    std::fputs(parlova::usageText().c_str(), stdout);
    return 0;
  }
  if (options.version) {
    std::fputs(parlova::versionText().c_str(), stdout);
    return 0;
  }
  return parlova::runParlova(options);
}
