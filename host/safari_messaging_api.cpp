#include "host/safari_messaging_api.h"

#include "api/safari_api_invoker.h"
#include "api/safari_storage_api.h"
#include "bridge/wk_web_view_bridge.h"
#include "core/context.h"
#include "core/log.h"
#include "host/event_payload.h"
#include "host/json.h"
#include "tabs/safari_tab_api.h"
#include "tabs/tab_state.h"

namespace appex {
namespace {

constexpr const char* kChannel = "__default__";

void ignoreResult(Result) {}

}  // namespace

std::shared_ptr<SafariMessagingAPI> SafariMessagingAPI::create(Context& context) {
  auto router = std::make_shared<SafariMessagingAPI>(context);
  std::weak_ptr<SafariMessagingAPI> weak = router;
  context.get<SafariTabAPI>()->setHandler([weak](Message ask, ResultCallback reply) {
    if (auto self = weak.lock()) self->onPageAsk(ask, std::move(reply));
  });
  return router;
}

std::shared_ptr<SafariMessagingAPI> SafariMessagingAPI::shared() {
  return Context::current().get<SafariMessagingAPI>();
}

SafariMessagingAPI::SafariMessagingAPI(Context& context) : context_(context) {}

SafariMessagingAPI::~SafariMessagingAPI() {
  for (auto& dispose : subscriptions_) dispose();
}

std::shared_ptr<WebView> SafariMessagingAPI::backgroundWebview() const {
  std::lock_guard lock(mutex_);
  return backgroundWebview_;
}
std::shared_ptr<WKWebViewBridge> SafariMessagingAPI::backgroundBridge() const {
  std::lock_guard lock(mutex_);
  return backgroundBridge_;
}
std::shared_ptr<WebView> SafariMessagingAPI::popupWebview() const {
  std::lock_guard lock(mutex_);
  return popupWebview_;
}
std::shared_ptr<WKWebViewBridge> SafariMessagingAPI::popupBridge() const {
  std::lock_guard lock(mutex_);
  return popupBridge_;
}

void SafariMessagingAPI::setBackgroundWebview(std::shared_ptr<WebView> webView) {
  auto bridge = WKWebViewBridge::create("BG", webView);
  std::weak_ptr<SafariMessagingAPI> weak = weak_from_this();
  bridge->registerHandler(kChannel, [weak](const Message& ask, IBridge::Reply reply) {
    if (auto self = weak.lock()) self->onBackgroundAsk(ask, [reply](Result r) { reply(std::move(r)); });
  });
  {
    std::lock_guard lock(mutex_);
    backgroundWebview_ = std::move(webView);
    backgroundBridge_ = std::move(bridge);
  }
  bindEventsForBackground();
}

void SafariMessagingAPI::setPopupWebview(std::shared_ptr<WebView> webView) {
  auto bridge = WKWebViewBridge::create("Popup", webView);
  std::weak_ptr<SafariMessagingAPI> weak = weak_from_this();
  bridge->registerHandler(kChannel, [weak](const Message& ask, IBridge::Reply reply) {
    if (auto self = weak.lock()) self->onPopupAsk(ask, [reply](Result r) { reply(std::move(r)); });
  });
  std::lock_guard lock(mutex_);
  popupWebview_ = std::move(webView);
  popupBridge_ = std::move(bridge);
}

void SafariMessagingAPI::onBackgroundAsk(const Message& ask, ResultCallback reply) {
  route(ask, std::move(reply), MessageTarget::Kind::background, false, "background");
}

void SafariMessagingAPI::onPopupAsk(const Message& ask, ResultCallback reply) {
  route(ask, std::move(reply), MessageTarget::Kind::popup, false, "popup");
}

void SafariMessagingAPI::onPageAsk(const Message& ask, ResultCallback reply) {
  route(ask, std::move(reply), MessageTarget::Kind::tab, true, "page");
}

std::expected<CommandMessageData, std::string> SafariMessagingAPI::parseRequest(const Message& ask) {
  if (ask.type != MessageType::ask || ask.cmd != "messaging") return std::unexpected("Exit 1");
  std::optional<AnyValue> parsed;
  const Dictionary* request = nullptr;
  if (ask.args && ask.args->is_object()) {
    request = &ask.args->as_object();
  } else if (ask.data && ask.data->is_string()) {
    const auto& text = ask.data->as_string();
    parsed = JSON::parse(std::string_view(text.data(), text.size()));
    if (parsed) request = parsed->if_object();
  }
  if (!request) return std::unexpected("Exit 2");
  auto data = CommandMessageData::parse(*request);
  if (!data) return std::unexpected("Exit 3");
  return std::move(*data);
}

void SafariMessagingAPI::setTrace(Trace trace) {
  std::lock_guard lock(mutex_);
  trace_ = trace ? std::make_shared<const Trace>(std::move(trace)) : nullptr;
}

namespace {

std::string describeTarget(const MessageTarget& target) {
  switch (target.kind) {
    case MessageTarget::Kind::api: return "api";
    case MessageTarget::Kind::background: return "background";
    case MessageTarget::Kind::popup: return "popup";
    case MessageTarget::Kind::tab:
      return "tab " + target.tabId + (target.pageId ? "/" + *target.pageId : "");
  }
  return "?";
}

}  // namespace

ResultCallback SafariMessagingAPI::traced(const char* sender, const MessageTarget& target,
                                          const std::string& cmd, ResultCallback reply) {
  std::shared_ptr<const Trace> trace;
  {
    std::lock_guard lock(mutex_);
    trace = trace_;
  }
  if (!trace) return reply;
  const std::string to = describeTarget(target);
  (*trace)(std::string(sender) + " -> " + to + " " + cmd);
  return [trace, line = to + " => " + sender + " " + cmd, reply = std::move(reply)](Result r) mutable {
    (*trace)(line + (r ? " ok" : " error: " + r.error().text));
    reply(std::move(r));
  };
}

void SafariMessagingAPI::route(const Message& ask, ResultCallback reply, MessageTarget::Kind refused,
                               bool refusesTabs, const char* sender) {
  auto request = parseRequest(ask);
  if (!request) {
    logLine(request.error());
    return;
  }
  const MessageTarget& target = request->target;
  if (refusesTabs ? target.kind == MessageTarget::Kind::tab : target.kind == refused) {
    logLine("Exit 4");
    return;
  }
  Command& command = request->command;
  reply = traced(sender, target, command.cmd, std::move(reply));
  switch (target.kind) {
    case MessageTarget::Kind::api:
      SafariApiInvoker(context_).invokeAPI(command.cmd, command.args, std::move(reply));
      return;
    case MessageTarget::Kind::background:
    case MessageTarget::Kind::popup: {
      auto bridge = target.kind == MessageTarget::Kind::background ? backgroundBridge() : popupBridge();
      // No page to ask: nothing is sent and the asker's time-out decides.
      if (bridge) bridge->ask(kChannel, std::move(command.cmd), std::move(command.args), std::move(reply));
      return;
    }
    case MessageTarget::Kind::tab:
      context_.get<SafariTabAPI>()->sendToTab(target.tabId, target.pageId, std::move(command.cmd),
                                              std::move(command.args), std::move(reply));
      return;
  }
}

void SafariMessagingAPI::relayToBackground(const std::string& cmd, const AnyValue& args) {
  if (auto bridge = backgroundBridge()) bridge->ask(kChannel, cmd, args, ignoreResult);
}

void SafariMessagingAPI::bindEventsForBackground() {
  logLine("bindEventsForBackground!!!!");
  std::weak_ptr<SafariMessagingAPI> weak = weak_from_this();
  auto tabEvents = context_.get<SafariTabAPI>()->emitter();
  const std::pair<const char*, const char*> relays[] = {
      {"create", "tabs.onCreate"}, {"update", "tabs.onUpdate"}, {"activate", "tabs.onActivate"}};
  for (const auto& [event, cmd] : relays) {
    subscriptions_.push_back(tabEvents->on(
        event, [weak, cmd = std::string(cmd)](const EventPayload& payload, const std::string&) {
          if (auto self = weak.lock()) self->relayToBackground(cmd, payload.value);
        }));
  }
  subscriptions_.push_back(context_.get<SafariStorageAPI>()->emitter()->on(
      "change", [weak](const EventPayload& payload, const std::string&) {
        auto self = weak.lock();
        if (!self) return;
        const std::string cmd = "storage.onChanged";
        self->relayToBackground(cmd, payload.value);
        if (auto popup = self->popupBridge()) popup->ask(kChannel, cmd, payload.value, ignoreResult);
        auto tabs = self->context_.get<SafariTabAPI>();
        // The loop keeps the snapshot alive: ranging over *snapshot() would
        // drop it at once, and writers could then change the elements read.
        const auto known = tabs->tabCache().list().snapshot();
        // Nobody reads the tabs' answers, so no reply waits for them (a tab
        // whose pages have no content script would never send one).
        for (const auto& entry : *known) {
          tabs->sendToTab(*entry.value, std::nullopt, cmd, payload.value, nullptr);
        }
      }));
}

}  // namespace appex
