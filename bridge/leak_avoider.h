// LeakAvoider: the script-message handler a web view actually holds for a
// bridge.
//
// A web view owns its script-message handlers. Registering the bridge itself
// would let the web view keep the bridge alive; LeakAvoider holds the bridge
// (its `delegate`) weakly instead and forwards each message to it while it
// exists, dropping the message once it is gone.
//
// Main queue only.
#pragma once

#include <memory>

#include "platform/script_message_handler.h"
#include "platform/web_view.h"

namespace appex {

class LeakAvoider final : public ScriptMessageHandler {
 public:
  explicit LeakAvoider(std::weak_ptr<ScriptMessageHandler> delegate)
      : delegate_(std::move(delegate)) {}

  std::shared_ptr<ScriptMessageHandler> delegate() const { return delegate_.lock(); }

  void didReceiveScriptMessage(const AnyValue& body) override;

  // What to register with WebView::addScriptMessageHandler: a callback that
  // owns a LeakAvoider for `delegate` (and so only refers to it weakly).
  static WebView::ScriptMessageCallback callbackFor(std::weak_ptr<ScriptMessageHandler> delegate);

 private:
  std::weak_ptr<ScriptMessageHandler> delegate_;
};

}  // namespace appex
