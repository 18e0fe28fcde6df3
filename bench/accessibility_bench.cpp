// Serves the accessibility routes for one process and calls them as the helper does. Its argument
// is the process. A request line "PATH BODY" on standard input is one request over pinned TLS, from
// connecting to the parsed answer; it answers "MILLISECONDS ELEMENTS PATH_OF_THE_FIRST".
#include <fmt/core.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "control_server/tool_routes.h"
#include "pinned_server.h"
#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/x11_window_system.h"
#include "tools/accessibility_control.h"

namespace vesko {
namespace {

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
  bench::Granted probes;
  OneApplication application(pid);
  X11Sessions sessions;
  X11WindowSystem windows(sessions);
  AtspiAccessibility accessibility(sessions);
  AccessibilityControl control(accessibility, application, windows);
  const auto server = bench::PinnedServer::start(accessibilityRoutes(control), probes);
  if (!server) return 1;

  for (std::string line; std::getline(std::cin, line);) {
    const auto space = line.find(' ');
    const auto answer = server->post(line.substr(0, space), line.substr(space + 1));
    if (!answer || answer->body.find("incomplete")) {
      fmt::print(stderr, "accessibility_bench: {}\n", answer ? "incomplete" : answer.error());
      return 1;
    }
    const json::Value* tree = answer->body.find("tree");
    const json::Value* found = answer->body.find("elements");
    const bool any = found && found->asArray() && !found->asArray()->empty();
    const json::Value* path = any ? found->asArray()->front().find("path") : nullptr;
    fmt::print("{:.3f} {} {}\n", answer->milliseconds,
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
