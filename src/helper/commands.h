// The commands of veskoctl. One thread.
#pragma once

#include <string>
#include <vector>

#include "helper/command_line.h"
#include "helper/command_session.h"

namespace vesko {

const CommandTable& veskoctlCommands();

/// Runs one command line, without the program's name, and returns the exit code.
int runVeskoctl(const std::vector<std::string>& words, const CommandEnvironment& environment);

}  // namespace vesko
