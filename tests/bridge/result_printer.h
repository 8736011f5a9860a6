// Lets test failures show a Result as text ("success(<json>)", "success()"
// or "failure(<text>)") instead of its bytes.
#pragma once

#include <boost/json/serialize.hpp>

#include <ostream>

#include "host/result.h"

namespace appex {

inline void PrintTo(const Result& result, std::ostream* out) {
  if (!result) {
    *out << "failure(" << result.error().text << ")";
  } else if (!*result) {
    *out << "success()";
  } else {
    *out << "success(" << boost::json::serialize(**result) << ")";
  }
}

}  // namespace appex
