// One line of a transcript.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "archiving/Coder.h"
#include "foundation/AttributedString.h"
#include "foundation/Date.h"
#include "model/ContentRecords.h"
#include "model/ICLPPresentity.h"

namespace parlova {

class ICLPInstantMessage final : public Object {
public:
  ICLPInstantMessage(std::shared_ptr<const ICLPPresentity> speaker, std::shared_ptr<const AttributedString> string,
                     std::optional<Date> timestamp, uint32_t mystery)
      : speaker_(std::move(speaker)), string_(std::move(string)), time_(timestamp.value_or(Date())), mystery_(mystery),
        hasTime_(timestamp.has_value()) {}

  static std::shared_ptr<const ICLPInstantMessage> initWithCoder(Coder &coder);

  std::string className() const override { return "ICLPInstantMessage"; }
  std::string description() const override;

  // Null for the lines iChat itself wrote into the chat.
  const std::shared_ptr<const ICLPPresentity> &speaker() const { return speaker_; }
  // The text as shown; null when the archive held none.
  const std::shared_ptr<const AttributedString> &string() const { return string_; }
  // iChat's flag word, kept but consulted by nothing.
  uint32_t mystery() const { return mystery_; }

  // The speaker's display name; nothing when there is no speaker.
  std::optional<std::string> Speaker() const;
  // Lines iChat wrote itself (no speaker) and empty messages; every
  // rendering, extraction and count leaves them out.
  bool isStatusMessage() const;
  // "Name: text\n", or empty when the message has no text at all.
  std::string PlainString() const;
  // The bold name, ": ", the styled text as it is, two line feeds.
  AttributedString LoggedString() const;

  // The message's links (string links as they are, URL objects as their
  // absolute text) and attached files, one entry per link or attachment
  // object in text order. Nothing for a status message, and nothing for a
  // message without a display name or a time stamp, which gives no record to
  // file its links under.
  std::optional<LinkRecord> allURLs() const;
  std::optional<LinkObjectRecord> allURLObjects() const;
  // A link object's address as allURLs gives it.
  static std::string addressOfLink(const Object &link);
  std::optional<ImageRecord> allImages() const;
  // The text as a search finds it: as the plain rendering gives it, each
  // attached file by its name; empty for a status message.
  std::string SearchableText() const;
  // The words between single blanks (a line break alone does not part two
  // words); with a set, only the words it holds exactly. Null counts all.
  int32_t wordCountInSet(const WordSet *words) const;
  // The three counts of wordCountInSet (no set, `first`, `second`) in one
  // pass over the words, added to `counts`.
  void addWordCounts(const WordSet *first, const WordSet *second, WordCounts &counts) const;

  // The account name as stored; nothing when there is no speaker.
  std::optional<std::string> rawSpeaker() const;
  std::optional<Date> TimeStamp() const { return hasTime_ ? std::optional<Date>(time_) : std::nullopt; }

private:
  std::shared_ptr<const ICLPPresentity> speaker_;
  std::shared_ptr<const AttributedString> string_;
  // A chat holds hundreds of thousands of these: the time's flag shares the
  // flag word's padding.
  Date time_;
  uint32_t mystery_;
  bool hasTime_;
};

} // namespace parlova
