#include <cstdio>
#include <filesystem>
#include <span>
#include <variant>

#include "driver/CommandLine.h"
#include "driver/RunDriver.h"
#include "platform/Home.h"

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
  // Every path derives from the home folder: a missing one would be made
  // afresh, with archives nobody finds.
  const auto home = parlova::homeDirectory();
  if (std::error_code error; !std::filesystem::is_directory(home, error)) {
    std::fprintf(stderr, "parlova: the home folder %s does not exist; nothing is done\n", home.c_str());
    return 1;
  }
  // A run as another user (root, through sudo, with the user's HOME) would
  // leave settings, archives and a lock that the user's own runs cannot
  // use.
  if (const auto foreign = parlova::homeOfAnotherUser()) {
    std::fprintf(stderr, "parlova: %s; nothing is done (run parlova as %s)\n", foreign->why.c_str(),
                 foreign->owner.c_str());
    return 1;
  }
  return parlova::runParlova(options);
}
