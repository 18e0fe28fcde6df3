// The commands that see and operate the desktop, each by one route of the companion. One thread.
#pragma once

#include <span>

#include "helper/command_line.h"

namespace vesko {

std::span<const CommandEntry> desktopCommands();

}  // namespace vesko
