#include "api/http_request_error.h"

namespace appex {

HttpRequestError HttpRequestError::clientError(HttpTransportError error) {
  HttpRequestError e(Case::clientError);
  e.transport_ = std::move(error);
  return e;
}

HttpRequestError HttpRequestError::serverError(std::optional<HttpResponseHead> response,
                                               std::optional<std::string> body) {
  HttpRequestError e(Case::serverError);
  e.response_ = std::move(response);
  e.body_ = std::move(body);
  return e;
}

std::string_view HttpRequestError::name(Case c) {
  switch (c) {
    case Case::clientError: return "clientError";
    case Case::serverError: return "serverError";
    case Case::invalidJson: return "invalidJson";
    case Case::invalidUrl: return "invalidUrl";
    case Case::invalidText: return "invalidText";
  }
  return "unknown";
}

std::string HttpRequestError::describe(const std::optional<HttpResponseHead>& response) {
  if (!response) return "no HTTP response";
  return "HTTP " + std::to_string(response->status) + " from " + response->url;
}

std::string HttpRequestError::describe(const HttpTransportError& error) {
  return "code " + std::to_string(error.code) + ": " + error.message;
}

std::string HttpRequestError::description() const {
  std::string text(name(kind_));
  switch (kind_) {
    case Case::clientError:
      text += "(" + (transport_ ? describe(*transport_) : std::string("unknown")) + ")";
      break;
    case Case::serverError:
      text += "(" + describe(response_) + ", " +
              (body_ ? std::to_string(body_->size()) + " bytes" : std::string("no body")) + ")";
      break;
    default:
      break;
  }
  return text;
}

}  // namespace appex
