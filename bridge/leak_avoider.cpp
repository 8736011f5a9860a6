#include "bridge/leak_avoider.h"

namespace appex {

void LeakAvoider::didReceiveScriptMessage(const AnyValue& body) {
  if (auto delegate = delegate_.lock()) delegate->didReceiveScriptMessage(body);
}

WebView::ScriptMessageCallback LeakAvoider::callbackFor(
    std::weak_ptr<ScriptMessageHandler> delegate) {
  auto avoider = std::make_shared<LeakAvoider>(std::move(delegate));
  return [avoider](const AnyValue& body) { avoider->didReceiveScriptMessage(body); };
}

}  // namespace appex
