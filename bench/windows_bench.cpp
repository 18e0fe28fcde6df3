// Lists the windows of $DISPLAY on request and says how long it took as the helper sees it: each
// line on standard input is one POST /window/list over pinned TLS, from connecting to the parsed
// answer. It answers "MILLISECONDS WINDOWS".
#include <fmt/core.h>

#include <iostream>
#include <string>

#include "base/main_thread.h"
#include "control_server/tool_routes.h"
#include "pinned_server.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/linux_applications.h"
#include "platform/linux/x11_window_system.h"

extern char** environ;

namespace vesko {
namespace {

Environment ownEnvironment() {
  Environment environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text(*entry);
    environment.emplace(text.substr(0, text.find('=')), text.substr(text.find('=') + 1));
  }
  return environment;
}

int answerRequests() {
  GlibMainLoop loop;
  X11Sessions sessions;
  X11WindowSystem windows(sessions);
  LinuxApplications applications(loop, sessions, windows, ownEnvironment());
  AppWindowControl control(applications, windows);
  bench::Granted probes;
  const auto server = bench::PinnedServer::start(appWindowRoutes(control), probes);
  if (!server) return 1;

  for (std::string line; std::getline(std::cin, line);) {
    const auto answer = server->post("/window/list", "{}");
    const json::Value* list = answer ? answer->body.find("windows") : nullptr;
    if (!list || !list->asArray()) {
      fmt::print(stderr, "windows_bench: {}\n", answer ? "no list" : answer.error());
      return 1;
    }
    fmt::print("{:.3f} {}\n", answer->milliseconds, list->asArray()->size());
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace
}  // namespace vesko

int main() {
  vesko::adoptMainThread();
  return vesko::answerRequests();
}
