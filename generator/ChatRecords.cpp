#include "generator/ChatRecords.h"

#include <cmath>
#include <ctime>
#include <limits>

#include "foundation/Unicode.h"
#include "generator/ChatLibrary.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

std::tm localTime(double secondsSince1970) {
  const auto seconds = static_cast<std::time_t>(secondsSince1970);
  std::tm local{};
  localtime_r(&seconds, &local);
  return local;
}

} // namespace

ChatRecord chatRecordOf(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                         fs::path transcript, RecordTexts texts) {
  ChatRecord record;
  record.key = std::move(key);
  record.transcript = std::move(transcript).string();
  const auto participants = log.participants();
  record.group = participants.size() > 1;
  record.displayName = log.primaryOtherParty();
  record.account = participants.size() == 1 && !participants.front()->rawName().empty()
                       ? participants.front()->rawName()
                       : record.displayName;
  for (const auto &participant : participants)
    record.participants.push_back(participant->rawName());
  // Every zone's offset, and every change of it, falls on a quarter hour,
  // so the messages of one quarter hour share one conversion.
  int64_t convertedQuarter = std::numeric_limits<int64_t>::min();
  std::tm local{};
  const bool held = texts == RecordTexts::Held;
  if (held) {
    // A text is about as long in UTF-8 as in UTF-16 units, which are
    // counted without making it.
    size_t textUnits = 0;
    for (const auto &message : log.messages())
      if (message->string())
        textUnits += message->string()->length();
    record.texts.reserve(log.messages().size(), textUnits);
  }
  std::optional<std::string> firstText;
  for (const auto &message : log.messages()) {
    if (message->isStatusMessage())
      continue;
    ++record.messages;
    const auto time = message->TimeStamp();
    const std::string account = message->rawSpeaker().value_or("");
    const std::string name = message->Speaker().value_or("(null)");
    if (held || !firstText) {
      std::string text = message->SearchableText();
      if (!firstText && !text.empty())
        firstText = text;
      if (held)
        record.texts.add(time ? std::optional(time->timeIntervalSince1970()) : std::nullopt, account, name, text);
    }
    if (!held)
      record.texts.noteSpeaker(account, name);
    if (time) {
      const double seconds = time->timeIntervalSince1970();
      if (!record.firstTime) {
        record.firstTime = seconds;
        const std::tm first = localTime(seconds);
        record.month = int64_t{first.tm_year + 1900} * 12 + first.tm_mon;
      }
      if (const auto quarter = static_cast<int64_t>(std::floor(seconds / 900)); quarter != convertedQuarter) {
        local = localTime(seconds);
        convertedQuarter = quarter;
      }
      ++record.slots[static_cast<size_t>(local.tm_wday)][static_cast<size_t>(local.tm_hour)];
    }
  }
  constexpr size_t kLongestFirstLine = 120;
  if (firstText) {
    const std::u16string units = utf8ToUtf16(*firstText);
    record.firstLine =
        utf16ToUtf8(units.substr(0, kLongestFirstLine)) + (units.size() > kLongestFirstLine ? "\xE2\x80\xA6" : "");
  }
  if (!held) {
    record.texts.madeAsWritten([&log](const ChatTexts::Each &each) {
      for (const auto &message : log.messages()) {
        if (message->isStatusMessage())
          continue;
        const auto time = message->TimeStamp();
        each(time ? std::optional(time->timeIntervalSince1970()) : std::nullopt,
             message->rawSpeaker().value_or(""), message->Speaker().value_or("(null)"),
             message->SearchableText());
      }
    });
  }
  if (const auto last = log.LastMessageDate())
    record.lastTime = last->timeIntervalSince1970();
  record.userWords = counts.user.all;
  record.otherWords = counts.others.all;
  record.userCurses = counts.user.inFirst;
  record.otherCurses = counts.others.inFirst;
  record.userNetspeak = counts.user.inSecond;
  record.otherNetspeak = counts.others.inSecond;
  record.pictures = counts.pictures;
  record.links = counts.links;
  return record;
}

ChatRecord keptChat(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                    fs::path transcript, ChatPage page, Durability durability, RecordTexts texts) {
  ChatRecord record = chatRecordOf(log, counts, std::move(key), std::move(transcript), texts);
  if (ChatLibrary::wanted()) {
    record.page = ChatLibrary::pagePath(record);
    // A chat's row that has no page yet is given one.
    if (page == ChatPage::Write || !fileExistsAtPath(ChatLibrary::folder() / *record.page))
      ChatLibrary::writeChatPage(log, record, durability);
  }
  return record;
}

} // namespace parlova
