#include "api/http_request.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "api/http_request_preparation.h"
#include "core/context.h"
#include "core/log.h"
#include "tests/core/log_capture.h"
#include "platform/curl_http_client.h"
#include "tests/platform/http_test_server.h"

namespace appex {
namespace {

using namespace std::chrono_literals;

AnyValue json(std::string_view text) { return boost::json::parse(text); }

using testing::LogCapture;

Result answerFor(long status, std::optional<std::string> body) {
  return HttpRequest::buildAnswer(HttpRequest::classify(
      {std::nullopt, HttpResponseHead{status, "http://h/p", {{"X-A", "1"}}}, std::move(body)}));
}

AnyValue dataFor(std::optional<std::string> body) {
  Result r = answerFor(200, std::move(body));
  return r && *r ? (**r).at("data") : AnyValue("<failure>");
}

TEST(HttpRequestAnswerTest, DataIsAJsonObjectOrArrayElseUtf8TextElseNull) {
  EXPECT_EQ(dataFor(R"({"a":[1,2]})"), json(R"({"a":[1,2]})"));
  EXPECT_EQ(dataFor(R"([true,"x"])"), json(R"([true,"x"])"));
  EXPECT_EQ(dataFor("42"), AnyValue("42")) << "a top-level fragment is text";
  EXPECT_EQ(dataFor("{broken"), AnyValue("{broken"));
  EXPECT_EQ(dataFor("caf\xc3\xa9"), AnyValue("caf\xc3\xa9"));
  // Invalid: bad lead byte, truncated, overlong, surrogate, above U+10FFFF.
  for (const char* bad : {"\xff\xfe", "ok\xe2\x82", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    EXPECT_EQ(dataFor(std::string(bad)), AnyValue(nullptr)) << "not UTF-8: null";
  }
  EXPECT_EQ(dataFor(std::nullopt), AnyValue(nullptr));
  EXPECT_EQ(*answerFor(299, "[]").value(), json(R"({"data":[],"status":299,"headers":{"X-A":"1"}})"));
}

TEST(HttpRequestAnswerTest, AnythingButATwoHundredOrATransportFailureIsAServerError) {
  LogCapture log;
  for (long status : {100L, 199L, 300L, 404L, 500L}) {
    EXPECT_EQ(answerFor(status, "{}").error().text,
              "serverError(HTTP " + std::to_string(status) + " from http://h/p, 2 bytes)");
  }
  EXPECT_EQ(HttpRequest::buildAnswer(HttpRequest::classify({})).error().text,
            "serverError(no HTTP response, no body)");
  EXPECT_EQ(HttpRequest::buildAnswer(HttpRequest::classify({HttpTransportError{7, "refused"}, {}, {}})).error().text,
            "clientError(code 7: refused)");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 7u) << "one line per failure";
  EXPECT_EQ(lines[2], "[Request] server error: HTTP 300 from http://h/p");
  EXPECT_EQ(lines[6], "[Request] client error: code 7: refused");
}

TEST(HttpRequestUrlTest, FetchesOnlyAbsoluteHttpAndHttpsUrlsWithAHost) {
  for (const char* ok : {"http://example.com", "HTTPS://h/a?b=c#d", "http://[::1]:8/", "https://u:p@h/"}) {
    EXPECT_TRUE(HttpRequest::isFetchableUrl(ok)) << ok;
  }
  for (const char* bad : {"", "example.com", "/relative", "file:///etc/passwd", "ftp://h/f", "data:,hi",
                          "javascript:alert(1)", "http://", "http:///path", "http://exa mple.com/"}) {
    EXPECT_FALSE(HttpRequest::isFetchableUrl(bad)) << bad;
  }
}

TEST(HttpRequestPreparationTest, ChecksArgumentsWithTheCommandsMessages) {
  EXPECT_EQ(prepareHttpRequest(std::nullopt).error().text, "[request] args must be a dictionary");
  EXPECT_EQ(prepareHttpRequest(json("[]")).error().text, "[request] args must be a dictionary");
  EXPECT_EQ(prepareHttpRequest(json(R"({"url":5})")).error().text, "[request] url is required");
}

TEST(HttpRequestPreparationTest, ChoosesMethodBodyAndHeaders) {
  auto p = [](const char* args) { return *prepareHttpRequest(json(args)); };
  const HttpHeaderFields jsonOnly{{"Content-Type", "application/json"}};
  EXPECT_EQ(p(R"({"url":"u","data":"x","method":7})").method, "GET");
  EXPECT_FALSE(p(R"({"url":"u","data":"x"})").body) << "GET never sends a body";
  EXPECT_EQ(p(R"({"url":"u","data":"x","method":"get"})").body, "x") << "only exactly GET drops it";
  EXPECT_EQ(p(R"({"url":"u","data":{"b":[1],"a":"x"},"method":"PUT"})").body, R"({"b":[1],"a":"x"})");
  for (const char* data : {"5", "[1]", "null", R"({"n":1e999})"}) {
    EXPECT_FALSE(p((std::string(R"({"url":"u","method":"POST","data":)") + data + "}").c_str()).body) << data;
  }
  EXPECT_EQ(p(R"({"url":"u"})").headers, jsonOnly);
  EXPECT_EQ(p(R"({"url":"u","headers":{"X-A":"1","content-type":"text/plain"}})").headers,
            (HttpHeaderFields{{"X-A", "1"}, {"Content-Type", "application/json"}}));
  EXPECT_EQ(p(R"({"url":"u","headers":{"X-A":"1","X-B":2}})").headers, jsonOnly)
      << "a header dictionary with a non-string value is dropped whole";
}

// httpRequest as the command runs it, prepare then request, against a real
// server.
class HttpRequestLiveTest : public ::testing::Test {
 protected:
  HttpRequestLiveTest() : scope_(context_) {}
  // The session goes first, closing its connections, so the server stops at
  // once.
  ~HttpRequestLiveTest() override {
    context_.set<HttpRequest>(nullptr);
    context_.set<CurlHttpClient>(nullptr);
  }

  struct Answer {
    Result result;
    bool beforeReturn = false;
    bool onCallerThread = false;
  };

  Answer ask(const std::string& args) {
    auto prepared = prepareHttpRequest(json(args));
    auto promise = std::make_shared<std::promise<Answer>>();
    auto returned = std::make_shared<std::atomic<bool>>(false);
    const auto caller = std::this_thread::get_id();
    HttpRequest::shared()->request(prepared->url, prepared->method, prepared->body, prepared->headers,
                                   [=](Result r) { promise->set_value({std::move(r), !*returned, std::this_thread::get_id() == caller}); });
    *returned = true;
    auto future = promise->get_future();
    if (future.wait_for(30s) != std::future_status::ready) return {failure("no answer")};
    return future.get();
  }
  Answer get(const std::string& path) { return ask(R"({"url":")" + server_.url(path) + R"("})"); }
  static AnyValue data(const Answer& a) { return a.result && *a.result ? (**a.result).at("data") : AnyValue("<failure>"); }
  static std::string error(const Answer& a) { return a.result ? "<success>" : a.result.error().text; }

  testing::TestHttpServer server_;
  Context context_;
  ScopedContext scope_;
};

TEST_F(HttpRequestLiveTest, AnswersBodiesAsJsonTextOrNullFromTheSessionThread) {
  auto object = get("/json-object");
  ASSERT_TRUE(object.result && *object.result);
  EXPECT_EQ(data(object), json(R"({"a":1,"b":[true,null]})"));
  EXPECT_EQ((**object.result).at("status"), AnyValue(200));
  EXPECT_EQ((**object.result).at("headers").at("Content-Type"), AnyValue("application/json"));
  EXPECT_FALSE(object.beforeReturn || object.onCallerThread);

  EXPECT_EQ(data(get("/json-array")), json(R"([1,"two",3.5])"));
  EXPECT_EQ(data(get("/fragment")), AnyValue("42"));
  EXPECT_EQ(data(get("/text")), AnyValue("hello, world"));
  EXPECT_EQ(data(get("/bytes")), AnyValue(nullptr));
  auto empty = get("/empty");
  ASSERT_TRUE(empty.result && *empty.result);
  EXPECT_EQ(data(empty), AnyValue(nullptr));
  EXPECT_EQ((**empty.result).at("status"), AnyValue(204));
  EXPECT_TRUE((**empty.result).at("headers").is_object());
  EXPECT_EQ(data(get("/redirect")), json(R"({"a":1,"b":[true,null]})")) << "redirects are transparent";
}

TEST_F(HttpRequestLiveTest, AnswersFailuresWithTheirCaseName) {
  LogCapture log;
  EXPECT_TRUE(error(get("/missing")).starts_with("serverError(HTTP 404 ")) << error(get("/missing"));
  EXPECT_TRUE(error(get("/fail")).starts_with("serverError(HTTP 500 "));
  const std::string refused = R"({"url":"http://127.0.0.1:)" + std::to_string(testing::closedPort()) + R"(/"})";
  EXPECT_TRUE(error(ask(refused)).starts_with("clientError(")) << error(ask(refused));
  EXPECT_TRUE(error(get("/to-file")).starts_with("clientError(")) << "a redirect cannot leave http(s)";
  EXPECT_EQ(log.lines().front(), "[Request] GET " + server_.url("/missing") + R"( {"Content-Type":"application/json"})");
  EXPECT_EQ(log.lines()[1], "[Request] server error: HTTP 404 from " + server_.url("/missing"));
}

TEST_F(HttpRequestLiveTest, RefusesUrlsItWillNotFetchBeforeReturningWithoutNetworkOrLog) {
  LogCapture log;
  for (const char* url : {"not a url", "file:///etc/hostname", "ftp://127.0.0.1/x"}) {
    auto a = ask(std::string(R"({"url":")") + url + R"("})");
    EXPECT_EQ(error(a), "invalidUrl") << url;
    EXPECT_TRUE(a.beforeReturn && a.onCallerThread) << url;
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(HttpRequestLiveTest, SendsTheBodyForAnyMethodButExactlyGetAlwaysAsJson) {
  EXPECT_EQ(data(ask(R"({"url":")" + server_.url("/echo") + R"(","data":"x","headers":{"Content-Type":"text/plain"}})")),
            json(R"({"method":"GET","body":"","contentType":"application/json","hasContentLength":false,"custom":""})"));
  EXPECT_EQ(data(ask(R"({"url":")" + server_.url("/echo") + R"(","method":"POST","data":{"k":"v"}})")),
            json(R"({"method":"POST","body":"{\"k\":\"v\"}","contentType":"application/json","hasContentLength":true,"custom":""})"));

  testing::RawHttpCapture raw;
  EXPECT_EQ(data(ask(R"({"url":")" + raw.url("/lower") + R"(","method":"post","data":"payload"})")), json(R"({"ok":true})"));
  const std::string seen = raw.request();
  EXPECT_TRUE(seen.starts_with("post /lower HTTP/1.1\r\n")) << seen;
  EXPECT_NE(seen.find("\r\nContent-Type: application/json\r\n"), std::string::npos) << seen;
  EXPECT_TRUE(seen.ends_with("\r\n\r\npayload")) << seen;
}

// Any client installed in the context serves the requests (tests, fuzzers).
TEST(HttpRequestClientTest, UsesTheInstalledClientWithASixtySecondTimeOut) {
  struct Canned : HttpClient {
    void send(HttpClientRequest request, Completion completion) override {
      last = request;
      std::thread([c = std::move(completion)]() mutable { c({{}, HttpResponseHead{200, "u", {}}, "[1]"}); }).detach();
    }
    HttpClientRequest last;
  };
  Context context;
  ScopedContext scope(context);
  auto canned = std::make_shared<Canned>();
  context.set<HttpClient>(canned);
  std::promise<Result> answer;
  HttpRequest::shared()->request("https://h/x", "PATCH", "b", HttpHeaderFields{{"X", "y"}},
                                 [&](Result r) { answer.set_value(std::move(r)); });
  auto future = answer.get_future();
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(*future.get().value(), json(R"({"data":[1],"status":200,"headers":{}})"));
  EXPECT_EQ(canned->last.method, "PATCH");
  EXPECT_EQ(canned->last.body, "b");
  EXPECT_EQ(canned->last.timeout, 60s);
}

}  // namespace
}  // namespace appex
