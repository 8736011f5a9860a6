#include "tabs/identifiers.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cctype>

namespace appex {

std::string newUUIDString() {
  // The generator is not thread-safe; one per thread avoids a lock.
  thread_local boost::uuids::random_generator generator;
  std::string text = boost::uuids::to_string(generator());
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

}  // namespace appex
