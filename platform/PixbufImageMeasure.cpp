// Picture sizes through gdk-pixbuf, built into the image module so that
// only a run that measures pictures loads GLib and the decoders.
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

// Past this many pixels a picture is not decoded (a hostile attachment can
// claim billions); its header alone answers, without a resolution.
constexpr double kMostPixelsDecoded = 64e6;

// The size as the file's header gives it, before any pixel is decoded.
void rememberHeaderSize(GdkPixbufLoader *loader, gint width, gint height, gpointer size) {
  *static_cast<std::optional<ImageSize> *>(size) = ImageSize{static_cast<double>(width), static_cast<double>(height)};
  // A size of nothing makes the decoder stop before it allocates.
  if (static_cast<double>(width) * height > kMostPixelsDecoded)
    gdk_pixbuf_loader_set_size(loader, 0, 0);
}

std::optional<ImageSize> measure(std::span<const uint8_t> bytes) {
  if (bytes.empty())
    return std::nullopt;
  std::unique_ptr<GdkPixbufLoader, GObjectUnref> loader(gdk_pixbuf_loader_new());
  std::optional<ImageSize> headerSize;
  g_signal_connect(loader.get(), "size-prepared", G_CALLBACK(rememberHeaderSize), &headerSize);
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
  // A picture too large to decode in memory still has the size its header
  // gives, as the Mac reported it without decoding.
  if (!pixbuf)
    return headerSize && headerSize->width > 0 && headerSize->height > 0 ? headerSize : std::nullopt;
  ImageSize size{static_cast<double>(gdk_pixbuf_get_width(pixbuf)), static_cast<double>(gdk_pixbuf_get_height(pixbuf))};
  if (const auto dpi = dotsPerInch(pixbuf, "x-dpi"))
    size.width = size.width * 72.0 / *dpi;
  if (const auto dpi = dotsPerInch(pixbuf, "y-dpi"))
    size.height = size.height * 72.0 / *dpi;
  return size;
}

} // namespace

} // namespace parlova

extern "C" __attribute__((visibility("default"))) bool parlovaMeasureImage(const uint8_t *bytes, size_t length,
                                                                          double *width, double *height) {
  const auto size = parlova::measure(std::span(bytes, length));
  if (!size)
    return false;
  *width = size->width;
  *height = size->height;
  return true;
}
