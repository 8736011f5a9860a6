#include "api/http_request_preparation.h"

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <vector>

namespace appex {
namespace {

// JSON text cannot hold NaN or infinities (a parsed "1e999" is one).
bool allNumbersFinite(const AnyValue& root) {
  std::vector<const AnyValue*> stack{&root};
  while (!stack.empty()) {
    const AnyValue* v = stack.back();
    stack.pop_back();
    if (const auto* d = v->if_double()) {
      if (!std::isfinite(*d)) return false;
    } else if (const auto* a = v->if_array()) {
      for (const auto& e : *a) stack.push_back(&e);
    } else if (const auto* o = v->if_object()) {
      for (const auto& kv : *o) stack.push_back(&kv.value());
    }
  }
  return true;
}

bool isContentType(std::string_view name) {
  constexpr std::string_view kName = "content-type";
  return name.size() == kName.size() &&
         std::equal(name.begin(), name.end(), kName.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == b;
         });
}

}  // namespace

std::expected<PreparedHttpRequest, Err> prepareHttpRequest(const std::optional<AnyValue>& args) {
  const Dictionary* d = args ? asDictionary(*args) : nullptr;
  if (!d) return std::unexpected(Err::or_("[request] args must be a dictionary"));
  auto url = asString(*d, "url");
  if (!url) return std::unexpected(Err::or_("[request] url is required"));

  PreparedHttpRequest prepared;
  prepared.url = std::move(*url);
  prepared.method = asString(*d, "method").value_or("GET");

  if (prepared.method != "GET") {
    if (auto it = d->find("data"); it != d->end()) {
      if (const auto* s = it->value().if_string()) {
        prepared.body = std::string(s->data(), s->size());
      } else if (it->value().is_object() && allNumbersFinite(it->value())) {
        prepared.body = boost::json::serialize(it->value());
      }
    }
  }

  if (auto it = d->find("headers"); it != d->end()) {
    if (auto fields = asStringDictionary(it->value())) prepared.headers = std::move(*fields);
  }
  std::erase_if(prepared.headers, [](const auto& field) { return isContentType(field.first); });
  prepared.headers.emplace_back("Content-Type", "application/json");
  return prepared;
}

}  // namespace appex
