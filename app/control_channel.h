// ControlChannel: the automation protocol of `appex run --control`: one JSON
// object per line on standard input, one per line on standard output.
//
// A request is {"id": any, "cmd": string, ...parameters}. Its reply echoes
// the id: {"id":…,"ok":true,"result":…} or {"id":…,"ok":false,"error":"…"}.
// Lines the host sends on its own are events: {"event":"…", …}. A line that
// is not a JSON object, has no string "cmd", or names an unknown command
// gets an error reply (with a null id when there is none) and the host
// keeps running.
//
// Requests run one at a time, in arrival order: each starts once the one
// before it has been answered, so a script can send a whole session at once
// (open a tab, then evaluate in it). Lines that arrive before the channel
// is opened (the extension is not up yet) wait for it; none is lost. Every
// request gets exactly one reply: a command replies once, now or later,
// from any thread (later calls are dropped), and failOpen answers whatever
// is still waiting or running when the host has to stop. After the end
// (`quit`, or the end of input) the lines still queued are answered with an
// error and not run.
//
// Thread-safe.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "host/any_value.h"
#include "host/result.h"

namespace appex {

class ControlChannel {
 public:
  // Receives the request's parameters (the whole request object) and the
  // reply: a success value becomes "result", a failure's text "error".
  using Command = std::function<void(const Dictionary& request, ResultCallback reply)>;

  // Runs a block on the thread that runs commands; the channel hands it the
  // start of the next request when a reply comes. Empty: runs it at once.
  using Scheduler = std::function<void(std::function<void()>)>;

  explicit ControlChannel(std::ostream& out, Scheduler schedule = nullptr)
      : out_(out), schedule_(std::move(schedule)) {}

  void add(const std::string& name, Command command);

  // Queues one input line; it runs in its turn.
  void handleLine(std::string_view line);
  // Lets the queued lines run.
  void open();

  // The end of the input: once the lines before it have run, runs `then`.
  void endOfInput(std::function<void()> then);
  // Ends the channel now (from a command: `quit`): the lines after the
  // current one are refused.
  void end();

  // Answers the running request and every queued one with `reason`; ends
  // the channel.
  void failOpen(const std::string& reason);

  // Writes {"event": name, ...fields}.
  void emit(const std::string& name, Dictionary fields = {});

 private:
  void write(const Dictionary& object);
  void writeReply(const AnyValue& id, Result result);
  void finish(std::uint64_t serial, Result result);
  // Starts queued lines while nothing runs. Main thread (the caller of
  // handleLine) or the thread of the reply that ended the running request.
  void pump();
  // Runs one line as request `serial`, or answers it at once when it is
  // malformed or names no command.
  void run(const std::string& line, std::uint64_t serial);

  // Answers a line that is not run: "<cmd>: <reason>".
  void refuse(std::string_view line, const std::string& reason);

  std::ostream& out_;
  const Scheduler schedule_;
  std::mutex outMutex_;
  std::map<std::string, Command> commands_;

  std::mutex mutex_;
  bool open_ = false;
  bool ended_ = false;
  bool pumping_ = false;
  // Waiting lines; nullopt marks the end of input.
  std::deque<std::optional<std::string>> queued_;
  std::function<void()> onEndOfInput_;
  // The request that runs, if any.
  std::uint64_t running_ = 0;
  AnyValue runningId_;
  std::string runningCommand_;
  std::uint64_t nextSerial_ = 1;
};

}  // namespace appex
