// HttpRequestError: why an HTTP request did not produce a success answer.
//
// Cases, in this order: clientError (the transport failed before a response:
// no connection, time-out, cancelled; carries that failure), serverError
// (a response outside 200..299, or not an HTTP response at all; carries the
// response head, if any, and the body, if any), invalidJson, invalidUrl,
// invalidText (no payload). The description is what web code receives as the
// failure text: the case name, then the payload in parentheses for the two
// cases that have one, e.g. "clientError(code 7: Connection refused)".
//
// A value type; thread-safe as such.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/http_client.h"

namespace appex {

class HttpRequestError {
 public:
  enum class Case { clientError, serverError, invalidJson, invalidUrl, invalidText };

  static HttpRequestError clientError(HttpTransportError error);
  static HttpRequestError serverError(std::optional<HttpResponseHead> response,
                                      std::optional<std::string> body);
  static HttpRequestError invalidJson() { return HttpRequestError(Case::invalidJson); }
  static HttpRequestError invalidUrl() { return HttpRequestError(Case::invalidUrl); }
  static HttpRequestError invalidText() { return HttpRequestError(Case::invalidText); }

  Case kind() const { return kind_; }
  const std::optional<HttpTransportError>& transportError() const { return transport_; }
  const std::optional<HttpResponseHead>& response() const { return response_; }
  const std::optional<std::string>& body() const { return body_; }

  // The case name, e.g. "serverError".
  static std::string_view name(Case c);
  // The failure text handed to web code.
  std::string description() const;

  // "HTTP 404 from <url>", or "no HTTP response".
  static std::string describe(const std::optional<HttpResponseHead>& response);
  // "code 7: <message>".
  static std::string describe(const HttpTransportError& error);

 private:
  explicit HttpRequestError(Case kind) : kind_(kind) {}

  Case kind_;
  std::optional<HttpTransportError> transport_;
  std::optional<HttpResponseHead> response_;
  std::optional<std::string> body_;
};

}  // namespace appex
