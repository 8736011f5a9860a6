#include "fuzz/support/composed_script.h"

#include <boost/json/serialize.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "fuzz/support/fuzz_value.h"
#include "host/json.h"

namespace appex::fuzz {
namespace {

constexpr std::string_view kLineSeparator = "\xE2\x80\xA8";
constexpr std::string_view kParagraphSeparator = "\xE2\x80\xA9";
// Enough cases for the engine checker; bounds the folder's size.
constexpr int kMaxDumps = 50000;

const char* dumpFolder() {
  static const char* folder = [] {
    const char* f = std::getenv("APPEX_FUZZ_SCRIPTS");
    if (f && *f) std::filesystem::create_directories(f);
    return f && *f ? f : nullptr;
  }();
  return folder;
}

std::string excerpt(std::string_view text) {
  return std::string(text.substr(0, 400)) + (text.size() > 400 ? "..." : "");
}

}  // namespace

std::string composeCall(std::string_view channel, std::string_view argumentText) {
  std::string script;
  script.reserve(argumentText.size() + channel.size() + 20);
  script.append("onWebViewCall('").append(channel).append("', ").append(argumentText).append(")");
  return script;
}

std::optional<std::string> unescapeScriptString(std::string_view quoted) {
  if (quoted.size() < 2 || quoted.front() != '"' || quoted.back() != '"') return std::nullopt;
  const std::string_view body = quoted.substr(1, quoted.size() - 2);
  std::string out;
  out.reserve(body.size());
  for (std::size_t i = 0; i < body.size(); ++i) {
    const char c = body[i];
    if (c == '"' || c == '\n' || c == '\r') return std::nullopt;
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    if (++i == body.size()) return std::nullopt;
    switch (body[i]) {
      case '\\': out.push_back('\\'); break;
      case '"': out.push_back('"'); break;
      case '\'': out.push_back('\''); break;
      case 'n': out.push_back('\n'); break;
      case 'r': out.push_back('\r'); break;
      case 'f': out.push_back('\f'); break;
      case 'u':
        if (body.substr(i, 5) == "u2028") {
          out.append(kLineSeparator);
        } else if (body.substr(i, 5) == "u2029") {
          out.append(kParagraphSeparator);
        } else {
          return std::nullopt;
        }
        i += 4;
        break;
      default:
        return std::nullopt;
    }
  }
  return out;
}

std::string checkComposedScript(std::string_view script, std::string_view channel,
                                const std::optional<AnyValue>& expected) {
  const std::string prefix = "onWebViewCall('" + std::string(channel) + "', ";
  if (!script.starts_with(prefix) || !script.ends_with(")")) {
    fail("a composed script is not one onWebViewCall for its channel", excerpt(script));
  }
  const std::string_view argument = script.substr(prefix.size(), script.size() - prefix.size() - 1);
  for (std::string_view terminator : {std::string_view("\n"), std::string_view("\r"), kLineSeparator,
                                      kParagraphSeparator}) {
    if (script.find(terminator) != std::string_view::npos) {
      fail("a raw line terminator in a composed script", excerpt(script));
    }
  }
  const bool stringArgument = expected ? expected->is_string() : argument.starts_with('"');
  if (!stringArgument && argument.find("</") != std::string_view::npos) {
    fail("\"</\" in a composed script (would end an enclosing script element)", excerpt(script));
  }

  if (stringArgument) {
    auto text = unescapeScriptString(argument);
    if (!text) fail("a top-level string argument is not a well-escaped literal", excerpt(script));
    if (expected && *text != std::string_view(expected->get_string())) {
      fail("a top-level string argument does not read back as the value", excerpt(script));
    }
  } else if (!expected || isJsonExpressible(*expected)) {
    auto parsed = JSON::parse(argument, /*allowFragments=*/true);
    if (!parsed) fail("a composed script's argument is not JSON", excerpt(script));
    if (expected && !sameJsonValue(*parsed, *expected)) {
      fail("a composed script's argument does not read back as the value",
           excerpt(script) + "\n     expected " + excerpt(boost::json::serialize(*expected)));
    }
    // Without a known value, the engine must at least read what JSON reads.
    if (!expected) dumpForEngineCheck(script, *parsed);
  }
  if (expected) dumpForEngineCheck(script, *expected);
  return std::string(argument);
}

void dumpForEngineCheck(std::string_view script, const AnyValue& expected) {
  static std::atomic<int> written{0};
  const char* folder = dumpFolder();
  if (!folder || hasNonFiniteNumber(expected) || written.load() >= kMaxDumps) return;
  char name[32];
  std::snprintf(name, sizeof name, "%016zx", std::hash<std::string_view>{}(script));
  const std::filesystem::path base = std::filesystem::path(folder) / name;
  if (std::filesystem::exists(base.string() + ".js")) return;
  ++written;
  // The expected value first, so a script is never there without it.
  std::ofstream(base.string() + ".json", std::ios::binary) << boost::json::serialize(expected);
  std::ofstream(base.string() + ".js", std::ios::binary) << script;
}

}  // namespace appex::fuzz
