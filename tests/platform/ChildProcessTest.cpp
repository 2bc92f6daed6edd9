// Commands run to completion within their limit, whatever they do with
// their output and whatever they start.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>

#include "platform/ChildProcess.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

// Alive and not a zombie: a zombie has ended, whoever reaps it.
bool running(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string skipped, state;
  return stat >> skipped >> skipped >> state && state != "Z" && state != "X";
}

TEST(ChildProcess, TheLimitHoldsForACommandThatClosesItsOutputAndForWhatItStarted) {
  ScratchHome home;
  const fs::path started = home.path() / "started";
  struct Case {
    std::string command;
    bool timedOut;
    std::string output;
  };
  const Case cases[] = {
      {"echo secret", false, "secret\n"},
      // Output closed, then a wait: the limit still ends it.
      {"echo secret; exec >&-; sleep 30", true, "secret\n"},
      // A process it started outlives it: killed with it at the limit.
      {"sleep 30 & echo $! > '" + started.string() + "'; echo secret; wait", true, "secret\n"},
  };
  for (const Case &c : cases) {
    const auto began = std::chrono::steady_clock::now();
    const ChildOutcome outcome = runChildProcess({"/bin/sh", "-c", c.command}, "", std::chrono::seconds(2));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4)) << c.command;
    EXPECT_EQ(outcome.timedOut, c.timedOut) << c.command;
    EXPECT_EQ(outcome.output, c.output) << c.command;
  }
  ASSERT_TRUE(fs::exists(started));
  const pid_t sleeper = std::stoi(readText(started));
  for (int tries = 0; tries < 100 && running(sleeper); ++tries)
    usleep(10000);
  EXPECT_FALSE(running(sleeper)) << "the command's own child was left running";
}

} // namespace
} // namespace parlova::testing
