// The web-process half of content scripts: loaded by WebKit into every web
// process of the browser's tab context (the folder given to
// webkit_web_context_set_web_extensions_directory), never into the engine's
// own context, so the background and popup pages never see any of this.
//
// Each frame of each tab page gets, in the content-script world only, the
// `safari` object the extension's scripts expect:
//
//   safari.extension.dispatchMessage(name, userInfo)   to the extension
//   safari.extension.baseURI                           the bundle's base URI
//   safari.self.addEventListener("message", fn)        from the extension
//
// It is defined when WebKit clears the world's window object for a new
// document ("window-object-cleared"), which comes before the user scripts
// that the UI process injects at document start, so they find it in place.
// The page's own world never has it: a page cannot post to the extension.
//
// Wire protocol with the UI process (WebKitUserMessage). A frame is named
// by a frame address: 0 for the top frame, else WebKit's frame id.
//   "appex.content.post"       web process -> the tab's web view, "(ssts)":
//                              message name, userInfo as JSON text or ""
//                              for none, the posting frame's address and
//                              its document's URL
//   "appex.content.deliver"    the tab's web view -> one frame of its page,
//                              "(sst)": message name, userInfo JSON, the
//                              frame's address
//   "appex.content.frame-gone" web process -> the tab's web view, "(t)": a
//                              subframe that posted may have done so for
//                              the last time
//   "appex.content.console"    web process -> the tab's web view: a content
//                              script's console message, "(ss)" level and
//                              text (the world's console is hooked as
//                              platform/webkit/console_hook.h describes)
//
// Initialisation data "(ss)": the world's name and the base URI.
//
// Everything here runs on the web process's main thread.
#include <webkit2/webkit-web-extension.h>

#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "platform/webkit/console_hook.h"

namespace {

using appex::webkit::kConsoleHook;
using appex::webkit::kConsoleMessageName;

constexpr const char* kPostName = "appex.content.post";
constexpr const char* kDeliverName = "appex.content.deliver";
constexpr const char* kFrameGoneName = "appex.content.frame-gone";

// Evaluates to a function (post, baseURI) that installs `safari` in the
// calling world's window and returns the deliver(name, json) function the
// native side calls for each message to the page. Built-ins are captured
// up front so that later content-script code cannot redirect them.
constexpr const char kInstaller[] = R"JS(
(function (post, baseURI) {
  'use strict';
  var stringify = JSON.stringify;
  var parse = JSON.parse;
  var isArray = Array.isArray;
  var now = Date.now;
  var listeners = [];

  function isListener(listener) {
    return typeof listener === 'function' ||
        (listener !== null && typeof listener === 'object' && typeof listener.handleEvent === 'function');
  }

  var self = Object.freeze({
    addEventListener: function (type, listener) {
      if (type !== 'message' || !isListener(listener)) return;
      if (listeners.indexOf(listener) === -1) listeners.push(listener);
    },
    removeEventListener: function (type, listener) {
      if (type !== 'message') return;
      var index = listeners.indexOf(listener);
      if (index !== -1) listeners.splice(index, 1);
    }
  });

  var extension = Object.freeze({
    baseURI: baseURI,
    dispatchMessage: function (name, userInfo) {
      if (arguments.length < 1) throw new TypeError('dispatchMessage needs a message name');
      var json = '';
      if (userInfo !== undefined && userInfo !== null) {
        if (typeof userInfo !== 'object' || isArray(userInfo)) {
          throw new TypeError('dispatchMessage: userInfo must be a dictionary');
        }
        json = stringify(userInfo);  // throws on values JSON cannot carry
      }
      post(String(name), json);
    }
  });

  Object.defineProperty(window, 'safari', {
    value: Object.freeze({ extension: extension, self: self }),
    enumerable: false, configurable: false, writable: false
  });

  return function deliver(name, json) {
    var event = {
      type: 'message', name: name, message: json === '' ? undefined : parse(json),
      target: self, timeStamp: now()
    };
    listeners.slice().forEach(function (listener) {
      try {
        if (typeof listener === 'function') listener.call(self, event);
        else listener.handleEvent(event);
      } catch (e) {
        console.error('a "message" listener failed: ' + e);
      }
    });
  };
})
)JS";

struct FrameEntry {
  JSCContext* context = nullptr;
  JSCValue* deliver = nullptr;
  WebKitFrame* frame = nullptr;  // not owned; the entry goes with the frame
  bool isMain = false;
};

using FrameKey = std::pair<guint64, guint64>;  // (page id, frame id)

struct State {
  WebKitWebExtension* extension = nullptr;
  WebKitScriptWorld* world = nullptr;
  std::string baseURI;
  // Per page, per frame: the frame's current document's deliver function.
  std::map<guint64, std::map<guint64, FrameEntry>> frames;
  // Frames watched for their end (one weak reference each).
  std::map<FrameKey, bool> watched;
};

State* state = nullptr;

void release(FrameEntry& entry) {
  if (entry.deliver) g_object_unref(entry.deliver);
  if (entry.context) g_object_unref(entry.context);
  entry = {};
}

// Clears and reports a pending exception of `context`; true if there was one.
bool reportException(JSCContext* context, const char* what) {
  JSCException* exception = jsc_context_get_exception(context);
  if (!exception) return false;
  char* report = jsc_exception_report(exception);
  g_warning("content world: %s: %s", what, report ? report : "(no report)");
  g_free(report);
  jsc_context_clear_exception(context);
  return true;
}

struct PostTarget {
  guint64 pageId;
  guint64 frameId = 0;  // WebKit's
  bool isMain = false;
};

// Sends the user message `name` with `parameters` to the web view of page
// `pageId`, if the page still exists.
void sendToView(guint64 pageId, const char* name, GVariant* parameters) {
  WebKitWebPage* page = webkit_web_extension_get_page(state->extension, pageId);
  if (!page) {
    g_variant_unref(g_variant_ref_sink(parameters));
    return;
  }
  webkit_web_page_send_message_to_view(page, webkit_user_message_new(name, parameters), nullptr, nullptr,
                                       nullptr);
}

// safari.extension.dispatchMessage's way out: to the tab's web view, with
// the posting frame's address and URL.
void post(const char* name, const char* json, gpointer data) {
  const auto* target = static_cast<PostTarget*>(data);
  const char* url = nullptr;
  if (auto page = state->frames.find(target->pageId); page != state->frames.end()) {
    if (auto frame = page->second.find(target->frameId); frame != page->second.end() && frame->second.frame) {
      url = webkit_frame_get_uri(frame->second.frame);
    }
  }
  sendToView(target->pageId, kPostName,
             g_variant_new("(ssts)", name ? name : "", json ? json : "", target->isMain ? 0 : target->frameId,
                           url ? url : ""));
}

// The console hook's way out: the world's console messages, to the tab's
// web view.
void reportConsole(const char* level, const char* text, gpointer data) {
  sendToView(static_cast<PostTarget*>(data)->pageId, kConsoleMessageName,
             g_variant_new("(ss)", level ? level : "log", text ? text : ""));
}

// Hooks the world's console in `context` (before any content script runs).
void hookConsole(JSCContext* context, guint64 pageId) {
  JSCValue* hook = jsc_context_evaluate(context, kConsoleHook, -1);
  if (reportException(context, "console hook") || !jsc_value_is_function(hook)) {
    g_object_unref(hook);
    return;
  }
  JSCValue* report = jsc_value_new_function(
      context, nullptr, G_CALLBACK(reportConsole), new PostTarget{pageId},
      [](gpointer data) { delete static_cast<PostTarget*>(data); }, G_TYPE_NONE, 2, G_TYPE_STRING,
      G_TYPE_STRING);
  // Only the content scripts' own errors: the window's error events carry
  // the page's too.
  JSCValue* result = jsc_value_function_call(hook, JSC_TYPE_VALUE, report, G_TYPE_STRING, "own", G_TYPE_NONE);
  reportException(context, "console hook");
  g_object_unref(result);
  g_object_unref(report);
  g_object_unref(hook);
}

void onFrameGone(gpointer data, GObject*) {
  auto* key = static_cast<FrameKey*>(data);
  state->watched.erase(*key);
  bool wasSubframe = false;
  if (auto page = state->frames.find(key->first); page != state->frames.end()) {
    if (auto frame = page->second.find(key->second); frame != page->second.end()) {
      wasSubframe = !frame->second.isMain;
      release(frame->second);
      page->second.erase(frame);
    }
  }
  if (wasSubframe) sendToView(key->first, kFrameGoneName, g_variant_new("(t)", key->second));
  delete key;
}

void onWindowObjectCleared(WebKitScriptWorld* world, WebKitWebPage* page, WebKitFrame* frame, gpointer) {
  const guint64 pageId = webkit_web_page_get_id(page);
  const guint64 frameId = webkit_frame_get_id(frame);
  JSCContext* context = webkit_frame_get_js_context_for_script_world(frame, world);
  if (!context) return;

  JSCValue* installer = jsc_context_evaluate(context, kInstaller, -1);
  if (reportException(context, "installer") || !jsc_value_is_function(installer)) {
    g_object_unref(installer);
    g_object_unref(context);
    return;
  }
  const bool isMain = webkit_frame_is_main_frame(frame) != FALSE;
  JSCValue* postFunction = jsc_value_new_function(
      context, nullptr, G_CALLBACK(post), new PostTarget{pageId, frameId, isMain},
      [](gpointer data) { delete static_cast<PostTarget*>(data); }, G_TYPE_NONE, 2, G_TYPE_STRING,
      G_TYPE_STRING);
  JSCValue* deliver = jsc_value_function_call(installer, JSC_TYPE_VALUE, postFunction, G_TYPE_STRING,
                                              state->baseURI.c_str(), G_TYPE_NONE);
  g_object_unref(postFunction);
  g_object_unref(installer);
  if (reportException(context, "install") || !jsc_value_is_function(deliver)) {
    g_object_unref(deliver);
    g_object_unref(context);
    return;
  }

  hookConsole(context, pageId);

  FrameEntry& entry = state->frames[pageId][frameId];
  release(entry);  // the frame's previous document
  entry = {context, deliver, frame, isMain};

  const FrameKey key{pageId, frameId};
  if (!state->watched[key]) {
    state->watched[key] = true;
    g_object_weak_ref(G_OBJECT(frame), &onFrameGone, new FrameKey(key));
  }
}

// A message from the extension: to the one frame it is addressed to. A
// frame that is gone (or never ran content scripts) drops it.
gboolean onPageMessage(WebKitWebPage* page, WebKitUserMessage* message, gpointer) {
  if (std::strcmp(webkit_user_message_get_name(message), kDeliverName) != 0) return FALSE;
  GVariant* parameters = webkit_user_message_get_parameters(message);
  if (!parameters || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sst)"))) return TRUE;
  const char* name = nullptr;
  const char* json = nullptr;
  guint64 address = 0;
  g_variant_get(parameters, "(&s&st)", &name, &json, &address);

  auto found = state->frames.find(webkit_web_page_get_id(page));
  if (found == state->frames.end()) return TRUE;
  JSCContext* context = nullptr;
  JSCValue* deliver = nullptr;
  for (auto& [frameId, entry] : found->second) {
    if (address == 0 ? entry.isMain : (frameId == address && !entry.isMain)) {
      // The listeners may navigate the frame, replacing the entry.
      context = JSC_CONTEXT(g_object_ref(entry.context));
      deliver = JSC_VALUE(g_object_ref(entry.deliver));
      break;
    }
  }
  if (!deliver) return TRUE;
  JSCValue* result = jsc_value_function_call(deliver, G_TYPE_STRING, name, G_TYPE_STRING, json, G_TYPE_NONE);
  reportException(context, "deliver");
  g_object_unref(result);
  g_object_unref(deliver);
  g_object_unref(context);
  return TRUE;
}

void onPageGone(gpointer data, GObject*) {
  const guint64 pageId = GPOINTER_TO_SIZE(data);
  if (auto page = state->frames.find(pageId); page != state->frames.end()) {
    for (auto& [frameId, entry] : page->second) release(entry);
    state->frames.erase(page);
  }
}

void onPageCreated(WebKitWebExtension*, WebKitWebPage* page, gpointer) {
  g_signal_connect(page, "user-message-received", G_CALLBACK(&onPageMessage), nullptr);
  static_assert(sizeof(gsize) >= sizeof(guint64), "page ids must fit a pointer");
  g_object_weak_ref(G_OBJECT(page), &onPageGone, GSIZE_TO_POINTER(webkit_web_page_get_id(page)));
}

}  // namespace

extern "C" G_MODULE_EXPORT void webkit_web_extension_initialize_with_user_data(WebKitWebExtension* extension,
                                                                                const GVariant* data) {
  auto* parameters = const_cast<GVariant*>(data);
  if (!parameters || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)"))) {
    g_warning("content world: no initialisation data; content scripts get no safari object");
    return;
  }
  const char* worldName = nullptr;
  const char* baseURI = nullptr;
  g_variant_get(parameters, "(&s&s)", &worldName, &baseURI);

  state = new State();  // lives as long as the web process
  state->extension = extension;
  state->baseURI = baseURI;
  state->world = webkit_script_world_new_with_name(worldName);
  g_signal_connect(state->world, "window-object-cleared", G_CALLBACK(&onWindowObjectCleared), nullptr);
  g_signal_connect(extension, "page-created", G_CALLBACK(&onPageCreated), nullptr);
}
