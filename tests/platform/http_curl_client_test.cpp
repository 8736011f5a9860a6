// The curl client on its own: what it sends and reports, time-outs, the one
// session thread and its lifetime. What httpRequest makes of the results is
// tested with the API.
#include "platform/curl_http_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "tests/platform/http_test_server.h"

namespace appex {
namespace {

using namespace std::chrono_literals;

struct Outcome {
  HttpClientResult result;
  std::thread::id thread;
};

Outcome fetch(HttpClient& client, std::string url, std::string method = "GET",
              std::optional<std::string> body = {}, HttpHeaderFields headers = {},
              std::chrono::seconds timeout = 60s) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto future = promise->get_future();
  client.send({std::move(url), std::move(method), std::move(body), std::move(headers), timeout},
              [promise](HttpClientResult r) { promise->set_value({std::move(r), std::this_thread::get_id()}); });
  if (future.wait_for(30s) != std::future_status::ready) {
    ADD_FAILURE() << "no completion";
    return {};
  }
  return future.get();
}

class CurlHttpClientTest : public ::testing::Test {
 protected:
  testing::TestHttpServer server;
  CurlHttpClient client;  // after the server: closes its connections first
};

TEST_F(CurlHttpClientTest, ReportsStatusMergedHeadersAndExactBodyBytes) {
  auto bytes = fetch(client, server.url("/bytes"));
  ASSERT_TRUE(bytes.result.response);
  EXPECT_EQ(bytes.result.response->status, 200);
  EXPECT_EQ(bytes.result.body, std::string("\xff\xfe\x00\x61", 4));

  auto twice = fetch(client, server.url("/headers"));
  ASSERT_TRUE(twice.result.response);
  const auto& fields = twice.result.response->headers;
  EXPECT_NE(std::find(fields.begin(), fields.end(), std::pair<std::string, std::string>("X-Twice", "one, two")),
            fields.end());

  auto empty = fetch(client, server.url("/empty"));
  EXPECT_EQ(empty.result.response->status, 204);
  EXPECT_FALSE(empty.result.body) << "no bytes means no body";

  auto head = fetch(client, server.url("/text"), "HEAD");
  EXPECT_EQ(head.result.response->status, 200) << "HEAD must not wait for a body";
}

TEST_F(CurlHttpClientTest, SendsExactlyTheGivenHeadersAndDropsOnesThatWouldSplitTheRequest) {
  auto put = fetch(client, server.url("/echo"), "PUT", "x", {{"X-Custom", "yes"}});
  EXPECT_EQ(put.result.body,
            R"({"method":"PUT","body":"x","contentType":"","hasContentLength":true,"custom":"yes"})")
      << "no Content-Type is invented for a body";

  auto injected = fetch(client, server.url("/echo"), "GET", {}, {{"X-Custom", "a\r\nX-Evil: 1"}});
  EXPECT_EQ(injected.result.body,
            R"({"method":"GET","body":"","contentType":"","hasContentLength":false,"custom":""})");
}

TEST_F(CurlHttpClientTest, AStalledResponseTimesOut) {
  const auto start = std::chrono::steady_clock::now();
  auto r = fetch(client, server.url("/slow"), "GET", {}, {}, 1s);
  ASSERT_TRUE(r.result.error);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
}

TEST_F(CurlHttpClientTest, CompletesEachRequestOnceOnTheSessionThreadAndReusesConnections) {
  auto first = fetch(client, server.url("/port"));
  auto second = fetch(client, server.url("/port"));
  EXPECT_EQ(first.result.body, second.result.body) << "the kept-alive connection is reused";
  EXPECT_NE(first.thread, std::this_thread::get_id());

  constexpr int kThreads = 4, kEach = 8;
  std::atomic<int> completions{0};
  std::mutex m;
  std::set<std::thread::id> threads{first.thread};
  std::promise<void> allDone;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t) {
    senders.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        client.send({server.url("/json-array"), "GET", {}, {}, 60s}, [&](HttpClientResult r) {
          EXPECT_EQ(r.body, R"([1,"two",3.5])");
          std::lock_guard lock(m);
          threads.insert(std::this_thread::get_id());
          if (++completions == kThreads * kEach) allDone.set_value();
        });
      }
    });
  }
  for (auto& s : senders) s.join();
  ASSERT_EQ(allDone.get_future().wait_for(30s), std::future_status::ready);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(completions.load(), kThreads * kEach);
  EXPECT_EQ(threads.size(), 1u) << "one session thread";
}

TEST(CurlHttpClientLifetimeTest, DestroyingTheClientCancelsWhatIsInFlight) {
  testing::TestHttpServer server;
  std::atomic<int> calls{0};
  std::promise<HttpClientResult> done;
  {
    CurlHttpClient client;
    client.send({server.url("/slow"), "GET", {}, {}, 60s}, [&](HttpClientResult r) {
      ++calls;
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
  testing::TestHttpServer server;
  auto client = std::make_shared<CurlHttpClient>();
  std::promise<void> done;
  auto* raw = client.get();
  raw->send({server.url("/text"), "GET", {}, {}, 60s}, [&done, client = std::move(client)](HttpClientResult) mutable {
    client.reset();  // dies on its own session thread
    done.set_value();
  });
  EXPECT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
}

}  // namespace
}  // namespace appex
