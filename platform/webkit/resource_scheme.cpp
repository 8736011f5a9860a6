// The extension's base URI: a URI scheme of the tab context that serves the
// bundle's resource folder, read-only. Only GET and HEAD are answered; a
// request for another host, or a path that would leave the folder, gets 403;
// a missing file 404.
//
// Content scripts load these resources into web pages of any origin (fetch,
// XHR, img, style sheets), so every answer, refusals included, allows any
// origin to read it; what is readable is only what the bundle ships. Each
// file is typed by its name, so that a page treats it as what it is.
#include <gio/gio.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <strings.h>
#include <utility>

#include "core/log.h"
#include "platform/webkit/browser_internals.h"
#include "platform/resource_path.h"

namespace appex::webkit {
namespace {

struct SchemeSource {
  std::string host;
  std::string root;
};

void finish(WebKitURISchemeRequest* request, guint status, const char* reason, GBytes* body,
            const char* contentType) {
  GInputStream* stream = body ? g_memory_input_stream_new_from_bytes(body)
                              : g_memory_input_stream_new();
  const gint64 length = body ? static_cast<gint64>(g_bytes_get_size(body)) : 0;
  WebKitURISchemeResponse* response = webkit_uri_scheme_response_new(stream, length);
  webkit_uri_scheme_response_set_status(response, status, reason);
  webkit_uri_scheme_response_set_content_type(response, contentType);
  // The engine reports to the page only the fields given here (the content
  // type set above included); it takes ownership of them. The asking origin
  // is named rather than "*" so that requests with credentials pass too
  // (there are none here to leak).
  SoupMessageHeaders* asked = webkit_uri_scheme_request_get_http_headers(request);
  const char* origin = asked ? soup_message_headers_get_one(asked, "Origin") : nullptr;
  SoupMessageHeaders* fields = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
  soup_message_headers_append(fields, "Content-Type", contentType);
  soup_message_headers_append(fields, "Access-Control-Allow-Origin", origin ? origin : "*");
  if (origin) {
    soup_message_headers_append(fields, "Access-Control-Allow-Credentials", "true");
    soup_message_headers_append(fields, "Vary", "Origin");
  }
  webkit_uri_scheme_response_set_http_headers(response, fields);
  webkit_uri_scheme_request_finish_with_response(request, response);
  g_object_unref(response);
  g_object_unref(stream);
}

void refuse(WebKitURISchemeRequest* request, guint status, const char* reason) {
  finish(request, status, reason, nullptr, "text/plain");
}

// The types a page needs exactly to use a file at all (a style sheet, a
// script, an SVG image, a module); anything else by the system's MIME
// database, from the name alone (an empty file would otherwise type as
// "empty").
std::string contentTypeOf(const std::string& path) {
  static constexpr std::pair<std::string_view, std::string_view> kWebTypes[] = {
      {".css", "text/css"},         {".js", "text/javascript"},      {".mjs", "text/javascript"},
      {".json", "application/json"}, {".html", "text/html"},         {".htm", "text/html"},
      {".svg", "image/svg+xml"},    {".wasm", "application/wasm"},   {".txt", "text/plain"},
  };
  const std::string extension = std::filesystem::path(path).extension().string();
  for (const auto& [suffix, type] : kWebTypes) {
    if (g_ascii_strcasecmp(extension.c_str(), std::string(suffix).c_str()) == 0) return std::string(type);
  }
  gchar* type = g_content_type_guess(path.c_str(), nullptr, 0, nullptr);
  gchar* mime = type ? g_content_type_get_mime_type(type) : nullptr;
  std::string out = mime ? mime : "application/octet-stream";
  g_free(mime);
  g_free(type);
  return out;
}

void serve(WebKitURISchemeRequest* request, gpointer data) {
  const auto& source = *static_cast<const SchemeSource*>(data);
  const char* method = webkit_uri_scheme_request_get_http_method(request);
  if (method && std::string_view(method) != "GET" && std::string_view(method) != "HEAD") {
    refuse(request, 405, "Method Not Allowed");
    return;
  }
  GUri* uri = g_uri_parse(webkit_uri_scheme_request_get_uri(request), G_URI_FLAGS_ENCODED, nullptr);
  if (!uri) {
    refuse(request, 400, "Bad Request");
    return;
  }
  const char* host = g_uri_get_host(uri);
  const bool ourHost = host && strcasecmp(host, source.host.c_str()) == 0;
  const std::string path = g_uri_get_path(uri);
  g_uri_unref(uri);
  if (!ourHost) {
    refuse(request, 403, "Forbidden");
    return;
  }
  auto file = resolveResourceURLPath(source.root, path);
  if (!file) {
    if (file.error() == ResourceRefusal::outside) {
      logLine("base URI: refused " + path);
      refuse(request, 403, "Forbidden");
    } else {
      refuse(request, 404, "Not Found");
    }
    return;
  }
  std::ifstream in(*file, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  if (!in) {
    refuse(request, 404, "Not Found");
    return;
  }
  std::string text = content.str();
  const std::string type = contentTypeOf(file->string());
  GBytes* body = g_bytes_new(text.data(), text.size());
  finish(request, 200, "OK", body, type.c_str());
  g_bytes_unref(body);
}

}  // namespace

void registerResourceScheme(WebKitWebContext* context, const std::string& scheme, const std::string& host,
                            const std::string& resourcesFolder) {
  webkit_web_context_register_uri_scheme(
      context, scheme.c_str(), &serve, new SchemeSource{host, resourcesFolder},
      [](gpointer data) { delete static_cast<SchemeSource*>(data); });
  WebKitSecurityManager* security = webkit_web_context_get_security_manager(context);
  webkit_security_manager_register_uri_scheme_as_secure(security, scheme.c_str());
  webkit_security_manager_register_uri_scheme_as_cors_enabled(security, scheme.c_str());
}

}  // namespace appex::webkit
