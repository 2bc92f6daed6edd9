#include "mail/SmtpSentRecord.h"

#include <string_view>

#include "context/ParlovaFolder.h"
#include "platform/FileManager.h"

namespace parlova {

namespace fs = std::filesystem;

fs::path SmtpSentRecord::file() { return parlovaFolder() / ".smtp-sent"; }

std::string SmtpSentRecord::line(const std::string &to, const std::string &contentKey) {
  // Neither holds a tab or a line break: the key is hex digits, and an
  // address with one is cut there, which only ever sends once more.
  std::string address = to.substr(0, to.find_first_of("\t\r\n"));
  return address + "\t" + contentKey;
}

SmtpSentRecord SmtpSentRecord::read() {
  SmtpSentRecord record;
  const auto bytes = readFileContents(file());
  if (!bytes)
    return record;
  const std::string_view text(reinterpret_cast<const char *>(bytes->data()), bytes->size());
  for (size_t start = 0; start < text.size();) {
    const size_t end = text.find('\n', start);
    // A line a power cut left without its end is no record.
    if (end == std::string_view::npos)
      break;
    record.lines_.emplace(text.substr(start, end - start));
    start = end + 1;
  }
  return record;
}

bool SmtpSentRecord::add(const std::string &to, const std::string &contentKey) {
  const std::string text = line(to, contentKey) + "\n";
  std::error_code error;
  fs::create_directories(file().parent_path(), error);
  const bool isNew = !fs::exists(file(), error);
  if (!appendToFile(file(), std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size())))
    return false;
  if (isNew)
    fs::permissions(file(), fs::perms::owner_read | fs::perms::owner_write, error);
  return syncFileData(file());
}

bool SmtpSentRecord::has(const std::string &to, const std::string &contentKey) const {
  return lines_.contains(line(to, contentKey));
}

} // namespace parlova
