// Runs the control server alone, with its core routes and every permission granted: prints the
// handshake line and serves until standard input ends.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "control_server/control_server.h"
#include "granted.h"

int main() {
  ::signal(SIGPIPE, SIG_IGN);
  vesko::bench::Granted probes;
  auto server = vesko::ControlServer::create(vesko::coreRoutes(probes), probes);
  if (!server) {
    std::fprintf(stderr, "%s\n", std::string(describe(server.error())).c_str());
    return 1;
  }
  (*server)->onReady = [](const std::string& handshake) {
    std::puts(handshake.c_str());
    std::fflush(stdout);
  };
  (*server)->onFailure = [](const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
  };
  (*server)->start();
  char ignored = 0;
  while (::read(STDIN_FILENO, &ignored, 1) > 0) {
  }
}
