#include "api/safari_api_invoker.h"

#include <boost/json/serialize.hpp>

#include "api/http_request.h"
#include "api/http_request_preparation.h"
#include "api/safari_meta_api.h"
#include "api/safari_storage_api.h"
#include "api/safari_toolbar_api.h"
#include "core/context.h"
#include "platform/browser_url.h"
#include "platform/bundle.h"
#include "platform/popup_controller.h"
#include "platform/safari_extension.h"
#include "platform/user_defaults.h"
#include "tabs/safari_tab_api.h"
#include "tabs/safari_window_api.h"
#include "tabs/tab_query.h"

namespace appex {
namespace {

// The argument as a dictionary, or nullptr (absent, null or another type).
const Dictionary* dictionaryArg(const std::optional<AnyValue>& args) {
  return args ? args->if_object() : nullptr;
}

std::optional<std::string> stringArg(const std::optional<AnyValue>& args) {
  return args ? asString(*args) : std::nullopt;
}

AnyValue orNull(const std::optional<std::string>& s) {
  return s ? AnyValue(*s) : AnyValue(nullptr);
}

}  // namespace

SafariApiInvoker::SafariApiInvoker() : context_(Context::current()) {}
SafariApiInvoker::SafariApiInvoker(Context& context) : context_(context) {}

void SafariApiInvoker::invokeAPI(const std::string& cmd, const std::optional<AnyValue>& args,
                                 ResultCallback callback) const {
  // The storage API (and its change emitter) exists from the first command
  // of any kind on, so the router's storage subscription always has a
  // source.
  auto storage = context_.get<SafariStorageAPI>();

  // --- extension ---------------------------------------------------------
  if (cmd == "extension.info") {
    auto defaults = context_.get<UserDefaults>();
    auto storedVersion = defaults->stringForKey("version");
    auto storedBaseURI = defaults->stringForKey("baseURI");
    auto bundle = context_.get<Bundle>();
    Dictionary info;
    info["internalBaseURI"] = bundle->path() + "/Contents/Resources/Assets/";
    info["version"] = orNull(SafariMetaAPI::version(bundle->infoDictionary()));
    context_.get<SFSafariExtension>()->getBaseURI(
        [callback = std::move(callback), info = std::move(info), storedVersion,
         storedBaseURI](std::optional<std::string> baseURI) mutable {
          Dictionary answer;
          answer["baseURI"] = orNull(baseURI);
          answer["internalBaseURI"] = info["internalBaseURI"];
          answer["version"] = info["version"];
          answer["storedVersion"] = orNull(storedVersion);
          answer["storedBaseURI"] = orNull(storedBaseURI);
          callback(success(std::move(answer)));
        });
    return;
  }
  auto popup = context_.find<PopupController>();
  if (!popup) {
    if (auto maker = context_.find<PopupControllerMaker>()) popup = maker->make(context_);
  }
  if (cmd == "extension.closePopup") {
    if (popup) popup->dismissPopover();
    callback(success(true));
    return;
  }
  if (cmd == "extension.setPopupHeight") {
    auto height = args ? asInt64(*args) : std::nullopt;
    if (!height) return callback(failure("[setPopupHeight] args should be popup height"));
    if (popup) {
      Size size = popup->preferredContentSize();
      size.height = static_cast<double>(*height);
      popup->setPreferredContentSize(size);
    }
    callback(success(true));
    return;
  }

  // --- tabs --------------------------------------------------------------
  auto tabs = context_.get<SafariTabAPI>();
  if (cmd == "tabs.get") {
    auto id = stringArg(args);
    if (!id) return callback(failure("[tabs.get] id is required"));
    tabs->getTab(*id, std::move(callback));
    return;
  }
  if (cmd == "tabs.remove") {
    auto id = stringArg(args);
    if (!id) return callback(failure("[tabs.remove] id is required"));
    tabs->removeTab(*id, std::move(callback));
    return;
  }
  if (cmd == "tabs.create") {
    const Dictionary* d = dictionaryArg(args);
    if (!d) return callback(failure("[tabs.create] args must be a dictionary"));
    auto url = asString(*d, "url");
    if (!url) return callback(failure("[tabs.create] url is required"));
    if (!browserURL(*url)) {
      return callback(failure("[tabs.create] Failed to create tab for unknown reason"));
    }
    tabs->createTab(*url, asBool(*d, "active").value_or(true), std::move(callback));
    return;
  }
  if (cmd == "tabs.update") {
    const Dictionary* d = dictionaryArg(args);
    if (!d) return callback(failure("[tabs.update] args must be a dictionary"));
    auto id = asString(*d, "id");
    if (!id) return callback(failure("[tabs.update] id is required"));
    auto url = asString(*d, "url");
    if (!url) return callback(failure("[tabs.update] url is required"));
    tabs->updateTab(*id, url, asBool(*d, "active").value_or(false), std::move(callback));
    return;
  }
  if (cmd == "tabs.query") {
    const Dictionary* d = dictionaryArg(args);
    if (!d) return callback(failure("[tabs.query] args must be a dictionary"));
    tabs->queryTabs(TabQuery::fromArguments(*d), std::move(callback));
    return;
  }
  if (cmd == "tabs.all") {
    tabs->allTabs(std::move(callback));
    return;
  }

  // --- windows -----------------------------------------------------------
  auto windows = context_.get<SafariWindowAPI>();
  if (cmd == "windows.get") {
    auto id = stringArg(args);
    if (!id) return callback(failure("[windows.get] id is required"));
    windows->getWindow(*id, /*populate=*/false, std::move(callback));
    return;
  }
  if (cmd == "windows.getLastFocused") {
    windows->getLastFocusedWindow(/*populate=*/false, std::move(callback));
    return;
  }
  if (cmd == "windows.getAll") {
    const Dictionary* d = dictionaryArg(args);
    // Deliberately the message of windows.create.
    if (!d) return callback(failure("[windows.create] args must be a dictionary"));
    windows->allWindows(asBool(*d, "populate").value_or(false), std::move(callback));
    return;
  }
  if (cmd == "windows.remove") {
    auto id = stringArg(args);
    if (!id) return callback(failure("[windows.remove] id is required"));
    windows->removeWindow(*id, std::move(callback));
    return;
  }
  if (cmd == "windows.create") {
    const Dictionary* d = dictionaryArg(args);
    if (!d) return callback(failure("[windows.create] args must be a dictionary"));
    auto url = asString(*d, "url");
    if (!url) return callback(failure("[windows.create] url is required"));
    if (!browserURL(*url)) {
      return callback(failure("[windows.create] Failed to create window for unknown reason"));
    }
    windows->createWindow(*url, std::move(callback));
    return;
  }
  if (cmd == "windows.all") {
    windows->allWindows(/*populate=*/false, std::move(callback));
    return;
  }

  // --- storage -----------------------------------------------------------
  if (cmd == "storage.local.all") {
    callback(success(storage->all()));
    return;
  }
  if (cmd == "storage.local.get") {
    auto keys = args ? asStringList(*args) : std::nullopt;
    if (!keys) return callback(failure("[storage.local.get] keys is required"));
    callback(success(storage->get(*keys)));
    return;
  }
  if (cmd == "storage.local.clear") {
    storage->clear();
    callback(success(true));
    return;
  }
  if (cmd == "storage.local.remove") {
    auto keys = args ? asStringList(*args) : std::nullopt;
    if (!keys) return callback(failure("[storage.local.remove] keys is required"));
    storage->remove(*keys);
    callback(success(true));
    return;
  }
  if (cmd == "storage.local.set") {
    auto items = args ? asStringDictionary(*args) : std::nullopt;
    if (!items) return callback(failure("[storage.local.set] args must be a dictionary"));
    storage->set(*items);
    callback(success(true));
    return;
  }

  // --- toolbar -----------------------------------------------------------
  auto toolbar = context_.get<SafariToolbarAPI>();
  if (cmd == "browserAction.setIcon") {
    const Dictionary* d = dictionaryArg(args);
    if (!d) return callback(failure("[browserAction.setIcon] args must be a dictionary"));
    auto path = asString(*d, "path");
    if (!path) return callback(failure("[browserAction.setIcon] path is required"));
    toolbar->setIcon(*path, asString(*d, "tabId"));
    callback(success(true));
    return;
  }
  if (cmd == "browserAction.setBadgeText") {
    const Dictionary* d = dictionaryArg(args);
    if (!d) return callback(failure("[browserAction.setBadgeText] args must be a dictionary"));
    auto text = asString(*d, "text");
    if (!text) return callback(failure("[browserAction.setBadgeText] text is required"));
    toolbar->setBadgeText(*text, asString(*d, "tabId"));
    callback(success(true));
    return;
  }

  // --- network -----------------------------------------------------------
  if (cmd == "httpRequest") {
    auto prepared = prepareHttpRequest(args);
    if (!prepared) return callback(std::unexpected(prepared.error()));
    context_.get<HttpRequest>()->request(std::move(prepared->url), std::move(prepared->method),
                                         std::move(prepared->body), std::move(prepared->headers),
                                         std::move(callback));
    return;
  }

  callback(failure("[invokeAPI] Unknown cmd"));
}

}  // namespace appex
