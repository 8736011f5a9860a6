#include "api/safari_api_invoker.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

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

// The groups of the command table, in table order. Reaching a group brings
// its shared API object into being, and every earlier group's: a command
// finds created the objects of its own group and of all groups before it
// (storage commands find the window API, httpRequest the toolbar API), and
// an unknown name reaches every group. "extension.info" reaches none beyond
// the storage API, which every invocation creates first.
enum class Group { info, popup, tabs, windows, storage, toolbar, network, unknown };

// One invocation as its handler sees it: the arguments and the shared API
// objects dispatch has reached (null where the command's group comes
// before the object's; `popup` may also be null when the host has none).
struct Invocation {
  Context& context;
  const std::optional<AnyValue>& args;
  std::shared_ptr<SafariStorageAPI> storage;
  std::shared_ptr<PopupController> popup;
  std::shared_ptr<SafariTabAPI> tabs;
  std::shared_ptr<SafariWindowAPI> windows;
  std::shared_ptr<SafariToolbarAPI> toolbar;
};

// A handler checks its arguments in order, answers the first failing
// check's text, and otherwise hands the callback to the work it starts.
// Either way the callback is called exactly once.
using Handler = void (*)(const Invocation&, ResultCallback);

// Creates the shared objects up to and including `group`, in table order.
void reach(Invocation& in, Group group) {
  if (group >= Group::popup) {
    in.popup = in.context.find<PopupController>();
    if (!in.popup) {
      if (auto maker = in.context.find<PopupControllerMaker>()) in.popup = maker->make(in.context);
    }
  }
  if (group >= Group::tabs) in.tabs = in.context.get<SafariTabAPI>();
  if (group >= Group::windows) in.windows = in.context.get<SafariWindowAPI>();
  if (group >= Group::toolbar) in.toolbar = in.context.get<SafariToolbarAPI>();
}

// --- argument shapes --------------------------------------------------------

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

// --- extension --------------------------------------------------------------

// Never fails; answers once the platform reports the base URI.
void extensionInfo(const Invocation& in, ResultCallback callback) {
  auto defaults = in.context.get<UserDefaults>();
  auto storedVersion = defaults->stringForKey("version");
  auto storedBaseURI = defaults->stringForKey("baseURI");
  auto bundle = in.context.get<Bundle>();
  Dictionary info;
  info["internalBaseURI"] = bundle->path() + "/Contents/Resources/Assets/";
  info["version"] = orNull(SafariMetaAPI::version(bundle->infoDictionary()));
  in.context.get<SFSafariExtension>()->getBaseURI(
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
}

void extensionClosePopup(const Invocation& in, ResultCallback callback) {
  if (in.popup) in.popup->dismissPopover();
  callback(success(true));
}

// args: the height, an integer; the width is kept.
void extensionSetPopupHeight(const Invocation& in, ResultCallback callback) {
  auto height = in.args ? asInt64(*in.args) : std::nullopt;
  if (!height) return callback(failure("[setPopupHeight] args should be popup height"));
  if (in.popup) {
    Size size = in.popup->preferredContentSize();
    size.height = static_cast<double>(*height);
    in.popup->setPreferredContentSize(size);
  }
  callback(success(true));
}

// --- tabs -------------------------------------------------------------------

// args: the tab id.
void tabsGet(const Invocation& in, ResultCallback callback) {
  auto id = stringArg(in.args);
  if (!id) return callback(failure("[tabs.get] id is required"));
  in.tabs->getTab(*id, std::move(callback));
}

// args: the tab id.
void tabsRemove(const Invocation& in, ResultCallback callback) {
  auto id = stringArg(in.args);
  if (!id) return callback(failure("[tabs.remove] id is required"));
  in.tabs->removeTab(*id, std::move(callback));
}

// args: {"url": string, "active"?: bool (default true)}.
void tabsCreate(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  if (!d) return callback(failure("[tabs.create] args must be a dictionary"));
  auto url = asString(*d, "url");
  if (!url) return callback(failure("[tabs.create] url is required"));
  if (!browserURL(*url)) {
    return callback(failure("[tabs.create] Failed to create tab for unknown reason"));
  }
  in.tabs->createTab(*url, asBool(*d, "active").value_or(true), std::move(callback));
}

// args: {"id": string, "url": string, "active"?: bool (default false)}.
void tabsUpdate(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  if (!d) return callback(failure("[tabs.update] args must be a dictionary"));
  auto id = asString(*d, "id");
  if (!id) return callback(failure("[tabs.update] id is required"));
  auto url = asString(*d, "url");
  if (!url) return callback(failure("[tabs.update] url is required"));
  in.tabs->updateTab(*id, url, asBool(*d, "active").value_or(false), std::move(callback));
}

// args: a dictionary of optional filters.
void tabsQuery(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  if (!d) return callback(failure("[tabs.query] args must be a dictionary"));
  in.tabs->queryTabs(TabQuery::fromArguments(*d), std::move(callback));
}

void tabsAll(const Invocation& in, ResultCallback callback) { in.tabs->allTabs(std::move(callback)); }

// --- windows ----------------------------------------------------------------

// args: the window id.
void windowsGet(const Invocation& in, ResultCallback callback) {
  auto id = stringArg(in.args);
  if (!id) return callback(failure("[windows.get] id is required"));
  in.windows->getWindow(*id, /*populate=*/false, std::move(callback));
}

void windowsGetLastFocused(const Invocation& in, ResultCallback callback) {
  in.windows->getLastFocusedWindow(/*populate=*/false, std::move(callback));
}

// args: {"populate"?: bool (default false)}.
void windowsGetAll(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  // Deliberately the message of windows.create.
  if (!d) return callback(failure("[windows.create] args must be a dictionary"));
  in.windows->allWindows(asBool(*d, "populate").value_or(false), std::move(callback));
}

// args: the window id.
void windowsRemove(const Invocation& in, ResultCallback callback) {
  auto id = stringArg(in.args);
  if (!id) return callback(failure("[windows.remove] id is required"));
  in.windows->removeWindow(*id, std::move(callback));
}

// args: {"url": string}.
void windowsCreate(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  if (!d) return callback(failure("[windows.create] args must be a dictionary"));
  auto url = asString(*d, "url");
  if (!url) return callback(failure("[windows.create] url is required"));
  if (!browserURL(*url)) {
    return callback(failure("[windows.create] Failed to create window for unknown reason"));
  }
  in.windows->createWindow(*url, std::move(callback));
}

void windowsAll(const Invocation& in, ResultCallback callback) {
  in.windows->allWindows(/*populate=*/false, std::move(callback));
}

// --- storage ----------------------------------------------------------------

void storageLocalAll(const Invocation& in, ResultCallback callback) { callback(success(in.storage->all())); }

// args: the keys, a list of strings.
void storageLocalGet(const Invocation& in, ResultCallback callback) {
  auto keys = in.args ? asStringList(*in.args) : std::nullopt;
  if (!keys) return callback(failure("[storage.local.get] keys is required"));
  callback(success(in.storage->get(*keys)));
}

void storageLocalClear(const Invocation& in, ResultCallback callback) {
  in.storage->clear();
  callback(success(true));
}

// args: the keys, a list of strings.
void storageLocalRemove(const Invocation& in, ResultCallback callback) {
  auto keys = in.args ? asStringList(*in.args) : std::nullopt;
  if (!keys) return callback(failure("[storage.local.remove] keys is required"));
  in.storage->remove(*keys);
  callback(success(true));
}

// args: a dictionary whose values are all strings.
void storageLocalSet(const Invocation& in, ResultCallback callback) {
  auto items = in.args ? asStringDictionary(*in.args) : std::nullopt;
  if (!items) return callback(failure("[storage.local.set] args must be a dictionary"));
  in.storage->set(*items);
  callback(success(true));
}

// --- toolbar ----------------------------------------------------------------

// args: {"path": string, "tabId"?: string}.
void browserActionSetIcon(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  if (!d) return callback(failure("[browserAction.setIcon] args must be a dictionary"));
  auto path = asString(*d, "path");
  if (!path) return callback(failure("[browserAction.setIcon] path is required"));
  in.toolbar->setIcon(*path, asString(*d, "tabId"));
  callback(success(true));
}

// args: {"text": string, "tabId"?: string}.
void browserActionSetBadgeText(const Invocation& in, ResultCallback callback) {
  const Dictionary* d = dictionaryArg(in.args);
  if (!d) return callback(failure("[browserAction.setBadgeText] args must be a dictionary"));
  auto text = asString(*d, "text");
  if (!text) return callback(failure("[browserAction.setBadgeText] text is required"));
  in.toolbar->setBadgeText(*text, asString(*d, "tabId"));
  callback(success(true));
}

// --- network ----------------------------------------------------------------

// args: checked and shaped by prepareHttpRequest.
void httpRequest(const Invocation& in, ResultCallback callback) {
  auto prepared = prepareHttpRequest(in.args);
  if (!prepared) return callback(std::unexpected(prepared.error()));
  in.context.get<HttpRequest>()->request(std::move(prepared->url), std::move(prepared->method),
                                         std::move(prepared->body), std::move(prepared->headers),
                                         std::move(callback));
}

// --- the table --------------------------------------------------------------

struct Command {
  std::string_view name;
  Group group;
  Handler handler;
};

// In dispatch order (names are unique, so the order only documents it).
constexpr std::array<Command, 23> kCommands{{
    {"extension.info", Group::info, extensionInfo},
    {"extension.closePopup", Group::popup, extensionClosePopup},
    {"extension.setPopupHeight", Group::popup, extensionSetPopupHeight},
    {"tabs.get", Group::tabs, tabsGet},
    {"tabs.remove", Group::tabs, tabsRemove},
    {"tabs.create", Group::tabs, tabsCreate},
    {"tabs.update", Group::tabs, tabsUpdate},
    {"tabs.query", Group::tabs, tabsQuery},
    {"tabs.all", Group::tabs, tabsAll},
    {"windows.get", Group::windows, windowsGet},
    {"windows.getLastFocused", Group::windows, windowsGetLastFocused},
    {"windows.getAll", Group::windows, windowsGetAll},
    {"windows.remove", Group::windows, windowsRemove},
    {"windows.create", Group::windows, windowsCreate},
    {"windows.all", Group::windows, windowsAll},
    {"storage.local.all", Group::storage, storageLocalAll},
    {"storage.local.get", Group::storage, storageLocalGet},
    {"storage.local.clear", Group::storage, storageLocalClear},
    {"storage.local.remove", Group::storage, storageLocalRemove},
    {"storage.local.set", Group::storage, storageLocalSet},
    {"browserAction.setIcon", Group::toolbar, browserActionSetIcon},
    {"browserAction.setBadgeText", Group::toolbar, browserActionSetBadgeText},
    {"httpRequest", Group::network, httpRequest},
}};

// The command named exactly `name`, or nullptr.
const Command* findCommand(std::string_view name) {
  auto it = std::ranges::find(kCommands, name, &Command::name);
  return it == kCommands.end() ? nullptr : &*it;
}

}  // namespace

SafariApiInvoker::SafariApiInvoker() : context_(Context::current()) {}
SafariApiInvoker::SafariApiInvoker(Context& context) : context_(context) {}

void SafariApiInvoker::invokeAPI(const std::string& cmd, const std::optional<AnyValue>& args,
                                 ResultCallback callback) const {
  // The storage API (and its change emitter) exists from the first command
  // of any kind on, so the router's storage subscription always has a
  // source.
  Invocation in{.context = context_, .args = args, .storage = context_.get<SafariStorageAPI>()};
  const Command* command = findCommand(cmd);
  reach(in, command ? command->group : Group::unknown);
  if (!command) return callback(failure("[invokeAPI] Unknown cmd"));
  command->handler(in, std::move(callback));
}

}  // namespace appex
