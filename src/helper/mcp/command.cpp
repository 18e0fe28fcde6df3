#include "helper/mcp/command.h"

#include <unistd.h>

#include "helper/mcp/server.h"

namespace vesko {

int serveMcp(CommandSession& session) {
  if (session.json()) return session.usageError("mcp speaks JSON anyway; leave out --json");
  if (::isatty(STDIN_FILENO))
    return session.usageError(
        "mcp speaks with a program, not with a person; register it with an assistant as a server "
        "on standard input and output");
  mcp::Server server(STDIN_FILENO, STDOUT_FILENO, session.version(), session.sockets());
  return server.run() ? exitOk : exitFailed;
}

}  // namespace vesko
