// HttpRequest: performs the network request behind the "httpRequest"
// command, classifies the outcome and builds the answer web code receives.
//
// Only absolute http and https URLs are fetched; anything else (including
// file: and ftp:) is answered "invalidUrl" before `request` returns, with no
// file-system or network access and no log line. Everything else is sent
// through the HttpClient (60-second time-out) and answered from the client's
// completion thread. Success (status 200..299) answers
// {"data", "status", "headers"}; any other outcome answers the description
// of an HttpRequestError (see there). One "[Request] ..." log line is written
// per request sent, and one more per failure.
//
// The process-wide instance uses the HttpClient installed in its Context, or
// else the Context's CurlHttpClient.
//
// Thread-safe: `request` may be called from any thread; the callback is
// called exactly once.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "api/http_request_error.h"
#include "host/any_value.h"
#include "host/result.h"
#include "platform/http_client.h"

namespace appex {

class Context;

// A request's classified outcome: the body (possibly absent) or the error,
// with the response's header fields and status when there was an HTTP
// response (and the transport did not fail).
struct HttpRequestCompletion {
  std::expected<std::optional<std::string>, HttpRequestError> result;
  std::optional<Dictionary> headers;
  std::optional<std::int64_t> status;
};

class HttpRequest {
 public:
  using Error = HttpRequestError;

  static constexpr std::chrono::seconds kTimeout{60};

  static std::shared_ptr<HttpRequest> create(Context& context);
  static std::shared_ptr<HttpRequest> shared();

  explicit HttpRequest(std::shared_ptr<HttpClient> client);

  // Sends `method` to `url`, with `body` when present and exactly the
  // header fields `headers` when present.
  void request(std::string url, std::string method, std::optional<std::string> body,
               std::optional<HttpHeaderFields> headers, ResultCallback callback);

  // True for an absolute http or https URL with a host.
  static bool isFetchableUrl(std::string_view url);

  // Sorts a client result into success or an error case; writes the
  // "[Request] client error: " or "[Request] server error: " line.
  static HttpRequestCompletion classify(HttpClientResult result);

  // The answer for web code. "data" is the body parsed as JSON (an object or
  // an array at the top), else the body as UTF-8 text, else null; null also
  // without a body. Status and headers of a failure are not passed on.
  // Header fields and failure texts that are not UTF-8 are read as
  // ISO-8859-1, so the answer is always text a page can be sent.
  static Result buildAnswer(const HttpRequestCompletion& completion);

 private:
  const std::shared_ptr<HttpClient> client_;
};

}  // namespace appex
