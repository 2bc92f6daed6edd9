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
constexpr std::string_view kBatch = "batch";

// FNV-1a: enough to tell a transcript from a changed or different one; it
// guards against accidents, not against anyone.
constexpr uint64_t kDigestStart = 0xcbf29ce484222325ull;

uint64_t digestFurther(uint64_t hash, std::span<const uint8_t> bytes) {
  for (const uint8_t byte : bytes)
    hash = (hash ^ byte) * 0x100000001b3ull;
  return hash;
}

std::string digestText(uint64_t hash) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

} // namespace

TranscriptJournal::TranscriptJournal(fs::path parlovaFolder)
    : parlovaFolder_(std::move(parlovaFolder)), folder_(parlovaFolder_ / ".journal") {}

// Read a stretch at a time: a transcript may be tens of megabytes.
std::optional<TranscriptJournal::Identity> TranscriptJournal::identify(const fs::path &transcript) {
  uint64_t hash = kDigestStart;
  size_t size = 0;
  if (!readFileInPieces(transcript, [&](std::span<const uint8_t> piece) {
        hash = digestFurther(hash, piece);
        size += piece.size();
      }))
    return std::nullopt;
  return Identity{size, digestText(hash)};
}

TranscriptJournal::Identity TranscriptJournal::identityOf(std::span<const uint8_t> contents) {
  return Identity{contents.size(), digestText(digestFurther(kDigestStart, contents))};
}

PlistValue TranscriptJournal::existedBefore() const {
  PlistValue::Dictionary existed;
  for (const auto &[name, there] : existedBefore_)
    existed.emplace_back(name, there);
  return existed;
}

bool TranscriptJournal::write(const fs::path &transcript, const Identity &identity,
                              const std::optional<fs::path> &target, bool moveFailed) {
  PlistValue::Dictionary entries = {{"phase", std::string(target ? kArchived : kArchiving)},
                                    {"transcript", transcript.string()},
                                    {"size", static_cast<int64_t>(identity.size)},
                                    {"digest", identity.digest},
                                    {"archives", existedBefore()}};
  if (target)
    entries.emplace_back("target", target->string());
  if (moveFailed)
    entries.emplace_back("moveFailed", true);
  return writeFileAtomically(journalFile(), PlistValue(std::move(entries)).serialized(PlistFormat::XML));
}

namespace {

// A field of a line of the moves file: paths may hold anything but a zero.
std::string escapedField(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '%' || c == '\t' || c == '\n') {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
      out += code;
    } else {
      out += c;
    }
  }
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

std::string unescapedField(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
    if (low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::vector<std::string> splitFields(std::string_view line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t tab; (tab = line.find('\t', start)) != std::string_view::npos; start = tab + 1)
    fields.push_back(unescapedField(line.substr(start, tab - start)));
  fields.push_back(unescapedField(line.substr(start)));
  return fields;
}

} // namespace

bool TranscriptJournal::begin(const fs::path &transcript) {
  const auto identity = identify(transcript);
  if (!identity)
    return false;
  if (!keepArchives())
    return false;
  if (!write(transcript, *identity, std::nullopt))
    return false;
  transcript_ = transcript;
  identity_ = *identity;
  return true;
}

bool TranscriptJournal::beginBatch() {
  heldMoves_.clear();
  if (!keepArchives())
    return false;
  PlistValue::Dictionary entries = {{"phase", std::string(kBatch)}, {"archives", existedBefore()}};
  if (!writeFileAtomically(movesFile(), std::span<const uint8_t>()))
    return false;
  return writeFileAtomically(journalFile(), PlistValue(std::move(entries)).serialized(PlistFormat::XML));
}

bool TranscriptJournal::noteBatchMove(const Recovery::BatchMove &move, bool hold) {
  const auto identity = identify(move.transcript);
  if (!identity)
    return false;
  heldMoves_ += escapedField(move.transcript.string()) + "\t" + escapedField(move.target.string()) + "\t" +
                std::to_string(identity->size) + "\t" + identity->digest + "\t" + (move.links ? "L" : "") +
                (move.images ? "I" : "") + "\n";
  return hold || writeHeldMoves();
}

bool TranscriptJournal::writeHeldMoves() {
  // Appended whole lines at a time: a line cut short belongs to a
  // transcript that had not been moved, and is passed over.
  if (!heldMoves_.empty() &&
      !appendToFile(movesFile(), std::span(reinterpret_cast<const uint8_t *>(heldMoves_.data()), heldMoves_.size())))
    return false;
  heldMoves_.clear();
  return true;
}

bool TranscriptJournal::syncBatchMoves() { return writeHeldMoves() && syncFileData(movesFile()); }

std::vector<TranscriptJournal::Recovery::BatchMove> TranscriptJournal::movedInBatch() {
  const auto bytes = readFileContents(movesFile());
  if (!bytes)
    return {};
  const std::string_view text(reinterpret_cast<const char *>(bytes->data()), bytes->size());
  std::vector<Recovery::BatchMove> moved;
  std::error_code error;
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string_view::npos; start = end + 1) {
    const auto fields = splitFields(text.substr(start, end - start));
    if (fields.size() != 5)
      continue;
    Recovery::BatchMove move{fields[0], fields[1], fields[4].find('L') != std::string::npos,
                             fields[4].find('I') != std::string::npos};
    removeLeftoverTemporaries(move.target.parent_path());
    const auto matches = [&](const std::optional<Identity> &identity) {
      return identity && std::to_string(identity->size) == fields[2] && identity->digest == fields[3];
    };
    const bool there = matches(identify(move.transcript));
    if (matches(identify(move.target))) {
      // A copy across file systems had landed; only the original was left.
      if (there)
        fs::remove(move.transcript, error);
      // It cannot go (a read-only disk): nor may the copy stay, or the
      // transcript would be in both places.
      move.due = there && fileExistsAtPath(move.transcript);
      if (move.due)
        fs::remove(move.target, error);
    } else if (there) {
      // Noted, so mailed: its move had not been made yet, or failed.
      move.due = true;
    } else {
      // Gone, or no longer the transcript that was noted: a later walk
      // sees whatever is there afresh.
      continue;
    }
    moved.push_back(move);
  }
  return moved;
}

void TranscriptJournal::restoreKeptArchives() {
  const auto bytes = readFileContents(journalFile());
  const auto journal = bytes ? PlistValue::parse(*bytes) : std::nullopt;
  const PlistValue *existed = journal ? journal->objectForKey("archives") : nullptr;
  for (const std::string_view name : ICLPLogGenerator::archiveFileNames()) {
    const fs::path kept = folder_ / name;
    const fs::path archive = parlovaFolder_ / name;
    std::error_code error;
    if (fileExistsAtPath(kept)) {
      // Unchanged since it was kept: the two names are one file, which a
      // rename between them would leave as two.
      if (fs::equivalent(kept, archive, error))
        continue;
      const fs::path temporary = temporaryPathBeside(archive);
      fs::create_hard_link(kept, temporary, error);
      if (error)
        fs::copy_file(kept, temporary, error);
      if (!error)
        fs::rename(temporary, archive, error);
    } else if (existed && existed->integerForKey(name) == 0) {
      // It did not exist before; a restore cut short leaves what it put
      // back kept, so doing it again does no harm.
      fs::remove(archive, error);
    }
  }
}

bool TranscriptJournal::keepArchives() {
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
    // written over, so there is nothing to keep. A link to a file is kept
    // as a copy of that file: a link to the link would follow whatever the
    // stages write.
    if (!fs::is_regular_file(fs::status(archive, error)))
      continue;
    const bool link = fs::is_symlink(fs::symlink_status(archive, error));
    if (!link)
      fs::create_hard_link(archive, folder_ / name, error);
    if (link || error)
      fs::copy_file(archive, folder_ / name, error);
    if (error)
      return errno = error.value(), false;
  }
  return true;
}

bool TranscriptJournal::markArchived(const fs::path &target) {
  return transcript_ && write(*transcript_, identity_, target);
}

bool TranscriptJournal::markMoveFailed(const fs::path &target) {
  return transcript_ && write(*transcript_, identity_, target, true);
}

void TranscriptJournal::clear() {
  std::error_code error;
  // The journal file goes first: without it what is left means nothing.
  fs::remove(journalFile(), error);
  fs::remove_all(folder_, error);
  transcript_.reset();
  heldMoves_.clear();
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
  if (!phase || (!transcript && *phase != kBatch)) {
    // The run ended before its journal was written: no archive was touched.
    clear();
    return {};
  }
  for (const fs::path &folder : {parlovaFolder_, parlovaFolder_ / "Images", parlovaFolder_ / "Images" / "topimages"})
    removeLeftoverTemporaries(folder);

  if (*phase == kBatch) {
    restoreKeptArchives();
    return {Kind::BatchDue, {}, {}, movedInBatch(), false};
  }
  if (*phase != kArchived) {
    restoreKeptArchives();
    clear();
    return {Kind::RolledBack, *transcript, {}, {}, false};
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
    if (error && fileExistsAtPath(*transcript)) {
      // It cannot go (a read-only disk): nor may the copy stay, or the
      // transcript would be in both places; the move stays due.
      fs::remove(*target, error);
      return {Kind::MoveDue, *transcript, *target, {}, true};
    }
    clear();
    return {};
  }
  const PlistValue *failed = journal->objectForKey("moveFailed");
  return {Kind::MoveDue, *transcript, *target, {}, failed && failed->get<bool>() && *failed->get<bool>()};
}

} // namespace parlova
