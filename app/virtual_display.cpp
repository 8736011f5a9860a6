#include "app/virtual_display.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace appex {
namespace {

bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

std::expected<VirtualDisplay, std::string> VirtualDisplay::ensure() {
  if (const char* display = std::getenv("DISPLAY"); display && *display) {
    return VirtualDisplay(display, -1);
  }
  if (!onPath("Xvfb")) {
    return std::unexpected(
        "no X display: set DISPLAY, or install the virtual X server "
        "(Debian: apt-get install xvfb xauth) so appex can start its own");
  }
  int fds[2];
  if (::pipe(fds) != 0) return std::unexpected(std::string("pipe: ") + std::strerror(errno));
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) return std::unexpected(std::string("fork: ") + std::strerror(errno));
  if (child == 0) {
    ::close(fds[0]);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive the host
    if (::getppid() != parent) ::_exit(1);
    const std::string fd = std::to_string(fds[1]);
    ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1280x1024x24", "-nolisten",
             "tcp", "-noreset", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  // Xvfb writes the display number and a newline once it accepts clients.
  std::string number;
  pollfd p{fds[0], POLLIN, 0};
  while (::poll(&p, 1, 10000) > 0) {
    char c;
    if (::read(fds[0], &c, 1) != 1 || c == '\n') break;
    number.push_back(c);
  }
  ::close(fds[0]);
  if (number.empty()) {
    ::kill(child, SIGTERM);
    ::waitpid(child, nullptr, 0);
    return std::unexpected("Xvfb did not start (no display number within 10 s)");
  }
  const std::string name = ":" + number;
  ::setenv("DISPLAY", name.c_str(), 1);
  return VirtualDisplay(name, child);
}

VirtualDisplay::VirtualDisplay(VirtualDisplay&& other) noexcept
    : name_(std::move(other.name_)), server_(other.server_) {
  other.server_ = -1;
}

VirtualDisplay::~VirtualDisplay() {
  if (server_ <= 0) return;
  ::kill(server_, SIGTERM);
  ::waitpid(server_, nullptr, 0);
}

}  // namespace appex
