// The fuzz targets' shared vocabulary: how fuzzer bytes become loose
// values, and how values are compared and inspected by the checks.
//
// Input convention (every target that takes a value): the bytes are JSON
// text when they parse as JSON (any top level), so seeds stay readable and
// the dictionaries' keys and texts splice in naturally. Bytes that are not
// JSON are read as a compact binary form (see decodeBinary) that also
// reaches what JSON text cannot hold: NaN and infinities, unsigned integers
// above the int64 range, and strings of any bytes (ill-formed UTF-8, lone
// surrogates in their three-byte form, NUL).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"
#include "host/message.h"

namespace appex::fuzz {

// JSON text (fragments allowed) or, failing that, the binary form.
AnyValue decodeInput(const std::uint8_t* data, std::size_t size);
// The binary form alone. Total: every byte string decodes to some value.
AnyValue decodeBinary(const std::uint8_t* data, std::size_t size);

// A value that passes through JSON text unchanged: finite numbers only and
// well-formed UTF-8 in every string and key.
bool isJsonExpressible(const AnyValue& v);
bool hasNonFiniteNumber(const AnyValue& v);
bool isWellFormedUtf8(std::string_view s);

// Equality as JSON text sees it: numbers compare by value whatever their
// kind (int64, uint64, double), doubles to within a relative 1e-15 (or
// 1e-300 among subnormals) because the parser does not promise correctly
// rounded results; everything else exactly, object keys in order. Exact
// agreement on numbers is the engine checker's to judge.
bool sameJsonValue(const AnyValue& a, const AnyValue& b);

// Exact equality of kinds and contents, where a NaN equals a NaN (the
// value's own == follows IEEE and never finds a NaN equal to itself).
bool identical(const AnyValue& a, const AnyValue& b);

// Replaces, recursively, every string that `lookup` maps to something
// (placeholders such as "$TAB0" that stand for identifiers the fuzzer cannot
// guess). Keys are left alone.
void substituteStrings(AnyValue& v,
                       const std::function<std::optional<std::string>(std::string_view)>& lookup);

// A message as a page reads what native code sends it: Message::parse, and
// also an ANSWER with neither "err" nor "data" (a success without a value,
// which pages take as undefined but Message::parse, being the rule for what
// pages send, refuses).
std::optional<Message> readSentMessage(const AnyValue& v);

// The value's member `key` when `v` is an object holding it, else nullptr.
const AnyValue* member(const AnyValue& v, std::string_view key);

// Stops the process with a report on standard error, so libFuzzer records
// the input as a crash. `what` says which property failed; `detail` and
// `data` say more when given.
[[noreturn]] void fail(std::string_view what, std::string_view detail = {}, std::string_view data = {});

// Fails unless `cond` holds: APPEX_FUZZ_CHECK(cond [, property [, data]]).
#define APPEX_FUZZ_CHECK(cond, ...)                                                \
  do {                                                                             \
    if (!(cond)) ::appex::fuzz::fail("check failed: " #cond, ##__VA_ARGS__);       \
  } while (false)

}  // namespace appex::fuzz
