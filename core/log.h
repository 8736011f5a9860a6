// Log: where the system's diagnostic lines go.
//
// Two destinations, as the host process has them: the system log (`logLine`)
// and standard output (`printLine`). Each call writes one line, verbatim: the
// text is never interpreted as a format string, so page-supplied text with
// "%s" or "%n" prints as it stands. Tests and hosts may install a sink to
// capture or redirect lines.
//
// Thread-safe.
#pragma once

#include <functional>
#include <string_view>

namespace appex {

enum class LogDestination { systemLog, standardOutput };

// Receives every line; must be thread-safe. Called with no lock held.
using LogSink = std::function<void(LogDestination, std::string_view)>;

// Writes `text` as one line to the system log (stderr unless a sink is set).
void logLine(std::string_view text);
// Writes `text` as one line to standard output (unless a sink is set).
void printLine(std::string_view text);

// Installs `sink` for every later line; an empty sink restores the default.
// Returns the sink it replaced.
LogSink setLogSink(LogSink sink);

}  // namespace appex
