#include "tabs/tab_query.h"

namespace appex {

TabQuery TabQuery::fromArguments(const Dictionary& args) {
  TabQuery query;
  query.active = asBool(args, "active");
  if (auto it = args.find("currentWindow"); it != args.end()) {
    query.filtersByWindow = true;
    query.currentWindow = asBool(it->value());
  }
  if (auto it = args.find("url"); it != args.end()) {
    if (auto text = asString(it->value())) {
      query.urls.push_back(std::move(*text));
    } else if (auto texts = asStringList(it->value())) {
      query.urls = std::move(*texts);
    }
  }
  return query;
}

bool TabQuery::admits(const TabState& state, const std::shared_ptr<SFSafariWindow>& current) const {
  const TabState::Fields fields = state.fields();
  if (active && fields.isActive != *active) return false;
  if (!urls.empty()) {
    if (!fields.url) return false;
    bool found = false;
    for (const auto& text : urls) {
      if (fields.url->find(text) != std::string::npos) {
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  if (filtersByWindow && current) {
    auto window = fields.win.ref();
    if (!window) return true;
    if (!currentWindow) return false;
    return current->isEqual(*window) == *currentWindow;
  }
  return true;
}

}  // namespace appex
