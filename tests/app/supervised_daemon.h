// The application's daemon side as it runs on a desktop: a real main loop and real processes, with
// a scripted child as the daemon in a bundle of the test's own.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/file.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/linux_process_host.h"
#include "state/control_lines.h"
#include "state/daemon_supervisor.h"
#include "support/temporary_directory.h"

namespace vesko {

/// Real processes, and a count of what came from them.
class CountingProcessHost : public ProcessHost {
 public:
  std::expected<std::unique_ptr<ChildProcess>, std::string> launch(ProcessLaunch launch) override {
    launch.onOutput = [this, deliver = std::move(launch.onOutput)](std::string_view chunk) mutable {
      bytesDelivered += chunk.size();
      ++chunksDelivered;
      deliver(chunk);
    };
    auto child = host_.launch(std::move(launch));
    if (child) pids.push_back((*child)->pid());
    return child;
  }
  std::vector<pid_t> processIds() override { return host_.processIds(); }
  std::optional<std::filesystem::path> executablePath(pid_t pid) override {
    return host_.executablePath(pid);
  }
  std::unique_ptr<ProcessReference> open(pid_t pid) override { return host_.open(pid); }

  std::vector<pid_t> pids;  ///< of all children, in the order of their launch
  std::size_t bytesDelivered = 0;
  int chunksDelivered = 0;

 private:
  LinuxProcessHost host_;
};

/// Notes what the daemon asked for and can act on it at once, from inside the line's handler.
class NotingRequests : public DaemonRequests {
 public:
  using DaemonRequests::DaemonRequests;
  void requestFolder(const std::string& path) override {
    folders.push_back(path);
    if (onFolder) onFolder();
  }
  void confirmPairing(const std::string& deviceId) override { connected.push_back(deviceId); }

  std::vector<std::string> folders;
  std::vector<std::string> connected;
  std::function<void()> onFolder;
};

inline bool noChildren() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
}

class SupervisedDaemonTest : public testing::Test {
 protected:
  static constexpr const char* identifier = "com.vesko.test.daemon-faults";

  static void SetUpTestSuite() { std::signal(SIGPIPE, SIG_IGN); }

  SupervisedDaemonTest() {
    state.hasDeviceToken.set(true);
    state.restartDelay = Duration::zero();
    supervisor.setObserver(lines);
  }

  void TearDown() override {
    beforeLaunch = nullptr;
    supervisor.cancelRestart();
    supervisor.stopDaemon();
    for (const pid_t pid : processes.pids) {
      if (const auto left = processes.open(pid)) left->signal(SIGKILL);
    }
    EXPECT_TRUE(settled());
  }

  /// `bundle` with a daemon, and its property list.
  static std::filesystem::path makeBundle(const std::filesystem::path& bundle,
                                          const std::string& id) {
    const PropertyList info(PropertyList::Dictionary{{"CFBundleIdentifier", id}});
    support::writeFile(bundle / "Contents/Info.plist", info.toXml());
    const auto daemon = bundle / "Contents/Resources/veskokit-daemon";
    std::filesystem::create_directories(daemon.parent_path());
    std::filesystem::copy_file(VESKO_SCRIPTED_CHILD, daemon);
    return daemon;
  }

  /// What the next launches do.
  void script(std::string mode, long value = 0, std::string first = {}, std::string last = {}) {
    own = {{"VESKO_CHILD", std::move(mode)},
           {"VESKO_CHILD_VALUE", std::to_string(value)},
           {"VESKO_CHILD_FIRST", std::move(first)},
           {"VESKO_CHILD_LAST", std::move(last)}};
    for (const char* kept : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* set = std::getenv(kept)) own[kept] = set;
    }
  }
  void launch() { supervisor.launchDaemon(std::nullopt); }

  /// True once `done()` holds; false when it does not within a minute. The loop sleeps until
  /// something happens.
  template <class Condition>
  bool runUntil(Condition done) {
    bool expired = false;
    const Timer bound = loop.after(std::chrono::minutes(1), [&] { expired = true; });
    while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
    return done();
  }
  /// Every process has ended, and what their ends had put off is done.
  bool settled() {
    bool done = false;
    const bool ended = runUntil([this] { return noChildren() && killer.idle(); });
    loop.post([&done] { done = true; });
    return runUntil([&done] { return done; }) && ended;
  }
  bool runUntilConnected(const std::string& deviceId) {
    return runUntil([&] { return *state.status == Status::connected(deviceId); });
  }
  bool runUntilLaunches(std::size_t count) {
    return runUntil([&] { return processes.pids.size() >= count; });
  }
  bool runUntilLogged(std::string_view text) {
    return runUntil([&] { return logs(text); });
  }

  std::string logged() const { return support::contentOf(home / "Logs/app.log"); }
  bool logs(std::string_view text) const { return logged().find(text) != std::string::npos; }
  pid_t pid() const { return processes.pids.back(); }

  /// The line by which a daemon reports its connection.
  static std::string connectedLine(const std::string& deviceId) {
    return "[veskokit-status] {\"state\":\"connected\",\"deviceId\":\"" + deviceId + "\"}\n";
  }

  support::TemporaryDirectory home;
  GlibMainLoop loop;
  CountingProcessHost processes;
  AppLog log{home / "Logs"};
  UserDefaults defaults{home / "defaults.plist"};
  AppState state{defaults};
  std::filesystem::path executable = makeBundle(home / "Vesko.app", identifier);
  Bundle bundle = Bundle::at(home / "Vesko.app");
  Directories directories = Directories::under(home.path(), identifier);
  ProcessKiller killer{loop, log};
  NotingRequests requests{log};
  ImportStatus imports{state, log};
  Environment own;
  std::function<void()> beforeLaunch;
  DaemonSupervisor supervisor{{.state = state,
                               .log = log,
                               .loop = loop,
                               .processes = processes,
                               .killer = killer,
                               .bundle = bundle,
                               .launchInputs = [this](std::optional<std::string> code) {
                                 if (beforeLaunch) beforeLaunch();
                                 return DaemonLaunchInputs{.ownEnvironment = own,
                                                           .bundle = bundle,
                                                           .directories = directories,
                                                           .executable = home / "companion",
                                                           .processId = ::getpid(),
                                                           .relayUrlDefault = std::nullopt,
                                                           .computerName = "Studio",
                                                           .hostName = "studio",
                                                           .pairingCode = std::move(code),
                                                           .grants = {}};
                               }}};
  ControlLines lines{state, log, loop, supervisor, imports, requests};
};

}  // namespace vesko
