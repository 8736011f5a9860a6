// The loosely typed values that travel between native code and web code.
//
// AnyValue is Boost.JSON's value: null, bool, int64/uint64, double, string,
// array, object. Integers and floating numbers stay distinct, and objects
// keep insertion order, so a record built in a given key order serialises in
// that order.
#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/value.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace appex {

using AnyValue = boost::json::value;
using Dictionary = boost::json::object;
using List = boost::json::array;

// Typed reads that accept a value only if it is wholly of the type asked for.
std::optional<std::string> asString(const AnyValue& v);
std::optional<std::string> asString(const Dictionary& d, std::string_view key);
std::optional<bool> asBool(const AnyValue& v);
std::optional<bool> asBool(const Dictionary& d, std::string_view key);
// An integer stored as an integer (a float such as 3.0 is not one).
std::optional<std::int64_t> asInt64(const AnyValue& v);
const Dictionary* asDictionary(const AnyValue& v);
const Dictionary* asDictionary(const Dictionary& d, std::string_view key);
// A list whose every element is a string, or nothing.
std::optional<std::vector<std::string>> asStringList(const AnyValue& v);
// A dictionary whose every value is a string, or nothing; order kept.
std::optional<std::vector<std::pair<std::string, std::string>>> asStringDictionary(const AnyValue& v);

}  // namespace appex
