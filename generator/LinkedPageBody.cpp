#include "generator/LinkedPageBody.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <unordered_map>

namespace parlova {

namespace {

constexpr std::string_view kOpen = "<body>";
constexpr std::string_view kClose = "</body>";

// Where fixed texts stand in a page handed out in pieces: each byte is
// looked at once, with the few bytes a text may reach into the next piece.
class TextFinder {
public:
  explicit TextFinder(const std::vector<std::string_view> &texts) {
    for (size_t i = 0; i < texts.size(); ++i) {
      if (texts[i].empty())
        continue;
      longest_ = std::max(longest_, texts[i].size());
      byStart_[static_cast<unsigned char>(texts[i].front())][texts[i].size()].emplace(texts[i], i);
    }
  }
  // `found(text, at)` for every place one of the texts starts, in order.
  template <class Found> void add(std::string_view piece, Found found) {
    window_ += piece;
    scan(window_.size() >= longest_ ? window_.size() - longest_ + 1 : 0, found);
  }
  template <class Found> void finish(Found found) { scan(window_.size(), found); }

private:
  template <class Found> void scan(size_t upTo, Found found) {
    const std::string_view window = window_;
    for (size_t i = 0; i < upTo; ++i)
      for (const auto &[length, texts] : byStart_[static_cast<unsigned char>(window[i])])
        if (const auto text = texts.find(window.substr(i, length)); text != texts.end())
          found(text->second, start_ + i);
    window_.erase(0, upTo);
    start_ += upTo;
  }

  // By first byte, then length: a page's bytes mostly start none of them.
  std::array<std::map<size_t, std::unordered_map<std::string_view, size_t>>, 256> byStart_;
  size_t longest_ = 0;
  std::string window_;
  size_t start_ = 0;
};

} // namespace

std::string LinkedPageBody::linked(std::string html) const {
  const size_t open = html.find(kOpen);
  const size_t close = html.rfind(kClose);
  if (open != std::string::npos && close != std::string::npos && close > open) {
    html.erase(close);
    html.erase(0, open + kOpen.size());
  }
  size_t from = 0;
  for (const Label &label : labels_) {
    const size_t at = html.find(label.text, from);
    if (at == std::string::npos)
      continue;
    if (!label.link) {
      from = at + label.text.size();
      continue;
    }
    html.replace(at, label.text.size(), *label.link);
    from = at + label.link->size();
  }
  return html;
}

void LinkedPageBody::write(const PieceMaker &make, const PieceSink &piece) const {
  // Where the body's ends and every label stand.
  std::vector<std::string_view> texts = {kOpen, kClose};
  std::unordered_map<std::string_view, size_t> textOf;
  for (const Label &label : labels_)
    if (textOf.try_emplace(label.text, texts.size()).second)
      texts.push_back(label.text);
  std::optional<size_t> open, close;
  std::vector<std::vector<size_t>> places(texts.size());
  size_t total = 0;
  {
    TextFinder finder(texts);
    const auto found = [&](size_t text, size_t at) {
      if (text == 0 && !open)
        open = at;
      else if (text == 1)
        close = at;
      else if (text > 1)
        places[text].push_back(at);
    };
    make([&](std::string_view html) {
      total += html.size();
      finder.add(html, found);
    });
    finder.finish(found);
  }
  const bool cut = open && close && *close > *open;
  const size_t start = cut ? *open + kOpen.size() : 0;
  const size_t end = cut ? *close : total;

  // The labels found as the search of the whole body finds them.
  struct Replacement {
    size_t at, length;
    const std::string *link;
  };
  std::vector<Replacement> replacements;
  size_t from = start;
  for (const Label &label : labels_) {
    const std::vector<size_t> &at = places[textOf.at(label.text)];
    const auto first = std::lower_bound(at.begin(), at.end(), from);
    if (first == at.end() || *first + label.text.size() > end)
      continue;
    if (label.link)
      replacements.push_back({*first, label.text.size(), &*label.link});
    from = *first + label.text.size();
  }

  // The body again, a label that becomes a link parted between two pieces
  // included.
  size_t position = 0;
  auto next = replacements.begin();
  make([&](std::string_view html) {
    const size_t pieceStart = position;
    position += html.size();
    size_t at = std::max(pieceStart, start);
    while (at < std::min(position, end)) {
      if (next != replacements.end() && at >= next->at) {
        if (at == next->at)
          piece(*next->link);
        const size_t labelEnd = next->at + next->length;
        at = std::min(labelEnd, position);
        if (at == labelEnd)
          ++next;
        continue;
      }
      const size_t stop = std::min({position, end, next != replacements.end() ? next->at : end});
      piece(html.substr(at - pieceStart, stop - at));
      at = stop;
    }
  });
}

} // namespace parlova
