#include "bridge/wk_web_view_bridge.h"

#include <boost/json/serialize.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <cctype>
#include <map>

#include "bridge/bridge_script.h"
#include "bridge/leak_avoider.h"
#include "core/log.h"
#include "core/main_queue.h"
#include "host/json.h"

namespace appex {
namespace {

// A fresh UUID in its 36-character upper-case text form.
std::string newUid() {
  thread_local boost::uuids::random_generator generate;
  std::string text = boost::uuids::to_string(generate());
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Which bridge holds each web view's "Webview_Bridge" handler: the last one
// made for it. A bridge withdraws the handler on destruction only while it
// holds it, so that a bridge replaced on the same web view does not leave its
// successor deaf. Entries go with their bridge. Main queue only.
using HandlerHolders =
    std::map<std::weak_ptr<WebView>, const WKWebViewBridge*, std::owner_less<>>;
HandlerHolders& handlerHolders() {
  static HandlerHolders holders;
  return holders;
}

// Every script reaches the page this way: later, on the main queue, and
// only if the web view still exists.
void evaluateLater(std::weak_ptr<WebView> webView, std::string script) {
  MainQueue::shared().post([webView = std::move(webView), script = std::move(script)]() mutable {
    if (auto view = webView.lock()) view->evaluateScript(std::move(script));
  });
}

void postTo(const std::weak_ptr<WebView>& webView, const Message& message,
            std::string_view channel) {
  std::optional<std::string> json = JSON::stringify(AnyValue(message.build()));
  if (!json) return;
  std::string script;
  script.reserve(json->size() + channel.size() + 20);
  script.append("onWebViewCall('").append(channel).append("', ").append(*json).append(")");
  evaluateLater(webView, std::move(script));
}

void answerTo(const std::weak_ptr<WebView>& webView, Result result, std::string uid,
              std::optional<std::int64_t> frameId, std::string_view channel) {
  Message answer;
  answer.type = MessageType::answer;
  answer.uid = std::move(uid);
  answer.frameId = frameId;
  if (result) {
    answer.data = std::move(*result);
  } else {
    answer.err = std::move(result.error().text);
  }
  postTo(webView, answer, channel);
}

// How a DEBUG or LOG line shows its data: nil, or Optional(<JSON text>).
std::string describe(const std::optional<AnyValue>& data) {
  if (!data) return "nil";
  return "Optional(" + boost::json::serialize(*data) + ")";
}

}  // namespace

std::shared_ptr<WKWebViewBridge> WKWebViewBridge::create(std::string name,
                                                         const std::shared_ptr<WebView>& webView) {
  std::shared_ptr<WKWebViewBridge> bridge(new WKWebViewBridge(std::move(name), webView));
  webView->setNavigationDelegate(bridge);
  webView->setBoolPreference("allowFileAccessFromFileURLs", true);
  webView->addScriptMessageHandler(std::string(kHandlerName),
                                   LeakAvoider::callbackFor(bridge));
  handlerHolders().insert_or_assign(std::weak_ptr<WebView>(webView), bridge.get());
  return bridge;
}

WKWebViewBridge::WKWebViewBridge(std::string name, const std::shared_ptr<WebView>& webView)
    : webView_(webView), name_(std::move(name)) {}

WKWebViewBridge::~WKWebViewBridge() {
  HandlerHolders& holders = handlerHolders();
  auto it = holders.find(webView_);
  if (it == holders.end() || it->second != this) return;  // a later bridge holds it
  holders.erase(it);
  if (auto view = webView_.lock()) view->removeScriptMessageHandler(std::string(kHandlerName));
}

void WKWebViewBridge::registerHandler(const std::string& channel, ChannelHandler handler) {
  channels_[channel].push_back(std::move(handler));
}

void WKWebViewBridge::ask(const std::string& channel, std::string cmd,
                          std::optional<AnyValue> args, ResultCallback callback) {
  Message message;
  message.type = MessageType::ask;
  message.uid = newUid();
  message.cmd = std::move(cmd);
  message.args = std::move(args);
  // Stored before the ask can reach the page, so its answer finds it. A
  // waiting write on the caller's thread: an asynchronous one would hand
  // every ask to a worker thread, which costs more than the write itself.
  callbacks_.mutatingSync([&](auto& pending) {
    pending.insert_or_assign(message.uid, std::move(callback));
  });
  post(message, channel);
}

void WKWebViewBridge::post(const Message& message, std::string_view channel) {
  postTo(webView_, message, channel);
}

void WKWebViewBridge::answer(Result result, const Message& ask, std::string_view channel) {
  answerTo(webView_, std::move(result), ask.uid, ask.frameId, channel);
}

void WKWebViewBridge::didReceiveScriptMessage(const AnyValue& body) {
  const Dictionary* dictionary = body.if_object();
  if (!dictionary) return;
  std::optional<std::string> channel = asString(*dictionary, "channelName");
  if (!channel) return;
  std::optional<Message> message = Message::parse(*dictionary);
  if (!message) return;

  switch (message->type) {
    case MessageType::ask:
      receiveAsk(*message, *channel);
      break;
    case MessageType::answer:
      receiveAnswer(*message);
      break;
    case MessageType::inject:
      printLine("Going to inject js sdk");
      evaluateLater(webView_, std::string(bridgeScript()));
      break;
    case MessageType::debug:
      logLine("!!! " + name_ + " Webview Debug: " + describe(message->data));
      break;
    case MessageType::log:
      logLine("$$$ " + name_ + " Webview Log: " + describe(message->data));
      break;
  }
}

void WKWebViewBridge::receiveAsk(const Message& ask, const std::string& channel) {
  auto it = channels_.find(channel);
  if (it == channels_.end()) return;  // unanswered here; the page's time-out answers it
  const std::vector<ChannelHandler>& handlers = it->second;
  // By index, each handler copied before it runs: a handler may register
  // more handlers, which would move the ones in the list.
  for (std::size_t i = 0, n = handlers.size(); i < n; ++i) {
    ChannelHandler handler = handlers[i];
    handler(ask, [webView = webView_, uid = ask.uid, frameId = ask.frameId,
                  channel](Result result) {
      answerTo(webView, std::move(result), uid, frameId, channel);
    });
  }
}

void WKWebViewBridge::receiveAnswer(const Message& answer) {
  std::optional<ResultCallback> callback = callbacks_.removeValue(answer.uid);
  if (!callback) return;
  if (answer.err) {
    (*callback)(failure(*answer.err));
  } else {
    (*callback)(Result(answer.data));
  }
}

}  // namespace appex
