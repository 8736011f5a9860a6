#include "platform/curl_http_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tests/platform/http_test_server.h"

namespace appex {
namespace {

using namespace std::chrono_literals;
using testing::closedPort;
using testing::RawHttpCapture;
using testing::TestHttpServer;

struct Outcome {
  HttpClientResult result;
  std::thread::id thread;
};

Outcome fetch(HttpClient& client, HttpClientRequest request) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto future = promise->get_future();
  client.send(std::move(request), [promise](HttpClientResult r) {
    promise->set_value(Outcome{std::move(r), std::this_thread::get_id()});
  });
  if (future.wait_for(30s) != std::future_status::ready) {
    ADD_FAILURE() << "no completion";
    return {};
  }
  return future.get();
}

HttpClientRequest get(std::string url) { return HttpClientRequest{std::move(url), "GET", {}, {}, 60s}; }

std::string header(const HttpResponseHead& head, std::string_view name) {
  for (const auto& [n, v] : head.headers) {
    if (n == name) return v;
  }
  return "<absent>";
}

class CurlHttpClientTest : public ::testing::Test {
 protected:
  TestHttpServer server;
  CurlHttpClient client;
};

TEST_F(CurlHttpClientTest, ReportsStatusHeadersAndExactBodyBytes) {
  auto ok = fetch(client, get(server.url("/bytes")));
  ASSERT_FALSE(ok.result.error);
  ASSERT_TRUE(ok.result.response);
  EXPECT_EQ(ok.result.response->status, 200);
  EXPECT_EQ(header(*ok.result.response, "Content-Type"), "application/octet-stream");
  EXPECT_EQ(ok.result.body, std::string("\xff\xfe\x00\x61", 4));

  auto twice = fetch(client, get(server.url("/headers")));
  ASSERT_TRUE(twice.result.response);
  EXPECT_EQ(header(*twice.result.response, "X-Twice"), "one, two") << "repeated fields are joined";

  auto missing = fetch(client, get(server.url("/missing")));
  ASSERT_FALSE(missing.result.error) << "an error status is a response, not a transport failure";
  EXPECT_EQ(missing.result.response->status, 404);
  EXPECT_EQ(missing.result.body, "not here");

  auto empty = fetch(client, get(server.url("/empty")));
  EXPECT_EQ(empty.result.response->status, 204);
  EXPECT_FALSE(empty.result.body) << "no bytes means no body";
}

TEST_F(CurlHttpClientTest, FollowsRedirectsAndReportsOnlyTheFinalResponse) {
  auto r = fetch(client, get(server.url("/redirect")));
  ASSERT_TRUE(r.result.response);
  EXPECT_EQ(r.result.response->status, 200);
  EXPECT_EQ(r.result.response->url, server.url("/json-object"));
  EXPECT_EQ(header(*r.result.response, "Location"), "<absent>") << "the 302's fields are dropped";
  EXPECT_EQ(r.result.body, R"({"a":1,"b":[true,null]})");
}

TEST_F(CurlHttpClientTest, SpeaksOnlyHttpAndHttpsAlsoWhenRedirected) {
  auto file = fetch(client, get("file:///etc/hostname"));
  ASSERT_TRUE(file.result.error);
  EXPECT_FALSE(file.result.body) << "nothing may be read from the file system";

  auto redirected = fetch(client, get(server.url("/to-file")));
  ASSERT_TRUE(redirected.result.error);
  EXPECT_FALSE(redirected.result.body);

  auto refused = fetch(client, get("http://127.0.0.1:" + std::to_string(closedPort()) + "/"));
  ASSERT_TRUE(refused.result.error);
  EXPECT_FALSE(refused.result.response);
  EXPECT_FALSE(refused.result.error->message.empty());
}

TEST_F(CurlHttpClientTest, StalledResponseTimesOut) {
  HttpClientRequest request = get(server.url("/slow"));
  request.timeout = 1s;
  const auto start = std::chrono::steady_clock::now();
  auto r = fetch(client, std::move(request));
  ASSERT_TRUE(r.result.error);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
}

TEST_F(CurlHttpClientTest, SendsMethodBodyAndExactlyTheGivenHeaders) {
  HttpClientRequest post{server.url("/echo"), "POST", std::string("a=1"),
                         {{"Content-Type", "text/plain"}, {"X-Custom", "yes"}}, 60s};
  auto r = fetch(client, std::move(post));
  EXPECT_EQ(r.result.body,
            R"({"method":"POST","body":"a=1","contentType":"text/plain","hasContentLength":true,"custom":"yes"})");

  HttpClientRequest put{server.url("/echo"), "PUT", std::string("x"), {}, 60s};
  r = fetch(client, std::move(put));
  EXPECT_EQ(r.result.body,
            R"({"method":"PUT","body":"x","contentType":"","hasContentLength":true,"custom":""})")
      << "no Content-Type is invented for a body";

  HttpClientRequest head{server.url("/json-object"), "HEAD", {}, {}, 60s};
  r = fetch(client, std::move(head));
  ASSERT_TRUE(r.result.response) << "HEAD must not wait for a body";
  EXPECT_FALSE(r.result.body);

  // A header that would split the request is dropped, not sent.
  HttpClientRequest injected{server.url("/echo"), "GET", {}, {{"X-Custom", "a\r\nX-Evil: 1"}}, 60s};
  r = fetch(client, std::move(injected));
  EXPECT_EQ(r.result.body,
            R"({"method":"GET","body":"","contentType":"","hasContentLength":false,"custom":""})");
}

TEST(CurlHttpClientRawTest, SendsAnUnknownMethodVerbatimWithItsBody) {
  RawHttpCapture raw;
  CurlHttpClient client;
  HttpClientRequest post{raw.url("/p"), "post", std::string(R"({"k":"v"})"), {{"Content-Type", "application/json"}}, 60s};
  auto r = fetch(client, std::move(post));
  EXPECT_EQ(r.result.body, R"({"ok":true})");
  const std::string seen = raw.request();
  EXPECT_TRUE(seen.starts_with("post /p HTTP/1.1\r\n")) << seen;
  EXPECT_NE(seen.find("\r\nContent-Type: application/json\r\n"), std::string::npos) << seen;
  EXPECT_TRUE(seen.ends_with("\r\n\r\n{\"k\":\"v\"}")) << seen;
  EXPECT_EQ(seen.find("Expect:"), std::string::npos) << seen;
}

TEST_F(CurlHttpClientTest, CompletesEveryRequestOnceOnTheSessionThreadAndReusesConnections) {
  // Sequential requests ride one kept-alive connection.
  auto first = fetch(client, get(server.url("/port")));
  auto second = fetch(client, get(server.url("/port")));
  ASSERT_TRUE(first.result.body && second.result.body);
  EXPECT_EQ(*first.result.body, *second.result.body);
  EXPECT_NE(first.thread, std::this_thread::get_id());
  EXPECT_EQ(first.thread, second.thread) << "one session thread";

  constexpr int kThreads = 4, kEach = 8;
  std::atomic<int> completions{0};
  std::mutex m;
  std::set<std::thread::id> completionThreads;
  std::vector<std::thread> senders;
  std::promise<void> allDone;
  for (int t = 0; t < kThreads; ++t) {
    senders.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        client.send(get(server.url("/json-array")), [&](HttpClientResult r) {
          EXPECT_EQ(r.body, R"([1,"two",3.5])");
          {
            std::lock_guard lock(m);
            completionThreads.insert(std::this_thread::get_id());
          }
          if (completions.fetch_add(1) + 1 == kThreads * kEach) allDone.set_value();
        });
      }
    });
  }
  for (auto& s : senders) s.join();
  ASSERT_EQ(allDone.get_future().wait_for(30s), std::future_status::ready);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(completions.load(), kThreads * kEach);
  EXPECT_EQ(completionThreads, std::set<std::thread::id>{first.thread});
}

TEST(CurlHttpClientLifetimeTest, DestroyingTheClientCancelsWhatIsInFlight) {
  TestHttpServer server;
  std::atomic<int> calls{0};
  std::promise<HttpClientResult> done;
  {
    CurlHttpClient client;
    client.send(get(server.url("/slow")), [&](HttpClientResult r) {
      calls.fetch_add(1);
      done.set_value(std::move(r));
    });
    std::this_thread::sleep_for(100ms);
  }
  auto future = done.get_future();
  ASSERT_EQ(future.wait_for(1s), std::future_status::ready) << "cancelled at destruction, not after 5 s";
  EXPECT_TRUE(future.get().error);
  EXPECT_EQ(calls.load(), 1);
}

TEST(CurlHttpClientLifetimeTest, ACompletionMayDropTheLastReferenceToItsClient) {
  TestHttpServer server;
  auto client = std::make_shared<CurlHttpClient>();
  std::promise<void> done;
  auto* raw = client.get();
  raw->send(get(server.url("/text")), [&done, client = std::move(client)](HttpClientResult) mutable {
    client.reset();  // the client dies on its own session thread
    done.set_value();
  });
  EXPECT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
}

}  // namespace
}  // namespace appex
