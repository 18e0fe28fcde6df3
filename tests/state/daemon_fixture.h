// An application's daemon side in memory: supervisor and control lines on a fake process host.
#pragma once

#include <gtest/gtest.h>

#include "fakes/fake_process_host.h"
#include "fakes/virtual_main_loop.h"
#include "state/control_lines.h"
#include "state/daemon_supervisor.h"
#include "support/temporary_directory.h"

namespace vesko::fakes {

/// Notes what the daemon asked for.
class RecordedRequests : public DaemonRequests {
 public:
  using DaemonRequests::DaemonRequests;
  void requestHomeFolder() override { calls += "home;"; }
  void requestFolder(const std::string& path) override { calls += "folder " + path + ";"; }
  void withdrawFolder(const std::string& path) override { calls += "withdraw " + path + ";"; }
  void requestPhotosAccess() override { calls += "photos;"; }
  void socialMessage(std::string_view text) override { calls += "social " + std::string(text); }
  void socialDaemonRestarted() override { calls += "restarted;"; }
  void abortSocialStreams() override { calls += "abort;"; }
  void confirmPairing(const std::string& id) override { calls += "confirm " + id + ";"; }
  void retirePairingCode() override { calls += "retire;"; }
  void showSetup() override { calls += "setup;"; }

  std::string calls;
};

class DaemonFixture : public ::testing::Test {
 protected:
  using Seconds = std::chrono::seconds;

  DaemonFixture() {
    writeBundle(home / "Vesko.app", "com.vesko.companion-kit");
    bundle = Bundle::at(home / "Vesko.app");
    supervisor.setObserver(lines);
  }

  static void writeBundle(const std::filesystem::path& app, const std::string& identifier) {
    const PropertyList info(PropertyList::Dictionary{{"CFBundleIdentifier", identifier},
                                                     {"CFBundleShortVersionString", "2.5"}});
    support::writeFile(app / "Contents/Info.plist", info.toXml());
    support::writeFile(app / "Contents/Resources/veskokit-daemon", "#!");
  }

  FakeProcessHost::Process& child() { return *host.children.back(); }
  std::string logged() const { return support::contentOf(home / "Logs/app.log"); }
  ::testing::AssertionResult logs(std::string_view text) const {
    if (logged().find(text) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not logged: " << text << "\nlog:\n" << logged();
  }
  /// The current daemon dies and its notice is handled.
  void crash(ProcessExit how = {.signalled = false, .code = 3}) {
    host.exit(child(), how);
    loop.runPosted();
  }

  support::TemporaryDirectory home;
  VirtualMainLoop loop;
  FakeProcessHost host{loop};
  AppLog log{home / "Logs", [] { return std::time_t{0}; }};
  UserDefaults defaults{home / "defaults.plist"};
  AppState state{defaults};
  Bundle bundle = Bundle::at(home / "Vesko.app");
  Directories directories = Directories::under(home.path(), "com.vesko.companion-kit");
  ProcessKiller killer{loop, log};
  RecordedRequests requests{log};
  ImportStatus imports{state, log};
  Environment own{{"VESKOKIT_PAIRING_CODE", "INHERITED"}, {"PATH", "/bin"}};
  DaemonSupervisor supervisor{{.state = state,
                               .log = log,
                               .loop = loop,
                               .processes = host,
                               .killer = killer,
                               .bundle = bundle,
                               .launchInputs = [this](std::optional<std::string> code) {
                                 return DaemonLaunchInputs{.ownEnvironment = own,
                                                           .bundle = bundle,
                                                           .directories = directories,
                                                           .executable = home / "companion",
                                                           .processId = 77,
                                                           .relayUrlDefault = std::nullopt,
                                                           .computerName = "Studio.local",
                                                           .hostName = "studio",
                                                           .pairingCode = std::move(code),
                                                           .grants = {}};
                               }}};
  ControlLines lines{state, log, loop, supervisor, imports, requests};
};

}  // namespace vesko::fakes
