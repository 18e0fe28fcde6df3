// Where a message bus listens, as a server address of D-Bus tells it. Any thread.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace vesko {

/// The Unix socket addresses of a list as "unix:path=/run/bus,guid=1f;unix:abstract=x", in order:
/// paths, or names behind a NUL for the abstract ones. What is malformed or of another transport
/// is left out.
std::vector<std::string> dbusSocketNames(std::string_view addresses);

/// A non-blocking socket connected to the first that answers; none when nothing does.
UniqueFd connectToDBus(std::string_view addresses);

/// The session bus of this process: $DBUS_SESSION_BUS_ADDRESS, else the user's bus in
/// $XDG_RUNTIME_DIR.
std::string sessionBusAddress();

}  // namespace vesko
