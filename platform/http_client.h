// HttpClient: sends one HTTP request and reports what came back, with no
// interpretation of the status or the body (that is HttpRequest's job).
//
// The host or a test may install its own client with
// `Context::current().set<HttpClient>(...)` (for instance to feed arbitrary
// responses to the answer builder); otherwise HttpRequest uses the process's
// CurlHttpClient.
//
// Thread-safe: `send` may be called from any thread; the completion runs
// exactly once, on a thread of the client's choosing, never inside `send`.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace appex {

using HttpHeaderFields = std::vector<std::pair<std::string, std::string>>;

struct HttpClientRequest {
  std::string url;     // absolute http or https URL
  std::string method;  // sent as given (no case folding)
  std::optional<std::string> body;
  HttpHeaderFields headers;  // replaces the client's default header set
  // Longest wait for the connection or for the next bytes of the response.
  std::chrono::seconds timeout{60};
};

// The response head, as received (after any redirects the client followed).
struct HttpResponseHead {
  long status = 0;
  std::string url;  // final URL
  // Each field once, in arrival order; repeated fields are joined with ", ".
  HttpHeaderFields headers;
};

// The request failed before a complete response arrived.
struct HttpTransportError {
  int code = 0;  // the client's own error number
  std::string message;
};

struct HttpClientResult {
  std::optional<HttpTransportError> error;
  std::optional<HttpResponseHead> response;  // absent without an HTTP response
  std::optional<std::string> body;           // absent when no bytes came
};

class HttpClient {
 public:
  using Completion = std::move_only_function<void(HttpClientResult)>;

  virtual ~HttpClient() = default;
  virtual void send(HttpClientRequest request, Completion completion) = 0;
};

}  // namespace appex
