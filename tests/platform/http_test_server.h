// Local HTTP servers for the HTTP client and httpRequest tests, on
// 127.0.0.1 with a port the system picks.
//
// TestHttpServer (cpp-httplib) serves fixed GET routes (see the table in the
// constructor), "/slow" (answers after release() or 5 s), "/port" (the
// client's port: equal ports mean a reused connection) and, for any method,
// "/echo" (a JSON summary of the request). RawHttpCapture accepts one
// connection and keeps the request bytes exactly, for methods cpp-httplib
// refuses (such as a lower-case "post").
#pragma once

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
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
    struct Fixed {
      const char* path;
      int status;
      std::string body;
      const char* type;
    };
    const Fixed routes[] = {
        {"/json-object", 200, R"({"a":1,"b":[true,null]})", "application/json"},
        {"/json-array", 200, R"([1,"two",3.5])", "application/json"},
        {"/fragment", 200, "42", "application/json"},
        {"/text", 200, "hello, world", "text/plain"},
        {"/bytes", 200, std::string("\xff\xfe\x00\x61", 4), "application/octet-stream"},
        {"/empty", 204, "", ""},
        {"/missing", 404, "not here", "text/plain"},
        {"/fail", 500, "broken", "text/plain"},
    };
    for (const auto& f : routes) {
      server_.Get(f.path, [f](const httplib::Request&, httplib::Response& r) {
        r.status = f.status;
        if (!f.body.empty()) r.set_content(f.body, f.type);
      });
    }
    server_.Get("/redirect", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("/json-object"); });
    server_.Get("/to-file", [](const httplib::Request&, httplib::Response& r) { r.set_redirect("file:///etc/hostname"); });
    server_.Get("/headers", [](const httplib::Request&, httplib::Response& r) {
      r.headers.emplace("X-Twice", "one");
      r.headers.emplace("X-Twice", "two");
    });
    server_.Get("/port", [](const httplib::Request& q, httplib::Response& r) {
      r.set_content(std::to_string(q.remote_port), "text/plain");
    });
    server_.Get("/slow", [this](const httplib::Request&, httplib::Response& r) {
      for (int i = 0; i < 500 && !released_; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      r.set_content("late", "text/plain");
    });
    auto echo = [](const httplib::Request& q, httplib::Response& r) {
      boost::json::object out{{"method", q.method}, {"body", q.body},
                              {"contentType", q.get_header_value("Content-Type")},
                              {"hasContentLength", q.has_header("Content-Length")},
                              {"custom", q.get_header_value("X-Custom")}};
      r.set_content(boost::json::serialize(out), "application/json");
    };
    server_.Get("/echo", echo);
    server_.Post("/echo", echo);
    server_.Put("/echo", echo);

    // Idle kept-alive connections hold a server thread; let them go soon so
    // that stopping never waits long.
    server_.set_keep_alive_timeout(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() only works on a running server.
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  ~TestHttpServer() {
    release();
    server_.stop();
    thread_.join();
  }

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
  void release() { released_ = true; }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::atomic<bool> released_{false};
};

// A listening socket on 127.0.0.1 and its port.
inline int listenOnLoopback(int& port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::listen(fd, 1);
  socklen_t len = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return fd;
}

// A port on 127.0.0.1 with nothing listening.
inline int closedPort() {
  int port = 0;
  ::close(listenOnLoopback(port));
  return port;
}

class RawHttpCapture {
 public:
  RawHttpCapture() : listen_(listenOnLoopback(port_)), thread_([this] { serveOne(); }) {}
  ~RawHttpCapture() {
    ::shutdown(listen_, SHUT_RDWR);
    thread_.join();
    ::close(listen_);
  }

  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

  // The request bytes as received; empty if none came within 10 s.
  std::string request() {
    auto f = promise_.get_future();
    return f.wait_for(std::chrono::seconds(10)) == std::future_status::ready ? f.get() : std::string();
  }

 private:
  void serveOne() {
    std::string data;
    pollfd p{listen_, POLLIN, 0};
    const int fd = ::poll(&p, 1, 10000) > 0 ? ::accept(listen_, nullptr, nullptr) : -1;
    // Read the head, then as many body bytes as Content-Length says.
    std::size_t wanted = std::string::npos;
    char buffer[4096];
    for (pollfd c{fd, POLLIN, 0}; fd >= 0 && data.size() < wanted && ::poll(&c, 1, 5000) > 0;) {
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      data.append(buffer, static_cast<std::size_t>(n));
      if (auto end = data.find("\r\n\r\n"); end != std::string::npos && wanted == std::string::npos) {
        auto at = data.find("Content-Length: ");
        wanted = end + 4 + (at < end ? std::stoul(data.substr(at + 16)) : 0);
      }
    }
    const std::string reply =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 11\r\n"
        "Connection: close\r\n\r\n{\"ok\":true}";
    if (fd >= 0) {
      ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
      ::close(fd);
    }
    promise_.set_value(std::move(data));
  }

  int port_ = 0;
  int listen_;
  std::promise<std::string> promise_;
  std::thread thread_;
};

}  // namespace appex::testing
