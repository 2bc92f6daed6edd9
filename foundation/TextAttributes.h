// The attribute values of styled chat text: fonts, colours, links and
// attachments.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/FileWrapper.h"
#include "foundation/Object.h"

namespace parlova {

class Font final : public Object {
public:
  Font(std::string name, double pointSize, int32_t flags = 0)
      : name_(std::move(name)), pointSize_(pointSize), flags_(flags) {}
  std::string className() const override { return "NSFont"; }
  std::string description() const override;
  const std::string &fontName() const { return name_; }
  double pointSize() const { return pointSize_; }
  int32_t flags() const { return flags_; }

private:
  std::string name_;
  double pointSize_;
  int32_t flags_;
};

enum class ColorSpace {
  CalibratedRGB,
  DeviceRGB,
  CalibratedWhite,
  DeviceWhite,
  DeviceCMYK,
  Named,
  Pattern,
  Unknown,
};

struct RGBA {
  double red, green, blue, alpha;
};

class Color final : public Object {
public:
  // Components in the order of the space: RGB(A), white(+alpha), CMYK(A).
  Color(ColorSpace space, std::vector<double> components)
      : space_(space), components_(std::move(components)) {}
  std::string className() const override { return "NSColor"; }
  std::string description() const override;
  ColorSpace colorSpace() const { return space_; }
  const std::vector<double> &components() const { return components_; }

  // The colour converted to device RGB, or nothing for colours that have no
  // RGB form (named catalogue colours, patterns).
  std::optional<RGBA> usingDeviceRGB() const;

private:
  ColorSpace space_;
  std::vector<double> components_;
};

class URLObject final : public Object {
public:
  URLObject(std::string relative, std::shared_ptr<const URLObject> base)
      : relative_(std::move(relative)), base_(std::move(base)) {}
  std::string className() const override { return "NSURL"; }
  std::string description() const override { return absoluteString(); }
  const std::string &relativeString() const { return relative_; }
  const std::shared_ptr<const URLObject> &baseURL() const { return base_; }
  // The relative part resolved against the base, per RFC 3986.
  std::string absoluteString() const;

private:
  std::string relative_;
  std::shared_ptr<const URLObject> base_;
};

class TextAttachment final : public Object {
public:
  explicit TextAttachment(std::shared_ptr<const FileWrapper> fileWrapper)
      : fileWrapper_(std::move(fileWrapper)) {}
  std::string className() const override { return "NSTextAttachment"; }
  std::string description() const override;
  const std::shared_ptr<const FileWrapper> &fileWrapper() const { return fileWrapper_; }

private:
  std::shared_ptr<const FileWrapper> fileWrapper_;
};

// Parses colour components stored as text ("1 0 0 1"); stops at the first
// thing that is not a number.
std::vector<double> parseColorComponents(std::string_view text);

} // namespace parlova
