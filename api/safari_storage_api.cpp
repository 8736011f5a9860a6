#include "api/safari_storage_api.h"

#include "core/context.h"
#include "core/log.h"
#include "platform/bundle.h"

namespace appex {
namespace {

AnyValue stringOrNull(const std::optional<std::string>& s) {
  return s ? AnyValue(boost::json::string(*s)) : AnyValue(nullptr);
}

Dictionary changeRecord(AnyValue oldValue, AnyValue newValue) {
  Dictionary record;
  record.emplace("oldValue", std::move(oldValue));
  record.emplace("newValue", std::move(newValue));
  return record;
}

}  // namespace

std::shared_ptr<SafariStorageAPI> SafariStorageAPI::create(Context& context) {
  auto defaults = context.get<UserDefaults>();
  auto bundle = context.get<Bundle>();
  return std::make_shared<SafariStorageAPI>(std::move(defaults), bundle->bundleIdentifier());
}

std::shared_ptr<SafariStorageAPI> SafariStorageAPI::shared() {
  return Context::current().get<SafariStorageAPI>();
}

SafariStorageAPI::SafariStorageAPI(std::shared_ptr<UserDefaults> defaults, std::string domain)
    : defaults_(std::move(defaults)), domain_(std::move(domain)), emitter_(EventEmitter<EventPayload>::create()) {}

void SafariStorageAPI::reportFailure(std::string_view operation, const std::string& error) const {
  logLine("[storage.local." + std::string(operation) + "] " + error);
}

Dictionary SafariStorageAPI::get(const std::vector<std::string>& keys) const {
  Dictionary out;
  for (const auto& key : keys) out.insert_or_assign(key, stringOrNull(defaults_->stringForKey(key)));
  return out;
}

// set and remove write all their keys as one durable change. Each key's
// old value is what it held before this command's earlier keys, as if they
// had been written one by one: a key named twice reports the first write as
// the second's old value.
void SafariStorageAPI::set(const std::vector<std::pair<std::string, std::string>>& items) {
  Dictionary changes;
  std::vector<std::pair<std::string, AnyValue>> writes;
  writes.reserve(items.size());
  for (const auto& [key, value] : items) {
    AnyValue newValue = boost::json::string(value);
    auto* earlier = changes.if_contains(key);
    AnyValue oldValue = earlier ? earlier->as_object().at("newValue") : stringOrNull(defaults_->stringForKey(key));
    changes.insert_or_assign(key, changeRecord(std::move(oldValue), newValue));
    writes.emplace_back(key, std::move(newValue));
  }
  if (auto r = defaults_->setObjects(writes); !r) reportFailure("set", r.error());
  emitter_->fire("change", EventPayload::json(std::move(changes)));
}

void SafariStorageAPI::remove(const std::vector<std::string>& keys) {
  Dictionary changes;
  for (const auto& key : keys) {
    AnyValue oldValue = changes.contains(key) ? AnyValue(nullptr) : stringOrNull(defaults_->stringForKey(key));
    changes.insert_or_assign(key, changeRecord(std::move(oldValue), nullptr));
  }
  if (auto r = defaults_->removeObjects(keys); !r) reportFailure("remove", r.error());
  emitter_->fire("change", EventPayload::json(std::move(changes)));
}

void SafariStorageAPI::clear() {
  const Dictionary snapshot = defaults_->dictionaryRepresentation();
  if (auto r = defaults_->removePersistentDomain(domain_); !r) reportFailure("clear", r.error());
  defaults_->synchronize();
  Dictionary changes;
  for (const auto& entry : snapshot) {
    const AnyValue oldValue = entry.value().is_string() ? entry.value() : AnyValue(nullptr);
    changes.insert_or_assign(entry.key(), changeRecord(oldValue, nullptr));
  }
  emitter_->fire("change", EventPayload::json(std::move(changes)));
}

Dictionary SafariStorageAPI::all() const { return defaults_->dictionaryRepresentation(); }

}  // namespace appex
