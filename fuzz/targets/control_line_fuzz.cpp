// The automation protocol's reader (ControlChannel) with arbitrary input
// lines, driven the way `appex run --control` drives it: lines arrive
// before and after the extension is ready, commands answer now, later or
// never, the main queue runs the channel's scheduled blocks when it gets to
// them, and the host stops with requests still open.
//
// Input: a line of steps, then the request lines:
//   <steps>\n<line>\n<line>...
// Each request line goes to handleLine as the host's reader cuts it (on LF,
// nothing stripped). Steps run in order, one character each:
//   .  hand over the next request line
//   o  the extension is ready: open (again, as after a reload)
//   r  the oldest command still open answers with a success
//   f  the oldest command still open answers with a failure
//   s  the main queue runs the blocks the channel scheduled
//   a  a command that answered already answers again
//   e  an event is written, its text the last line handed over
//   n  the input ends (no request line follows)
//   q  the run stops: failOpen
// anything else does nothing. When the steps run out, the remaining lines
// are handed over, the input ends, the queue runs, and the run stops at its
// time-out with whatever is still open.
//
// Commands: "echo" answers the request itself at once, "fail" fails at
// once, "twice" answers twice at once, "later" answers when a step says so,
// "quit" does what the host's does (end, answer, stop the run).
//
// Properties: every output line is one JSON object (well-formed UTF-8, no
// raw line break inside it); every line with something other than blanks
// gets exactly one reply, in the order the lines came, carrying the line's
// "id" when the line is an object with one and null otherwise; no other
// reply is ever written; a reply is {"id","ok":true,"result"} or
// {"id","ok":false,"error":<non-empty text>}; "echo" answers with the
// request itself; events are written as given (ill-formed UTF-8 aside).
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "app/control_channel.h"
#include "fuzz/support/fuzz_value.h"
#include "host/json.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

struct Expected {
  std::string line;
  AnyValue id;  // null when the line has no readable id
  std::optional<AnyValue> echoed;  // the request, when "echo" runs it
};

struct Driver {
  std::ostringstream out;
  std::deque<std::function<void()>> mainQueue;
  ControlChannel channel{out, [this](std::function<void()> block) { mainQueue.push_back(std::move(block)); }};
  std::deque<ResultCallback> open;        // "later" commands not answered yet
  std::vector<ResultCallback> answered;   // every reply callback that was used
  bool stopped = false;                   // the run loop ended: failOpen was called
  bool quit = false;                      // "quit" or the end of input asked the loop to end
  std::vector<std::string> events;        // the "line" of each event written

  Driver() {
    channel.add("echo", [](const Dictionary& request, ResultCallback reply) { reply(success(request)); });
    channel.add("fail", [](const Dictionary&, ResultCallback reply) { reply(failure("fail: it failed")); });
    channel.add("twice", [](const Dictionary&, ResultCallback reply) {
      reply(success(1));
      reply(success(2));
    });
    channel.add("later", [this](const Dictionary&, ResultCallback reply) { open.push_back(std::move(reply)); });
    channel.add("quit", [this](const Dictionary&, ResultCallback reply) {
      channel.end();
      reply(success(true));
      quit = true;
    });
  }

  void answerOldest(Result result) {
    if (open.empty()) return;
    ResultCallback reply = std::move(open.front());
    open.pop_front();
    reply(std::move(result));
    answered.push_back(std::move(reply));
  }

  void runQueue() {
    while (!mainQueue.empty()) {
      auto block = std::move(mainQueue.front());
      mainQueue.pop_front();
      block();
    }
  }

  void stop(const std::string& reason) {
    if (stopped) return;
    stopped = true;
    channel.failOpen(reason);
    // Answers that come after the end are dropped.
    while (!open.empty()) answerOldest(success("late"));
    for (auto& reply : answered) reply(success("again"));
    runQueue();
  }
};

std::string_view takeLine(std::string_view& rest, bool& found) {
  const auto end = rest.find('\n');
  found = end != std::string_view::npos;
  std::string_view line = rest.substr(0, end);
  rest = found ? rest.substr(end + 1) : std::string_view();
  return line;
}

bool isBlank(std::string_view line) { return line.find_first_not_of(" \t\r") == std::string_view::npos; }

Expected expect(std::string_view line) {
  Expected e{std::string(line), nullptr, std::nullopt};
  auto parsed = JSON::parse(line, /*allowFragments=*/true);
  if (!parsed || !parsed->is_object()) return e;
  const Dictionary& request = parsed->as_object();
  if (const AnyValue* id = request.if_contains("id")) e.id = *id;
  if (const AnyValue* cmd = request.if_contains("cmd"); cmd && cmd->is_string() && cmd->get_string() == "echo") {
    e.echoed = *parsed;
  }
  return e;
}

// Every output line, each one JSON object.
std::vector<Dictionary> readOutput(const std::string& text) {
  APPEX_FUZZ_CHECK(text.empty() || text.back() == '\n', "every output line ends with a line feed", text);
  std::vector<Dictionary> lines;
  std::string_view rest(text);
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    APPEX_FUZZ_CHECK(isWellFormedUtf8(line), "an output line is UTF-8", line);
    boost::json::parse_options options;
    options.max_depth = 4096;  // a reply nests the request one level deeper than requests may go
    boost::system::error_code ec;
    AnyValue v = boost::json::parse(line, ec, {}, options);
    APPEX_FUZZ_CHECK(!ec && v.is_object(), "an output line is one JSON object", line);
    lines.push_back(std::move(v.as_object()));
  }
  return lines;
}

void checkReply(const Dictionary& reply, const Expected& e) {
  APPEX_FUZZ_CHECK(reply.contains("id") && sameJsonValue(reply.at("id"), e.id), "a reply carries its line's id",
                   e.line);
  const AnyValue* ok = reply.if_contains("ok");
  APPEX_FUZZ_CHECK(ok && ok->is_bool() && reply.size() == 3, "a reply is {id, ok, result|error}", e.line);
  if (ok->get_bool()) {
    const AnyValue* result = reply.if_contains("result");
    APPEX_FUZZ_CHECK(result, "a success has a result", e.line);
    APPEX_FUZZ_CHECK(*result != "again" && *result != "late", "an answer after the first, or after the end, is dropped",
                     e.line);
    if (e.echoed) APPEX_FUZZ_CHECK(sameJsonValue(*result, *e.echoed), "echo answers with the request", e.line);
  } else {
    const AnyValue* error = reply.if_contains("error");
    APPEX_FUZZ_CHECK(error && error->is_string() && !error->get_string().empty(), "a failure has a text", e.line);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  bool more = false;
  const std::string_view steps = takeLine(rest, more);
  bool inputEnded = !more;

  Driver d;
  std::vector<Expected> expected;
  std::string last;
  auto handOver = [&] {
    if (inputEnded) return;
    const std::string_view line = takeLine(rest, more);
    inputEnded = !more;
    last = std::string(line);
    if (!isBlank(line)) expected.push_back(expect(line));
    d.channel.handleLine(line);
  };
  auto endInput = [&] {
    inputEnded = true;
    d.channel.endOfInput([&d] { d.quit = true; });
  };

  bool endSent = false;
  for (char step : steps) {
    if (d.quit) d.stop("not run, the host is quitting");
    if (d.stopped) break;
    switch (step) {
      case '.': handOver(); break;
      case 'o': d.channel.open(); break;
      case 'r': d.answerOldest(success("done")); break;
      case 'f': d.answerOldest(failure("later: it failed")); break;
      case 's': d.runQueue(); break;
      case 'a':
        if (!d.answered.empty()) d.answered[last.size() % d.answered.size()](success("again"));
        break;
      case 'e':
        d.channel.emit("log", Dictionary{{"line", last}});
        d.events.push_back(last);
        break;
      case 'n':
        if (!endSent) endInput();
        endSent = true;
        break;
      case 'q': d.stop("the run was interrupted"); break;
      default: break;
    }
  }
  while (!d.stopped && !d.quit && !inputEnded) handOver();
  if (!d.stopped && !endSent) endInput();
  if (!d.stopped) d.runQueue();
  d.stop(d.quit ? "not run, the host is quitting" : "the run stopped at --timeout");

  std::size_t next = 0;
  std::size_t event = 0;
  for (const Dictionary& line : readOutput(d.out.str())) {
    if (const AnyValue* name = line.if_contains("event")) {
      APPEX_FUZZ_CHECK(event < d.events.size() && *name == "log" && line.size() == 2 && line.at("line").is_string(),
                       "an event is written as given");
      // Text that is not UTF-8 is written with its ill-formed bytes replaced.
      if (isWellFormedUtf8(d.events[event])) {
        APPEX_FUZZ_CHECK(line.at("line") == AnyValue(d.events[event]), "an event's text is written as given");
      }
      ++event;
      continue;
    }
    APPEX_FUZZ_CHECK(next < expected.size(), "no reply without a request", boost::json::serialize(line));
    checkReply(line, expected[next++]);
  }
  APPEX_FUZZ_CHECK(event == d.events.size(), "every event is written");
  APPEX_FUZZ_CHECK(next == expected.size(), "every request line gets a reply",
                   next < expected.size() ? expected[next].line : "");
  return 0;
}
