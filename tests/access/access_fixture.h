// The application's permission side in memory.
#pragma once

#include <gtest/gtest.h>

#include "access/daemon_grants.h"
#include "access/permission_monitor.h"
#include "access/permissions.h"
#include "access/screen_recording_relaunch.h"
#include "fakes/fake_permissions.h"
#include "fakes/virtual_main_loop.h"
#include "support/temporary_directory.h"

namespace vesko::fakes {

struct FakeGrants : ProtectedGrants {
  FolderGrant messages() override { return messagesGrant; }
  FolderGrant notes() override { return notesGrant; }
  bool photosLibrary() override { return photosGrant; }
  std::optional<std::uint64_t> changeCount() override { return changes; }

  FolderGrant messagesGrant;
  FolderGrant notesGrant;
  bool photosGrant = false;
  std::uint64_t changes = 0;
};

struct FakeLifetime : ApplicationLifetime {
  std::expected<void, std::string> relaunch() override {
    if (!failure.empty()) return std::unexpected(failure);
    ++relaunches;
    return {};
  }

  int relaunches = 0;
  std::string failure;
};

class AccessFixture : public ::testing::Test {
 protected:
  /// Reads what is due and publishes it.
  void settle() {
    loop.runPosted();
    queue.run();
    loop.runPosted();
  }
  void tick() {
    loop.advance(std::chrono::seconds(1));
    settle();
  }
  /// What was logged since the last call, one line each without the time.
  std::vector<std::string> logged() {
    const std::string all = support::contentOf(home / "Logs/app.log");
    std::vector<std::string> lines;
    while (read < all.size()) {
      const auto start = all.find("] ", read) + 2;
      const auto end = all.find('\n', start);
      lines.push_back(all.substr(start, end - start));
      read = end + 1;
    }
    return lines;
  }

  support::TemporaryDirectory home;
  VirtualMainLoop loop;
  AppLog log{home / "Logs", [] { return std::time_t{0}; }};
  UserDefaults defaults{home / "defaults.plist"};
  AppState state{defaults};
  FakePermissionProbes probes;
  FakePermissionRequests requests;
  FakeGrants grants;
  FakeLifetime lifetime;
  StandingQueue queue;
  int daemonLaunches = 0;
  std::size_t read = 0;
  DaemonGrantWatch daemonGrants{state, log, loop, [this] { ++daemonLaunches; }};
  ScreenRecordingRelaunch relaunch{
      {.state = state, .log = log, .defaults = defaults, .application = lifetime}, false};
  PermissionMonitor monitor{{.state = state,
                             .loop = loop,
                             .queue = queue,
                             .probes = probes,
                             .grants = grants,
                             .daemonGrants = daemonGrants,
                             .relaunch = relaunch}};
  Permissions permissions{
      {.state = state, .log = log, .requests = requests, .probes = probes, .monitor = monitor}};
};

using Lines = std::vector<std::string>;

}  // namespace vesko::fakes
