// browserURL: the one check of URL text that web code hands the browser to
// open or navigate to (tabs.create, tabs.update, windows.create), and the
// form in which the browser is then given it.
//
// Every absolute URL that a browser's address parser takes passes: with a
// query, a fragment, a port, an IPv6 literal, user info, an internationalised
// host or non-ASCII text in its path. Like a browser, the check hands back
// the URL in its ASCII form: an internationalised host becomes its IDNA
// (UTS #46, non-transitional) name, and bytes a URI cannot carry outside the
// host (non-ASCII, spaces, quotes, a second '#'...) are percent-encoded.
// Text without a scheme (empty, relative, "not a url"), a host that IDNA
// refuses and a web address ("http:", "https:", "ws:", "wss:", "ftp:")
// without a host give nothing.
//
// Thread-safe (a pure function).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace appex {

// The ASCII URL the browser loads for `text`, or nothing when `text` is not
// an absolute URL.
std::optional<std::string> browserURL(std::string_view text);

}  // namespace appex
