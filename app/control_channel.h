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
// Commands are registered by name; a command replies exactly once, now or
// later, from any thread (replies and events are serialised on the output).
//
// Thread-safe.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>

#include "host/any_value.h"
#include "host/result.h"

namespace appex {

class ControlChannel {
 public:
  // Receives the request's parameters (the whole request object) and the
  // reply, to call once: a success value becomes "result", a failure's text
  // "error".
  using Command = std::function<void(const Dictionary& request, ResultCallback reply)>;

  explicit ControlChannel(std::ostream& out) : out_(out) {}

  void add(const std::string& name, Command command);

  // Handles one input line.
  void handleLine(std::string_view line);

  // Writes {"event": name, ...fields}.
  void emit(const std::string& name, Dictionary fields = {});

 private:
  void write(const Dictionary& object);
  void reply(const AnyValue& id, Result result);

  std::ostream& out_;
  std::mutex outMutex_;
  std::map<std::string, Command> commands_;
};

}  // namespace appex
