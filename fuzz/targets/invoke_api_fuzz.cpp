// The command table (SafariApiInvoker::invokeAPI) with arbitrary command
// names and arguments, against the simulated browser, the fuzz store and
// the echoing HTTP client.
//
// Input: a value: one call {"cmd": <name>, "args": <any>} (no "args"
// member: no arguments), or a list of up to eight calls run in order, so
// that later calls see what earlier ones did (a created tab, a stored key).
// Strings "$TAB0".."$TAB3", "$WIN0", "$WIN1" stand for real identifiers.
//
// Properties: every call answers exactly once (within five seconds, from
// whatever thread); failures carry a text; every answer can be sent to a
// page (the answer message stringifies, and its composed script checks out);
// only http and https URLs reach the HTTP client (checked by the client),
// and an httpRequest with any other URL answers "invalidUrl" without
// reaching it.
#include <boost/url/parse.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

#include "api/safari_api_invoker.h"
#include "fuzz/support/composed_script.h"
#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "host/json.h"
#include "host/message.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

constexpr std::size_t kMaxCalls = 8;

struct Call {
  std::string cmd;
  std::optional<AnyValue> args;
};

std::optional<Call> readCall(const AnyValue& v) {
  const AnyValue* cmd = member(v, "cmd");
  if (!cmd) return std::nullopt;
  Call call;
  call.cmd = asString(*cmd).value_or("");
  if (const AnyValue* args = member(v, "args")) call.args = *args;
  return call;
}

// Whether the httpRequest arguments name a URL the client must never see.
bool namesUnfetchableUrl(const std::optional<AnyValue>& args) {
  const AnyValue* url = args ? member(*args, "url") : nullptr;
  if (!url || !url->is_string()) return false;
  auto parsed = boost::urls::parse_uri(std::string_view(url->get_string()));
  if (!parsed) return true;
  std::string scheme(parsed->scheme());
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return scheme != "http" && scheme != "https";
}

void checkAnswer(const Result& result) {
  Message answer;
  answer.type = MessageType::answer;
  answer.uid = "fuzz-1";
  if (result) {
    answer.data = *result;
  } else {
    APPEX_FUZZ_CHECK(!result.error().text.empty(), "a failure carries a text");
    answer.err = result.error().text;
  }
  const AnyValue built(answer.build());
  const auto text = JSON::stringify(built);
  APPEX_FUZZ_CHECK(text.has_value(), "every answer can be sent to a page");
  checkComposedScript(composeCall("__default__", *text), "__default__", built);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const AnyValue input = decodeInput(data, size);
  std::vector<Call> calls;
  if (const auto* list = input.if_array()) {
    for (const auto& v : *list) {
      if (calls.size() == kMaxCalls) break;
      if (auto call = readCall(v)) calls.push_back(std::move(*call));
    }
  } else if (auto call = readCall(input)) {
    calls.push_back(std::move(*call));
  }
  if (calls.empty()) return 0;

  World world;
  SafariApiInvoker invoker(world.context());
  for (Call& call : calls) {
    if (call.args) world.substitute(*call.args);
    struct Outcome {
      std::mutex mutex;
      std::atomic<int> calls{0};
      std::optional<Result> result;
    };
    auto outcome = std::make_shared<Outcome>();
    const int requestsBefore = world.http->requests();
    invoker.invokeAPI(call.cmd, call.args, [outcome](Result r) {
      std::lock_guard lock(outcome->mutex);
      outcome->result = std::move(r);
      APPEX_FUZZ_CHECK(outcome->calls.fetch_add(1) == 0, "a command answers at most once");
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (outcome->calls.load() == 0 && std::chrono::steady_clock::now() < deadline) {
      world.settle();
      if (outcome->calls.load() == 0) std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    APPEX_FUZZ_CHECK(outcome->calls.load() == 1, "every command answers", call.cmd);
    std::lock_guard lock(outcome->mutex);
    checkAnswer(*outcome->result);
    if (call.cmd == "httpRequest" && namesUnfetchableUrl(call.args)) {
      APPEX_FUZZ_CHECK(world.http->requests() == requestsBefore, "a URL that is not http(s) is never fetched");
      APPEX_FUZZ_CHECK(!outcome->result->has_value() && outcome->result->error().text == "invalidUrl",
                       "a URL that is not http(s) answers \"invalidUrl\"");
    }
  }
  return 0;
}
