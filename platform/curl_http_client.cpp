#include "platform/curl_http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <deque>
#include <list>
#include <string_view>
#include <thread>

#include "core/log.h"

namespace appex {
namespace {

constexpr long kMaxRedirects = 20;
// Parallel connections to one host, as browsers keep them; further requests
// queue for a free connection.
constexpr long kMaxConnectionsPerHost = 6;
constexpr int kPollTimeoutMs = 1000;

void initialiseCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Some servers refuse a request that does not say what sent it.
const std::string& userAgent() {
  static const std::string agent =
      std::string("appex/") + APPEX_VERSION + " libcurl/" + curl_version_info(CURLVERSION_NOW)->version;
  return agent;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// A header field name is an HTTP token; a value holds no line breaks or NUL.
bool validHeaderField(std::string_view name, std::string_view value) {
  if (name.empty()) return false;
  for (char c : name) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 32 || u >= 127 || std::string_view("()<>@,;:\\\"/[]?={}").find(c) != std::string_view::npos) {
      return false;
    }
  }
  return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

}  // namespace

class CurlHttpClient::Session : public std::enable_shared_from_this<Session> {
 public:
  Session() : multi_(curl_multi_init()), cookies_(curl_share_init()) {
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
    // No lock functions: every handle that uses the share runs on the
    // session thread.
    curl_share_setopt(cookies_, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  }

  ~Session() {
    curl_multi_cleanup(multi_);
    curl_share_cleanup(cookies_);
  }

  void start() {
    thread_ = std::thread([self = shared_from_this()] { self->run(); });
  }

  void enqueue(HttpClientRequest request, Completion completion) {
    {
      std::lock_guard lock(mutex_);
      if (!stopping_) {
        incoming_.push_back(Incoming{std::move(request), std::move(completion)});
        curl_multi_wakeup(multi_);
        return;
      }
    }
    completion(cancelled());
  }

  // Ends the session: requests in flight complete as cancelled. Waits for
  // the thread unless called on it (a completion dropping the last client).
  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      curl_multi_wakeup(multi_);
    }
    if (std::this_thread::get_id() == thread_.get_id()) {
      thread_.detach();
    } else if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  struct Incoming {
    HttpClientRequest request;
    Completion completion;
  };

  // One transfer; lives in `active_` (stable address: curl keeps pointers to
  // its body and buffers) from set-up until its completion.
  struct Transfer {
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::string body;
    std::string received;
    bool gotBytes = false;
    HttpHeaderFields responseHeaders;
    Completion completion;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    ~Transfer() {
      if (easy) curl_easy_cleanup(easy);
      curl_slist_free_all(headers);
    }
  };

  static HttpClientResult cancelled() {
    return HttpClientResult{HttpTransportError{CURLE_ABORTED_BY_CALLBACK, "request cancelled"}, {}, {}};
  }

  static size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    t->received.append(data, size * count);
    t->gotBytes = true;
    return size * count;
  }

  static size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
      // A new response begins (after a redirect, an interim 1xx or a proxy's
      // CONNECT answer): only the last one's fields are reported.
      t->responseHeaders.clear();
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
      const std::string_view name = trim(line.substr(0, colon));
      const std::string_view value = trim(line.substr(colon + 1));
      auto it = std::find_if(t->responseHeaders.begin(), t->responseHeaders.end(),
                             [&](const auto& f) { return equalsIgnoringCase(f.first, name); });
      if (it == t->responseHeaders.end()) {
        t->responseHeaders.emplace_back(std::string(name), std::string(value));
      } else {
        it->second.append(", ").append(value);
      }
    }
    return size * count;
  }

  // Configures a transfer for `request`; false if curl refused an option.
  bool configure(Transfer& t, HttpClientRequest& request) {
    CURL* e = t.easy;
    bool ok = true;
    auto set = [&](CURLoption option, auto value) { ok = ok && curl_easy_setopt(e, option, value) == CURLE_OK; };
    set(CURLOPT_URL, request.url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_NOSIGNAL, 1L);
    const long seconds = std::max<long>(1, static_cast<long>(request.timeout.count()));
    set(CURLOPT_CONNECTTIMEOUT, seconds);
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, seconds);
    set(CURLOPT_ACCEPT_ENCODING, "");
    set(CURLOPT_USERAGENT, userAgent().c_str());
    // An empty file name turns on the cookie engine without reading a file;
    // the share keeps what it learns for the session's later transfers.
    set(CURLOPT_COOKIEFILE, "");
    set(CURLOPT_SHARE, cookies_);
    set(CURLOPT_ERRORBUFFER, t.errorBuffer);
    set(CURLOPT_WRITEFUNCTION, &Session::onBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&t));
    set(CURLOPT_HEADERFUNCTION, &Session::onHeader);
    set(CURLOPT_HEADERDATA, static_cast<void*>(&t));
    set(CURLOPT_PRIVATE, static_cast<void*>(&t));

    // Method: the standard ones through curl's own modes, so redirects treat
    // them as a browser would; anything else is sent verbatim.
    const std::string& method = request.method;
    if (request.body) t.body = std::move(*request.body);
    if (method == "GET" && !request.body) {
      set(CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
      set(CURLOPT_NOBODY, 1L);
    } else {
      if (method == "POST" || request.body) {
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.body.size()));
        set(CURLOPT_POSTFIELDS, t.body.c_str());
      }
      if (method != "POST") set(CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    for (const auto& [name, value] : request.headers) {
      if (!validHeaderField(name, value)) {
        logLine("[Request] dropping malformed header field " + name);
        continue;
      }
      // "Name;" is how curl sends a field with an empty value.
      const std::string field = value.empty() ? name + ";" : name + ": " + value;
      t.headers = curl_slist_append(t.headers, field.c_str());
    }
    // No "Expect: 100-continue" round trip for large bodies, and no
    // Content-Type the caller did not give.
    t.headers = curl_slist_append(t.headers, "Expect:");
    const bool typed = std::any_of(request.headers.begin(), request.headers.end(),
                                   [](const auto& f) { return equalsIgnoringCase(f.first, "Content-Type"); });
    if (!typed) t.headers = curl_slist_append(t.headers, "Content-Type:");
    set(CURLOPT_HTTPHEADER, t.headers);
    return ok;
  }

  void startIncoming() {
    std::deque<Incoming> batch;
    {
      std::lock_guard lock(mutex_);
      batch.swap(incoming_);
    }
    for (auto& in : batch) {
      active_.emplace_back();
      Transfer& t = active_.back();
      t.completion = std::move(in.completion);
      t.easy = curl_easy_init();
      if (!t.easy || !configure(t, in.request) || curl_multi_add_handle(multi_, t.easy) != CURLM_OK) {
        auto completion = std::move(t.completion);
        active_.pop_back();
        completion(HttpClientResult{HttpTransportError{CURLE_FAILED_INIT, "request could not be set up"}, {}, {}});
      }
    }
  }

  void finish(CURL* easy, CURLcode code) {
    auto it = std::find_if(active_.begin(), active_.end(), [&](const Transfer& t) { return t.easy == easy; });
    if (it == active_.end()) return;
    curl_multi_remove_handle(multi_, easy);
    HttpClientResult result;
    if (code != CURLE_OK) {
      std::string message = it->errorBuffer[0] ? it->errorBuffer : curl_easy_strerror(code);
      result.error = HttpTransportError{static_cast<int>(code), std::move(message)};
    } else {
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      if (status > 0) {
        const char* url = nullptr;
        curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
        result.response = HttpResponseHead{status, url ? url : "", std::move(it->responseHeaders)};
      }
      if (it->gotBytes) result.body = std::move(it->received);
    }
    Completion completion = std::move(it->completion);
    active_.erase(it);
    completion(std::move(result));
  }

  void run() {
    for (;;) {
      startIncoming();
      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi_, &queued)) {
        if (msg->msg == CURLMSG_DONE) finish(msg->easy_handle, msg->data.result);
      }
      {
        std::lock_guard lock(mutex_);
        if (stopping_) break;
      }
      curl_multi_poll(multi_, nullptr, 0, kPollTimeoutMs, nullptr);
    }
    // Stopped: everything still pending completes as cancelled.
    std::deque<Incoming> unstarted;
    {
      std::lock_guard lock(mutex_);
      unstarted.swap(incoming_);
    }
    for (auto& in : unstarted) in.completion(cancelled());
    while (!active_.empty()) {
      Transfer& t = active_.front();
      curl_multi_remove_handle(multi_, t.easy);
      Completion completion = std::move(t.completion);
      active_.pop_front();
      completion(cancelled());
    }
  }

  CURLM* const multi_;
  CURLSH* const cookies_;  // the session's cookie store, in memory only
  std::thread thread_;
  std::mutex mutex_;  // guards incoming_ and stopping_
  std::deque<Incoming> incoming_;
  bool stopping_ = false;
  std::list<Transfer> active_;  // session thread only
};

CurlHttpClient::CurlHttpClient() = default;

CurlHttpClient::~CurlHttpClient() {
  if (session_) session_->stop();
}

void CurlHttpClient::send(HttpClientRequest request, Completion completion) {
  std::call_once(started_, [this] {
    initialiseCurlOnce();
    session_ = std::make_shared<Session>();
    session_->start();
  });
  session_->enqueue(std::move(request), std::move(completion));
}

}  // namespace appex
