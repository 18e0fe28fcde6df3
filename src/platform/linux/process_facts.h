// What /proc tells of a process beyond its program (proc(5)). Any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

/// Differs between two processes that had the same pid at different times, also before and after
/// the machine was restarted: letters, digits and a hyphen. Nothing once the process has ended,
/// reaped or not.
std::optional<std::string> processStartToken(pid_t pid);

/// A variable of the environment that the process was started with; nothing when it had none or
/// belongs to another user.
std::optional<std::string> startVariable(pid_t pid, std::string_view name);

std::vector<std::string> commandLine(pid_t pid);

}  // namespace vesko
