// SiteServer: serves a folder of web pages read-only over HTTP on
// 127.0.0.1 at a free port, so an extension can be run against local pages
// (content scripts apply to http and https pages).
//
// Runs on its own thread until destroyed. Thread-safe.
#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace appex {

class SiteServer {
 public:
  static std::expected<std::unique_ptr<SiteServer>, std::string> start(const std::filesystem::path& folder);
  ~SiteServer();

  // "http://127.0.0.1:<port>/"
  const std::string& baseURL() const { return baseURL_; }

 private:
  SiteServer() = default;

  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::string baseURL_;
};

// `url` as a tab would load it: an absolute URL (one with a scheme) as it
// is, a relative one ("index.html", "/a?b") resolved against `base`, the
// served site's URL. Fails, saying why, for a relative URL without a base
// or text that is no URL.
std::expected<std::string, std::string> resolveURL(const std::string& base, const std::string& url);

}  // namespace appex
