// Local HTTP servers for the HTTP client and httpRequest tests, on
// 127.0.0.1 with a port the system picks.
//
// TestHttpServer (cpp-httplib) serves fixed routes:
//   GET  /json-object  {"a":1,"b":[true,null]}      GET /json-array  [1,"two",3.5]
//   GET  /fragment     42 (a JSON number alone)     GET /text        hello, world
//   GET  /bytes        ff fe 00 61 (not UTF-8)      GET /empty       204, no body
//   GET  /missing      404 "not here"               GET /fail        500 "broken"
//   GET  /redirect     302 -> /json-object          GET /to-file     302 -> file:///etc/hostname
//   GET  /headers      "X-Twice" sent twice         GET /port        the client's port
//   GET  /slow         answers after release() or 5 s
//   any  /echo         {"method","body","contentType","hasContentLength","custom"}
// RawHttpCapture accepts one connection and keeps the request bytes exactly
// (for methods cpp-httplib refuses, such as a lower-case "post").
#pragma once

#include <httplib.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

namespace appex::testing {

class TestHttpServer {
 public:
  TestHttpServer() {
    auto& s = server_;
    s.Get("/json-object", [](const httplib::Request&, httplib::Response& r) {
      r.set_content(R"({"a":1,"b":[true,null]})", "application/json");
    });
    s.Get("/json-array", [](const httplib::Request&, httplib::Response& r) {
      r.set_content(R"([1,"two",3.5])", "application/json");
    });
    s.Get("/fragment", [](const httplib::Request&, httplib::Response& r) {
      r.set_content("42", "application/json");
    });
    s.Get("/text", [](const httplib::Request&, httplib::Response& r) {
      r.set_content("hello, world", "text/plain");
    });
    s.Get("/bytes", [](const httplib::Request&, httplib::Response& r) {
      r.set_content(std::string("\xff\xfe\x00\x61", 4), "application/octet-stream");
    });
    s.Get("/empty", [](const httplib::Request&, httplib::Response& r) { r.status = 204; });
    s.Get("/missing", [](const httplib::Request&, httplib::Response& r) {
      r.status = 404;
      r.set_content("not here", "text/plain");
    });
    s.Get("/fail", [](const httplib::Request&, httplib::Response& r) {
      r.status = 500;
      r.set_content("broken", "text/plain");
    });
    s.Get("/redirect", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/json-object"); });
    s.Get("/to-file", [](const httplib::Request&, httplib::Response& r) {
      r.set_redirect("file:///etc/hostname");
    });
    s.Get("/headers", [](const httplib::Request&, httplib::Response& r) {
      r.headers.emplace("X-Twice", "one");
      r.headers.emplace("X-Twice", "two");
      r.set_content("{}", "application/json");
    });
    s.Get("/port", [](const httplib::Request& q, httplib::Response& r) {
      r.set_content(std::to_string(q.remote_port), "text/plain");
    });
    s.Get("/slow", [this](const httplib::Request&, httplib::Response& r) {
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while (!released_ && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      r.set_content("late", "text/plain");
    });
    auto echo = [](const httplib::Request& q, httplib::Response& r) {
      std::string out = "{\"method\":\"" + q.method + "\",\"body\":\"" + q.body +
                        "\",\"contentType\":\"" + q.get_header_value("Content-Type") +
                        "\",\"hasContentLength\":" + (q.has_header("Content-Length") ? "true" : "false") +
                        ",\"custom\":\"" + q.get_header_value("X-Custom") + "\"}";
      r.set_content(out, "application/json");
    };
    s.Get("/echo", echo);
    s.Post("/echo", echo);
    s.Put("/echo", echo);
    s.Delete("/echo", echo);
    s.Patch("/echo", echo);

    port_ = s.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() only works on a running server.
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  ~TestHttpServer() {
    release();
    server_.stop();
    thread_.join();
  }

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

  // Lets /slow answer.
  void release() { released_ = true; }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::atomic<bool> released_{false};
};

// A port on 127.0.0.1 with nothing listening (bound, then released).
inline int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

class RawHttpCapture {
 public:
  RawHttpCapture() {
    listen_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listen_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(listen_, 1);
    socklen_t len = sizeof a;
    ::getsockname(listen_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    request_ = promise_.get_future();
    thread_ = std::thread([this] { serveOne(); });
  }

  ~RawHttpCapture() {
    ::shutdown(listen_, SHUT_RDWR);
    thread_.join();
    ::close(listen_);
  }

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

  // The request bytes as received; empty if none came within 10 s.
  std::string request() {
    if (request_.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return {};
    return request_.get();
  }

 private:
  void serveOne() {
    pollfd p{listen_, POLLIN, 0};
    if (::poll(&p, 1, 10000) <= 0 || !(p.revents & POLLIN)) {
      promise_.set_value({});
      return;
    }
    int fd = ::accept(listen_, nullptr, nullptr);
    if (fd < 0) {
      promise_.set_value({});
      return;
    }
    std::string data;
    char buffer[4096];
    std::size_t wanted = std::string::npos;
    while (data.size() < wanted) {
      pollfd c{fd, POLLIN, 0};
      if (::poll(&c, 1, 5000) <= 0) break;
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      data.append(buffer, static_cast<std::size_t>(n));
      const auto end = data.find("\r\n\r\n");
      if (end != std::string::npos && wanted == std::string::npos) {
        std::size_t length = 0;
        std::string head = data.substr(0, end);
        for (auto& ch : head) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        if (auto at = head.find("\r\ncontent-length:"); at != std::string::npos) {
          length = std::stoul(head.substr(at + 17));
        }
        wanted = end + 4 + length;
      }
    }
    const std::string reply =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 11\r\n"
        "Connection: close\r\n\r\n{\"ok\":true}";
    ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    ::close(fd);
    promise_.set_value(std::move(data));
  }

  int listen_ = -1;
  int port_ = 0;
  std::promise<std::string> promise_;
  std::future<std::string> request_;
  std::thread thread_;
};

}  // namespace appex::testing
