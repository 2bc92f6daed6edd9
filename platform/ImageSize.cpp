#include "platform/ImageSize.h"

#include "platform/LoadableModule.h"
#include "platform/Log.h"

namespace parlova {

namespace {

using MeasureFunction = bool (*)(const uint8_t *bytes, size_t length, double *width, double *height);

MeasureFunction measureFunction() {
  static const MeasureFunction function = [] {
    const auto found = moduleSymbol("libparlova-images.so", "parlovaMeasureImage");
    if (const auto *why = std::get_if<std::string>(&found)) {
      logFormat("Could not load the image module: %@", *why);
      return MeasureFunction{};
    }
    return reinterpret_cast<MeasureFunction>(std::get<void *>(found));
  }();
  return function;
}

} // namespace

std::optional<ImageSize> imageSizeOfData(std::span<const uint8_t> bytes) {
  if (bytes.empty())
    return std::nullopt;
  const MeasureFunction measure = measureFunction();
  ImageSize size;
  if (!measure || !measure(bytes.data(), bytes.size(), &size.width, &size.height))
    return std::nullopt;
  return size;
}

} // namespace parlova
