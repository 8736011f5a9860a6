// SafariStorageAPI: the "storage.local.*" commands on top of the extension's
// user defaults, and the "change" event that reports every change made
// through them.
//
// Values are strings; keys are used unchanged. set, remove and clear each
// fire exactly one "change" event on `emitter()` before returning, even when
// nothing changed (an empty input gives an empty change set). The payload
// (EventPayload::json) is a dictionary key -> {"oldValue", "newValue"}, each
// a string or null. Only changes made through this object are reported.
//
// The process-wide instance is created by the Context on first use; it takes
// the installed UserDefaults and Bundle (whose identifier is the persistent
// domain that clear drops) from that Context and keeps them.
//
// Thread-safe: operations run on the caller's thread and may run on several
// at once; a set racing another write to the same key may report a stale
// oldValue, as the defaults offer no read-modify-write. Listeners run on the
// calling thread inside the operation.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/event_emitter.h"
#include "host/any_value.h"
#include "host/event_payload.h"
#include "platform/user_defaults.h"

namespace appex {

class Context;

class SafariStorageAPI {
 public:
  static std::shared_ptr<SafariStorageAPI> create(Context& context);
  static std::shared_ptr<SafariStorageAPI> shared();

  // `domain` is the persistent domain that clear removes.
  SafariStorageAPI(std::shared_ptr<UserDefaults> defaults, std::string domain);
  SafariStorageAPI(const SafariStorageAPI&) = delete;
  SafariStorageAPI& operator=(const SafariStorageAPI&) = delete;

  // key -> stored string, or null where nothing (or a non-string) is stored.
  // Keys given twice appear once.
  Dictionary get(const std::vector<std::string>& keys) const;

  // Stores each pair in order, recording each key's old and new value, as
  // one durable change (all pairs or none): a success has reached the disk
  // when this returns.
  void set(const std::vector<std::pair<std::string, std::string>>& items);

  // Removes each key in order, as one durable change; keys that held
  // nothing are reported too.
  void remove(const std::vector<std::string>& keys);

  // Drops the whole persistent domain. The event names every key the
  // defaults held (not only those written through set), all with newValue
  // null.
  void clear();

  // Every value the defaults hold, of any shape.
  Dictionary all() const;

  const std::shared_ptr<EventEmitter<EventPayload>>& emitter() const { return emitter_; }

 private:
  // Writes that fail are logged; the change set still reports the request.
  void reportFailure(std::string_view operation, const std::string& error) const;

  const std::shared_ptr<UserDefaults> defaults_;
  const std::string domain_;
  const std::shared_ptr<EventEmitter<EventPayload>> emitter_;
};

}  // namespace appex
