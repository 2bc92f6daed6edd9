#include "generator/JoinedLinks.h"

#include <algorithm>
#include <numeric>

#include "generator/DateComparators.h"
#include "model/ICLPChatLog.h"

namespace parlova {

JoinedLinks::JoinedLinks(const ICLPChatLog &log, PlistValue::Array &archive) : archive_(archive) {
  log.forEachURLObjectRecord([this](const LinkObjectRecord &record) {
    if (record.links.empty())
      return;
    const size_t entry = entryOf(record.speaker);
    auto [at, added] = listOfEntry_.try_emplace(entry, lists_.size());
    if (added)
      lists_.emplace_back();
    List &list = lists_[at->second];
    for (const ObjectRef &link : record.links)
      list.added.push_back({record.time, link});
  });

  // The archive has its last entry now: its lists stay where they are.
  for (size_t entry = 0; entry < archive_.size(); ++entry) {
    PlistValue *value = archive_[entry].objectForKey("urls");
    auto *items = value ? value->get<PlistValue::Array>() : nullptr;
    if (!items)
      continue;
    const auto joined = listOfEntry_.find(entry);
    if (joined == listOfEntry_.end()) {
      std::stable_sort(items->begin(), items->end(), [](const PlistValue &a, const PlistValue &b) {
        return compareLinkDictionaries(a, b, nullptr) < 0;
      });
      continue;
    }
    List &list = lists_[joined->second];
    list.stored = items;
    listOfArray_[items] = joined->second;
    // The same sort over the same sequence, of places instead of items, so
    // that even dates that do not order (a damaged time) land as they
    // would have.
    const size_t storedCount = items->size();
    list.order.resize(storedCount + list.added.size());
    std::iota(list.order.begin(), list.order.end(), 0u);
    const auto dateAt = [&](uint32_t place) {
      return place < storedCount ? (*items)[place].dateForKey("date") : std::optional(list.added[place - storedCount].date);
    };
    std::stable_sort(list.order.begin(), list.order.end(),
                     [&](uint32_t a, uint32_t b) { return compareOptionalDates(dateAt(a), dateAt(b)) < 0; });
  }
}

// The first entry of that name with a list, as merging finds it, or a new
// one at the end.
size_t JoinedLinks::entryOf(const std::string &speaker) {
  if (const auto known = speakerEntries_.find(speaker); known != speakerEntries_.end())
    return known->second;
  size_t entry = 0;
  for (; entry < archive_.size(); ++entry) {
    const std::string *name = archive_[entry].stringForKey("speaker");
    const PlistValue *list = name && *name == speaker ? archive_[entry].objectForKey("urls") : nullptr;
    if (list && list->get<PlistValue::Array>())
      break;
  }
  if (entry == archive_.size())
    archive_.push_back(PlistValue(PlistValue::Dictionary{{"speaker", speaker}, {"urls", PlistValue::Array{}}}));
  speakerEntries_.emplace(speaker, entry);
  return entry;
}

void JoinedLinks::visit(const List &list,
                        const std::function<void(const PlistValue *, Date, const Object *)> &each) const {
  const size_t storedCount = list.stored->size();
  for (const uint32_t place : list.order) {
    if (place < storedCount) {
      each(&(*list.stored)[place], Date(), nullptr);
    } else {
      const Added &added = list.added[place - storedCount];
      each(nullptr, added.date, added.link.get());
    }
  }
}

void JoinedLinks::forEachItem(size_t entry,
                              const std::function<void(const PlistValue *, Date, const Object *)> &each) const {
  if (const auto joined = listOfEntry_.find(entry); joined != listOfEntry_.end())
    visit(lists_[joined->second], each);
}

PlistValue::ArrayStandIn JoinedLinks::standIn() const {
  PlistValue::ArrayStandIn standIn;
  standIn.size = [this](const PlistValue::Array &items) -> std::optional<size_t> {
    const auto joined = listOfArray_.find(&items);
    if (joined == listOfArray_.end())
      return std::nullopt;
    return lists_[joined->second].order.size();
  };
  standIn.items = [this](const PlistValue::Array &items, const std::function<void(const PlistValue &)> &write) {
    visit(lists_[listOfArray_.at(&items)], [&write](const PlistValue *stored, Date date, const Object *link) {
      if (stored)
        write(*stored);
      else
        write(PlistValue(PlistValue::Dictionary{{"date", date}, {"linkurl", ICLPInstantMessage::addressOfLink(*link)}}));
    });
  };
  return standIn;
}

} // namespace parlova
