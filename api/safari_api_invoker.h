// SafariApiInvoker: turns a command name and its arguments, sent by web code
// (a content script, the background page or the popup), into native work,
// and hands exactly one result back.
//
// The command table, in dispatch order: extension.info,
// extension.closePopup, extension.setPopupHeight, tabs.get, tabs.remove,
// tabs.create, tabs.update, tabs.query, tabs.all, windows.get,
// windows.getLastFocused, windows.getAll, windows.remove, windows.create,
// windows.all, storage.local.all, storage.local.get, storage.local.clear,
// storage.local.remove, storage.local.set, browserAction.setIcon,
// browserAction.setBadgeText, httpRequest. Names compare exactly; anything
// else answers "[invokeAPI] Unknown cmd". Each command checks its arguments
// in a fixed order and answers the first failing check's text exactly as web
// code is promised it (several name another command, or say "tab" for a
// window: they are kept as they are).
//
// Synchronous commands answer before invokeAPI returns; the others answer
// from the thread a browser or network completion arrives on, so the
// callback must be safe to call from any thread.
//
// Keeps no state of its own; the APIs it reaches are the Context's shared
// instances. Thread-safe.
#pragma once

#include <optional>
#include <string>

#include "host/result.h"

namespace appex {

class Context;

class SafariApiInvoker {
 public:
  // Uses the current Context's shared objects.
  SafariApiInvoker();
  explicit SafariApiInvoker(Context& context);

  void invokeAPI(const std::string& cmd, const std::optional<AnyValue>& args,
                 ResultCallback callback) const;

 private:
  Context& context_;
};

}  // namespace appex
