#include "platform/webkit/snapshot.h"

#include <cairo.h>

#include "platform/webkit/browser_internals.h"
#include "platform/webkit/gtk_web_view.h"
#include "platform/webkit/toolbar_face.h"

namespace appex::webkit {
namespace {

struct SnapshotCall {
  std::string path;
  SnapshotCompletion completion;
};

void snapshotTaken(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<SnapshotCall> call(static_cast<SnapshotCall*>(data));
  GError* error = nullptr;
  cairo_surface_t* surface = webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, &error);
  if (!surface) {
    std::string reason = error ? error->message : "no snapshot";
    if (error) g_error_free(error);
    call->completion(std::unexpected(std::move(reason)));
    return;
  }
  if (cairo_surface_get_type(surface) != CAIRO_SURFACE_TYPE_IMAGE) {
    cairo_surface_destroy(surface);
    call->completion(std::unexpected(std::string("the snapshot is not an image")));
    return;
  }
  const PixelSize size{cairo_image_surface_get_width(surface), cairo_image_surface_get_height(surface)};
  const cairo_status_t status = cairo_surface_write_to_png(surface, call->path.c_str());
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS) {
    call->completion(std::unexpected(std::string("cannot write ") + call->path + ": " +
                                     cairo_status_to_string(status)));
    return;
  }
  call->completion(size);
}

}  // namespace

void snapshotToPNG(WebKitWebView* view, std::string pngPath, SnapshotCompletion completion) {
  if (!view) {
    completion(std::unexpected(std::string("no web view")));
    return;
  }
  webkit_web_view_get_snapshot(view, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                               &snapshotTaken, new SnapshotCall{std::move(pngPath), std::move(completion)});
}

void snapshotWebView(const std::shared_ptr<WebView>& view, std::string pngPath, SnapshotCompletion completion) {
  auto* engineView = dynamic_cast<GtkWebView*>(view.get());
  if (!engineView) {
    completion(std::unexpected(std::string("not a web view of the engine")));
    return;
  }
  snapshotToPNG(engineView->webkitWebView(), std::move(pngPath), std::move(completion));
}

void snapshotToolbarItem(const WebKitToolbarItem& item, int scale, std::string pngPath,
                         SnapshotCompletion completion) {
  if (scale != 1 && scale != 2) {
    completion(std::unexpected("the scale is 1 or 2, not " + std::to_string(scale)));
    return;
  }
  completion(writeToolbarPNG(ToolbarFace::of(item), scale, pngPath));
}

}  // namespace appex::webkit
