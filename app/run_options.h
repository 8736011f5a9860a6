// RunOptions: what `appex run` was asked to do, parsed from its command line.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace appex {

struct RunOptions {
  std::string bundle;                // the bundle folder
  bool example = false;              // no bundle given: the shipped example, as a demo
  std::vector<std::string> open;     // URLs to open at start, in order
  std::string serve;                 // a folder to serve on 127.0.0.1; relative --open URLs go there
  std::string dataDirectory;         // empty: the default per bundle identifier
  bool control = false;              // the automation protocol on stdin/stdout
  bool trace = false;                // one line per routed message on stderr
  std::vector<std::pair<std::string, std::string>> snapshots;  // (what, file)
  std::optional<double> timeoutSeconds;
  bool privateWindow = false;        // the first window is private
  bool watch = false;                // reload the extension when its bundle's files change
  bool headed = false;               // windows on the display in DISPLAY, never a private Xvfb
  bool verbose = false;              // the extension's diagnostic lines ([log]) on stderr too
  bool quiet = false;                // on stderr, errors only
};

// The options, or (when `help` is set instead) nothing and the help text
// printed; a bad command line is an error text.
struct ParsedRun {
  std::optional<RunOptions> options;
  std::string help;
};
std::expected<ParsedRun, std::string> parseRunOptions(const std::vector<std::string>& args);

}  // namespace appex
