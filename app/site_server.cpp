#include "app/site_server.h"

#include <httplib.h>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

namespace appex {

std::expected<std::unique_ptr<SiteServer>, std::string> SiteServer::start(const std::filesystem::path& folder) {
  std::error_code ec;
  if (!std::filesystem::is_directory(folder, ec)) return std::unexpected("no folder to serve: " + folder.string());
  std::unique_ptr<SiteServer> site(new SiteServer());
  site->server_ = std::make_unique<httplib::Server>();
  // Stopping waits for the connections kept alive to time out: keep that
  // short, so the host exits promptly after a page has used the site.
  site->server_->set_keep_alive_timeout(1);
  // The mount point serves files only, never outside the folder.
  if (!site->server_->set_mount_point("/", folder.string())) {
    return std::unexpected("cannot serve " + folder.string());
  }
  const int port = site->server_->bind_to_any_port("127.0.0.1");
  if (port <= 0) return std::unexpected("cannot listen on 127.0.0.1");
  site->baseURL_ = "http://127.0.0.1:" + std::to_string(port) + "/";
  site->thread_ = std::thread([server = site->server_.get()] { server->listen_after_bind(); });
  return site;
}

SiteServer::~SiteServer() {
  if (server_) server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::expected<std::string, std::string> resolveURL(const std::string& base, const std::string& url) {
  auto reference = boost::urls::parse_uri_reference(url);
  if (!reference) return std::unexpected("not a URL: " + url);
  if (reference->has_scheme()) return url;
  if (base.empty()) return std::unexpected("a relative URL (" + url + ") needs --serve");
  auto baseURL = boost::urls::parse_uri(base);
  boost::urls::url resolved;
  if (!baseURL || !boost::urls::resolve(*baseURL, *reference, resolved)) {
    return std::unexpected("cannot resolve " + url + " against " + base);
  }
  return std::string(resolved.buffer());
}

}  // namespace appex
