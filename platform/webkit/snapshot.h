// Snapshots: what a web view or the toolbar button shows, written to a PNG
// file.
//
// The visible part of the page at the view's current size (a tab, the
// background page, the popover), or a window's toolbar button as the
// toolbar draws it. The completion receives the image's size in pixels, or
// why no file was written, on the main thread.
//
// Main thread only.
#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string>

namespace appex {
class WebView;
}

namespace appex::webkit {

class WebKitToolbarItem;

struct PixelSize {
  int width = 0;
  int height = 0;
  bool operator==(const PixelSize&) const = default;
};

using SnapshotCompletion = std::move_only_function<void(std::expected<PixelSize, std::string>)>;

// A web view made by the engine (Engine::createWebView); any other kind
// fails at once.
void snapshotWebView(const std::shared_ptr<WebView>& view, std::string pngPath,
                     SnapshotCompletion completion);

// The button of `item` (icon, badge, label, enabled look) on the toolbar's
// background, at `scale` pixels per point (1 or 2).
void snapshotToolbarItem(const WebKitToolbarItem& item, int scale, std::string pngPath,
                         SnapshotCompletion completion);

}  // namespace appex::webkit
