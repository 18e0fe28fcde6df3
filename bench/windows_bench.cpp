// Lists the windows of $DISPLAY on request and says how long it took as the helper sees it: each
// line on standard input is one POST /window/list over pinned TLS, from connecting to the parsed
// answer. It answers "MILLISECONDS WINDOWS".
#include <fmt/core.h>

#include <chrono>
#include <csignal>
#include <future>
#include <iostream>
#include <string>

#include "base/json_record.h"
#include "base/main_thread.h"
#include "control_server/control_server.h"
#include "control_server/tool_routes.h"
#include "helper/control_client.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/linux_applications.h"
#include "platform/linux/x11_window_system.h"

extern char** environ;

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;

class Granted : public PermissionProbes {
 public:
  bool accessibilityTrusted() override { return true; }
  bool screenCaptureAllowed() override { return true; }
  PhotosPermission photos() override { return PhotosPermission::full; }
  AutomationStatus automation(AutomationTarget) override { return {}; }
};

Environment ownEnvironment() {
  Environment environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text(*entry);
    environment.emplace(text.substr(0, text.find('=')), text.substr(text.find('=') + 1));
  }
  return environment;
}

int answerRequests() {
  std::signal(SIGPIPE, SIG_IGN);
  GlibMainLoop loop;
  X11Sessions sessions;
  X11WindowSystem windows(sessions);
  LinuxApplications applications(loop, sessions, windows, ownEnvironment());
  AppWindowControl control(applications, windows);
  Granted probes;
  auto server = ControlServer::create(appWindowRoutes(control), probes);
  if (!server) return 1;
  std::promise<std::string> handshake;
  (*server)->onReady = [&](std::string line) { handshake.set_value(std::move(line)); };
  (*server)->start();
  const auto endpoint = json::decode<ControlEndpoint>(handshake.get_future().get());
  const ControlClient client;

  for (std::string line; std::getline(std::cin, line);) {
    const auto begin = Clock::now();
    const auto answer = client.call(*endpoint, {"POST", "/window/list", "{}"}, {});
    const auto body = answer && answer->status == 200
                          ? json::parse(answer->body)
                          : std::unexpected(answer ? answer->body : answer.error().message);
    const double time = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    const json::Value* list = body ? body->find("windows") : nullptr;
    if (!list || !list->asArray()) {
      fmt::print(stderr, "windows_bench: {}\n", body ? "no list" : body.error());
      return 1;
    }
    fmt::print("{:.3f} {}\n", time, list->asArray()->size());
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
