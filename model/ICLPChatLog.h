// One loaded transcript: the decoded archive and what the file name says.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "archiving/ArchiveDecoder.h"
#include "foundation/FoundationValues.h"
#include "model/ICLPInstantMessage.h"
#include "model/ICLPPresentity.h"

namespace parlova {

class MappedFile;

class ICLPChatLog final {
public:
  enum class Format { iChat2, iChat3 };

  // The transcript at `path`, or nothing when the path is not a transcript:
  // an extension other than exactly "chat" or "ichat", a file name without
  // " on ", or contents that do not decode to a transcript root.
  static std::optional<ICLPChatLog> initWithFilePath(const std::filesystem::path &path);
  // The same for `contents`, read from `path` by the caller, who wants
  // the very bytes that were decoded (to know them again later). `progress`
  // hears how far the decoder has read, where the format says.
  static std::optional<ICLPChatLog> initWithFileContents(const std::filesystem::path &path,
                                                         std::span<const uint8_t> contents,
                                                         const ArchiveDecoder::ReadProgress &progress = {});
  // The same for a mapped file, whose pages are let go as the decoder
  // passes them; nothing also when the file was cut short meanwhile.
  static std::optional<ICLPChatLog> initWithMappedFile(const std::filesystem::path &path, MappedFile &file);
  // The extension is exactly "chat" or "ichat".
  static bool hasTranscriptExtension(const std::filesystem::path &path);
  // The same, or why `contents` are no transcript: the file name, or the
  // decoder's own reason ("the keyed archive is damaged: a reference to
  // object 812, past the end of the table of 40 objects").
  static std::variant<ICLPChatLog, std::string> load(const std::filesystem::path &path,
                                                     std::span<const uint8_t> contents,
                                                     const ArchiveDecoder::ReadProgress &progress = {});
  // Why initWithFilePath gives nothing for `path`: its extension, a file
  // that cannot be read, then as load() says.
  static std::string reasonNotLoaded(const std::filesystem::path &path);

  // A transcript from an archive's bytes, as initWithFilePath: loads it
  // once the file name has passed; nothing when the bytes do not decode to
  // a transcript root.
  static std::optional<ICLPChatLog> initWithArchiveData(std::span<const uint8_t> data, Format format,
                                                        std::string primaryOtherParty);

  Format format() const { return format_; }
  // The decoded root array of the archive.
  const std::shared_ptr<const ArrayObject> &loadedArray() const { return loadedArray_; }
  // Everything in the file name before its last " on ".
  const std::string &primaryOtherParty() const { return primaryOtherParty_; }

  // The messages in the order they were said (root element 2) and the
  // participants other than the user (root element 3). A root too short for
  // them, or holding something else there, gives none; entries of another
  // class are passed over.
  std::vector<std::shared_ptr<const ICLPInstantMessage>> messages() const;
  std::vector<std::shared_ptr<const ICLPPresentity>> participants() const;

  // Participants (the names are in ICLPPresentity).
  const std::string &firstOtherPartyName() const { return primaryOtherParty_; }
  // Whether `name` is the stored account name of one of the participants.
  bool NameInSpeakerList(const std::string &name) const;
  // The participants plus the user.
  int32_t NumberOfSpeakers() const;
  // The time of the last message; nothing without messages.
  std::optional<Date> LastMessageDate() const;

  // The link and image records of every message that is not a status
  // message, in message order (empty lists included), one at a time: a
  // long chat's records take as much memory again as its links.
  void forEachURLRecord(const std::function<void(const LinkRecord &)> &visit) const;
  // The same with the links as the chat holds them.
  void forEachURLObjectRecord(const std::function<void(const LinkObjectRecord &)> &visit) const;
  void forEachImageRecord(const std::function<void(const ImageRecord &)> &visit) const;
  // Words said by the other party (the messages whose display name is the
  // name in the file name) and by everybody else: in a group chat all other
  // participants count as the user. A null set counts every word.
  int32_t CountWordsForUserInSet(const WordSet *words) const;
  int32_t CountWordsForOthersInSet(const WordSet *words) const;
  // Both sides' counts against two lists at once, as the statistics take
  // them: each side's words, and those in `first` and in `second`.
  struct SidesWordCounts {
    WordCounts user;
    WordCounts others;
  };
  SidesWordCounts CountWordsInSets(const WordSet *first, const WordSet *second) const;

  // Whether the conversation is over, asking iChat when it runs: a group
  // chat is over once iChat shows no chat at all, a two-party chat once no
  // window with the other party is open. No answer counts as not over.
  bool isLikelyEndOfChat() const;

  // The plain-text transcript: a header, then each message's PlainString.
  std::string PlainChatLog() const;
  // The same handed out a piece at a time.
  void writePlainChatLog(const std::function<void(std::string_view)> &piece) const;
  // The styled transcript with HTML line breaks and the footer.
  AttributedString RichChatLog() const;
  // The HTML transcript in UTF-8: the styled transcript with its fonts,
  // colours, links and attachments turned into tags.
  std::vector<uint8_t> HTMLChatLog() const;
  // The same, with what came from the transcript escaped or not, whatever
  // the setting says.
  std::vector<uint8_t> HTMLChatLog(bool escaping) const;
  std::string HTMLChatLogText(bool escaping) const;
  // The same handed out a piece at a time, for a writer that need not hold
  // it whole.
  void writeHTMLChatLog(bool escaping, const std::function<void(std::string_view)> &piece) const;

  // The description of the decoded root, for debug output.
  std::string description() const;

  // The email's subject: "[IM] " and the other party, with the local date
  // and time when forceUniqueSubjects asks for subjects that differ (which
  // counts subjectNumber up).
  std::string subjectForEmail();
  // The subject when forceUniqueSubjects is off: nothing counted, nothing
  // read from the settings.
  std::string plainSubjectForEmail() const { return "[IM] " + primaryOtherParty_; }

private:
  ICLPChatLog() = default;
  static std::variant<ICLPChatLog, std::string> decodeArchive(std::span<const uint8_t> data, Format format,
                                                              std::string primaryOtherParty,
                                                              const ArchiveDecoder::ReadProgress &progress = {});
  // Fill the loaded array from an archive's bytes; or why they hold none.
  std::optional<std::string> LoadiChat2Data(std::span<const uint8_t> data,
                                            const ArchiveDecoder::ReadProgress &progress = {});
  std::optional<std::string> LoadiChat3Data(std::span<const uint8_t> data);
  std::optional<std::string> loadArchive(std::span<const uint8_t> data, ArchiveDecoder::Format format,
                                         const ArchiveDecoder::ReadProgress &progress);
  // An element of the root that should be an array; null when the root is
  // too short or holds something else there.
  std::shared_ptr<const ArrayObject> rootArray(size_t index) const;

  Format format_ = Format::iChat3;
  std::shared_ptr<const ArrayObject> loadedArray_;
  std::string primaryOtherParty_;
};

} // namespace parlova
