// SFSafariPage: one web page (document) inside a browser tab, as the browser
// hands it to the extension. A tab may hold several pages; pages carry no
// identifier of their own and are recognised only through isEqual.
//
// The browser owns pages; the system holds them weakly once a call returns
// (closing a tab drops its pages). Queries answer through a completion that
// is called exactly once, on any thread, possibly before the query returns.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/any_value.h"
#include "platform/safari_page_properties.h"

namespace appex {

class SFSafariTab;

class SFSafariPage {
 public:
  using TabCompletion = std::move_only_function<void(std::shared_ptr<SFSafariTab>)>;
  using PropertiesCompletion =
      std::move_only_function<void(std::optional<SFSafariPageProperties>)>;

  virtual ~SFSafariPage() = default;

  // The tab that shows this page, or nullptr once the page is gone.
  virtual void getContainingTab(TabCompletion completion) = 0;
  // The page's current properties, or nothing once the page is gone.
  virtual void getPageProperties(PropertiesCompletion completion) = 0;
  // Delivers `userInfo` under `name` to the content scripts of this page
  // only. Fire and forget: nothing reports whether a script received it.
  virtual void dispatchMessageToScript(const std::string& name, const Dictionary& userInfo) = 0;

  // True when both handles denote the same browser page.
  virtual bool isEqual(const SFSafariPage& other) const = 0;
  // A hash that agrees with isEqual: pages it calls equal hash alike, so
  // registries can find a page without comparing it with every other. The
  // default hashes the handle's address, which agrees with an isEqual that
  // compares identity; a browser whose isEqual does not must override it.
  virtual std::size_t hash() const { return std::hash<const void*>{}(this); }
  // A short text naming the page, for log lines only.
  virtual std::string description() const = 0;
};

}  // namespace appex
