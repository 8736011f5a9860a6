#include "host/json.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "core/log.h"

namespace appex {
namespace {

std::string base64(std::string_view in) {
  static const char* table = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  unsigned val = 0;
  int bits = -6;
  for (unsigned char c : in) {
    val = (val << 8) + c;
    bits += 8;
    while (bits >= 0) {
      out.push_back(table[(val >> bits) & 0x3F]);
      bits -= 6;
    }
  }
  if (bits > -6) out.push_back(table[((val << 8) >> (bits + 8)) & 0x3F]);
  while (out.size() % 4) out.push_back('=');
  return out;
}

const std::vector<std::string> kHostileStrings = {
    "plain",
    "it's",
    "say \"hi\"",
    "back\\slash \\' \\\" \\\\n",
    "line\nfeed\r\ncr\fform\ttab",
    "sep\xE2\x80\xA8" "para\xE2\x80\xA9" "end",
    "</script><script>alert(1)</script>",
    "'); alert(1); ('",
    "\"}); alert(1); ({\"",
    std::string("nul\0byte", 8),
    "\x01\x1f control",
    "emoji \xF0\x9F\x98\x80 and accents \xC3\xA9",
    "%s %n %d",
    "",
};

// Composes each value the way the bridge does and has Node evaluate the
// script: it must be exactly one call of onWebViewCall whose second
// argument deep-equals the value.
TEST(JsonStringifyTest, ComposedScriptsParseAndCarryTheValueIntact) {
  std::vector<AnyValue> values;
  for (const auto& s : kHostileStrings) {
    values.emplace_back(boost::json::string(s));
    Dictionary d;
    d["s"] = boost::json::string(s);
    d[s] = boost::json::array{boost::json::string(s), 1, 2.5, true, nullptr};
    values.emplace_back(std::move(d));
  }
  values.emplace_back(true);
  values.emplace_back(boost::json::array{});

  std::string program =
      "const vm = require('vm'); const util = require('util');\n"
      "const dec = (b) => Buffer.from(b, 'base64').toString('utf8');\n"
      "let failures = 0;\nconst cases = [\n";
  for (const auto& v : values) {
    auto text = JSON::stringify(v);
    ASSERT_TRUE(text) << boost::json::serialize(v);
    const std::string script = "onWebViewCall('__default__', " + *text + ")";
    EXPECT_EQ(script.find("\xE2\x80\xA8"), std::string::npos) << "raw U+2028 left in " << script;
    EXPECT_EQ(script.find("\xE2\x80\xA9"), std::string::npos) << "raw U+2029 left in " << script;
    if (!v.is_string()) {
      EXPECT_EQ(script.find("</"), std::string::npos) << script;
    }
    program += "['" + base64(script) + "','" + base64(boost::json::serialize(v)) + "'],\n";
  }
  program +=
      "];\nfor (const [s, e] of cases) {\n"
      "  const script = dec(s), expected = JSON.parse(dec(e));\n"
      "  const calls = [];  // the context is another realm: compare through JSON\n"
      "  try { vm.runInNewContext(script, { onWebViewCall: (...a) => calls.push(a) }); }\n"
      "  catch (err) { console.log('does not parse:', script, err.message); failures++; continue; }\n"
      "  if (calls.length !== 1 || calls[0][0] !== '__default__' ||\n"
      "      !util.isDeepStrictEqual(JSON.parse(JSON.stringify(calls[0][1])), expected)) {\n"
      "    console.log('changed:', script, JSON.stringify(calls)); failures++;\n"
      "  }\n}\nprocess.exit(failures ? 1 : 0);\n";
  const std::string path = ::testing::TempDir() + "/json_stringify_check.js";
  std::ofstream(path) << program;
  const std::string command = std::string(APPEX_NODE) + " " + path;
  EXPECT_EQ(std::system(command.c_str()), 0) << "node rejected a composed script (see output)";
}

TEST(JsonStringifyTest, EscapesInTheRequiredOrder) {
  EXPECT_EQ(JSON::escapeForScript("\\'"), "\\\\\\'") << "backslash doubled before quotes are escaped";
  EXPECT_EQ(JSON::escapeForScript("a\"b\nc\rd\fe"), "a\\\"b\\nc\\rd\\fe");
  EXPECT_EQ(JSON::escapeForScript("\xE2\x80\xA8\xE2\x80\xA9"), "\\u2028\\u2029");
  EXPECT_EQ(JSON::stringify(AnyValue(false)), "false");
  EXPECT_EQ(JSON::stringify(std::nullopt), std::nullopt);
}

TEST(JsonStringifyTest, NonFiniteNumbersYieldNothingAndPrintTheError) {
  std::vector<std::string> printed;
  std::mutex m;
  auto previous = setLogSink([&](LogDestination where, std::string_view line) {
    std::lock_guard lock(m);
    if (where == LogDestination::standardOutput) printed.emplace_back(line);
  });
  Dictionary d;
  d["deep"] = boost::json::array{1, std::numeric_limits<double>::infinity()};
  EXPECT_EQ(JSON::stringify(AnyValue(d)), std::nullopt);
  EXPECT_EQ(JSON::stringify(AnyValue(std::nan(""))), std::nullopt);
  setLogSink(previous);
  EXPECT_EQ(printed.size(), 2u);
}

TEST(JsonParseTest, AcceptsContainersAndRefusesFragmentsGarbageAndDeepNesting) {
  auto v = JSON::parse(R"({"b":1,"a":2.0})");
  ASSERT_TRUE(v);
  EXPECT_TRUE(v->at("b").is_int64());
  EXPECT_TRUE(v->at("a").is_double());
  EXPECT_EQ(v->as_object().begin()->key(), "b") << "insertion order kept";
  EXPECT_TRUE(JSON::parse("[1]"));
  EXPECT_FALSE(JSON::parse("3"));
  EXPECT_FALSE(JSON::parse("\"text\""));
  EXPECT_TRUE(JSON::parse("3", /*allowFragments=*/true));
  EXPECT_FALSE(JSON::parse("{\"a\":"));
  EXPECT_FALSE(JSON::parse(""));
  EXPECT_FALSE(JSON::parse("{\"a\":\"\xff\xfe\"}")) << "invalid UTF-8";
  EXPECT_FALSE(JSON::parse(std::string(1000, '[') + std::string(1000, ']')));
  EXPECT_TRUE(JSON::parse(std::string(100, '[') + std::string(100, ']')));
}

}  // namespace
}  // namespace appex
