// The commands with which the user sees and changes what the companion may do, by the back end's
// own consents: no route of the companion does that. One thread.
#pragma once

#include <span>

#include "helper/command_line.h"

namespace vesko {

std::span<const CommandEntry> consentCommands();

}  // namespace vesko
