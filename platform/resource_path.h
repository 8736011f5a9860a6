// Resolving paths inside the bundle's resource folder, for everything the
// browser reads from the bundle on a page's behalf: content scripts and style
// sheets named in Info.plist, and requests to the extension's base URI.
//
// A path resolves only to a regular file that lies inside the root once
// every symbolic link is followed, or in the SDK shipped with appex (sdk/,
// the one source of the SDK files: a bundle may link to them there rather
// than carry copies, as the example in the source tree does). Anything that could step out is refused
// before the file system is asked: "." and ".." segments, an absolute path,
// and (for URL paths) a percent-encoded "/", "\" or NUL within a segment or
// a malformed escape. Empty segments ("a//b") are skipped.
//
// Thread-safe (no state).
#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace appex {

enum class ResourceRefusal {
  // The path names something outside the root, or is malformed.
  outside,
  // Inside the root, but no regular file is there.
  notFound,
};

// `relative` is a plain file path relative to `root` ("Assets/a.js").
std::expected<std::filesystem::path, ResourceRefusal> resolveResourcePath(
    const std::filesystem::path& root, std::string_view relative);

// `urlPath` is the path of a URL as it arrived, percent-encoded
// ("/Assets/caf%C3%A9.js"); each segment is decoded on its own.
std::expected<std::filesystem::path, ResourceRefusal> resolveResourceURLPath(
    const std::filesystem::path& root, std::string_view urlPath);

// Decodes %XX escapes; nothing for a malformed one ("%4", "%zz").
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace appex
