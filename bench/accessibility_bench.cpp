// Serves the accessibility routes for one process and calls them as the helper does. Its argument
// is the process. A request line "PATH BODY" on standard input is one request over pinned TLS, from
// connecting to the parsed answer; it answers "MILLISECONDS ELEMENTS PATH_OF_THE_FIRST".
#include <fmt/core.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <string>

#include "control_server/control_server.h"
#include "control_server/tool_routes.h"
#include "helper/control_client.h"
#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/x11_window_system.h"
#include "tools/accessibility_control.h"

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

/// The one process that is measured, whatever is asked for.
class OneApplication : public Applications {
 public:
  explicit OneApplication(pid_t pid) : application_{pid, "bench", "bench", "1"} {}
  std::vector<RunningApplication> running() override { return {application_}; }
  std::optional<RunningApplication> process(pid_t) override { return application_; }
  std::optional<RunningApplication> frontmost() override { return application_; }
  std::vector<InstalledApplication> installed() override { return {}; }
  std::optional<InstalledApplication> installed(const std::string&) override { return {}; }
  std::expected<pid_t, std::string> launch(const InstalledApplication&) override {
    return application_.pid;
  }
  bool activate(const RunningApplication&) override { return true; }
  bool quit(const RunningApplication&) override { return false; }

 private:
  RunningApplication application_;
};

std::size_t countNodes(const json::Value& node) {
  std::size_t count = 1;
  if (const json::Value* children = node.find("children"); children && children->asArray())
    for (const json::Value& child : *children->asArray()) count += countNodes(child);
  return count;
}

int answerRequests(pid_t pid) {
  std::signal(SIGPIPE, SIG_IGN);
  Granted probes;
  OneApplication application(pid);
  X11Sessions sessions;
  X11WindowSystem windows(sessions);
  AtspiAccessibility accessibility(sessions);
  AccessibilityControl control(accessibility, application, windows);
  auto server = ControlServer::create(accessibilityRoutes(control), probes);
  if (!server) return 1;
  std::promise<std::string> handshake;
  (*server)->onReady = [&](std::string line) { handshake.set_value(std::move(line)); };
  (*server)->start();
  const auto endpoint = json::decode<ControlEndpoint>(handshake.get_future().get());
  const ControlClient client;

  for (std::string line; std::getline(std::cin, line);) {
    const auto space = line.find(' ');
    const ControlRequest request{"POST", line.substr(0, space), line.substr(space + 1)};
    const auto begin = Clock::now();
    const auto answer = client.call(*endpoint, request, {});
    const auto body = answer && answer->status == 200
                          ? json::parse(answer->body, 512)
                          : std::unexpected(answer ? answer->body : answer.error().message);
    const double time = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    if (!body || body->find("incomplete")) {
      fmt::print(stderr, "accessibility_bench: {}\n", body ? "incomplete" : body.error());
      return 1;
    }
    const json::Value* tree = body->find("tree");
    const json::Value* found = body->find("elements");
    const bool any = found && found->asArray() && !found->asArray()->empty();
    const json::Value* path = any ? found->asArray()->front().find("path") : nullptr;
    fmt::print("{:.3f} {} {}\n", time,
               tree    ? countNodes(*tree)
               : found ? found->asArray()->size()
                       : 0,
               path ? *path->asString() : "");
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace
}  // namespace vesko

int main(int argc, char** argv) {
  return argc > 1 ? vesko::answerRequests(std::atoi(argv[1])) : 2;
}
