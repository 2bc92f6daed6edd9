#include "foundation/Unicode.h"

#include <cstdint>
#include <cstring>

namespace parlova {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string &out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

void appendUtf16(std::u16string &out, char32_t cp) {
  if (cp < 0x10000) {
    out += static_cast<char16_t>(cp);
  } else {
    cp -= 0x10000;
    out += static_cast<char16_t>(0xD800 + (cp >> 10));
    out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  }
}

} // namespace

std::u16string utf8ToUtf16(std::string_view in) {
  // Most chat text is plain ASCII, which only widens; eight bytes at a time
  // tell whether it is.
  size_t checked = 0;
  uint64_t highBits = 0;
  for (; checked + 8 <= in.size(); checked += 8) {
    uint64_t word = 0;
    std::memcpy(&word, in.data() + checked, 8);
    highBits |= word;
  }
  for (; checked < in.size(); ++checked)
    highBits |= static_cast<uint8_t>(in[checked]);
  if ((highBits & 0x8080808080808080ULL) == 0)
    return std::u16string(in.begin(), in.end());
  std::u16string out;
  out.reserve(in.size());
  size_t i = 0;
  while (i < in.size()) {
    const auto lead = static_cast<uint8_t>(in[i]);
    if (lead < 0x80) { // most chat text: a run of ASCII, copied as it is
      size_t end = i + 1;
      while (end < in.size() && static_cast<uint8_t>(in[end]) < 0x80)
        ++end;
      const size_t start = out.size();
      out.resize(start + (end - i));
      for (size_t k = i; k < end; ++k)
        out[start + (k - i)] = static_cast<uint8_t>(in[k]);
      i = end;
      continue;
    }
    int extra = 0;
    char32_t cp = 0;
    char32_t minimum = 0;
    if (lead < 0x80) {
      cp = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, cp = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, cp = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, cp = lead & 0x07, minimum = 0x10000;
    } else {
      appendUtf16(out, kReplacement);
      ++i;
      continue;
    }
    size_t j = 1;
    for (; j <= static_cast<size_t>(extra); ++j) {
      if (i + j >= in.size() || (static_cast<uint8_t>(in[i + j]) & 0xC0) != 0x80)
        break;
      cp = (cp << 6) | (static_cast<uint8_t>(in[i + j]) & 0x3F);
    }
    if (j != static_cast<size_t>(extra) + 1 || cp < minimum || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      appendUtf16(out, kReplacement);
      i += j;
      continue;
    }
    appendUtf16(out, cp);
    i += j;
  }
  return out;
}

std::string utf16ToUtf8(std::u16string_view in) {
  std::string out;
  out.reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    // Most of any chat is ASCII: such a run is copied a unit a byte.
    size_t end = i;
    while (end < in.size() && in[end] < 0x80)
      ++end;
    if (end > i) {
      const size_t at = out.size();
      out.resize(at + (end - i));
      for (size_t k = i; k < end; ++k)
        out[at + (k - i)] = static_cast<char>(in[k]);
      i = end - 1;
      continue;
    }
    char32_t cp = in[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < in.size() && in[i + 1] >= 0xDC00 &&
        in[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    appendUtf8(out, cp);
  }
  return out;
}

} // namespace parlova
