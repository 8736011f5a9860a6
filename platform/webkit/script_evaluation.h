// Script evaluation with a result, for hosts that drive pages from outside
// (the automation protocol's "eval"): runs `code` as an expression in a page
// and hands back its value as JSON. A returned promise is awaited; a thrown
// error (or a rejection) becomes the failure with its message. undefined
// and functions come back as null; a value holding a DOM node, a window or
// a BigInt, or a cyclic one, is a failure that says so.
//
// Main thread only; completions run on the main thread.
#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string>

#include "host/any_value.h"

namespace appex {
class WebView;
}

namespace appex::webkit {

class WebKitTab;

using EvaluationCompletion = std::move_only_function<void(std::expected<AnyValue, std::string>)>;

// In the page world of a web view made by the engine (the background page,
// the popup).
void evaluateInWebView(const std::shared_ptr<WebView>& view, std::string code,
                       EvaluationCompletion completion);

// In a tab's top frame: in the content scripts' world, or in the page's own
// world when `contentWorld` is false.
void evaluateInTab(const std::shared_ptr<WebKitTab>& tab, std::string code, bool contentWorld,
                   EvaluationCompletion completion);

}  // namespace appex::webkit
