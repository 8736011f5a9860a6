// The automation protocol's commands (see control_channel.h for the line
// format): tabs and windows by host handle, script evaluation in the
// extension's pages and in tabs, the toolbar button and popover (with a
// click outside it), snapshots, the stored values, and quit.
//
// Main thread only.
#pragma once

#include <functional>

namespace appex {

class ControlChannel;
class HostSession;

// `quit` ends the run after the reply has been written.
void addControlCommands(ControlChannel& channel, HostSession& session, std::function<void()> quit);

}  // namespace appex
