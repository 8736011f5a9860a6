// CurlHttpClient: HttpClient on libcurl, with one ephemeral session per
// client: cookies kept in memory for the session's life (a cookie one
// response sets goes with the later requests it matches), nothing written to
// disk, no cache, no stored credentials, connections kept and reused
// between requests.
//
// The session (a multi handle and the thread that drives it) starts with the
// first `send`. Requests run on that thread and their completions are called
// there, one at a time. Only http and https are spoken, also when following
// redirects (at most 20); any other URL fails as a transport error without
// touching the file system or the network. At most 6 connections per host
// are open at once. The request's time-out bounds the connection set-up and
// every stall of the transfer (no byte for that long), not the whole
// transfer. A response body is decoded from any content encoding the session
// offered. The header fields sent are the request's own plus what HTTP needs
// (Host, Content-Length, Accept, Accept-Encoding), the session's matching
// cookies, and "User-Agent: appex/<version> libcurl/<version>" unless the
// request names its own.
//
// Destroying the client cancels what is in flight: each such completion runs
// once, with a transport error. A completion may destroy the last reference
// to its client.
//
// Thread-safe.
#pragma once

#include <memory>
#include <mutex>

#include "platform/http_client.h"

namespace appex {

class CurlHttpClient final : public HttpClient {
 public:
  CurlHttpClient();
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  void send(HttpClientRequest request, Completion completion) override;

 private:
  class Session;

  std::once_flag started_;
  std::shared_ptr<Session> session_;  // set once, inside started_
};

}  // namespace appex
