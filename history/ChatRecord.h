// One processed chat as the history keeps it: a row of the chats table,
// its hours and its messages.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "history/ChatTexts.h"

namespace parlova {

// One processed chat, counted as the totals count it.
struct ChatRecord {
  std::string key; // the transcript's size and digest: the same bytes, the same key
  std::string transcript; // where it is kept: its path in the processed folder
  std::string account;
  std::string displayName;
  bool group = false;
  std::optional<double> firstTime; // seconds since 1970
  std::optional<double> lastTime;
  // The month of the first time, in the machine's time zone, counted as
  // year * 12 + (month - 1).
  std::optional<int64_t> month;
  int64_t messages = 0;
  int64_t userWords = 0;
  int64_t otherWords = 0;
  int64_t userCurses = 0;
  int64_t otherCurses = 0;
  int64_t userNetspeak = 0;
  int64_t otherNetspeak = 0;
  int64_t links = 0;
  int64_t pictures = 0;
  // Messages by weekday (0 is Sunday) and hour, in the machine's time zone.
  std::array<std::array<int64_t, 24>, 7> slots{};
  // The other participants' accounts.
  std::vector<std::string> participants;
  // Every message as the search index keeps it.
  ChatTexts texts;
  // The first message's text, shortened, for the library's lists.
  std::string firstLine;
  // Its page in the chat library, relative to the library's folder.
  std::optional<std::string> page;
};

} // namespace parlova
