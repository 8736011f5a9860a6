// Message parsing from any loose value (a page message's user info, a
// bridge post's body).
//
// Properties: parsing never fails on a non-dictionary other than by
// returning nothing; a parsed record keeps exactly what the dictionary said
// (type, uid, cmd, err, data, args, frameId as their kinds allow); building
// writes the fixed key order and parsing the built form gives the record
// back; and the built form can be sent to a page (stringify succeeds) unless
// it carries a number JSON cannot write.
#include <cstddef>
#include <cstdint>

#include <boost/json/serialize.hpp>

#include "fuzz/support/fuzz_value.h"
#include "host/json.h"
#include "host/message.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

void checkParsed(const Dictionary& source, const Message& m) {
  const std::string_view raw = toRaw(m.type);
  APPEX_FUZZ_CHECK(asString(source, "type") == std::string(raw));
  const bool diagnostic = m.type == MessageType::debug || m.type == MessageType::log;
  if (diagnostic) {
    APPEX_FUZZ_CHECK(m.uid.empty(), "a DEBUG or LOG message keeps no uid");
  } else {
    APPEX_FUZZ_CHECK(asString(source, "uid") == m.uid);
  }
  if (const auto* frame = source.if_contains("frameId")) {
    APPEX_FUZZ_CHECK(m.frameId == asInt64(*frame));
  } else {
    APPEX_FUZZ_CHECK(!m.frameId);
  }
  switch (m.type) {
    case MessageType::ask:
      APPEX_FUZZ_CHECK(m.cmd && m.cmd == asString(source, "cmd"), "an ask has its string cmd");
      APPEX_FUZZ_CHECK(!m.err && !m.data);
      if (const auto* args = source.if_contains("args")) {
        APPEX_FUZZ_CHECK(m.args && identical(*m.args, *args));
      } else {
        APPEX_FUZZ_CHECK(!m.args);
      }
      break;
    case MessageType::answer:
      APPEX_FUZZ_CHECK(m.err || m.data, "an answer carries a string err or data");
      APPEX_FUZZ_CHECK(!m.cmd && !m.args);
      break;
    case MessageType::inject:
      APPEX_FUZZ_CHECK(!m.cmd && !m.args && !m.err && !m.data);
      break;
    case MessageType::debug:
    case MessageType::log:
      APPEX_FUZZ_CHECK(!m.cmd && !m.args && !m.err);
      break;
  }
}

void checkBuilt(const Message& m) {
  const Dictionary built = m.build();
  static constexpr std::string_view kOrder[] = {"type", "uid", "err", "data", "cmd", "args", "frameId"};
  std::size_t next = 0;
  for (const auto& entry : built) {
    while (next < std::size(kOrder) && kOrder[next] != entry.key()) ++next;
    APPEX_FUZZ_CHECK(next < std::size(kOrder), "built keys follow the fixed order");
  }
  auto again = Message::parse(built);
  APPEX_FUZZ_CHECK(again.has_value(), "a built message parses");
  APPEX_FUZZ_CHECK(identical(AnyValue(again->build()), AnyValue(built)), "build then parse gives the record back");

  const bool writable = !(m.data && hasNonFiniteNumber(*m.data)) && !(m.args && hasNonFiniteNumber(*m.args));
  const auto text = JSON::stringify(AnyValue(built));
  APPEX_FUZZ_CHECK(text.has_value() == writable, "stringify fails exactly on non-finite numbers");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const AnyValue value = decodeInput(data, size);
  const std::optional<Message> parsed = Message::parse(value);
  const Dictionary* d = value.if_object();
  if (!d) {
    APPEX_FUZZ_CHECK(!parsed, "only a dictionary is a message");
    return 0;
  }
  const auto direct = Message::parse(*d);
  APPEX_FUZZ_CHECK(parsed.has_value() == direct.has_value() &&
                       (!parsed || identical(AnyValue(parsed->build()), AnyValue(direct->build()))),
                   "both parse entries agree");
  if (!parsed) return 0;
  checkParsed(*d, *parsed);
  checkBuilt(*parsed);
  return 0;
}
