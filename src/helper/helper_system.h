// The few questions that every system answers through calls of its own. Any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

#include "base/unique_fd.h"

namespace vesko {

/// The user at the other end of a connected Unix socket.
std::optional<uid_t> peerUser(int socket);

/// A descriptor that becomes readable when the process ends; empty when the system has none.
UniqueFd watchProcess(pid_t pid);

/// Empty when the system does not tell.
std::filesystem::path ownExecutable();

}  // namespace vesko
