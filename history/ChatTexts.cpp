#include "history/ChatTexts.h"

namespace parlova {

size_t ChatTexts::speakerOf(std::string_view account, std::string_view name) const {
  // A chat has a handful of speakers, and the last one is the likeliest.
  for (size_t i = speakers_.size(); i-- > 0;)
    if (speakers_[i].account == account && speakers_[i].name == name)
      return i;
  return speakers_.size();
}

size_t ChatTexts::noteSpeaker(std::string_view account, std::string_view name) {
  const size_t speaker = speakerOf(account, name);
  if (speaker == speakers_.size())
    speakers_.push_back({std::string(account), std::string(name)});
  return speaker;
}

void ChatTexts::add(std::optional<double> time, std::string_view account, std::string_view name,
                    std::string_view text) {
  const size_t speaker = noteSpeaker(account, name);
  text_ += text;
  entries_.push_back({time.value_or(0), time.has_value(), static_cast<uint32_t>(speaker), text_.size()});
}

ChatTexts::Message ChatTexts::operator[](size_t index) const {
  const Entry &entry = entries_[index];
  const size_t start = index == 0 ? 0 : entries_[index - 1].end;
  return {entry.timed ? std::optional(entry.time) : std::nullopt, entry.speaker,
          std::string_view(text_).substr(start, entry.end - start)};
}

void ChatTexts::forEach(const std::function<void(const Message &)> &visit) const {
  if (source_) {
    source_([&](std::optional<double> time, std::string_view account, std::string_view name, std::string_view text) {
      visit({time, speakerOf(account, name), text});
    });
    return;
  }
  for (size_t i = 0; i < entries_.size(); ++i)
    visit((*this)[i]);
}

} // namespace parlova
