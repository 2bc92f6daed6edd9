#include "foundation/TextAttributes.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace parlova {

std::string Font::description() const {
  char size[32];
  std::snprintf(size, sizeof size, "%g", pointSize_);
  return "\"" + name_ + " " + size + ".00 pt.\"";
}

std::string Color::description() const {
  std::string out = "NSColor(";
  for (size_t i = 0; i < components_.size(); ++i) {
    char text[32];
    std::snprintf(text, sizeof text, "%s%g", i ? " " : "", components_[i]);
    out += text;
  }
  return out + ")";
}

std::optional<RGBA> Color::usingDeviceRGB() const {
  const auto at = [this](size_t i, double fallback) {
    return i < components_.size() ? components_[i] : fallback;
  };
  switch (space_) {
  case ColorSpace::CalibratedRGB:
  case ColorSpace::DeviceRGB:
    if (components_.size() < 3)
      return std::nullopt;
    return RGBA{at(0, 0), at(1, 0), at(2, 0), at(3, 1)};
  case ColorSpace::CalibratedWhite:
  case ColorSpace::DeviceWhite:
    if (components_.empty())
      return std::nullopt;
    return RGBA{at(0, 0), at(0, 0), at(0, 0), at(1, 1)};
  case ColorSpace::DeviceCMYK: {
    if (components_.size() < 4)
      return std::nullopt;
    const double k = at(3, 0);
    const auto channel = [k](double c) { return 1.0 - std::min(1.0, c + k); };
    return RGBA{channel(at(0, 0)), channel(at(1, 0)), channel(at(2, 0)), at(4, 1)};
  }
  case ColorSpace::Named:
  case ColorSpace::Pattern:
  case ColorSpace::Unknown:
    break;
  }
  return std::nullopt;
}

std::vector<double> parseColorComponents(std::string_view text) {
  std::vector<double> values;
  std::string buffer(text);
  const char *cursor = buffer.c_str();
  while (values.size() < 8) {
    char *end = nullptr;
    const double value = std::strtod(cursor, &end);
    if (end == cursor)
      break;
    values.push_back(value);
    cursor = end;
  }
  return values;
}

namespace {

struct UrlParts {
  std::optional<std::string> scheme, authority, query, fragment;
  std::string path;
};

UrlParts splitUrl(std::string_view s) {
  UrlParts parts;
  if (const auto hash = s.find('#'); hash != std::string_view::npos) {
    parts.fragment = std::string(s.substr(hash + 1));
    s = s.substr(0, hash);
  }
  if (const auto q = s.find('?'); q != std::string_view::npos) {
    parts.query = std::string(s.substr(q + 1));
    s = s.substr(0, q);
  }
  const auto colon = s.find(':');
  const auto slash = s.find('/');
  if (colon != std::string_view::npos && colon > 0 && (slash == std::string_view::npos || colon < slash)) {
    const auto scheme = s.substr(0, colon);
    const bool valid = std::isalpha(static_cast<unsigned char>(scheme[0])) &&
                       std::all_of(scheme.begin(), scheme.end(), [](char c) {
                         return std::isalnum(static_cast<unsigned char>(c)) || c == '+' ||
                                c == '-' || c == '.';
                       });
    if (valid) {
      parts.scheme = std::string(scheme);
      s = s.substr(colon + 1);
    }
  }
  if (s.substr(0, 2) == "//") {
    s = s.substr(2);
    const auto end = s.find('/');
    parts.authority = std::string(s.substr(0, end));
    s = end == std::string_view::npos ? std::string_view() : s.substr(end);
  }
  parts.path = std::string(s);
  return parts;
}

std::string removeDotSegments(std::string_view input) {
  std::vector<std::string_view> segments;
  const bool absolute = !input.empty() && input.front() == '/';
  size_t pos = absolute ? 1 : 0;
  bool trailingSlash = false;
  while (pos <= input.size()) {
    const auto next = input.find('/', pos);
    const auto segment = input.substr(pos, next == std::string_view::npos ? std::string_view::npos : next - pos);
    trailingSlash = false;
    if (segment == "..") {
      if (!segments.empty())
        segments.pop_back();
      trailingSlash = true;
    } else if (segment == ".") {
      trailingSlash = true;
    } else {
      segments.push_back(segment);
    }
    if (next == std::string_view::npos)
      break;
    pos = next + 1;
  }
  std::string out = absolute ? "/" : "";
  for (size_t i = 0; i < segments.size(); ++i) {
    if (i)
      out += '/';
    out += segments[i];
  }
  if (trailingSlash && !out.empty() && out.back() != '/')
    out += '/';
  return out;
}

std::string joinUrl(const UrlParts &p) {
  std::string out;
  if (p.scheme)
    out += *p.scheme + ":";
  if (p.authority)
    out += "//" + *p.authority;
  out += p.path;
  if (p.query)
    out += "?" + *p.query;
  if (p.fragment)
    out += "#" + *p.fragment;
  return out;
}

} // namespace

std::string URLObject::absoluteString() const {
  if (!base_)
    return relative_;
  const UrlParts base = splitUrl(base_->absoluteString());
  const UrlParts rel = splitUrl(relative_);
  UrlParts target;
  if (rel.scheme) {
    target = rel;
    target.path = removeDotSegments(rel.path);
  } else {
    target.scheme = base.scheme;
    if (rel.authority) {
      target.authority = rel.authority;
      target.path = removeDotSegments(rel.path);
      target.query = rel.query;
    } else {
      target.authority = base.authority;
      if (rel.path.empty()) {
        target.path = base.path;
        target.query = rel.query ? rel.query : base.query;
      } else {
        if (rel.path.front() == '/') {
          target.path = removeDotSegments(rel.path);
        } else {
          std::string merged;
          if (base.authority && base.path.empty()) {
            merged = "/" + rel.path;
          } else {
            const auto lastSlash = base.path.rfind('/');
            merged = (lastSlash == std::string::npos ? "" : base.path.substr(0, lastSlash + 1)) + rel.path;
          }
          target.path = removeDotSegments(merged);
        }
        target.query = rel.query;
      }
    }
    target.fragment = rel.fragment;
  }
  return joinUrl(target);
}

std::string TextAttachment::description() const {
  std::string name;
  if (fileWrapper_ && fileWrapper_->preferredFilename())
    name = *fileWrapper_->preferredFilename();
  return "<NSTextAttachment " + (name.empty() ? std::string("(no file)") : name) + ">";
}

} // namespace parlova
