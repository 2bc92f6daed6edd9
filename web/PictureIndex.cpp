#include "web/PictureIndex.h"

#include <cmath>

#include "generator/GatheredArchive.h"

namespace parlova {

namespace {

int64_t second(double time) { return static_cast<int64_t>(std::floor(time)); }

} // namespace

std::shared_ptr<const PictureIndex::Sent> PictureIndex::current() {
  const std::lock_guard lock(mutex_);
  std::error_code error;
  const auto changed = std::filesystem::last_write_time(archive_, error);
  if (error)
    return sent_ = std::make_shared<const Sent>();
  if (sent_ && changed == readAt_)
    return sent_;
  auto sent = std::make_shared<Sent>();
  readAt_ = changed;
  const auto archive = loadGatheredArchive(archive_);
  const auto *speakers = archive ? archive->get<PlistValue::Array>() : nullptr;
  for (const PlistValue &entry : speakers ? *speakers : PlistValue::Array{}) {
    const std::string *speaker = entry.stringForKey("speaker");
    const PlistValue *list = entry.objectForKey("filenames");
    const auto *items = list ? list->get<PlistValue::Array>() : nullptr;
    if (!speaker || !items)
      continue;
    for (const PlistValue &item : *items) {
      const auto date = item.dateForKey("date");
      const std::string *name = item.stringForKey("filename");
      if (date && name)
        (*sent)[{*speaker, second(date->timeIntervalSince1970())}].push_back(*name);
    }
  }
  return sent_ = std::move(sent);
}

std::vector<std::string> PictureIndex::sentBy(const Sent &sent, const std::string &speaker, double time) {
  const auto found = sent.find({speaker, second(time)});
  return found == sent.end() ? std::vector<std::string>{} : found->second;
}

} // namespace parlova
