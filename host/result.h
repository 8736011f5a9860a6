// Result: the outcome handed to a completion: a success carrying a value of
// any type (possibly absent) or a failure carrying an Err.
#pragma once

#include <expected>
#include <functional>
#include <optional>

#include "host/any_value.h"
#include "host/err.h"

namespace appex {

using Result = std::expected<std::optional<AnyValue>, Err>;

// Completion that receives one Result; called at most once.
using ResultCallback = std::move_only_function<void(Result)>;

inline Result success(AnyValue v) { return Result(std::optional<AnyValue>(std::move(v))); }
inline Result successEmpty() { return Result(std::optional<AnyValue>()); }
inline Result failure(std::string text) { return std::unexpected(Err::or_(std::move(text))); }

}  // namespace appex
