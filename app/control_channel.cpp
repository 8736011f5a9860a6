#include "app/control_channel.h"

#include <boost/json/serialize.hpp>

#include "host/json.h"
#include "host/utf8.h"

namespace appex {

void ControlChannel::add(const std::string& name, Command command) {
  commands_[name] = std::move(command);
}

void ControlChannel::write(const Dictionary& object) {
  std::string line = toWellFormedUtf8(boost::json::serialize(object));
  line.push_back('\n');
  std::lock_guard lock(outMutex_);
  out_ << line;
  out_.flush();
}

void ControlChannel::writeReply(const AnyValue& id, Result result) {
  Dictionary out;
  out["id"] = id;
  if (result) {
    out["ok"] = true;
    out["result"] = result->value_or(nullptr);
  } else {
    out["ok"] = false;
    out["error"] = result.error().text;
  }
  write(out);
}

void ControlChannel::emit(const std::string& name, Dictionary fields) {
  Dictionary out;
  out["event"] = name;
  for (auto& kv : fields) out[kv.key()] = std::move(kv.value());
  write(out);
}

void ControlChannel::refuse(std::string_view line, const std::string& reason) {
  auto parsed = JSON::parse(line, /*allowFragments=*/true);
  const Dictionary* request = parsed && parsed->is_object() ? &parsed->as_object() : nullptr;
  AnyValue id = request && request->contains("id") ? request->at("id") : AnyValue(nullptr);
  auto cmd = request ? asString(*request, "cmd") : std::nullopt;
  writeReply(id, failure(cmd.value_or("request") + ": " + reason));
}

void ControlChannel::handleLine(std::string_view line) {
  if (line.find_first_not_of(" \t\r") == std::string_view::npos) return;  // blank lines are no requests
  {
    std::lock_guard lock(mutex_);
    queued_.emplace_back(std::string(line));
  }
  pump();
}

void ControlChannel::open() {
  {
    std::lock_guard lock(mutex_);
    open_ = true;
  }
  pump();
}

void ControlChannel::endOfInput(std::function<void()> then) {
  {
    std::lock_guard lock(mutex_);
    queued_.emplace_back(std::nullopt);
    onEndOfInput_ = std::move(then);
  }
  pump();
}

void ControlChannel::end() {
  std::lock_guard lock(mutex_);
  ended_ = true;
}

void ControlChannel::pump() {
  {
    std::lock_guard lock(mutex_);
    if (pumping_) return;  // the loop below, further up this thread's stack, goes on
    pumping_ = true;
  }
  for (;;) {
    std::optional<std::string> line;
    std::function<void()> endOfInput;
    bool refused = false;
    std::uint64_t serial = 0;
    {
      std::lock_guard lock(mutex_);
      if (!open_ || running_ || queued_.empty()) {
        pumping_ = false;
        return;
      }
      line = std::move(queued_.front());
      queued_.pop_front();
      if (!line) {
        ended_ = true;
        endOfInput = std::move(onEndOfInput_);
      } else if (ended_) {
        refused = true;
      } else {
        serial = nextSerial_++;
      }
    }
    if (!line) {
      if (endOfInput) endOfInput();
    } else if (refused) {
      refuse(*line, "not run, the host is quitting");
    } else {
      run(*line, serial);
    }
  }
}

void ControlChannel::run(const std::string& line, std::uint64_t serial) {
  auto parsed = JSON::parse(line, /*allowFragments=*/true);
  if (!parsed || !parsed->is_object()) {
    writeReply(nullptr, failure("malformed request: expected one JSON object per line"));
    return;
  }
  const Dictionary& request = parsed->as_object();
  AnyValue id = request.contains("id") ? request.at("id") : AnyValue(nullptr);
  auto cmd = asString(request, "cmd");
  if (!cmd) {
    writeReply(id, failure("malformed request: \"cmd\" must be a string"));
    return;
  }
  auto it = commands_.find(*cmd);
  if (it == commands_.end()) {
    std::string known;
    for (const auto& [name, command] : commands_) known += (known.empty() ? "" : ", ") + name;
    writeReply(id, failure("unknown command: " + *cmd + " (commands: " + known + ")"));
    return;
  }
  {
    std::lock_guard lock(mutex_);
    running_ = serial;
    runningId_ = id;
    runningCommand_ = *cmd;
  }
  it->second(request, [this, serial](Result result) { finish(serial, std::move(result)); });
}

void ControlChannel::finish(std::uint64_t serial, Result result) {
  AnyValue id;
  {
    std::lock_guard lock(mutex_);
    if (running_ != serial) return;  // answered already
    id = std::move(runningId_);
    running_ = 0;
  }
  writeReply(id, std::move(result));
  if (schedule_) {
    schedule_([this] { pump(); });
  } else {
    pump();
  }
}

void ControlChannel::failOpen(const std::string& reason) {
  std::optional<AnyValue> running;
  std::string command;
  std::deque<std::optional<std::string>> queued;
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    if (running_) running = std::move(runningId_);
    command = runningCommand_;
    running_ = 0;
    queued.swap(queued_);
  }
  if (running) writeReply(*running, failure(command + ": " + reason));
  for (const auto& line : queued) {
    if (line) refuse(*line, reason);
  }
}

}  // namespace appex
