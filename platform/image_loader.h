// ImageLoader: turns an image file into a toolbar icon.
//
// An image "loads" when the file exists and decodes as an image (PNG, JPEG,
// SVG, or the first page of a PDF); anything else gives no image, and the
// toolbar then leaves the button's icon as it was.
//
// The Context creates the decoding loader on first use; tests may install
// their own with Context::set<ImageLoader>.
//
// Thread-safe.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/safari_toolbar_item.h"

namespace appex {

class Context;

class ImageLoader {
 public:
  virtual ~ImageLoader() = default;

  // The decoding loader (GdkPixbuf for bitmaps and SVG, poppler for PDF),
  // which decodes each file once while it is unchanged.
  static std::shared_ptr<ImageLoader> create(Context& context);

  virtual std::optional<ToolbarImage> load(const std::string& path) = 0;
};

}  // namespace appex
