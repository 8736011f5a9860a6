// prepareHttpRequest: turns the arguments of the "httpRequest" command into
// what HttpRequest::request takes.
//
// args must be a dictionary with a string "url" (else the failures
// "[request] args must be a dictionary" / "[request] url is required").
// Method: "method" if it is a string, else "GET", passed on unchanged (no
// case folding). Body: none when the method is exactly "GET"; otherwise
// "data" as UTF-8 bytes when a string, its compact JSON text when a
// dictionary, and none for anything else (or a dictionary JSON cannot
// express). Headers: "headers" when it is a dictionary of strings, else
// none; then "Content-Type: application/json" always, replacing a caller's
// Content-Type in any letter case.
//
// Thread-safe (no state).
#pragma once

#include <expected>
#include <optional>
#include <string>

#include "host/any_value.h"
#include "host/err.h"
#include "platform/http_client.h"

namespace appex {

struct PreparedHttpRequest {
  std::string url;
  std::string method;
  std::optional<std::string> body;
  HttpHeaderFields headers;
};

std::expected<PreparedHttpRequest, Err> prepareHttpRequest(const std::optional<AnyValue>& args);

}  // namespace appex
