// Which program a running process is. Any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

namespace vesko {

/// The path of the file that the process executes (proc(5), /proc/pid/exe); nothing when there is
/// no such process or it belongs to another user.
///
/// A file that was replaced or removed since the start keeps its path, without the mark that the
/// kernel appends. A script counts as the program, and not its interpreter, only where the process
/// can be nothing else than a run of that script: its interpreter and first arguments are those
/// that the script's "#!" line makes. A process that merely names a script among its arguments, an
/// editor for instance, stays what it is.
std::optional<std::filesystem::path> processExecutable(pid_t pid);

}  // namespace vesko
