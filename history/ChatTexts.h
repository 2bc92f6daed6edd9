// A chat's messages as the search index takes them, kept in one buffer with
// their speakers listed once: in strings of their own, the texts of a chat
// of hundreds of thousands of messages took four times their size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace parlova {

class ChatTexts {
public:
  struct Speaker {
    std::string account;
    std::string name;
  };
  struct Message {
    std::optional<double> time; // seconds since 1970
    size_t speaker;             // an index into speakers()
    std::string_view text;      // valid while the texts are unchanged
  };

  // Room for this many messages and bytes of text, so that the buffer of
  // a long chat is not grown to twice its size.
  void reserve(size_t messages, size_t bytes) {
    entries_.reserve(messages);
    text_.reserve(bytes);
  }
  void add(std::optional<double> time, std::string_view account, std::string_view name, std::string_view text);

  // Instead, texts made as they are written, for a record written while
  // its chat is at hand: a long chat's texts are then never held. Each
  // speaker is noted first, in the order they first speak; `source` hands
  // `each` every message in turn, the same each time it is called.
  using Each = std::function<void(std::optional<double> time, std::string_view account, std::string_view name,
                                  std::string_view text)>;
  // Where the speaker stands in speakers(), noted there if new.
  size_t noteSpeaker(std::string_view account, std::string_view name);
  void madeAsWritten(std::function<void(const Each &)> source) { source_ = std::move(source); }
  // Every message in order, held or made.
  void forEach(const std::function<void(const Message &)> &visit) const;

  // Of held texts.
  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  Message operator[](size_t index) const;
  const std::vector<Speaker> &speakers() const { return speakers_; }

private:
  // Where the speaker stands in speakers(), or its size.
  size_t speakerOf(std::string_view account, std::string_view name) const;

  struct Entry {
    double time;
    bool timed;
    uint32_t speaker;
    size_t end; // where the text ends in text_
  };
  std::string text_;
  std::vector<Entry> entries_;
  std::vector<Speaker> speakers_;
  std::function<void(const Each &)> source_;
};

} // namespace parlova
