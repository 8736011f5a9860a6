#include "app/control_commands.h"

#include "app/control_channel.h"
#include "app/host_session.h"
#include "app/shared_reply.h"
#include "app/site_server.h"
#include "core/context.h"
#include "platform/popover.h"
#include "platform/user_defaults.h"
#include "platform/webkit/script_evaluation.h"
#include "platform/webkit/webkit_browser.h"
#include "platform/webkit/webkit_tab.h"
#include "platform/webkit/webkit_window.h"

namespace appex {
namespace {

using webkit::WebKitTab;
using webkit::WebKitWindow;

std::optional<std::string> param(const Dictionary& request, std::string_view key) {
  return asString(request, key);
}

// The named window, or the active one when none is named.
std::shared_ptr<WebKitWindow> windowFor(HostSession& s, const Dictionary& request, std::string* error) {
  if (auto handle = param(request, "window")) {
    auto w = s.window(*handle);
    if (!w) *error = "no window " + *handle;
    return w;
  }
  auto w = s.browser().activeWindow();
  if (!w) *error = "no window is open";
  return w;
}

std::shared_ptr<WebKitTab> tabFor(HostSession& s, const Dictionary& request, std::string* error) {
  auto handle = param(request, "tab");
  if (!handle) {
    *error = "\"tab\" is required";
    return nullptr;
  }
  auto t = s.tab(*handle);
  if (!t) *error = "no tab " + *handle;
  return t;
}

Result evaluated(std::expected<AnyValue, std::string> value) {
  if (!value) return failure(value.error());
  return success(std::move(*value));
}

// How a load-opening command waits: "load" (the default) or "none".
std::expected<bool, std::string> waitsForLoad(const Dictionary& request) {
  if (!request.contains("wait")) return true;
  auto wait = param(request, "wait");
  if (wait == "load") return true;
  if (wait == "none") return false;
  return std::unexpected(std::string("\"wait\" is \"load\" or \"none\""));
}

// The reply of a command that opened or navigated `tab`: now, or once its
// page has loaded.
void replyOnLoad(HostSession& s, bool wait, const std::string& tab, Dictionary result, ResultCallback reply) {
  if (!wait) return reply(success(std::move(result)));
  s.whenLoaded(tab, [result = std::move(result), reply = SharedReply(std::move(reply))](Result loaded) {
    if (!loaded) return reply(std::move(loaded));
    Dictionary out = result;
    const auto& page = (*loaded)->as_object();
    out["url"] = page.at("url");
    out["title"] = page.at("title");
    reply(success(std::move(out)));
  });
}

}  // namespace

void addControlCommands(ControlChannel& channel, HostSession& s, std::string siteURL, std::function<void()> quit) {
  auto urlOf = [siteURL](const Dictionary& r) -> std::expected<std::string, std::string> {
    auto url = param(r, "url");
    if (!url) return std::unexpected(std::string("\"url\" is required"));
    return resolveURL(siteURL, *url);
  };
  channel.add("openTab", [&s, urlOf](const Dictionary& r, ResultCallback reply) {
    auto url = urlOf(r);
    if (!url) return reply(failure(url.error()));
    auto wait = waitsForLoad(r);
    if (!wait) return reply(failure(wait.error()));
    std::string error;
    auto w = windowFor(s, r, &error);
    if (!w) return reply(failure(error));
    auto t = w->openTab(*url, asBool(r, "active").value_or(true));
    if (!t) return reply(failure("cannot open " + *url));
    const std::string tab = s.handleOf(t);
    replyOnLoad(s, *wait, tab, Dictionary{{"tab", tab}, {"window", s.handleOf(w)}}, std::move(reply));
  });
  channel.add("openWindow", [&s, urlOf](const Dictionary& r, ResultCallback reply) {
    auto url = urlOf(r);
    if (!url) return reply(failure(url.error()));
    auto wait = waitsForLoad(r);
    if (!wait) return reply(failure(wait.error()));
    auto w = s.browser().openWindow(*url, asBool(r, "private").value_or(false));
    if (!w) return reply(failure("cannot open " + *url));
    auto tabs = w->tabs();
    if (tabs.empty()) return reply(failure("the window opened without a tab"));
    const std::string tab = s.handleOf(tabs.front());
    replyOnLoad(s, *wait, tab, Dictionary{{"window", s.handleOf(w)}, {"tab", tab}}, std::move(reply));
  });
  channel.add("navigate", [&s, urlOf](const Dictionary& r, ResultCallback reply) {
    std::string error;
    auto t = tabFor(s, r, &error);
    if (!t) return reply(failure(error));
    auto url = urlOf(r);
    if (!url) return reply(failure(url.error()));
    auto wait = waitsForLoad(r);
    if (!wait) return reply(failure(wait.error()));
    if (!webkit::isLoadableURL(*url)) return reply(failure("cannot load " + *url));
    t->navigateToURL(*url);
    const std::string tab = s.handleOf(t);
    replyOnLoad(s, *wait, tab, Dictionary{{"tab", tab}}, std::move(reply));
  });
  channel.add("activateTab", [&s](const Dictionary& r, ResultCallback reply) {
    std::string error;
    auto t = tabFor(s, r, &error);
    if (!t) return reply(failure(error));
    auto shared = std::make_shared<ResultCallback>(std::move(reply));
    t->activate([shared] { (*shared)(success(true)); });
  });
  channel.add("closeTab", [&s](const Dictionary& r, ResultCallback reply) {
    std::string error;
    auto t = tabFor(s, r, &error);
    if (!t) return reply(failure(error));
    t->close();
    reply(success(true));
  });
  channel.add("closeWindow", [&s](const Dictionary& r, ResultCallback reply) {
    auto handle = param(r, "window");
    if (!handle) return reply(failure("\"window\" is required"));
    auto w = s.window(*handle);
    if (!w) return reply(failure("no window " + *handle));
    w->close();
    reply(success(true));
  });
  channel.add("listTabs", [&s](const Dictionary&, ResultCallback reply) {
    List out;
    for (const auto& w : s.browser().windows()) {
      auto active = w->activeTab();
      for (const auto& t : w->tabs()) {
        auto page = t->page();
        auto properties = page ? page->properties() : std::nullopt;
        out.push_back(Dictionary{
            {"tab", s.handleOf(t)},
            {"window", s.handleOf(w)},
            {"url", properties && properties->url ? AnyValue(*properties->url) : AnyValue(nullptr)},
            {"title", properties && properties->title ? AnyValue(*properties->title) : AnyValue(nullptr)},
            {"active", t == active}});
      }
    }
    reply(success(std::move(out)));
  });
  channel.add("eval", [&s](const Dictionary& r, ResultCallback answer) {
    auto code = param(r, "code");
    if (!code) return answer(failure("\"code\" is required"));
    const std::string where = param(r, "in").value_or("background");
    long timeoutMs = kEvalTimeoutMs;
    if (r.contains("timeout")) {
      const auto& t = r.at("timeout");
      const double ms = t.is_number() ? t.to_number<double>() : -1;
      if (!(ms > 0 && ms <= 86'400'000)) return answer(failure("\"timeout\" is a positive number of milliseconds"));
      timeoutMs = static_cast<long>(ms);
    }
    const SharedReply reply(std::move(answer));
    auto done = [reply](std::expected<AnyValue, std::string> v) { reply(evaluated(std::move(v))); };
    std::string place = "the background page";
    if (where == "popup") place = "the popup";
    if (where == "tab") place = "tab " + param(r, "tab").value_or("?");
    s.after(
        std::chrono::milliseconds(timeoutMs),
        [reply, place, timeoutMs] {
          reply(failure("eval in " + place + " timed out after " + std::to_string(timeoutMs) + " ms"));
        },
        [reply] { return reply.answered(); });
    if (where == "background") {
      auto view = s.backgroundWebView();
      if (!view) return done(std::unexpected(std::string("the background page is not up yet")));
      return webkit::evaluateInWebView(view, *code, std::move(done));
    }
    if (where == "popup") {
      s.whenPopupLoaded([&s, code = *code, done] { webkit::evaluateInWebView(s.popupWebView(), code, done); },
                        [done] { done(std::unexpected(std::string("the popup page did not load"))); });
      return;
    }
    if (where == "tab") {
      std::string error;
      auto t = tabFor(s, r, &error);
      if (!t) return done(std::unexpected(error));
      const std::string world = param(r, "world").value_or("content");
      if (world != "content" && world != "page") {
        return done(std::unexpected("\"world\" is \"content\" or \"page\", not \"" + world + "\""));
      }
      const std::string handle = s.handleOf(t);
      s.watchTab(handle, reply);
      // The engine drops an evaluation whose page went away with an error
      // of its own; say what happened.
      return webkit::evaluateInTab(t, *code, world == "content",
                                   [done, t, handle](std::expected<AnyValue, std::string> v) {
                                     if (!v && t->isClosed()) v = std::unexpected("tab " + handle + " closed");
                                     done(std::move(v));
                                   });
    }
    done(std::unexpected("\"in\" is \"background\", \"popup\" or \"tab\", not \"" + where + "\""));
  });
  channel.add("clickToolbar", [&s](const Dictionary& r, ResultCallback reply) {
    std::string error;
    auto w = windowFor(s, r, &error);
    if (!w) return reply(failure(error));
    w->clickToolbarItem();
    reply(success(true));
  });
  channel.add("closePopover", [&s](const Dictionary&, ResultCallback reply) {
    s.context().get<Popover>()->dismiss();
    reply(success(true));
  });
  channel.add("clickOutside", [&s](const Dictionary& r, ResultCallback reply) {
    std::shared_ptr<WebKitWindow> w;
    if (param(r, "window")) {
      std::string error;
      w = windowFor(s, r, &error);
      if (!w) return reply(failure(error));
    }
    if (!s.browser().clickOutsidePopover(w)) return reply(failure("the popover is not shown"));
    reply(success(true));
  });
  channel.add("toolbar", [&s](const Dictionary& r, ResultCallback reply) {
    std::string error;
    auto w = windowFor(s, r, &error);
    if (!w) return reply(failure(error));
    reply(success(s.toolbarState(w)));
  });
  channel.add("popover", [&s](const Dictionary&, ResultCallback reply) {
    reply(success(s.popoverState()));
  });
  channel.add("snapshot", [&s](const Dictionary& r, ResultCallback reply) {
    auto of = param(r, "of");
    auto path = param(r, "path");
    if (!of || !path) return reply(failure("\"of\" and \"path\" are required"));
    if (*of == "toolbar") {
      std::string error;
      auto w = windowFor(s, r, &error);
      if (!w) return reply(failure(error));
      const auto scale = r.contains("scale") ? asInt64(r.at("scale")) : std::optional<std::int64_t>(2);
      if (scale != 1 && scale != 2) return reply(failure("\"scale\" is 1 or 2"));
      return s.snapshotToolbar(w, static_cast<int>(*scale), *path, std::move(reply));
    }
    if (*of == "tab") {
      auto handle = param(r, "tab");
      if (!handle) return reply(failure("\"tab\" is required for a tab snapshot"));
      return s.snapshot(*handle, *path, std::move(reply));
    }
    if (*of != "background" && *of != "popover") {
      return reply(failure("\"of\" is \"background\", \"popover\", \"toolbar\" or \"tab\", not \"" + *of + "\""));
    }
    s.snapshot(*of, *path, std::move(reply));
  });
  channel.add("defaults", [&s](const Dictionary&, ResultCallback reply) {
    reply(success(s.context().get<UserDefaults>()->dictionaryRepresentation()));
  });
  channel.add("quit", [&channel, quit](const Dictionary&, ResultCallback reply) {
    channel.end();  // what comes after is not run
    reply(success(true));
    quit();
  });
}

}  // namespace appex
