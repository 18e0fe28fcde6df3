// The command "veskoctl mcp".
#pragma once

#include "helper/command_session.h"

namespace vesko {

/// Serves the Model Context Protocol on standard input and output until the client leaves; the
/// exit code.
int serveMcp(CommandSession& session);

}  // namespace vesko
