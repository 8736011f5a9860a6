#include "platform/webkit/gtk_web_view.h"

#include <webkit2/webkit2.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "core/log.h"
#include "host/json.h"
#include "platform/webkit/console_hook.h"
#include "platform/webkit/main_queue_source.h"

namespace appex::webkit {
namespace {

// The posted body as JSON would carry it. undefined (no JSON form) is null.
AnyValue toAnyValue(WebKitJavascriptResult* result) {
  JSCValue* value = webkit_javascript_result_get_js_value(result);
  if (!value || jsc_value_is_undefined(value)) return nullptr;
  char* json = jsc_value_to_json(value, 0);
  if (!json) return nullptr;
  std::optional<AnyValue> parsed = JSON::parse(json, /*allowFragments=*/true);
  g_free(json);
  return parsed ? std::move(*parsed) : AnyValue(nullptr);
}

using SettingSetter = void (*)(WebKitSettings*, gboolean);

// Preference keys, as web code and the rest of the system name them, onto
// the engine's settings.
const std::map<std::string, SettingSetter, std::less<>>& settingSetters() {
  static const auto* setters = new std::map<std::string, SettingSetter, std::less<>>{
      {"allowFileAccessFromFileURLs", &webkit_settings_set_allow_file_access_from_file_urls},
      {"allowUniversalAccessFromFileURLs",
       &webkit_settings_set_allow_universal_access_from_file_urls},
      {"developerExtrasEnabled", &webkit_settings_set_enable_developer_extras},
      {"javaScriptCanOpenWindowsAutomatically",
       &webkit_settings_set_javascript_can_open_windows_automatically},
      {"javaScriptEnabled", &webkit_settings_set_enable_javascript},
  };
  return *setters;
}

bool isWithin(const std::filesystem::path& path, const std::filesystem::path& folder) {
  const auto p = path.lexically_normal();
  const auto f = folder.lexically_normal();
  const auto folderEnd = std::mismatch(f.begin(), f.end(), p.begin(), p.end()).first;
  // A trailing separator leaves an empty last element in the folder.
  return folderEnd == f.end() || (std::next(folderEnd) == f.end() && folderEnd->empty());
}

}  // namespace

struct GtkWebView::Impl {
  // One registered script-message handler. Owned by `handlers`; the signal
  // connection points at it.
  struct Handler {
    ScriptMessageCallback callback;
    gulong signalId = 0;
  };

  GtkWidget* window = nullptr;
  WebKitWebView* view = nullptr;
  WebKitUserContentManager* contentManager = nullptr;
  gulong loadChangedId = 0;
  std::weak_ptr<NavigationDelegate> delegate;
  std::map<std::string, std::unique_ptr<Handler>, std::less<>> handlers;

  static void onScriptMessage(WebKitUserContentManager*, WebKitJavascriptResult* result,
                              gpointer data) {
    // A copy: the handler may remove itself (and so its entry) while it runs.
    ScriptMessageCallback callback = static_cast<Handler*>(data)->callback;
    callback(toAnyValue(result));
    // What the handler posted to the main queue (a script back to a page,
    // typically) goes now, before the engine's own work after the signal.
    if (auto* mainQueue = MainQueueSource::ofThisThread()) mainQueue->dispatchPending();
  }

  static void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, gpointer data) {
    if (event != WEBKIT_LOAD_FINISHED) return;
    if (auto delegate = static_cast<Impl*>(data)->delegate.lock()) delegate->didFinishNavigation();
  }

  void unregister(decltype(handlers)::iterator it) {
    g_signal_handler_disconnect(contentManager, it->second->signalId);
    webkit_user_content_manager_unregister_script_message_handler(contentManager,
                                                                  it->first.c_str());
    handlers.erase(it);
  }
};

GtkWebView::GtkWebView() : impl_(std::make_unique<Impl>()) {
  impl_->contentManager = webkit_user_content_manager_new();
  impl_->view = WEBKIT_WEB_VIEW(webkit_web_view_new_with_user_content_manager(impl_->contentManager));
  impl_->window = gtk_offscreen_window_new();
  gtk_window_set_default_size(GTK_WINDOW(impl_->window), 800, 600);
  gtk_container_add(GTK_CONTAINER(impl_->window), GTK_WIDGET(impl_->view));
  gtk_widget_show_all(impl_->window);
  impl_->loadChangedId =
      g_signal_connect(impl_->view, "load-changed", G_CALLBACK(&Impl::onLoadChanged), impl_.get());
}

GtkWebView::~GtkWebView() {
  while (!impl_->handlers.empty()) impl_->unregister(impl_->handlers.begin());
  g_signal_handler_disconnect(impl_->view, impl_->loadChangedId);
  gtk_widget_destroy(impl_->window);  // takes the web view with it
  g_object_unref(impl_->contentManager);
}

void GtkWebView::evaluateScript(std::string script) {
  webkit_web_view_evaluate_javascript(impl_->view, script.data(),
                                      static_cast<gssize>(script.size()), nullptr, nullptr,
                                      nullptr, nullptr, nullptr);
}

void GtkWebView::addScriptMessageHandler(const std::string& name, ScriptMessageCallback handler) {
  if (auto it = impl_->handlers.find(name); it != impl_->handlers.end()) impl_->unregister(it);
  auto entry = std::make_unique<Impl::Handler>();
  entry->callback = std::move(handler);
  const std::string signal = "script-message-received::" + name;
  entry->signalId = g_signal_connect(impl_->contentManager, signal.c_str(),
                                     G_CALLBACK(&Impl::onScriptMessage), entry.get());
  webkit_user_content_manager_register_script_message_handler(impl_->contentManager,
                                                              name.c_str());
  impl_->handlers.emplace(name, std::move(entry));
}

void GtkWebView::removeScriptMessageHandler(const std::string& name) {
  if (auto it = impl_->handlers.find(name); it != impl_->handlers.end()) impl_->unregister(it);
}

bool GtkWebView::setBoolPreference(const std::string& key, bool value) {
  const auto& setters = settingSetters();
  auto it = setters.find(key);
  if (it == setters.end()) return false;
  it->second(webkit_web_view_get_settings(impl_->view), value ? TRUE : FALSE);
  return true;
}

void GtkWebView::setNavigationDelegate(std::weak_ptr<NavigationDelegate> delegate) {
  impl_->delegate = std::move(delegate);
}

bool GtkWebView::loadFileURL(const std::string& path, const std::string& readAccessFolder) {
  const std::filesystem::path file(path);
  const std::filesystem::path folder(readAccessFolder);
  if (!file.is_absolute() || !folder.is_absolute() || !isWithin(file, folder)) {
    logLine("WebView: not loading " + path + " (outside " + readAccessFolder + ")");
    return false;
  }
  GError* error = nullptr;
  gchar* uri = g_filename_to_uri(file.lexically_normal().c_str(), nullptr, &error);
  if (!uri) {
    logLine("WebView: not loading " + path + ": " + error->message);
    g_error_free(error);
    return false;
  }
  webkit_web_view_load_uri(impl_->view, uri);
  g_free(uri);
  return true;
}

void GtkWebView::reload() { webkit_web_view_reload(impl_->view); }

void GtkWebView::reportConsole(ConsoleHandler handler) {
  // The hook posts [level, text] to a script-message handler of its own.
  constexpr const char* kHandlerName = "appexConsole";
  addScriptMessageHandler(kHandlerName, [handler = std::move(handler)](const AnyValue& body) {
    auto parts = asStringList(body);
    if (parts && parts->size() == 2) handler((*parts)[0], (*parts)[1]);
  });
  const std::string source = std::string(
                                 "(function () {\n"
                                 "  var handlers = window.webkit && window.webkit.messageHandlers;\n"
                                 "  var handler = handlers && handlers.") +
                             kHandlerName +
                             ";\n"
                             "  if (!handler) return;\n"
                             "  var post = handler.postMessage.bind(handler);\n"
                             "  (" + kConsoleHook +
                             ")(function (level, text) { post([level, text]); }, 'all');\n"
                             "})();\n";
  WebKitUserScript* script =
      webkit_user_script_new(source.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(impl_->contentManager, script);
  webkit_user_script_unref(script);
}

WebKitWebView* GtkWebView::webkitWebView() const { return impl_->view; }

}  // namespace appex::webkit
