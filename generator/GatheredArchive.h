// What the link and image archives have in common: how they are read, how
// their per-person lists are kept in order, and the index and month lists of
// their pages.
#pragma once

#include <algorithm>
#include <compare>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/PropertyListValue.h"

namespace parlova {

// The archive's list of people; an empty one when there is no file, and
// nothing when the file is there but is not such a list (unreadable,
// damaged, or some other property list), which keeps it from being
// replaced.
std::optional<PlistValue> loadGatheredArchive(const std::filesystem::path &path);

// Writes an archive (links, images or totals) atomically; a failure is
// logged with the path and the reason, and leaves the old file as it was.
bool writeArchive(const std::filesystem::path &path, std::span<const uint8_t> bytes);
// The same for the archive's XML, made as it is written; false, with nothing
// written, when the archive cannot be turned into XML.
bool writeArchiveXml(const std::filesystem::path &path, const PlistValue &archive);
// The same with some lists written through a stand-in, for an archive the
// XML writer covers.
bool writeArchiveXml(const std::filesystem::path &path, const PlistValue &archive,
                     const PlistValue::ArrayStandIn &standIn);

// Sorts the list under `listKey` of every entry, not only of those a
// transcript touched; equal dates keep their order.
using EntryOrdering = std::weak_ordering (*)(const PlistValue &, const PlistValue &, void *);
void sortEveryList(PlistValue::Array &archive, std::string_view listKey, EntryOrdering order);
// The lists a transcript adds to, by the size each had before: afterwards
// only those are put in order, each by sorting what was added and merging
// it in, which gives what sorting the whole list gives as long as the list
// was in order before.
class ListsAddedTo {
public:
  ListsAddedTo(PlistValue::Array &archive, std::string_view listKey) : archive_(archive), listKey_(listKey) {}
  // Before the first addition to `list`.
  void note(PlistValue::Array *list);
  void sort(EntryOrdering order);

private:
  PlistValue::Array *listOf(size_t entry) const;

  PlistValue::Array &archive_;
  std::string_view listKey_;
  // Entries by their place in the archive, which new people do not change;
  // the lists themselves move when the archive grows.
  std::vector<std::pair<size_t, size_t>> lists_;
};

// One line of a page's index: the page of everybody, or of one person.
struct IndexEntry {
  std::string href;
  std::string label;
  size_t count;
};

// The index list of a page: "All" first, then every person; the page shown
// (`active`, or "All" when none) in the active form.
std::string indexList(const IndexEntry &all, const std::vector<IndexEntry> &people,
                      std::optional<size_t> active);

// Every month's text, newest month first (by `order` of their titles), each
// followed by `closing`, and one more `closing` at the end.
using MonthOrdering = std::weak_ordering (*)(std::string_view, std::string_view);
std::string newestMonthFirst(const std::map<std::string, std::string> &months, MonthOrdering order,
                             std::string_view closing);
// The months in that order, whatever each holds.
template <class Month>
std::vector<const std::pair<const std::string, Month> *> newestFirst(const std::map<std::string, Month> &months,
                                                                    MonthOrdering order) {
  std::vector<const std::pair<const std::string, Month> *> ordered;
  for (const auto &month : months)
    ordered.push_back(&month);
  std::stable_sort(ordered.begin(), ordered.end(),
                   [order](const auto *a, const auto *b) { return order(a->first, b->first) < 0; });
  std::reverse(ordered.begin(), ordered.end());
  return ordered;
}

} // namespace parlova
