#include "platform/browser_url.h"

#include <idn2.h>

#include <boost/url/parse.hpp>

#include <algorithm>

namespace appex {
namespace {

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// ASCII classes, whatever the process's locale says.
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAlnum(char c) { return isDigit(c) || isAlpha(c); }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// What a URI carries as it is outside its host: unreserved characters,
// sub-delimiters, ':', '/', '?', and '@' where `at` says so. '%' is kept
// only where it starts an escape.
void appendEncoded(std::string& out, std::string_view text, bool at) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool escape = c == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2]);
    constexpr std::string_view kMarks = "-._~!$&'()*+,;=:/?";
    const bool plain = isAlnum(text[i]) || kMarks.find(text[i]) != std::string_view::npos;
    if (plain || (at && c == '@') || escape) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
}

// The host as a URI names it: ASCII hosts as they are, others by their
// IDNA name, as browsers look them up.
std::optional<std::string> asciiHost(std::string_view host) {
  if (isASCII(host)) return std::string(host);
  char* converted = nullptr;
  const int rc = idn2_to_ascii_8z(std::string(host).c_str(), &converted, IDN2_NONTRANSITIONAL | IDN2_NFC_INPUT);
  if (rc != IDN2_OK) return std::nullopt;
  std::string result(converted);
  idn2_free(converted);
  return result;
}

// Nothing, or ':' and a number up to 65535 (possibly none).
bool isPort(std::string_view port) {
  if (port.empty()) return true;
  if (port.front() != ':') return false;
  unsigned long value = 0;
  for (char c : port.substr(1)) {
    if (!isDigit(c)) return false;
    value = value * 10 + static_cast<unsigned long>(c - '0');
    if (value > 65535) return false;
  }
  return true;
}

bool needsHost(std::string_view scheme) {
  for (std::string_view web : {"http", "https", "ws", "wss", "ftp"}) {
    if (scheme == web) return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> browserURL(std::string_view text) {
  // As a browser reads an address: surrounding controls and spaces go, and
  // tabs and line breaks anywhere.
  const auto isBlank = [](char c) { return static_cast<unsigned char>(c) <= 0x20; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  std::string s;
  s.reserve(text.size());
  for (char c : text) {
    if (c != '\t' && c != '\n' && c != '\r') s += c;
  }

  const std::size_t colon = s.find(':');
  if (colon == std::string::npos || colon == 0 || !isAlpha(s[0])) {
    return std::nullopt;
  }
  std::string scheme = s.substr(0, colon);
  for (char& c : scheme) {
    if (!isAlnum(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
    c = lower(c);
  }

  std::string out = scheme + ":";
  std::size_t pos = colon + 1;
  // A web address always has a host, however many slashes (none, one, or
  // backslashes) come before it; other schemes have one after "//".
  const bool web = needsHost(scheme);
  if (web) {
    while (pos < s.size() && (s[pos] == '/' || s[pos] == '\\')) ++pos;
  }
  if (web || s.compare(pos, 2, "//") == 0) {
    if (!web) pos += 2;
    const std::size_t end = std::min(s.find_first_of(web ? "/\\?#" : "/?#", pos), s.size());
    const std::string_view authority = std::string_view(s).substr(pos, end - pos);
    const std::size_t at = authority.rfind('@');
    const std::string_view userInfo = at == std::string_view::npos ? "" : authority.substr(0, at);
    const std::string_view hostPort = at == std::string_view::npos ? authority : authority.substr(at + 1);
    std::string_view host = hostPort;
    std::string_view port;
    if (hostPort.starts_with('[')) {
      const std::size_t close = hostPort.find(']');
      if (close == std::string_view::npos) return std::nullopt;
      host = hostPort.substr(0, close + 1);
      port = hostPort.substr(close + 1);
    } else if (const std::size_t c = hostPort.rfind(':'); c != std::string_view::npos) {
      host = hostPort.substr(0, c);
      port = hostPort.substr(c);
    }
    if (!isPort(port)) return std::nullopt;
    auto ascii = asciiHost(host);
    if (!ascii || (ascii->empty() && web)) return std::nullopt;
    out += "//";
    if (at != std::string_view::npos) {
      appendEncoded(out, userInfo, false);
      out += '@';
    }
    out += *ascii;
    out += port;
    pos = end;
  }

  // Path and query, then the fragment, which may hold further '#'s. A web
  // address's path reads a backslash as a slash.
  std::string rest = s.substr(pos);
  const std::size_t hash = rest.find('#');
  if (web) {
    const std::size_t pathEnd = std::min(rest.find_first_of("?#"), rest.size());
    std::replace(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(pathEnd), '\\', '/');
  }
  appendEncoded(out, std::string_view(rest).substr(0, hash), true);
  if (hash != std::string_view::npos) {
    out += '#';
    appendEncoded(out, std::string_view(rest).substr(hash + 1), true);
  }

  if (!boost::urls::parse_uri(out)) return std::nullopt;
  return out;
}

}  // namespace appex
