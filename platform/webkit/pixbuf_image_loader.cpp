// The decoding ImageLoader: GdkPixbuf for bitmap and SVG files, poppler for
// PDF documents (the default toolbar icon is a PDF). GLib types stay here.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <poppler.h>

#include <filesystem>
#include <system_error>

#include "platform/cached_image_loader.h"
#include "platform/image_loader.h"

namespace appex {
namespace {

bool decodesAsPdf(const std::string& path) {
  GError* error = nullptr;
  gchar* uri = g_filename_to_uri(path.c_str(), nullptr, &error);
  if (!uri) {
    g_clear_error(&error);
    return false;
  }
  PopplerDocument* document = poppler_document_new_from_file(uri, nullptr, &error);
  g_free(uri);
  if (!document) {
    g_clear_error(&error);
    return false;
  }
  const bool hasPage = poppler_document_get_n_pages(document) > 0;
  g_object_unref(document);
  return hasPage;
}

bool decodesAsPixbuf(const std::string& path) {
  GError* error = nullptr;
  GdkPixbuf* pixbuf = gdk_pixbuf_new_from_file(path.c_str(), &error);
  if (!pixbuf) {
    g_clear_error(&error);
    return false;
  }
  g_object_unref(pixbuf);
  return true;
}

class PixbufImageLoader final : public ImageLoader {
 public:
  std::optional<ToolbarImage> load(const std::string& path) override {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
    if (decodesAsPixbuf(path) || decodesAsPdf(path)) return ToolbarImage{path};
    return std::nullopt;
  }
};

}  // namespace

std::shared_ptr<ImageLoader> ImageLoader::create(Context&) {
  return std::make_shared<CachingImageLoader>(std::make_shared<PixbufImageLoader>());
}

}  // namespace appex
