// UserDefaults: the extension's persistent key/value settings (its own
// defaults domain), the store behind "storage.local.*" and the values that
// "extension.info" reads back.
//
// Keys are strings; values may be of any JSON shape. A string read
// (`stringForKey`) reports a stored value of another shape as absent. A write
// or removal that returns success is durable; the batch forms make several
// keys durable at the cost of one. The host installs the store it
// uses with `Context::current().set<UserDefaults>(...)`; nothing creates one
// implicitly.
//
// Thread-safe: implementations must allow any number of threads at once.
#pragma once

#include <expected>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "host/any_value.h"

namespace appex {

class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  // The string stored under `key`; absent if nothing or a non-string is.
  virtual std::optional<std::string> stringForKey(std::string_view key) = 0;

  // Stores `value` under `key`, replacing what was there. On failure nothing
  // changed and the text says why.
  virtual std::expected<void, std::string> setObject(std::string_view key, const AnyValue& value) = 0;

  // Removes `key` (nothing to remove is a success).
  virtual std::expected<void, std::string> removeObject(std::string_view key) = 0;

  // Stores every pair, in order (a later pair for a key wins), as one
  // change: on success all are stored, on failure none changed and the
  // text says why.
  virtual std::expected<void, std::string> setObjects(
      std::span<const std::pair<std::string, AnyValue>> items) = 0;

  // Removes every key as one change, like setObjects.
  virtual std::expected<void, std::string> removeObjects(std::span<const std::string> keys) = 0;

  // Every readable key with its value, any shape.
  virtual Dictionary dictionaryRepresentation() = 0;

  // Drops every value of the persistent domain `name`. A store serves one
  // domain; a name that is not its own changes nothing.
  virtual std::expected<void, std::string> removePersistentDomain(std::string_view name) = 0;

  // Brings the persistent form up to date; true when it is.
  virtual bool synchronize() = 0;
};

}  // namespace appex
