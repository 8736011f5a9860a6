// SFSafariExtension: facts about the extension itself that only the browser
// knows. The host installs one per Context (Context::set<SFSafariExtension>).
//
// Thread-safe; the completion is called exactly once, on any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace appex {

class SFSafariExtension {
 public:
  using BaseURICompletion = std::move_only_function<void(std::optional<std::string>)>;

  virtual ~SFSafariExtension() = default;

  // The URL text under which the extension's bundled files are reachable
  // from web content, or nothing when the browser reports none.
  virtual void getBaseURI(BaseURICompletion completion) = 0;
};

}  // namespace appex
