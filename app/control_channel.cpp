#include "app/control_channel.h"

#include <boost/json/serialize.hpp>

#include "host/json.h"

namespace appex {

void ControlChannel::add(const std::string& name, Command command) {
  commands_[name] = std::move(command);
}

void ControlChannel::write(const Dictionary& object) {
  std::string line = boost::json::serialize(object);
  line.push_back('\n');
  std::lock_guard lock(outMutex_);
  out_ << line;
  out_.flush();
}

void ControlChannel::reply(const AnyValue& id, Result result) {
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

void ControlChannel::handleLine(std::string_view line) {
  if (line.find_first_not_of(" \t\r") == std::string_view::npos) return;  // blank lines are no requests
  auto parsed = JSON::parse(line, /*allowFragments=*/true);
  if (!parsed || !parsed->is_object()) {
    reply(nullptr, failure("malformed request: expected one JSON object per line"));
    return;
  }
  const Dictionary& request = parsed->as_object();
  AnyValue id = request.contains("id") ? request.at("id") : AnyValue(nullptr);
  auto cmd = asString(request, "cmd");
  if (!cmd) {
    reply(id, failure("malformed request: \"cmd\" must be a string"));
    return;
  }
  auto it = commands_.find(*cmd);
  if (it == commands_.end()) {
    reply(id, failure("unknown command: " + *cmd));
    return;
  }
  it->second(request, [this, id](Result result) { reply(id, std::move(result)); });
}

}  // namespace appex
