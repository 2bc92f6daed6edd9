// The links, attachments and word counts of a whole transcript.
#include "model/ICLPChatLog.h"

namespace parlova {

void ICLPChatLog::forEachURLRecord(const std::function<void(const LinkRecord &)> &visit) const {
  for (const auto &message : messages())
    if (const auto record = message->allURLs())
      visit(*record);
}

void ICLPChatLog::forEachURLObjectRecord(const std::function<void(const LinkObjectRecord &)> &visit) const {
  for (const auto &message : messages())
    if (const auto record = message->allURLObjects())
      visit(*record);
}

void ICLPChatLog::forEachImageRecord(const std::function<void(const ImageRecord &)> &visit) const {
  for (const auto &message : messages())
    if (const auto record = message->allImages())
      visit(*record);
}

// The other party is whoever the file is named after; every other speaker,
// in a group chat too, counts as the user.
ICLPChatLog::SidesWordCounts ICLPChatLog::CountWordsInSets(const WordSet *first, const WordSet *second) const {
  SidesWordCounts counts;
  for (const auto &message : messages()) {
    if (!message->speaker())
      continue;
    const auto name = message->Speaker();
    message->addWordCounts(first, second, name && *name == primaryOtherParty_ ? counts.others : counts.user);
  }
  return counts;
}

int32_t ICLPChatLog::CountWordsForUserInSet(const WordSet *words) const {
  return CountWordsInSets(words, nullptr).user.inFirst;
}

int32_t ICLPChatLog::CountWordsForOthersInSet(const WordSet *words) const {
  return CountWordsInSets(words, nullptr).others.inFirst;
}

} // namespace parlova
