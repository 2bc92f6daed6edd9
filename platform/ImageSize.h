// The size of a picture as the Mac's image objects reported it: in points,
// that is pixels scaled by 72 / dpi where the file records a resolution,
// and plain pixels where it does not.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace parlova {

struct ImageSize {
  double width = 0;
  double height = 0;
};

// Nothing when the bytes are not a picture any installed decoder reads
// (PNG, JPEG, GIF and TIFF at least).
std::optional<ImageSize> imageSizeOfData(std::span<const uint8_t> bytes);

} // namespace parlova
