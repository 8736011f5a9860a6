// A content script's strings cannot break out of the scripts native code
// composes for hosted pages (onWebViewCall('__default__', <message>)):
// quotes, backslashes, line terminators, U+2028/U+2029, lone surrogates and
// "</script>" travel as data. Each script is evaluated by Node with
// fuzz/check_composed_scripts.mjs, which requires exactly one call whose
// argument deep-equals the message meant, no raw line terminator and no
// "</" in the text.
#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "host/json.h"
#include "tests/host/entry_fixture.h"

namespace appex::testing {
namespace {

const std::vector<std::string> kHostile = {
    "it's",
    "say \"hi\"",
    "back\\slash \\' \\\" \\\\n \\u2028",
    "line\nfeed\r\ncr\fform\ttab\vvtab",
    "sep\xE2\x80\xA8" "para\xE2\x80\xA9" "end",
    "</script><script>alert(1)</script>",
    "</SCRIPT ><!--<script>",
    "'); alert(1); ('",
    "\"}); alert(1); ({\"",
    "`${alert(1)}`",
    std::string("nul\0byte", 8),
    "\x01\x1f\x7f controls",
    // A lone surrogate in the byte form pages' UTF-16 strings become when
    // converted loosely (U+D800 as three bytes), and one cut short.
    "lone \xED\xA0\x80 surrogate",
    "cut \xF0\x9F\x98",
    "emoji \xF0\x9F\x98\x80 accents \xC3\xA9",
};

// The folder the checker reads, one .js/.json pair per script.
class ScriptCases {
 public:
  ScriptCases() {
    folder_ = std::filesystem::path(::testing::TempDir()) /
              ("appex-scripts-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
  }
  ~ScriptCases() { std::filesystem::remove_all(folder_); }

  void add(const std::string& script, const AnyValue& expected) {
    const std::string base = (folder_ / std::to_string(count_++)).string();
    std::ofstream(base + ".js", std::ios::binary) << script;
    std::ofstream(base + ".json", std::ios::binary) << boost::json::serialize(expected);
  }
  int count() const { return count_; }

  // The checker's exit status.
  int check() const {
    const std::string command = std::string(APPEX_NODE) + " " + APPEX_SCRIPT_CHECKER + " " + folder_.string();
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  std::filesystem::path folder_;
  int count_ = 0;
};

class ComposedScriptTest : public EntryFixture {
 protected:
  ComposedScriptTest() {
    window = sim->openWindow();
    tab = window->addTab("https://site.test/a", "Site", true);
    page = tab->activePage();
  }

  // Every onWebViewCall the view was given carrying a message of `type`.
  static std::vector<std::pair<std::string, Message>> scriptsFor(const FakeWebView& view, MessageType type) {
    std::vector<std::pair<std::string, Message>> out;
    const std::string prefix = "onWebViewCall('__default__', ";
    for (const auto& script : view.evaluated) {
      if (!script.starts_with(prefix)) continue;
      // Read leniently: some of the strings are not UTF-8 on purpose.
      boost::json::parse_options lenient;
      lenient.allow_invalid_utf8 = true;
      boost::system::error_code ec;
      AnyValue value = boost::json::parse(
          std::string_view(script).substr(prefix.size(), script.size() - prefix.size() - 1), ec, {}, lenient);
      if (ec) continue;
      auto message = Message::parse(value);
      if (message && message->type == type) out.emplace_back(script, *message);
    }
    return out;
  }

  std::shared_ptr<sim::SimWindow> window;
  std::shared_ptr<sim::SimTab> tab;
  std::shared_ptr<sim::SimPage> page;
};

TEST_F(ComposedScriptTest, ContentScriptStringsReachTheBackgroundPageAsData) {
  auto bg = startBackground();
  std::vector<AnyValue> sent;
  for (std::size_t i = 0; i < kHostile.size(); ++i) {
    const auto& s = kHostile[i];
    Dictionary args{{"i", i}, {"s", s}, {s, List{s, 1, true, nullptr}}};
    sent.emplace_back(args);
    Message ask{MessageType::ask, "c" + std::to_string(i), {}, {}, "messaging", request("background", "ping", args), 0};
    page->sendMessageToExtension("__APP_EXTENSION__", ask.build());
  }
  settle();

  ScriptCases cases;
  std::set<std::int64_t> seen;
  for (const auto& [script, message] : scriptsFor(*bg, MessageType::ask)) {
    if (message.cmd != "ping") continue;
    // The uid is the bridge's own; the arguments must be exactly what the
    // content script sent ("i" says which, the rest is compared by Node).
    const auto i = asInt64(message.args->at("i")).value();
    seen.insert(i);
    Message meant{MessageType::ask, message.uid, {}, {}, "ping", sent.at(static_cast<std::size_t>(i)), {}};
    cases.add(script, AnyValue(meant.build()));
  }
  ASSERT_EQ(seen.size(), kHostile.size()) << "every ask reached the background page";
  EXPECT_EQ(cases.check(), 0) << "a composed script let a content script's string out (see output)";
}

TEST_F(ComposedScriptTest, StoredStringsReachTheBackgroundPageAsData) {
  auto bg = startBackground();
  Dictionary items;
  std::vector<AnyValue> keys;
  for (std::size_t i = 0; i < kHostile.size(); ++i) {
    items["k" + std::to_string(i)] = kHostile[i];
    keys.emplace_back("k" + std::to_string(i));
  }
  askRouted(*bg, request("api", "storage.local.set", items), "set");
  askRouted(*bg, request("api", "storage.local.get", List(keys.begin(), keys.end())), "get");
  settle();

  ScriptCases cases;
  for (const auto& [script, message] : scriptsFor(*bg, MessageType::answer)) {
    if (message.uid != "get") continue;
    cases.add(script, AnyValue(Message{MessageType::answer, "get", {}, AnyValue(items), {}, {}, {}}.build()));
  }
  ASSERT_EQ(cases.count(), 1);
  EXPECT_EQ(cases.check(), 0);
}

TEST(ComposedScriptJsonTest, ALoneSurrogateEscapeIsRefusedWholeNotMangled) {
  // What a page's JSON text carries for a lone surrogate: refused, so the
  // message is dropped rather than passed on as bytes that are not text.
  EXPECT_FALSE(JSON::parse(R"(["\ud800"])"));
  EXPECT_FALSE(JSON::parse(R"({"a":"x\udc00y"})"));
  auto pair = JSON::parse(R"(["\ud83d\ude00"])");
  ASSERT_TRUE(pair);
  EXPECT_EQ(pair->at(0), AnyValue("\xF0\x9F\x98\x80"));
}

// The checker is what the guarantees above rest on: it must see a breakout.
TEST(ComposedScriptCheckerTest, RejectsScriptsThatBreakOut) {
  const Dictionary value{{"s", "x"}};
  const std::string good = "onWebViewCall('__default__', {\"s\":\"x\"})";
  const std::vector<std::string> broken = {
      "onWebViewCall('__default__', {\"s\":\"x\"}); onWebViewCall('__default__', {\"s\":\"x\"})",
      "onWebViewCall('__default__', {\"s\":\"x\"}), globalThis.leak()",
      "onWebViewCall('__default__', {\"s\":\"x\xE2\x80\xA8\"})",
      "onWebViewCall('__default__', {\"s\":\"</script>\"})",
      "onWebViewCall('__default__', {\"s\":\"y\"})",
      "onWebViewCall('elsewhere', {\"s\":\"x\"})",
  };
  {
    ScriptCases cases;
    cases.add(good, AnyValue(value));
    EXPECT_EQ(cases.check(), 0);
  }
  for (const auto& script : broken) {
    ScriptCases cases;
    cases.add(script, AnyValue(value));
    EXPECT_EQ(cases.check(), 1) << script;
  }
}

}  // namespace
}  // namespace appex::testing
