#include "platform/webkit/webkit_window.h"

#include <algorithm>

#include "core/log.h"
#include "platform/webkit/browser_internals.h"
#include "platform/webkit/main_thread.h"
#include "platform/webkit/toolbar_face.h"

namespace appex::webkit {
namespace {

using Impl = WebKitWindow::Impl;

std::shared_ptr<WebKitTab> tabShowing(const Impl& impl, GtkWidget* view) {
  for (const auto& tab : impl.tabs) {
    if (GTK_WIDGET(tab->internals().view) == view) return tab;
  }
  return nullptr;
}

gboolean onDelete(GtkWidget*, GdkEvent*, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  if (auto self = impl->self.lock()) impl->closeNow();
  return TRUE;  // closeNow destroyed the window
}

void onActiveChanged(GObject* window, GParamSpec*, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  if (!gtk_window_is_active(GTK_WINDOW(window))) return;
  auto self = impl->self.lock();
  auto browser = impl->browser.lock();
  // Not a reason to close the popover: the display moves the focus between
  // windows as they map and unmap (the popover's own among them), and a
  // click in another window reaches the popover's grab first.
  if (self && browser) browser->internals().focus(self, /*closesPopover=*/false);
}

// The user picked a tab.
void onSwitchPage(GtkNotebook*, GtkWidget* page, guint, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  if (impl->rearranging || impl->closed) return;
  auto tab = tabShowing(*impl, page);
  auto self = impl->self.lock();
  auto browser = impl->browser.lock();
  if (!tab || !self || !browser) return;
  const bool changed = impl->activeTab.lock() != tab;
  impl->activeTab = tab;
  impl->refreshLocation();
  if (changed) browser->internals().closePopoverFor(impl);
  browser->internals().focus(self);
}

// The user dragged a tab to another place.
void onReordered(GtkNotebook*, GtkWidget* page, guint position, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  auto tab = tabShowing(*impl, page);
  if (!tab) return;
  std::erase(impl->tabs, tab);
  impl->tabs.insert(impl->tabs.begin() + std::min<std::size_t>(position, impl->tabs.size()), tab);
}

gboolean onDrawFace(GtkWidget*, cairo_t* cr, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  if (impl->closed) return FALSE;
  drawToolbarFace(cr, ToolbarFace::of(*impl->item), impl->iconForButton());
  return FALSE;
}

void onButtonClicked(GtkButton*, gpointer data) {
  if (auto self = static_cast<Impl*>(data)->self.lock()) self->clickToolbarItem();
}

void onLocationActivated(GtkEntry* entry, gpointer data) {
  auto tab = static_cast<Impl*>(data)->activeTab.lock();
  if (!tab) return;
  std::string url = gtk_entry_get_text(entry);
  if (!isLoadableURL(url)) url = "https://" + url;
  tab->navigateToURL(url);
}

}  // namespace

WebKitWindow::WebKitWindow(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

WebKitWindow::~WebKitWindow() {
  // Open windows belong to their browser, which closes them first; this
  // only covers a browser that was never shut down.
  if (impl_->window && isMainThread()) {
    for (GtkWidget* widget : {impl_->window, impl_->notebook, impl_->button, impl_->buttonFace, impl_->location}) {
      g_signal_handlers_disconnect_by_data(widget, impl_.get());
    }
    gtk_widget_destroy(impl_->window);
  }
  if (impl_->buttonIcon) cairo_surface_destroy(impl_->buttonIcon);
}

// --- SFSafariWindow ----------------------------------------------------------------

void WebKitWindow::getActiveTab(TabCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    completion(self->activeTab());
  });
}

void WebKitWindow::getAllTabs(TabsCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    std::vector<std::shared_ptr<SFSafariTab>> tabs(self->impl_->tabs.begin(), self->impl_->tabs.end());
    completion(std::move(tabs));
  });
}

void WebKitWindow::getToolbarItem(ToolbarItemCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    completion(self->impl_->closed ? nullptr : self->impl_->item);
  });
}

void WebKitWindow::openTabWithURL(const std::string& url, bool makeActiveIfPossible, TabCompletion completion) {
  runOnMainThread([self = shared_from_this(), url, makeActiveIfPossible,
                   completion = std::move(completion)]() mutable {
    completion(self->openTab(url, makeActiveIfPossible));
  });
}

void WebKitWindow::close() {
  runOnMainThread([self = shared_from_this()] { self->impl_->closeNow(); });
}

bool WebKitWindow::isEqual(const SFSafariWindow& other) const {
  return static_cast<const SFSafariWindow*>(this) == &other;
}

std::string WebKitWindow::description() const { return "window#" + std::to_string(impl_->serial); }

// --- Host controls -----------------------------------------------------------------

std::shared_ptr<WebKitTab> WebKitWindow::openTab(const std::string& url, bool makeActive) {
  if (impl_->closed || !isLoadableURL(url)) {
    logLine("browser: not opening a tab at " + url);
    return nullptr;
  }
  auto tab = impl_->addTab(url, makeActive);
  if (tab && impl_->activeTab.lock() == tab) {
    if (auto browser = impl_->browser.lock()) browser->internals().focus(shared_from_this());
  }
  return tab;
}

std::vector<std::shared_ptr<WebKitTab>> WebKitWindow::tabs() const { return impl_->tabs; }

std::shared_ptr<WebKitTab> WebKitWindow::activeTab() const {
  return impl_->closed ? nullptr : impl_->activeTab.lock();
}

bool WebKitWindow::isPrivate() const { return impl_->isPrivate; }

bool WebKitWindow::isClosed() const { return impl_->closed; }

void WebKitWindow::clickToolbarItem() {
  if (auto browser = impl_->browser.lock()) browser->internals().toolbarButtonClicked(shared_from_this());
}

std::shared_ptr<WebKitToolbarItem> WebKitWindow::toolbarItem() const { return impl_->item; }

// --- Impl ----------------------------------------------------------------------------

void Impl::build(bool offscreen) {
  window = offscreen ? gtk_offscreen_window_new() : gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window), 1024, 768);
  gtk_window_set_title(GTK_WINDOW(window), isPrivate ? "Private Browsing" : "Browser");

  GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  GtkWidget* bar = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
  location = gtk_entry_new();
  gtk_box_pack_start(GTK_BOX(bar), location, TRUE, TRUE, 0);

  button = gtk_button_new();
  buttonFace = gtk_drawing_area_new();
  gtk_container_add(GTK_CONTAINER(button), buttonFace);
  gtk_box_pack_end(GTK_BOX(bar), button, FALSE, FALSE, 0);

  notebook = gtk_notebook_new();
  gtk_notebook_set_scrollable(GTK_NOTEBOOK(notebook), TRUE);
  gtk_box_pack_start(GTK_BOX(column), bar, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(column), notebook, TRUE, TRUE, 0);
  gtk_container_add(GTK_CONTAINER(window), column);

  if (!offscreen) {
    g_signal_connect(window, "delete-event", G_CALLBACK(&onDelete), this);
    g_signal_connect(window, "notify::is-active", G_CALLBACK(&onActiveChanged), this);
  }
  g_signal_connect(notebook, "switch-page", G_CALLBACK(&onSwitchPage), this);
  g_signal_connect(notebook, "page-reordered", G_CALLBACK(&onReordered), this);
  g_signal_connect(button, "clicked", G_CALLBACK(&onButtonClicked), this);
  g_signal_connect(buttonFace, "draw", G_CALLBACK(&onDrawFace), this);
  g_signal_connect(location, "activate", G_CALLBACK(&onLocationActivated), this);
  gtk_widget_show_all(window);
  refreshButton();
}

std::shared_ptr<WebKitTab> Impl::addTab(const std::string& url, bool makeActive) {
  auto owner = self.lock();
  auto browserObject = browser.lock();
  if (!owner || !browserObject || closed) return nullptr;
  auto tab = WebKitTab::Impl::make(owner, browserObject->internals());
  insertTab(tab, makeActive);
  tab->internals().load(url);
  return tab;
}

void Impl::insertTab(const std::shared_ptr<WebKitTab>& tab, bool makeActive) {
  auto& t = tab->internals();
  gtk_widget_show(GTK_WIDGET(t.view));
  rearranging = true;
  gtk_notebook_append_page(GTK_NOTEBOOK(notebook), GTK_WIDGET(t.view), t.label);
  gtk_notebook_set_tab_reorderable(GTK_NOTEBOOK(notebook), GTK_WIDGET(t.view), TRUE);
  rearranging = false;
  tabs.push_back(tab);
  if (makeActive || tabs.size() == 1) setActive(tab);
}

void Impl::setActive(const std::shared_ptr<WebKitTab>& tab) {
  if (activeTab.lock() != tab) {
    if (auto browserObject = browser.lock()) browserObject->internals().closePopoverFor(this);
  }
  activeTab = tab;
  const int position = gtk_notebook_page_num(GTK_NOTEBOOK(notebook), GTK_WIDGET(tab->internals().view));
  rearranging = true;
  if (position >= 0) gtk_notebook_set_current_page(GTK_NOTEBOOK(notebook), position);
  rearranging = false;
  refreshLocation();
}

void Impl::detach(const WebKitTab* tab, GtkWidget* view) {
  auto it = std::find_if(tabs.begin(), tabs.end(), [&](const auto& t) { return t.get() == tab; });
  if (it == tabs.end()) return;
  const bool wasActive = activeTab.lock().get() == tab;
  const auto position = static_cast<std::size_t>(it - tabs.begin());
  auto keep = std::move(*it);  // alive until the lists no longer refer to it
  tabs.erase(it);
  rearranging = true;
  if (view) {
    const int page = gtk_notebook_page_num(GTK_NOTEBOOK(notebook), view);
    if (page >= 0) gtk_notebook_remove_page(GTK_NOTEBOOK(notebook), page);  // destroys the view
  }
  rearranging = false;
  if (!wasActive) return;
  if (tabs.empty()) {
    activeTab.reset();
    return;
  }
  setActive(tabs[std::min(position, tabs.size() - 1)]);
  auto owner = self.lock();
  auto browserObject = browser.lock();
  if (owner && browserObject) browserObject->internals().requestValidation(owner);
}

void Impl::closeNow() {
  if (closed) return;
  closed = true;
  auto keep = self.lock();
  auto browserObject = browser.lock();
  const auto closing = std::move(tabs);
  tabs.clear();
  activeTab.reset();
  for (const auto& tab : closing) tab->internals().closeNow();
  item->setChangeHandler(nullptr);
  if (window) {
    for (GtkWidget* widget : {window, notebook, button, buttonFace, location}) {
      g_signal_handlers_disconnect_by_data(widget, this);
    }
    gtk_widget_destroy(window);  // with the tabs' views
    window = notebook = location = button = buttonFace = nullptr;
  }
  if (browserObject) browserObject->internals().forgetWindow(this);
}

void Impl::refreshButton() {
  buttonRefreshPending = false;
  if (closed || !button) return;
  const PixelSize size = toolbarFaceSize(ToolbarFace::of(*item));
  gtk_widget_set_size_request(buttonFace, size.width, size.height);
  gtk_widget_queue_draw(buttonFace);
  gtk_widget_set_sensitive(button, item->isEnabled());
}

cairo_surface_t* Impl::iconForButton() {
  const auto image = item->image();
  const std::string path = image ? image->path : "";
  const int scale = buttonFace ? gtk_widget_get_scale_factor(buttonFace) : 1;
  if (path != buttonIconPath || scale != buttonIconScale) {
    if (buttonIcon) cairo_surface_destroy(buttonIcon);
    buttonIcon = path.empty() ? nullptr : renderToolbarIcon(path, scale);
    buttonIconPath = path;
    buttonIconScale = scale;
  }
  return buttonIcon;
}

void Impl::refreshLocation() {
  auto tab = activeTab.lock();
  if (!location || !tab) return;
  auto properties = tab->internals().properties();
  gtk_entry_set_text(GTK_ENTRY(location), properties && properties->url ? properties->url->c_str() : "");
}

}  // namespace appex::webkit
