// Snapshots: what a web view shows, written to a PNG file.
//
// The visible part of the page at the view's current size (a tab, the
// background page, the popover). The completion receives the image's size
// in pixels, or why no file was written, on the main thread.
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

}  // namespace appex::webkit
