#include "driver/PageRebuild.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "driver/ArchiveFolder.h"
#include "driver/CatchUpProgress.h"
#include "driver/RunStart.h"
#include "driver/TranscriptJournal.h"
#include "generator/ChatLibrary.h"
#include "generator/ChatRecords.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PageText.h"
#include "history/ChatHistory.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

// The library's chat pages, each from its processed transcript; how many
// were written, or nothing when the history cannot say which.
std::optional<size_t> rewriteChatPages(const RunOptions &options) {
  auto history = ChatHistory::openExisting();
  const auto pages = history ? history->pageKeys() : std::nullopt;
  if (!pages)
    return history ? std::nullopt : std::optional<size_t>(0);
  std::map<std::string, std::string> pageOfKey;
  for (const auto &[page, key] : *pages)
    pageOfKey.emplace(key, page);

  const std::vector<std::string> entries = ProcessedTranscripts();
  const ICLPLogGenerator::WordLists lists = ICLPLogGenerator::ReadWordLists();
  CatchUpProgress progress(entries.size(), options.quiet);
  size_t written = 0, read = 0;
  for (const std::string &entry : entries) {
    progress.show(read++, entry);
    const fs::path path = ArchiveFolder() / entry;
    const auto contents = readFileContents(path);
    if (!contents)
      continue;
    const auto page = pageOfKey.find(TranscriptJournal::identityOf(*contents).key());
    if (page == pageOfKey.end())
      continue;
    const auto log = ICLPChatLog::initWithFileContents(path, *contents);
    if (!log)
      continue;
    ChatRecord record = chatRecordOf(*log, ICLPLogGenerator::CountChat(*log, lists), page->first, path);
    record.page = page->second;
    written += ChatLibrary::writeChatPage(*log, record) ? 1 : 0;
  }
  progress.clear();
  return written;
}

} // namespace

int rebuildPages(const RunOptions &options) {
  const auto started = startRun();
  if (!started)
    return 1;
  const auto start = Clock::now();
  const fs::path folder = ICLPLogGenerator::parlovaFolder();
  std::vector<std::string> drawn;
  std::vector<std::string> missing;
  // Each kind of page: drawn when there is something to show, and a
  // template to show it with.
  const auto draw = [&](const char *what, const char *archive, const char *pageTemplate, auto &&drawIt) {
    std::error_code error;
    if (!fs::exists(folder / archive, error))
      return;
    if (!fs::exists(folder / pageTemplate, error)) {
      missing.push_back(pageTemplate);
      return;
    }
    drawn.push_back(drawIt(what));
  };
  draw("links", "gatheredURLs.plist", "linktemplate.html", [](std::string what) {
    ICLPLogGenerator::GenerateLinkFiles(nullptr);
    return what;
  });
  draw("pictures", "gatheredImages.plist", "imagetemplate.html",
       [](std::string what) {
         ICLPLogGenerator::GenerateImageFiles(nullptr);
         return what;
       });
  draw("statistics", "chatgeist.plist", "statstemplate.html", [](std::string what) {
    if (const auto totals = ICLPLogGenerator::StoredTotals())
      ICLPLogGenerator::RebuildStatisticsPage(*totals);
    return what;
  });
  std::string stopped;
  if (ChatLibrary::wanted()) {
    draw("chat library", "history.sqlite", "chattemplate.html", [&](const std::string &) {
      const auto written = rewriteChatPages(options);
      if (!written)
        stopped = "the history could not be read";
      ChatLibrary::rebuildIndexPages();
      return "the chat library (" + thousands(written.value_or(0)) + " chat pages)";
    });
  }
  if (!missing.empty()) {
    std::string names;
    for (const std::string &name : missing)
      names += (names.empty() ? "" : ", ") + name;
    stopped = "no template " + names + " in " + folder.string() + "; parlova --setup puts the shipped ones there";
  }
  std::string what;
  for (size_t i = 0; i < drawn.size(); ++i)
    what += (i == 0 ? "" : i + 1 == drawn.size() ? " and " : ", ") + drawn[i];
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  logLine(std::string(stopped.empty() ? "Pages rebuilt: " : "Pages rebuilt in part (" + stopped + "): ") +
          (what.empty() ? std::string("no archive to draw pages from") : what) + ", " +
          CatchUpProgress::clockText(elapsed) + " elapsed.");
  return stopped.empty() ? 0 : 1;
}

} // namespace parlova
