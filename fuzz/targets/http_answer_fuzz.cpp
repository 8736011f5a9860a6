// The HTTP answer builder (HttpRequest::classify and buildAnswer) with
// arbitrary responses: any status, header bytes and body bytes.
//
// Input: a response in a plain text form, so seeds read like HTTP:
//   <status line>\n        a status code; "-" for a response that is not
//                          HTTP; "!<code> <message>" for a transport error
//   <name>: <value>\n ...   header fields (lines without a colon are skipped)
//   \n                     an empty line; the rest is the body
//   <body bytes>           (no empty line at all: no body)
// Line ends may be "\r\n".
//
// Properties: a transport error answers "clientError(...)", a missing or
// non-2xx response "serverError(...)", a 2xx response exactly
// {"data", "status", "headers"} with the status, every header field, and
// "data" the body parsed as JSON, else the body as text when it is UTF-8,
// else null; and every answer can be sent to a page: it stringifies, and
// its composed script is well-formed UTF-8 (a web view cannot run a script
// that is not) that checks out.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "api/http_request.h"
#include "fuzz/support/composed_script.h"
#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "host/json.h"
#include "host/message.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

std::string_view takeLine(std::string_view& rest, bool& found) {
  const auto end = rest.find('\n');
  found = end != std::string_view::npos;
  std::string_view line = rest.substr(0, end);
  rest = found ? rest.substr(end + 1) : std::string_view();
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

HttpClientResult readResponse(std::string_view text) {
  HttpClientResult result;
  bool more = false;
  const std::string_view status = takeLine(text, more);
  if (status.starts_with('!')) {
    const std::string_view error = status.substr(1);
    const auto space = error.find(' ');
    int code = 0;
    for (char c : error.substr(0, space)) {
      if (c < '0' || c > '9' || code > 100000) break;
      code = code * 10 + (c - '0');
    }
    result.error = HttpTransportError{code, std::string(space == std::string_view::npos ? "" : error.substr(space + 1))};
  } else if (status != "-") {
    long code = 0;
    for (char c : status) {
      if (c < '0' || c > '9' || code > 1000000) break;
      code = code * 10 + (c - '0');
    }
    result.response = HttpResponseHead{code, "https://site.test/resource", {}};
  }
  while (more) {
    const std::string_view line = takeLine(text, more);
    if (line.empty()) {
      if (more || !text.empty()) result.body = std::string(text);
      break;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || !result.response) continue;
    std::string_view value = line.substr(colon + 1);
    while (value.starts_with(' ')) value.remove_prefix(1);
    result.response->headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
  }
  return result;
}

void checkSendable(const Result& result) {
  Message answer;
  answer.type = MessageType::answer;
  answer.uid = "fuzz-1";
  if (result) {
    answer.data = *result;
  } else {
    answer.err = result.error().text;
  }
  const AnyValue built(answer.build());
  const auto text = JSON::stringify(built);
  APPEX_FUZZ_CHECK(text.has_value(), "every answer can be sent to a page");
  const std::string script = composeCall("__default__", *text);
  APPEX_FUZZ_CHECK(isWellFormedUtf8(script), "an answer's script is well-formed UTF-8");
  checkComposedScript(script, "__default__", built);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const HttpClientResult response = readResponse(std::string_view(reinterpret_cast<const char*>(data), size));
  const Result answer = HttpRequest::buildAnswer(HttpRequest::classify(response));
  World::takeLog();  // the "[Request] ..." lines; not printed
  checkSendable(answer);

  if (response.error) {
    APPEX_FUZZ_CHECK(!answer && answer.error().text.starts_with("clientError("), "a transport error is a clientError");
    return 0;
  }
  const bool ok = response.response && response.response->status >= 200 && response.response->status <= 299;
  if (!ok) {
    APPEX_FUZZ_CHECK(!answer && answer.error().text.starts_with("serverError("), "a non-2xx response is a serverError");
    return 0;
  }
  APPEX_FUZZ_CHECK(answer.has_value() && answer->has_value() && (*answer)->is_object(), "a 2xx response succeeds");
  const Dictionary& d = (*answer)->get_object();
  APPEX_FUZZ_CHECK(d.size() == 3 && d.begin()[0].key() == "data" && d.begin()[1].key() == "status" &&
                   d.begin()[2].key() == "headers");
  APPEX_FUZZ_CHECK(asInt64(d.at("status")) == response.response->status);
  const Dictionary* headers = d.at("headers").if_object();
  APPEX_FUZZ_CHECK(headers != nullptr);
  for (const auto& [name, value] : response.response->headers) {
    APPEX_FUZZ_CHECK(headers->contains(name) || !isWellFormedUtf8(name), "every header field is passed on");
  }

  const AnyValue& body = d.at("data");
  if (!response.body) {
    APPEX_FUZZ_CHECK(body.is_null(), "no body answers null");
  } else if (auto parsed = JSON::parse(*response.body)) {
    APPEX_FUZZ_CHECK(body == *parsed, "a JSON body answers its value");
  } else if (isWellFormedUtf8(*response.body)) {
    APPEX_FUZZ_CHECK(body.is_string() && body.get_string() == *response.body, "a text body answers its text");
  } else {
    APPEX_FUZZ_CHECK(body.is_null(), "a body that is not UTF-8 answers null");
  }
  return 0;
}
