#include "driver/TranscriptJournal.h"

#include <cerrno>
#include <cstdio>

#include "foundation/PropertyListValue.h"
#include "generator/ICLPLogGenerator.h"
#include "platform/FileManager.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kArchiving = "archiving";
constexpr std::string_view kArchived = "archived";

// FNV-1a: enough to tell a transcript from a changed or different one; it
// guards against accidents, not against anyone.
std::string digestOf(std::span<const uint8_t> bytes) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (const uint8_t byte : bytes)
    hash = (hash ^ byte) * 0x100000001b3ull;
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

} // namespace

TranscriptJournal::TranscriptJournal(fs::path parlovaFolder)
    : parlovaFolder_(std::move(parlovaFolder)), folder_(parlovaFolder_ / ".journal") {}

std::optional<TranscriptJournal::Identity> TranscriptJournal::identify(const fs::path &transcript) {
  const auto bytes = readFileContents(transcript);
  if (!bytes)
    return std::nullopt;
  return Identity{bytes->size(), digestOf(*bytes)};
}

bool TranscriptJournal::write(const fs::path &transcript, const Identity &identity,
                              const std::optional<fs::path> &target) {
  PlistValue::Dictionary existed;
  for (const auto &[name, there] : existedBefore_)
    existed.emplace_back(name, there);
  PlistValue::Dictionary entries = {{"phase", std::string(target ? kArchived : kArchiving)},
                                    {"transcript", transcript.string()},
                                    {"size", static_cast<int64_t>(identity.size)},
                                    {"digest", identity.digest},
                                    {"archives", std::move(existed)}};
  if (target)
    entries.emplace_back("target", target->string());
  return writeFileAtomically(journalFile(), PlistValue(std::move(entries)).serialized(PlistFormat::XML));
}

bool TranscriptJournal::begin(const fs::path &transcript) {
  const auto identity = identify(transcript);
  if (!identity)
    return false;
  std::error_code error;
  fs::remove_all(folder_, error);
  fs::create_directories(folder_, error);
  if (error)
    return errno = error.value(), false;
  // Every archive write renames a new file over the old one, so a link to
  // today's file keeps today's contents however the stages end.
  existedBefore_.clear();
  for (const std::string_view name : ICLPLogGenerator::archiveFileNames()) {
    const fs::path archive = parlovaFolder_ / name;
    existedBefore_.emplace_back(name, fileExistsAtPath(archive));
    // Anything but a file (a folder in the archive's place) cannot be
    // written over, so there is nothing to keep.
    if (!fs::is_regular_file(fs::symlink_status(archive, error)))
      continue;
    fs::create_hard_link(archive, folder_ / name, error);
    if (error)
      fs::copy_file(archive, folder_ / name, error);
    if (error)
      return errno = error.value(), false;
  }
  if (!write(transcript, *identity, std::nullopt))
    return false;
  transcript_ = transcript;
  identity_ = *identity;
  return true;
}

bool TranscriptJournal::markArchived(const fs::path &target) {
  return transcript_ && write(*transcript_, identity_, target);
}

void TranscriptJournal::clear() {
  std::error_code error;
  // The journal file goes first: without it what is left means nothing.
  fs::remove(journalFile(), error);
  fs::remove_all(folder_, error);
  transcript_.reset();
}

void TranscriptJournal::restoreArchives() {
  const auto bytes = readFileContents(journalFile());
  const auto journal = bytes ? PlistValue::parse(*bytes) : std::nullopt;
  const PlistValue *existed = journal ? journal->objectForKey("archives") : nullptr;
  for (const std::string_view name : ICLPLogGenerator::archiveFileNames()) {
    const fs::path kept = folder_ / name;
    const fs::path archive = parlovaFolder_ / name;
    std::error_code error;
    if (fileExistsAtPath(kept)) {
      fs::rename(kept, archive, error);
    } else if (existed && existed->integerForKey(name) == 0) {
      // It did not exist before; a restore cut short has already put back
      // those that did, and their kept links are gone.
      fs::remove(archive, error);
    }
  }
}

TranscriptJournal::Recovery TranscriptJournal::recover() {
  using Kind = Recovery::Kind;
  std::error_code error;
  if (!fs::exists(folder_, error))
    return {};
  const auto bytes = readFileContents(journalFile());
  const auto journal = bytes ? PlistValue::parse(*bytes) : std::nullopt;
  const std::string *phase = journal ? journal->stringForKey("phase") : nullptr;
  const std::string *transcript = journal ? journal->stringForKey("transcript") : nullptr;
  if (!phase || !transcript) {
    // The run ended before its journal was written: no archive was touched.
    clear();
    return {};
  }
  for (const fs::path &folder : {parlovaFolder_, parlovaFolder_ / "Images", parlovaFolder_ / "Images" / "topimages"})
    removeLeftoverTemporaries(folder);

  if (*phase != kArchived) {
    restoreArchives();
    clear();
    return {Kind::RolledBack, *transcript, {}};
  }
  const std::string *target = journal->stringForKey("target");
  const std::string *digest = journal->stringForKey("digest");
  const auto size = journal->integerForKey("size");
  const auto matches = [&](const std::optional<Identity> &identity) {
    return identity && digest && size == static_cast<int64_t>(identity->size) && *digest == identity->digest;
  };
  const auto current = identify(*transcript);
  if (!target || !matches(current)) {
    // Moved already, or no longer the transcript that was archived: a later
    // run sees it afresh, if it is there at all.
    clear();
    return {};
  }
  removeLeftoverTemporaries(fs::path(*target).parent_path());
  if (matches(identify(*target))) {
    // A copy across file systems had landed; only the original was left.
    fs::remove(*transcript, error);
    clear();
    return {};
  }
  return {Kind::MoveDue, *transcript, *target};
}

} // namespace parlova
