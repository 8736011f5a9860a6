#include "api/http_request.h"

#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include "core/context.h"
#include "core/log.h"
#include "host/json.h"
#include "host/utf8.h"
#include "platform/curl_http_client.h"

namespace appex {
namespace {

// Text from the wire as UTF-8: as it is when it is UTF-8, else read as
// ISO-8859-1 (each byte one character), as HTTP has historically defined
// header bytes. Every answer then holds only UTF-8, so the script that
// carries it to the page is text a web view can run; a server's stray
// Latin-1 header would otherwise make the whole answer undeliverable.
std::string asText(std::string_view bytes) {
  if (isValidUtf8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char ch : bytes) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out.push_back(ch);
    } else {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return out;
}

Dictionary toDictionary(const HttpHeaderFields& fields) {
  Dictionary d;
  for (const auto& [name, value] : fields) d.insert_or_assign(asText(name), asText(value));
  return d;
}

}  // namespace

std::shared_ptr<HttpRequest> HttpRequest::create(Context& context) {
  std::shared_ptr<HttpClient> client = context.find<HttpClient>();
  if (!client) client = context.get<CurlHttpClient>();
  return std::make_shared<HttpRequest>(std::move(client));
}

std::shared_ptr<HttpRequest> HttpRequest::shared() { return Context::current().get<HttpRequest>(); }

HttpRequest::HttpRequest(std::shared_ptr<HttpClient> client) : client_(std::move(client)) {}

bool HttpRequest::isFetchableUrl(std::string_view url) {
  auto parsed = boost::urls::parse_uri(url);
  if (!parsed) return false;
  const auto scheme = parsed->scheme_id();
  if (scheme != boost::urls::scheme::http && scheme != boost::urls::scheme::https) return false;
  return parsed->has_authority() && !parsed->encoded_host().empty();
}

void HttpRequest::request(std::string url, std::string method, std::optional<std::string> body,
                          std::optional<HttpHeaderFields> headers, ResultCallback callback) {
  if (!isFetchableUrl(url)) {
    callback(failure(std::string(Error::name(Error::Case::invalidUrl))));
    return;
  }
  logLine("[Request] " + method + " " + url + " " +
          (headers ? boost::json::serialize(toDictionary(*headers)) : std::string("(no headers)")));
  HttpClientRequest outgoing{std::move(url), std::move(method), std::move(body),
                             headers ? std::move(*headers) : HttpHeaderFields{}, kTimeout};
  client_->send(std::move(outgoing), [callback = std::move(callback)](HttpClientResult result) mutable {
    callback(buildAnswer(classify(std::move(result))));
  });
}

HttpRequestCompletion HttpRequest::classify(HttpClientResult result) {
  if (result.error) {
    logLine("[Request] client error: " + Error::describe(*result.error));
    return {std::unexpected(Error::clientError(std::move(*result.error))), std::nullopt, std::nullopt};
  }
  std::optional<Dictionary> headers;
  std::optional<std::int64_t> status;
  if (result.response) {
    headers = toDictionary(result.response->headers);
    status = result.response->status;
  }
  if (status && *status >= 200 && *status <= 299) {
    return {std::move(result.body), std::move(headers), status};
  }
  logLine("[Request] server error: " + Error::describe(result.response));
  return {std::unexpected(Error::serverError(std::move(result.response), std::move(result.body))),
          std::move(headers), status};
}

Result HttpRequest::buildAnswer(const HttpRequestCompletion& completion) {
  // The description quotes the transport's message and the final URL.
  if (!completion.result) return failure(asText(completion.result.error().description()));
  AnyValue data = nullptr;
  if (const auto& body = *completion.result) {
    if (auto parsed = JSON::parse(*body)) {
      data = std::move(*parsed);
    } else if (isValidUtf8(*body)) {
      data = boost::json::string(*body);
    }
  }
  Dictionary answer;
  answer.emplace("data", std::move(data));
  answer.emplace("status", completion.status ? AnyValue(*completion.status) : AnyValue(nullptr));
  answer.emplace("headers", completion.headers ? AnyValue(*completion.headers) : AnyValue(nullptr));
  return success(std::move(answer));
}

}  // namespace appex
