// Tabs and windows that pages open (window.open, links with a target):
// the engine's create signal gets a related web view, which becomes a tab
// once the engine is ready to show it. Part of WebKitBrowser::Impl.
#include <algorithm>

#include "platform/webkit/browser_internals.h"

namespace appex::webkit {

namespace {

void onReadyToShow(WebKitWebView* view, gpointer data) {
  auto* browser = static_cast<WebKitBrowser::Impl*>(data);
  g_signal_handlers_disconnect_by_func(view, reinterpret_cast<gpointer>(&onReadyToShow), data);
  for (const auto& opening : browser->openingTabs) {
    if (opening.tab->internals().view == view) return browser->showOpened(opening);
  }
}

}  // namespace

WebKitWebView* WebKitBrowser::Impl::openFromPage(const std::shared_ptr<WebKitTab>& opener,
                                                 WebKitNavigationAction* action) {
  auto window = opener->window();
  if (!window || window->internals().closed) return nullptr;
  WebKitWebView* view = makeTabView(opener->internals().isPrivate, opener->internals().view);
  g_object_ref_sink(view);  // ours until a notebook holds it
  OpeningTab opening{WebKitTab::Impl::make(window, *this, view)};
  opening.fromLink = webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED;
  if (window->internals().window) {
    gtk_window_get_size(GTK_WINDOW(window->internals().window), &opening.openerSize.width,
                        &opening.openerSize.height);
  }
  g_signal_connect(view, "ready-to-show", G_CALLBACK(&onReadyToShow), this);
  openingTabs.push_back(std::move(opening));
  return view;
}

void WebKitBrowser::Impl::showOpened(OpeningTab opening) {  // a copy: it leaves openingTabs
  std::erase_if(openingTabs, [&](const OpeningTab& o) { return o.tab == opening.tab; });
  auto& t = opening.tab->internals();
  WebKitWebView* view = t.view;
  auto window = t.window.lock();
  if (shutDown || t.closed || !window || window->internals().closed) {
    t.closeNow();
    gtk_widget_destroy(GTK_WIDGET(view));
    g_object_unref(view);
    return;
  }
  // The engine starts a window.open window at the opener's window size and
  // applies the features' size to it: another size is a popup-style ask.
  GdkRectangle geometry{};
  webkit_window_properties_get_geometry(webkit_web_view_get_window_properties(view), &geometry);
  if (!opening.fromLink && (geometry.width != opening.openerSize.width ||
                            geometry.height != opening.openerSize.height)) {
    window = makeWindow(t.isPrivate);
    t.window = window;
    gtk_window_resize(GTK_WINDOW(window->internals().window), std::max(geometry.width, 100),
                      std::max(geometry.height, 100));
  }
  window->internals().insertTab(opening.tab, true);
  g_object_unref(view);  // the notebook holds it
  focus(window);
}

}  // namespace appex::webkit
