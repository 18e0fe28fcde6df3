// A real child process and what came from it.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "loop_driver.h"
#include "platform/linux/linux_process_host.h"

namespace vesko {

inline const std::filesystem::path scriptedChild = VESKO_SCRIPTED_CHILD;

struct LaunchedChild {
  std::unique_ptr<ChildProcess> process;
  std::string output;
  std::optional<ProcessExit> exit;
};

class ProcessTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { std::signal(SIGPIPE, SIG_IGN); }

  // Whatever a test left behind ends when its input closes, or by the signal here.
  void TearDown() override { EXPECT_TRUE(runUntil(loop, noChildren)); }

  static bool noChildren() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
  }

  std::unique_ptr<LaunchedChild> launch(const std::filesystem::path& executable,
                                        Environment environment) {
    auto child = std::make_unique<LaunchedChild>();
    auto started = host.launch({
        .executable = executable,
        .environment = std::move(environment),
        .onOutput = [to = child.get()](std::string_view chunk) { to->output += chunk; },
        .onExit = [to = child.get()](ProcessExit exit) { to->exit = exit; },
    });
    EXPECT_TRUE(started) << started.error();
    if (started) child->process = std::move(*started);
    return child;
  }
  std::unique_ptr<LaunchedChild> launch(std::string mode, int value = 0) {
    return launch(scriptedChild, environmentFor(std::move(mode), value));
  }
  static Environment environmentFor(std::string mode, int value = 0) {
    return {{"VESKO_CHILD", std::move(mode)}, {"VESKO_CHILD_VALUE", std::to_string(value)}};
  }

  bool ended(const LaunchedChild& child) {
    return runUntil(loop, [&] { return child.exit.has_value(); });
  }
  bool says(const LaunchedChild& child, std::string_view text) {
    return runUntil(loop, [&] { return child.output.find(text) != std::string::npos; });
  }

  GlibMainLoop loop;
  LinuxProcessHost host;
};

}  // namespace vesko
