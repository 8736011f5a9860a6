#include "platform/resource_path.h"

#include <system_error>
#include <vector>

namespace appex {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::vector<std::string_view> segmentsOf(std::string_view path) {
  std::vector<std::string_view> out;
  while (!path.empty()) {
    const auto slash = path.find('/');
    auto segment = path.substr(0, slash);
    if (!segment.empty()) out.push_back(segment);
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return out;
}

bool isSafeSegment(std::string_view segment) {
  if (segment == "." || segment == "..") return false;
  return segment.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

// Whether `real` lies strictly inside `folder` (both canonical): the
// folder's elements are a proper prefix of the file's.
bool isInside(const std::filesystem::path& real, const std::filesystem::path& folder) {
  auto r = folder.begin();
  auto f = real.begin();
  for (; r != folder.end(); ++r, ++f) {
    if (f == real.end() || *r != *f) return false;
  }
  return f != real.end();
}

// The SDK shipped with appex, canonical; empty when it is not there.
const std::filesystem::path& sdkFolder() {
  static const std::filesystem::path folder = [] {
    std::error_code error;
    auto real = std::filesystem::canonical(APPEX_SDK_DIR, error);
    return error ? std::filesystem::path() : real;
  }();
  return folder;
}

// Joins checked segments under `root` and confirms that the real file lies
// inside the real root, or in the SDK shipped with appex.
std::expected<std::filesystem::path, ResourceRefusal> locate(const std::filesystem::path& root,
                                                             const std::vector<std::string>& segments) {
  std::error_code error;
  const auto realRoot = std::filesystem::canonical(root, error);
  if (error) return std::unexpected(ResourceRefusal::notFound);
  std::filesystem::path candidate = realRoot;
  for (const auto& segment : segments) candidate /= segment;
  const auto real = std::filesystem::canonical(candidate, error);
  if (error) return std::unexpected(ResourceRefusal::notFound);
  if (real == realRoot) return std::unexpected(ResourceRefusal::notFound);
  if (!isInside(real, realRoot) && (sdkFolder().empty() || !isInside(real, sdkFolder()))) {
    return std::unexpected(ResourceRefusal::outside);
  }
  if (!std::filesystem::is_regular_file(real, error)) return std::unexpected(ResourceRefusal::notFound);
  return real;
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return out;
}

std::expected<std::filesystem::path, ResourceRefusal> resolveResourcePath(
    const std::filesystem::path& root, std::string_view relative) {
  if (relative.empty() || relative.front() == '/') return std::unexpected(ResourceRefusal::outside);
  std::vector<std::string> segments;
  for (auto segment : segmentsOf(relative)) {
    if (!isSafeSegment(segment)) return std::unexpected(ResourceRefusal::outside);
    segments.emplace_back(segment);
  }
  return locate(root, segments);
}

std::expected<std::filesystem::path, ResourceRefusal> resolveResourceURLPath(
    const std::filesystem::path& root, std::string_view urlPath) {
  std::vector<std::string> segments;
  for (auto raw : segmentsOf(urlPath)) {
    auto decoded = percentDecode(raw);
    if (!decoded || decoded->empty() || !isSafeSegment(*decoded)) {
      return std::unexpected(ResourceRefusal::outside);
    }
    segments.push_back(std::move(*decoded));
  }
  return locate(root, segments);
}

}  // namespace appex
