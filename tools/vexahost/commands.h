// The commands typed on vexahost's standard input.
#ifndef VEXAHOST_COMMANDS_H
#define VEXAHOST_COMMANDS_H

#include <string>

#include "host_session.h"

namespace vexahost {

// Runs one line typed on standard input. Returns false when the command asks
// the tool to quit.
bool run_command(Host& host, const std::string& line);

}  // namespace vexahost

#endif  // VEXAHOST_COMMANDS_H
