// JSON parse and stringify, and the composed script stringify's output
// ends up in.
//
// The bytes are tried as JSON text (with and without top-level fragments);
// then the decoded input value (JSON or the binary form, which also holds
// NaN, huge unsigned integers and ill-formed UTF-8) is stringified and
// composed as the bridge composes it:
//   onWebViewCall('__default__', <stringify(value)>)
//
// Properties:
//  * parse accepts only a container at the top unless fragments are
//    allowed, only well-formed UTF-8, and only what stringify can write back
//    (a value parsed from text can always be sent on to a page);
//  * stringify yields nothing exactly for values with a non-finite number;
//  * the composed script has no raw line terminator, no "</" (outside a
//    top-level string literal), and its argument reads back as the value:
//    as JSON for containers and numbers, by undoing the literal escapes for
//    a top-level string. With APPEX_FUZZ_SCRIPTS set, every script goes to
//    the JavaScript-engine checker as well (fuzz/check_composed_scripts.mjs).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/support/composed_script.h"
#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "host/json.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

void checkParse(std::string_view text) {
  for (bool fragments : {false, true}) {
    const auto parsed = JSON::parse(text, fragments);
    if (!parsed) continue;
    if (!fragments) APPEX_FUZZ_CHECK(parsed->is_object() || parsed->is_array());
    APPEX_FUZZ_CHECK(isJsonExpressible(*parsed), "parsed text holds only well-formed UTF-8 and finite numbers");
    APPEX_FUZZ_CHECK(JSON::stringify(*parsed).has_value(), "whatever parses can be written back");
  }
}

void checkStringify(const AnyValue& value) {
  const auto text = JSON::stringify(value);
  APPEX_FUZZ_CHECK(text.has_value() == !hasNonFiniteNumber(value), "stringify fails exactly on non-finite numbers");
  if (!text) return;
  if (value.is_bool()) APPEX_FUZZ_CHECK(*text == (value.get_bool() ? "true" : "false"));
  checkComposedScript(composeCall("__default__", *text), "__default__", value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkParse(std::string_view(reinterpret_cast<const char*>(data), size));
  checkStringify(decodeInput(data, size));
  World::takeLog();  // the write errors of non-finite numbers; not printed
  return 0;
}
