// The links, attachments and word counts of a whole transcript.
#include "model/ICLPChatLog.h"

namespace parlova {

std::vector<LinkRecord> ICLPChatLog::GatheredURLs() const {
  std::vector<LinkRecord> gathered;
  for (const auto &message : messages())
    if (auto record = message->allURLs())
      gathered.push_back(std::move(*record));
  return gathered;
}

std::vector<ImageRecord> ICLPChatLog::GatheredImages() const {
  std::vector<ImageRecord> gathered;
  for (const auto &message : messages())
    if (auto record = message->allImages())
      gathered.push_back(std::move(*record));
  return gathered;
}

// The other party is whoever the file is named after; every other speaker,
// in a group chat too, counts as the user.
int32_t ICLPChatLog::countWordsOfSide(const WordSet *words, bool otherParty) const {
  int32_t total = 0;
  for (const auto &message : messages()) {
    if (!message->speaker())
      continue;
    const auto name = message->Speaker();
    if ((name && *name == primaryOtherParty_) == otherParty)
      total = wrappingAdd(total, message->wordCountInSet(words));
  }
  return total;
}

int32_t ICLPChatLog::CountWordsForUserInSet(const WordSet *words) const { return countWordsOfSide(words, false); }

int32_t ICLPChatLog::CountWordsForOthersInSet(const WordSet *words) const { return countWordsOfSide(words, true); }

} // namespace parlova
