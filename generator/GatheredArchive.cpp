#include "generator/GatheredArchive.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "generator/PageText.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace {

constexpr std::string_view kIndexItem = R"(<li><a href="%@">%@</a><span class="numb">(%d)</span></li>)";
constexpr std::string_view kActiveIndexItem =
    R"(<li class="active"><a href="%@">%@</a><span class="numb">(%d)</span></li>)";

} // namespace

namespace {

bool writeArchiveFile(const std::filesystem::path &path, const PieceMaker &make) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  if (writeFileAtomically(path, make, Durability::Now, Visibility::Private))
    return true;
  logFormat("Could not write %@: %@", path.string(), std::strerror(errno));
  return false;
}

} // namespace

bool writeArchive(const std::filesystem::path &path, std::span<const uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  return writeArchiveFile(path, [text](const auto &piece) { piece(text); });
}

bool writeArchiveXml(const std::filesystem::path &path, const PlistValue &archive) {
  if (!archive.writesXmlItself()) {
    const std::vector<uint8_t> bytes = archive.serialized(PlistFormat::XML);
    return !bytes.empty() && writeArchive(path, bytes);
  }
  return writeArchiveFile(path, [&archive](const auto &piece) { archive.writeXml(piece); });
}

bool writeArchiveXml(const std::filesystem::path &path, const PlistValue &archive,
                     const PlistValue::ArrayStandIn &standIn) {
  return writeArchiveFile(path, [&](const auto &piece) { archive.writeXml(piece, standIn); });
}

std::optional<PlistValue> loadGatheredArchive(const std::filesystem::path &path) {
  if (!fileExistsAtPath(path)) {
    PlistValue::Array empty;
    empty.reserve(10);
    return PlistValue(std::move(empty));
  }
  const auto bytes = readFileContents(path);
  if (!bytes)
    return std::nullopt;
  std::optional<PlistValue> archive = PlistValue::parse(*bytes);
  if (archive && !archive->get<PlistValue::Array>())
    return std::nullopt;
  return archive;
}

void sortEveryList(PlistValue::Array &archive, std::string_view listKey, EntryOrdering order) {
  for (PlistValue &entry : archive) {
    PlistValue *list = entry.objectForKey(listKey);
    if (auto *items = list ? list->get<PlistValue::Array>() : nullptr)
      std::stable_sort(items->begin(), items->end(),
                       [order](const PlistValue &a, const PlistValue &b) { return order(a, b, nullptr) < 0; });
  }
}

PlistValue::Array *ListsAddedTo::listOf(size_t entry) const {
  PlistValue *list = archive_[entry].objectForKey(listKey_);
  return list ? list->get<PlistValue::Array>() : nullptr;
}

void ListsAddedTo::note(PlistValue::Array *list) {
  for (size_t entry = 0; entry < archive_.size(); ++entry) {
    if (listOf(entry) != list)
      continue;
    for (const auto &[known, size] : lists_)
      if (known == entry)
        return;
    lists_.emplace_back(entry, list->size());
    return;
  }
}

void ListsAddedTo::sort(EntryOrdering order) {
  const auto before = [order](const PlistValue &a, const PlistValue &b) { return order(a, b, nullptr) < 0; };
  for (const auto &[entry, size] : lists_) {
    PlistValue::Array *list = listOf(entry);
    const auto added = list->begin() + static_cast<std::ptrdiff_t>(size);
    std::stable_sort(added, list->end(), before);
    std::inplace_merge(list->begin(), added, list->end(), before);
  }
  lists_.clear();
}

std::string indexList(const IndexEntry &all, const std::vector<IndexEntry> &people, std::optional<size_t> active) {
  const auto item = [](const IndexEntry &entry, bool isActive) {
    return fillFormat(isActive ? kActiveIndexItem : kIndexItem, {entry.href, entry.label, std::to_string(entry.count)});
  };
  std::string list = item(all, !active);
  for (size_t i = 0; i < people.size(); ++i)
    list += item(people[i], active == i);
  return list;
}

std::string newestMonthFirst(const std::map<std::string, std::string> &months, MonthOrdering order,
                             std::string_view closing) {
  const auto ordered = newestFirst(months, order);
  size_t size = closing.size();
  for (const auto *month : ordered)
    size += month->second.size() + closing.size();
  std::string text;
  text.reserve(size);
  for (const auto *month : ordered) {
    text += month->second;
    text += closing;
  }
  text += closing;
  return text;
}

} // namespace parlova
