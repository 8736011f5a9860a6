// The automation protocol's commands (see control_channel.h for the line
// format): tabs and windows by host handle, script evaluation in the
// extension's pages and in tabs, the toolbar button and popover (with a
// click outside it), snapshots, the stored values, and quit.
//
// Main thread only.
#pragma once

#include <functional>
#include <string>

namespace appex {

class ControlChannel;
class HostSession;

// `siteURL` is the served site's URL ("" when nothing is served): relative
// URLs resolve against it. `quit` ends the run; the `quit` command calls it
// once every earlier request has been answered and its own reply written.
void addControlCommands(ControlChannel& channel, HostSession& session, std::string siteURL,
                        std::function<void()> quit);

// How long `eval` waits for its value unless the request says otherwise.
inline constexpr int kEvalTimeoutMs = 10'000;

}  // namespace appex
