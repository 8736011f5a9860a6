#include "platform/webkit/script_evaluation.h"

#include "host/json.h"
#include "platform/webkit/browser_internals.h"
#include "platform/webkit/gtk_web_view.h"

namespace appex::webkit {
namespace {

// The code arrives as the argument `code` and is evaluated as an
// expression; the async wrapper lets the engine await a returned promise.
// The value comes back as JSON text, made in the page: values JSON would
// silently turn into {} or drop (DOM nodes, windows, BigInts) are refused
// with an error that says what they were.
constexpr const char* kBody = R"JS(
const value = await (0, eval)(code);
const refuse = (what, key) => {
  throw new TypeError('the result holds ' + what + (key === '' ? '' : ' at "' + key + '"') +
                      ', which has no JSON form');
};
return JSON.stringify(value, function (key, v) {
  if (typeof v === 'bigint') refuse('a BigInt', key);
  if (typeof Node === 'function' && v instanceof Node) refuse('a DOM node (' + v.nodeName + ')', key);
  if (typeof Window === 'function' && v instanceof Window) refuse('a window', key);
  return v;
});
)JS";

void evaluated(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<EvaluationCompletion> completion(static_cast<EvaluationCompletion*>(data));
  GError* error = nullptr;
  JSCValue* value = webkit_web_view_call_async_javascript_function_finish(WEBKIT_WEB_VIEW(source),
                                                                          result, &error);
  if (!value) {
    std::string reason = error ? error->message : "evaluation failed";
    if (error) g_error_free(error);
    (*completion)(std::unexpected(std::move(reason)));
    return;
  }
  AnyValue out = nullptr;  // undefined, a function: no JSON form, null
  if (jsc_value_is_string(value)) {
    char* json = jsc_value_to_string(value);
    if (auto parsed = JSON::parse(json, /*allowFragments=*/true)) out = std::move(*parsed);
    g_free(json);
  }
  g_object_unref(value);
  (*completion)(std::move(out));
}

void evaluate(WebKitWebView* view, const std::string& code, const char* world,
              EvaluationCompletion completion) {
  if (!view) {
    completion(std::unexpected(std::string("no page to evaluate in")));
    return;
  }
  GVariantBuilder arguments;
  g_variant_builder_init(&arguments, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&arguments, "{sv}", "code", g_variant_new_string(code.c_str()));
  webkit_web_view_call_async_javascript_function(view, kBody, -1, g_variant_builder_end(&arguments),
                                                 world, nullptr, nullptr, &evaluated,
                                                 new EvaluationCompletion(std::move(completion)));
}

}  // namespace

void evaluateInWebView(const std::shared_ptr<WebView>& view, std::string code,
                       EvaluationCompletion completion) {
  auto* engineView = dynamic_cast<GtkWebView*>(view.get());
  evaluate(engineView ? engineView->webkitWebView() : nullptr, code, nullptr, std::move(completion));
}

void evaluateInTab(const std::shared_ptr<WebKitTab>& tab, std::string code, bool contentWorld,
                   EvaluationCompletion completion) {
  WebKitWebView* view = tab && !tab->isClosed() ? tab->internals().view : nullptr;
  evaluate(view, code, contentWorld ? kContentWorldName : nullptr, std::move(completion));
}

}  // namespace appex::webkit
