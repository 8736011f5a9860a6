// The browser's content scripts and style sheets as WebKit user scripts,
// made at start and again when the bundle's files change.
#include <webkit2/webkit2.h>

#include "core/context.h"
#include "platform/bundle.h"
#include "platform/webkit/browser_internals.h"
#include "platform/webkit/webkit_browser.h"
#include "platform/webkit/webkit_tab.h"
#include "platform/webkit/webkit_window.h"

namespace appex::webkit {
namespace {

// A NULL-terminated array of C strings over `texts`.
std::vector<const char*> cStrings(const std::vector<std::string>& texts) {
  std::vector<const char*> out;
  for (const auto& text : texts) out.push_back(text.c_str());
  out.push_back(nullptr);
  return out;
}

}  // namespace

void WebKitBrowser::Impl::installRules(ContentRules newRules) {
  for (auto* script : scripts) webkit_user_script_unref(script);
  for (auto* sheet : styleSheets) webkit_user_style_sheet_unref(sheet);
  scripts.clear();
  styleSheets.clear();
  rules = std::move(newRules);
  const std::vector<std::string> patterns = rules.urlPatterns();
  if (patterns.empty()) return;
  const auto allow = cStrings(patterns);
  for (const auto& script : rules.scripts) {
    scripts.push_back(webkit_user_script_new_for_world(script.text.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                                       WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START,
                                                       kContentWorldName, allow.data(), nullptr));
  }
  for (const auto& sheet : rules.styleSheets) {
    styleSheets.push_back(webkit_user_style_sheet_new(sheet.text.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                                      WEBKIT_USER_STYLE_LEVEL_USER, allow.data(), nullptr));
  }
}

void WebKitBrowser::reloadContent() {
  auto& impl = *impl_;
  if (impl.shutDown) return;
  const auto bundle = impl.context.get<Bundle>();
  impl.installRules(readContentRules(*bundle));
  for (const auto& window : impl.windows) {
    for (const auto& tab : window->tabs()) {
      WebKitWebView* view = tab->internals().view;
      if (!view || tab->isClosed()) continue;
      WebKitUserContentManager* content = webkit_web_view_get_user_content_manager(view);
      webkit_user_content_manager_remove_all_scripts(content);
      webkit_user_content_manager_remove_all_style_sheets(content);
      for (auto* script : impl.scripts) webkit_user_content_manager_add_script(content, script);
      for (auto* sheet : impl.styleSheets) webkit_user_content_manager_add_style_sheet(content, sheet);
      webkit_web_view_reload(view);
    }
  }
}

}  // namespace appex::webkit
