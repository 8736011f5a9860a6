// VirtualDisplay: gives the process an X display to put web views on.
//
// With DISPLAY set, that display is used. Without, an Xvfb server is started
// on a free display number (Xvfb picks it and reports it through
// -displayfd), DISPLAY is set for this process, and the server is stopped
// when the object goes away (also on normal exit paths; a killed host takes
// its Xvfb along through the parent-death signal).
//
// Not thread-safe: make it once, at start, on the main thread.
#pragma once

#include <expected>
#include <string>
#include <sys/types.h>

namespace appex {

class VirtualDisplay {
 public:
  // The display in use, or why there is none (with what to install).
  static std::expected<VirtualDisplay, std::string> ensure();

  VirtualDisplay(VirtualDisplay&& other) noexcept;
  VirtualDisplay& operator=(VirtualDisplay&&) = delete;
  ~VirtualDisplay();

  const std::string& name() const { return name_; }
  bool ownsServer() const { return server_ > 0; }

 private:
  VirtualDisplay(std::string name, pid_t server) : name_(std::move(name)), server_(server) {}

  std::string name_;
  pid_t server_ = -1;
};

}  // namespace appex
