#include "generator/PendingHistory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>

#include "foundation/PropertyListValue.h"
#include "generator/ChatLibrary.h"
#include "generator/ChatRecords.h"
#include "generator/ICLPLogGenerator.h"
#include "history/ChatHistory.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// The history is written this many chats at a time: one transaction each.
constexpr size_t kChatsPerWrite = 1000;

std::vector<PendingHistory::Chat> noted() {
  std::vector<PendingHistory::Chat> chats;
  const auto bytes = readFileContents(PendingHistory::file());
  const auto list = bytes ? PlistValue::parse(*bytes) : std::nullopt;
  const auto *entries = list ? list->get<PlistValue::Array>() : nullptr;
  if (!entries)
    return chats;
  for (const PlistValue &entry : *entries) {
    const std::string *key = entry.stringForKey("key");
    const std::string *transcript = entry.stringForKey("transcript");
    if (key && transcript)
      chats.push_back({*key, *transcript});
  }
  return chats;
}

bool write(const std::vector<PendingHistory::Chat> &chats) {
  if (chats.empty()) {
    std::error_code error;
    fs::remove(PendingHistory::file(), error);
    return !error;
  }
  PlistValue::Array entries;
  for (const auto &chat : chats)
    entries.emplace_back(PlistValue::Dictionary{{"key", chat.key}, {"transcript", chat.transcript.string()}});
  return writeFileAtomically(PendingHistory::file(), PlistValue(std::move(entries)).serialized(PlistFormat::XML),
                             Durability::Now, Visibility::Private);
}

} // namespace

fs::path PendingHistory::file() { return ICLPLogGenerator::parlovaFolder() / ".history-pending.plist"; }

bool PendingHistory::keep(const std::vector<Chat> &chats) {
  if (chats.empty())
    return true;
  std::vector<Chat> all = noted();
  std::map<std::string, size_t> known;
  for (size_t i = 0; i < all.size(); ++i)
    known.emplace(all[i].key, i);
  for (const Chat &chat : chats) {
    // Processed again (a run cut short): the place it went last counts.
    if (const auto it = known.find(chat.key); it != known.end()) {
      all[it->second] = chat;
    } else {
      known.emplace(chat.key, all.size());
      all.push_back(chat);
    }
  }
  if (!write(all)) {
    const int reason = errno;
    logFormat("Could not write %@: %@", file().string(), std::strerror(reason));
    errno = reason;
    return false;
  }
  logFormat("The chat history cannot take %@ now; a later run writes %@ (noted in %@).",
            chats.size() == 1 ? chats.front().transcript.filename().string()
                              : std::to_string(chats.size()) + " chats",
            std::string(chats.size() == 1 ? "it" : "them"), file().string());
  return true;
}

void PendingHistory::writeDue() {
  std::vector<Chat> left = noted();
  if (left.empty())
    return;
  const ICLPLogGenerator::WordLists lists = ICLPLogGenerator::ReadWordLists();
  size_t written = 0;
  while (!left.empty()) {
    const size_t count = std::min(left.size(), kChatsPerWrite);
    std::vector<ChatRecord> records;
    for (size_t i = 0; i < count; ++i) {
      const Chat &chat = left[i];
      const auto contents = readFileContents(chat.transcript);
      const auto log = contents ? ICLPChatLog::initWithFileContents(chat.transcript, *contents) : std::nullopt;
      if (!log) {
        // Moved or deleted since: --rebuild-history finds it where it is.
        logFormat("The chat history could not be given %@: it cannot be read there any more.",
                  chat.transcript.string());
        continue;
      }
      records.push_back(keptChat(*log, ICLPLogGenerator::CountChat(*log, lists), chat.key, chat.transcript,
                                 ChatPage::WriteWhenMissing));
    }
    if (!records.empty() && !ChatHistory::store(records))
      break;
    written += records.size();
    left.erase(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(count));
    write(left);
  }
  if (written) {
    if (const auto totals = ICLPLogGenerator::StoredTotals())
      ICLPLogGenerator::RebuildStatisticsPage(*totals);
    if (ChatLibrary::wanted())
      ChatLibrary::rebuildIndexPages();
  }
  if (!left.empty())
    logFormat("The chat history still cannot take %@ chats; the next run tries again.", std::to_string(left.size()));
  else if (written)
    logFormat("The chat history now holds the %@ chats it could not take before.", std::to_string(written));
}

} // namespace parlova
