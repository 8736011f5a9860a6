#include "api/http_request_preparation.h"

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <cctype>

#include "host/json.h"

namespace appex {
namespace {

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
      } else if (it->value().is_object() && !JSON::hasNonFiniteNumber(it->value())) {
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
