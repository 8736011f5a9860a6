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
  std::string text = "HTTP ";
  text.append(std::to_string(response->status)).append(" from ").append(response->url);
  return text;
}

std::string HttpRequestError::describe(const HttpTransportError& error) {
  std::string text = "code ";
  text.append(std::to_string(error.code)).append(": ").append(error.message);
  return text;
}

std::string HttpRequestError::description() const {
  std::string text(name(kind_));
  switch (kind_) {
    case Case::clientError:
      text.append("(").append(transport_ ? describe(*transport_) : std::string("unknown")).append(")");
      break;
    case Case::serverError:
      text.append("(").append(describe(response_)).append(", ");
      if (body_) {
        text.append(std::to_string(body_->size())).append(" bytes");
      } else {
        text.append("no body");
      }
      text.append(")");
      break;
    default:
      break;
  }
  return text;
}

}  // namespace appex
