// httpRequest fetches only http and https. Any other URL (file:, ftp:,
// data:, gopher:, and the rest) answers "invalidUrl" before the command
// returns, with no log line and no file access, and a server cannot
// redirect a request off http(s) either. File access is watched with
// inotify on a real file the URLs point at, with the real HTTP client.
#include <gtest/gtest.h>

#include <httplib.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include "api/http_request.h"
#include "platform/curl_http_client.h"
#include "tests/api/api_fixture.h"

namespace appex::testing {
namespace {

class HttpSchemeTest : public ApiFixture {
 protected:
  HttpSchemeTest() {
    secret_ = root_ / "secret.txt";
    std::ofstream(secret_) << kSecret;
    watch_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    EXPECT_GE(watch_, 0);
    EXPECT_GE(inotify_add_watch(watch_, secret_.c_str(), IN_OPEN | IN_ACCESS), 0);

    server_.Get("/ok", [](const httplib::Request&, httplib::Response& r) { r.set_content("fine", "text/plain"); });
    server_.Get("/to-secret", [this](const httplib::Request&, httplib::Response& r) {
      r.set_redirect("file://" + secret_.string());
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() only works on a running server.
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~HttpSchemeTest() override {
    // The client goes first, closing its connections, so the server stops
    // at once.
    context_.set<HttpRequest>(nullptr);
    context_.set<CurlHttpClient>(nullptr);
    server_.stop();
    thread_.join();
    close(watch_);
  }

  struct Outcome {
    Result result;
    bool beforeReturn;
  };
  // Runs the httpRequest command and waits for its one answer.
  Outcome request(const std::string& url) {
    auto promise = std::make_shared<std::promise<Result>>();
    auto returned = std::make_shared<std::atomic<bool>>(false);
    auto early = std::make_shared<std::atomic<bool>>(false);
    SafariApiInvoker(context_).invokeAPI("httpRequest", Dictionary{{"url", url}},
                                         [promise, returned, early](Result r) {
                                           *early = !*returned;
                                           promise->set_value(std::move(r));
                                         });
    *returned = true;
    auto future = promise->get_future();
    if (future.wait_for(30s) != std::future_status::ready) return {failure("<no answer>"), false};
    return {future.get(), early->load()};
  }

  // Whether anything opened or read the secret file since the last call.
  bool secretTouched() {
    char events[4096];
    bool touched = false;
    while (read(watch_, events, sizeof events) > 0) touched = true;
    return touched;
  }

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

  static constexpr const char* kSecret = "the secret must stay here";
  std::filesystem::path secret_;
  int watch_ = -1;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

TEST_F(HttpSchemeTest, UrlsThatAreNotHttpOrHttpsAnswerInvalidUrlWithoutTouchingAnything) {
  const std::string path = secret_.string();
  const std::vector<std::string> urls = {
      "file://" + path,
      "FILE://" + path,
      "file:" + path,
      "file://localhost" + path,
      "ftp://127.0.0.1:" + std::to_string(port_) + "/x",
      "data:text/plain,secret",
      "data:text/html;base64,PHNjcmlwdD4=",
      "gopher://127.0.0.1:" + std::to_string(port_) + "/",
      "dict://127.0.0.1:" + std::to_string(port_) + "/d",
      "telnet://127.0.0.1/",
      "ldap://127.0.0.1/",
      "tftp://127.0.0.1/x",
      "smb://127.0.0.1/share",
      "scp://127.0.0.1" + path,
      "ws://127.0.0.1:" + std::to_string(port_) + "/",
      "javascript:alert(1)",
      "about:blank",
      "blob:https://site.test/0000",
      "mailto:someone@site.test",
      path,
      "//127.0.0.1:" + std::to_string(port_) + "/ok",
      "http:" + path,
      "https:///etc/hostname",
      "http ://127.0.0.1/",
  };
  secretTouched();
  for (const auto& u : urls) {
    Outcome o = request(u);
    ASSERT_FALSE(o.result.has_value()) << u;
    EXPECT_EQ(o.result.error().text, "invalidUrl") << u;
    EXPECT_TRUE(o.beforeReturn) << "answered before the command returned: " << u;
  }
  EXPECT_FALSE(secretTouched()) << "a refused URL opened the file";
  EXPECT_TRUE(log.lines().empty()) << "refusals write nothing: " << log.lines().front();
}

TEST_F(HttpSchemeTest, AServerCannotRedirectOffHttp) {
  Outcome ok = request(url("/ok"));
  ASSERT_TRUE(ok.result.has_value()) << "the client works at all: " << ok.result.error().text;
  EXPECT_EQ((**ok.result).at("data"), AnyValue("fine"));
  EXPECT_EQ(request("HTTP://127.0.0.1:" + std::to_string(port_) + "/ok").result.has_value(), true)
      << "scheme names are case-insensitive";

  secretTouched();
  Outcome redirected = request(url("/to-secret"));
  ASSERT_FALSE(redirected.result.has_value());
  EXPECT_TRUE(redirected.result.error().text.starts_with("clientError(")) << redirected.result.error().text;
  EXPECT_EQ(redirected.result.error().text.find(kSecret), std::string::npos);
  EXPECT_FALSE(secretTouched()) << "the redirect opened the file";
}

}  // namespace
}  // namespace appex::testing
