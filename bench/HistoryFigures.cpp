// The statistics page drawn from a history of 100,000 chats (twenty years,
// 500 people) against the same page drawn without one: what the charts'
// grouped queries and drawing cost on a large archive.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "bench/JudgedFigures.h"
#include "generator/ICLPLogGenerator.h"
#include "history/ChatHistory.h"

namespace parlova::bench {

namespace fs = std::filesystem;

namespace {

double secondsRebuilding(const StatisticsTotals &totals) {
  std::vector<double> times;
  for (int round = 0; round < 5; ++round) {
    const auto start = std::chrono::steady_clock::now();
    ICLPLogGenerator::RebuildStatisticsPage(totals);
    times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return median(std::move(times));
}

} // namespace

void printHistoryPage() {
  constexpr size_t kChats = 100000;
  const fs::path home = fs::temp_directory_path() / ("parlova-history-" + std::to_string(getpid()));
  const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
  setenv("HOME", home.c_str(), 1);
  fs::create_directories(ICLPLogGenerator::parlovaFolder());
  fs::copy_file(fs::path(PARLOVA_SOURCE_DIR) / "resources" / "statstemplate.html",
                ICLPLogGenerator::parlovaFolder() / "statstemplate.html");

  std::mt19937 random(11);
  std::vector<ChatRecord> records(kChats);
  for (size_t i = 0; i < kChats; ++i) {
    ChatRecord &record = records[i];
    record.key = std::to_string(i);
    record.transcript = "/nowhere/" + record.key + ".ichat";
    record.account = "buddy" + std::to_string(random() % 500);
    record.displayName = record.account;
    record.firstTime = 1.0e9 + static_cast<double>(random() % (20u * 365 * 86400));
    record.lastTime = *record.firstTime + 900;
    const auto first = static_cast<std::time_t>(*record.firstTime);
    std::tm local{};
    localtime_r(&first, &local);
    record.month = int64_t{local.tm_year + 1900} * 12 + local.tm_mon;
    record.messages = 1 + random() % 60;
    record.userWords = random() % 400;
    record.otherWords = random() % 400;
    record.slots[random() % 7][random() % 24] = record.messages;
  }
  ChatHistory::store(records);
  StatisticsTotals totals;
  totals.chats = static_cast<int32_t>(kChats);
  const double withCharts = secondsRebuilding(totals);
  fs::rename(ChatHistory::file(), ChatHistory::file().string() + ".aside");
  const double without = secondsRebuilding(totals);
  line("history: stats page from 100,000 chats", withCharts * 1000, "ms", "the page without charts",
       withCharts / without, "the figure well under 1,000 ms");

  setenv("HOME", savedHome.c_str(), 1);
  removeWhenDone(home);
}

} // namespace parlova::bench
