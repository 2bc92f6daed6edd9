#include "platform/ImageSize.h"

#include <cstdlib>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <memory>

namespace parlova {

namespace {

struct GObjectUnref {
  void operator()(void *object) const { g_object_unref(object); }
};

// A recorded resolution, when the decoder found a usable one.
std::optional<double> dotsPerInch(GdkPixbuf *pixbuf, const char *option) {
  const gchar *text = gdk_pixbuf_get_option(pixbuf, option);
  if (!text)
    return std::nullopt;
  const double dpi = std::strtod(text, nullptr);
  if (!(dpi > 0) || dpi > 1e6)
    return std::nullopt;
  return dpi;
}

} // namespace

std::optional<ImageSize> imageSizeOfData(std::span<const uint8_t> bytes) {
  if (bytes.empty())
    return std::nullopt;
  std::unique_ptr<GdkPixbufLoader, GObjectUnref> loader(gdk_pixbuf_loader_new());
  GError *error = nullptr;
  const bool written = gdk_pixbuf_loader_write(loader.get(), bytes.data(), bytes.size(), &error);
  if (error)
    g_clear_error(&error);
  // Closing always, even after a failed write, lets the loader release what
  // it holds; a picture cut short may still have told its size.
  gdk_pixbuf_loader_close(loader.get(), &error);
  if (error)
    g_clear_error(&error);
  GdkPixbuf *pixbuf = written ? gdk_pixbuf_loader_get_pixbuf(loader.get()) : nullptr;
  if (!pixbuf)
    return std::nullopt;
  ImageSize size{static_cast<double>(gdk_pixbuf_get_width(pixbuf)), static_cast<double>(gdk_pixbuf_get_height(pixbuf))};
  if (const auto dpi = dotsPerInch(pixbuf, "x-dpi"))
    size.width = size.width * 72.0 / *dpi;
  if (const auto dpi = dotsPerInch(pixbuf, "y-dpi"))
    size.height = size.height * 72.0 / *dpi;
  return size;
}

} // namespace parlova
