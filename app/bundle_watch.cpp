#include "app/bundle_watch.h"

#include "bridge/safari_extension_view_controller.h"
#include "platform/web_view.h"
#include "platform/webkit/gio_file_watcher.h"
#include "platform/webkit/webkit_browser.h"

namespace appex {

BundleWatch::BundleWatch(HostSession& session, HostSession::EventSink events,
                         std::function<void(const std::string&)> say)
    : session_(session), events_(std::move(events)), say_(std::move(say)) {}

BundleWatch::~BundleWatch() = default;

std::expected<std::unique_ptr<BundleWatch>, std::string> BundleWatch::start(
    HostSession& session, const std::string& bundlePath, HostSession::EventSink events,
    std::function<void(const std::string&)> say) {
  std::unique_ptr<BundleWatch> watch(new BundleWatch(session, std::move(events), std::move(say)));
  auto watcher = webkit::watchFolder(bundlePath + "/Contents", [self = watch.get()](const auto& changed) {
    self->reload(changed);
  });
  if (!watcher) return std::unexpected(watcher.error());
  watch->watcher_ = std::move(*watcher);
  return watch;
}

void BundleWatch::reload(const std::vector<std::string>& changed) {
  List paths;
  bool infoChanged = false;
  for (const auto& path : changed) {
    infoChanged = infoChanged || path == "Info.plist";
    paths.emplace_back(path.starts_with("Resources/") ? path.substr(10) : path);
  }
  if (auto background = session_.backgroundWebView()) background->reload();
  if (auto popup = SafariExtensionViewController::shared()->webview()) popup->reload();  // only if it was loaded
  session_.browser().reloadContent();
  const std::string first(paths.front().as_string());
  say_("[watch] reloaded after change to " + first);
  if (infoChanged) say_("[watch] Info.plist is read at start: restart appex to apply its changes");
  events_("reloaded", Dictionary{{"path", first}, {"changed", std::move(paths)}});
}

}  // namespace appex
