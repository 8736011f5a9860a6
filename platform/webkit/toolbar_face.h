// ToolbarFace: how the extension's toolbar button looks, drawn with cairo
// the way the browser's toolbar draws it: the icon in a 16-point square
// (PDF documents, bitmaps and SVG alike, rendered at the output's scale, so
// 16 px at 1x and 32 px at 2x), the badge as a small rounded pill with white
// text at the icon's top-right (red while the button is enabled, grey when
// not), and the label in small text under the icon. A disabled button is
// drawn dimmed. The window's button and the toolbar snapshot both draw with
// it, so what a snapshot shows is what the window shows.
//
// Sizes are in points; the cairo context given to `draw` maps points to
// pixels. Main thread only (pango and cairo objects are not shared).
#pragma once

#include <cairo.h>

#include <expected>
#include <optional>
#include <string>

#include "platform/webkit/snapshot.h"

namespace appex::webkit {

class WebKitToolbarItem;

struct ToolbarFace {
  std::optional<std::string> imagePath;
  std::optional<std::string> badgeText;
  std::optional<std::string> label;
  bool enabled = true;

  // What `item` shows now.
  static ToolbarFace of(const WebKitToolbarItem& item);
  bool operator==(const ToolbarFace&) const = default;
};

// The icon side, in points.
inline constexpr int kToolbarIconPoints = 16;

// The icon file rendered into a square of kToolbarIconPoints * `scale`
// pixels (aspect kept, centred), with `scale` as its device scale; nullptr
// when the file is missing or decodes as no image. The caller owns it.
cairo_surface_t* renderToolbarIcon(const std::string& path, int scale);

// The face's size in points.
PixelSize toolbarFaceSize(const ToolbarFace& face);

// Draws the face at the origin of `cr` (points), with `icon` (from
// renderToolbarIcon, or nullptr for the placeholder of a button without
// an icon).
void drawToolbarFace(cairo_t* cr, const ToolbarFace& face, cairo_surface_t* icon);

// A PNG of the face on the toolbar's background at `scale` (1 or 2); the
// image's size in pixels.
std::expected<PixelSize, std::string> writeToolbarPNG(const ToolbarFace& face, int scale,
                                                      const std::string& pngPath);

}  // namespace appex::webkit
