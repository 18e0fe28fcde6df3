// The whole application as a process: how it starts, guards its daemon, ends, and what it makes of
// a broken bundle and a broken disk.

#include "companion_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "state/app_state.h"
#include "support/tls_client.h"

namespace vesko::test {
namespace {

using Helper = Installation::Helper;

bool contains(const std::vector<std::string>& reports, std::string_view report) {
  return std::ranges::find(reports, report) != reports.end();
}

bool portOpen(const Announcement& server) {
  return bool(connectLoopback(static_cast<std::uint16_t>(server.port)));
}

TEST(CompanionProcess, tellsAnyHelperWhatItNeedsAndServesIt) {
  Installation installation;
  const auto companion = installation.start({{"VESKOKIT_PAIRING_CODE", "INHERITED"},
                                             {"VESKOKIT_PARENT_PID", "1"},
                                             {"VESKOKIT_GRANTED_DIRS", "/inherited"},
                                             {"VESKOKIT_RELAY_URL", "ws://127.0.0.1:9/device"},
                                             {"VESKOKIT_DEVICE_NAME", "  Desk  "},
                                             {"CUSTOM", "kept"}});
  DaemonLink daemon = installation.nextDaemon();
  ASSERT_TRUE(daemon.waitFor("ready"));
  const auto directories = installation.directories();
  const std::pair<const char*, std::string> expected[] = {
      {"VESKOKIT_PARENT_PID", std::to_string(companion->pid())},
      {"VESKOKIT_STATE_DIR", directories.state},
      {"VESKOKIT_CACHE_DIR", directories.cache},
      {"VESKOKIT_VERSION", "7.8.9"},
      {"VESKOKIT_KEYCHAIN_SERVICE", installation.identifier()},
      {"VESKOKIT_RELAY_URL", "ws://127.0.0.1:9/device"},
      {"VESKOKIT_DEVICE_NAME", "Desk"},
      {"CUSTOM", "kept"},
  };
  for (const auto& [name, value] : expected) EXPECT_EQ(daemon.variable(name), value) << name;
  for (const char* removed : {"VESKOKIT_PAIRING_CODE", "VESKOKIT_GRANTED_DIRS",
                              "VESKOKIT_LAUNCHD_LABEL", "VESKOKIT_CONTACTS_FILE"})
    EXPECT_EQ(daemon.variable(removed), std::nullopt) << removed;

  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  const Answer healthy = ask(*server, "GET", "/healthz");
  EXPECT_EQ(healthy.status, 200);
  EXPECT_EQ(healthy.body, R"({"ok":true})");
  EXPECT_EQ(ask(*server, "GET", "/healthz", {}, server->token + "x").status, 401);
  EXPECT_EQ(ask(*server, "GET", "/healthz", {}, "").body, R"({"message":"unauthorized"})");

  // A daemon that takes its place is told the same.
  EXPECT_TRUE(daemon.say(R"([veskokit-status] {"state":"connected","deviceId":"d1"})"));
  daemon.tell("exit 3");
  DaemonLink next = installation.nextDaemon();
  const auto again = next.announcement();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->port, server->port);
  EXPECT_EQ(again->token, server->token);
  const std::string log = installation.log();
  EXPECT_NE(log.find("daemon exited exit code 3"), std::string::npos);
  for (const std::string& secret : {server->token, std::string("INHERITED")})
    EXPECT_EQ(log.find(secret), std::string::npos);
}

TEST(CompanionProcess, endsItsDaemonFirstAndThenItself) {
  for (const int number : {SIGTERM, SIGINT}) {
    for (const bool stubborn : {false, true}) {
      if (stubborn && number == SIGINT) continue;  // costs the whole grace time
      SCOPED_TRACE(fmt::format("signal {}{}", number, stubborn ? ", stubborn daemon" : ""));
      Installation installation;
      const auto companion =
          installation.start({{"VESKO_DAEMON_MANNER", stubborn ? "stubborn" : "patient"}});
      DaemonLink daemon = installation.nextDaemon();
      const auto server = daemon.announcement();
      ASSERT_TRUE(server);
      ASSERT_TRUE(installation.waitForLog("daemon run() ok"));
      const WatchedProcess daemonProcess(installation.lastDaemon());
      ASSERT_TRUE(daemonProcess.alive());

      companion->kill(number);
      EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
      EXPECT_FALSE(daemonProcess.alive());
      EXPECT_TRUE(daemon.waitForEnd());
      EXPECT_TRUE(contains(daemon.reports(), "term"));
      EXPECT_TRUE(contains(daemon.reports(), "eof"));
      EXPECT_FALSE(portOpen(*server));
      const std::string log = installation.log();
      EXPECT_EQ(log.find("daemon exited"), std::string::npos);
      if (stubborn) {
        EXPECT_NE(log.find(fmt::format("daemon pid={} ignored SIGTERM; sending SIGKILL",
                                       daemonProcess.pid())),
                  std::string::npos);
      }
    }
  }
}

TEST(CompanionProcess, aSecondSignalDoesNotCutTheEndShort) {
  Installation installation;
  const auto companion = installation.start({{"VESKO_DAEMON_MANNER", "stubborn"}});
  DaemonLink daemon = installation.nextDaemon();
  ASSERT_TRUE(daemon.announcement());
  companion->kill(SIGTERM);
  ASSERT_TRUE(daemon.waitFor("term"));
  companion->kill(SIGTERM);
  companion->kill(SIGINT);
  daemon.tell("exit 0");
  EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
}

TEST(CompanionProcess, runsOnceForAUser) {
  Installation installation;
  const auto first = installation.start();
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  // What the first may have noted for the next start is not for the second.
  const auto defaults = installation.directories().defaultsFile;
  ASSERT_TRUE(UserDefaults(defaults).set(defaultsKeys::screenRecordingRelaunchPending, true));
  const auto second = installation.start();
  EXPECT_EQ(second->waitForExit(), 0);
  EXPECT_NE(second->err().find("already running"), std::string::npos);
  EXPECT_TRUE(UserDefaults(defaults).flag(defaultsKeys::screenRecordingRelaunchPending));
  EXPECT_TRUE(daemon.say("still here"));
  EXPECT_TRUE(installation.waitForLog("daemon: still here"));
  EXPECT_FALSE(contains(daemon.reports(), "term"));
  EXPECT_EQ(ask(*server, "GET", "/healthz").status, 200);

  // Once the first is gone, however it went, there is room again.
  first->kill(SIGKILL);
  EXPECT_EQ(first->waitForExit(), 128 + SIGKILL);
  const auto third = installation.start();
  EXPECT_TRUE(installation.nextDaemon().announcement());
  EXPECT_FALSE(UserDefaults(defaults).flag(defaultsKeys::screenRecordingRelaunchPending));
}

TEST(CompanionProcess, runsBesideThatOfAnotherHome) {
  Installation installation;
  const auto first = installation.start();
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  EXPECT_TRUE(daemon.say(R"([veskokit-status] {"state":"connected","deviceId":"d1"})"));
  EXPECT_TRUE(installation.waitForLog("\"connected\""));

  std::filesystem::create_directories(installation.home("other"));
  const auto second = installation.start({}, "other");
  DaemonLink otherDaemon = installation.nextDaemon("other");
  const auto otherServer = otherDaemon.announcement();
  ASSERT_TRUE(otherServer);
  EXPECT_NE(otherServer->port, server->port);
  EXPECT_EQ(ask(*server, "GET", "/healthz").status, 200);
  EXPECT_EQ(ask(*otherServer, "GET", "/healthz").status, 200);
  EXPECT_EQ(ask(*otherServer, "GET", "/healthz", {}, server->token).status, 401);
  // A newcomer takes the other's daemon for a stray one; its application then starts another.
  if (!daemon.say("still here")) daemon = installation.nextDaemon();
  EXPECT_TRUE(daemon.say("served"));
  EXPECT_TRUE(installation.waitForLog("daemon: served"));
  EXPECT_TRUE(otherDaemon.say("served too"));
  EXPECT_TRUE(installation.waitForLog("daemon: served too", 1, "other"));
}

TEST(CompanionProcess, itsHelperEndsWithItWhenItIsKilled) {
  // Held open, the helper's input does not tell; then the companion's end must.
  for (const bool inputHeld : {false, true}) {
    SCOPED_TRACE(inputHeld);
    Installation installation(Helper::real);
    auto companion = installation.start();
    ASSERT_TRUE(installation.waitForLog("control server announced on port")) << installation.log();
    const WatchedProcess helper(installation.lastDaemon());
    ASSERT_TRUE(helper.alive());
    UniqueFd held;
    if (inputHeld) {
      held.reset(::open(fmt::format("/proc/{}/fd/0", helper.pid()).c_str(), O_WRONLY | O_CLOEXEC));
      ASSERT_TRUE(held) << std::strerror(errno);
    }
    companion->kill(SIGKILL);
    EXPECT_EQ(companion->waitForExit(), 128 + SIGKILL);
    EXPECT_TRUE(helper.waitForEnd());

    companion = installation.start();
    EXPECT_TRUE(installation.waitForLog("control server announced on port", 2));
    EXPECT_NE(installation.lastDaemon(), helper.pid());
    companion->kill(SIGTERM);
    EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
  }
}

TEST(CompanionProcess, endsTheDaemonThatAnEarlierRunLeftBehind) {
  Installation installation;
  auto companion = installation.start({{"VESKO_DAEMON_MANNER", "stubborn"}});
  DaemonLink left = installation.nextDaemon();
  ASSERT_TRUE(left.announcement());
  companion->kill(SIGKILL);
  companion->waitForExit();
  ASSERT_TRUE(left.waitFor("eof"));

  companion = installation.start();
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  EXPECT_TRUE(left.waitFor("term"));
  EXPECT_EQ(ask(*server, "GET", "/healthz").status, 200) << "it does not wait for the stray one";
  EXPECT_TRUE(left.waitForEnd()) << "it was killed after its time";
  EXPECT_TRUE(installation.waitForLog("ignored SIGTERM; sending SIGKILL"));
  EXPECT_TRUE(daemon.say("untouched"));
}

TEST(CompanionProcess, runsWithoutAHomeToWriteTo) {
  for (const bool homeExists : {true, false}) {
    SCOPED_TRACE(homeExists);
    Installation installation;
    // Permission bits do not stop root, a file in the way does.
    if (homeExists) {
      support::writeFile(installation.home() / "Library", "in the way");
    } else {
      std::filesystem::remove(installation.home());
      support::writeFile(installation.home(), "in the way");
    }
    const auto companion = installation.start();
    DaemonLink daemon = installation.nextDaemon();
    const auto server = daemon.announcement();
    ASSERT_TRUE(server) << companion->err();
    EXPECT_EQ(ask(*server, "GET", "/healthz").status, 200);
    EXPECT_EQ(ask(*server, "POST", "/capture", R"({"target":"display"})").status, 412);
    EXPECT_TRUE(daemon.say(R"([veskokit-status] {"state":"connected","deviceId":"d1"})"));
    daemon.tell("exit 3");
    daemon = installation.nextDaemon();
    EXPECT_TRUE(daemon.announcement());
    companion->kill(SIGTERM);
    EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
    EXPECT_TRUE(daemon.waitForEnd());
  }
}

/// In a mount namespace of the test's own, so that nothing is left even if it is killed.
class TinyDisk {
 public:
  explicit TinyDisk(std::filesystem::path folder) : folder_(std::move(folder)) {
    std::filesystem::create_directories(folder_);
    mounted_ = ::unshare(CLONE_NEWNS) == 0 &&
               ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               ::mount("tmpfs", folder_.c_str(), "tmpfs", MS_NODEV | MS_NOSUID, "size=256k") == 0;
  }
  TinyDisk(const TinyDisk&) = delete;
  TinyDisk& operator=(const TinyDisk&) = delete;
  ~TinyDisk() {
    if (mounted_) ::umount2(folder_.c_str(), MNT_DETACH);
  }
  explicit operator bool() const { return mounted_; }

  void fill() const {
    const UniqueFd file(::open((folder_ / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string block(4096, 'x');
    while (::write(file.get(), block.data(), block.size()) > 0) {
    }
  }
  void makeRoom() const { std::filesystem::remove(folder_ / "filler"); }

 private:
  std::filesystem::path folder_;
  bool mounted_ = false;
};

TEST(CompanionProcess, goesOnWithAFullDiskUnderItsLog) {
  Installation installation;
  const TinyDisk disk(installation.directories().home / "Library/Logs");
  if (!disk) GTEST_SKIP() << "no right to mount a file system: " << std::strerror(errno);
  const auto companion = installation.start();
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  ASSERT_TRUE(daemon.say("before"));
  ASSERT_TRUE(installation.waitForLog("daemon: before"));
  disk.fill();
  // A line that the rest of the log's last block cannot take either, and behind it more than the
  // pipe and a read hold: when all is written, the line has been handled.
  ASSERT_TRUE(daemon.say("lost" + std::string(5000, 'x')));
  daemon.tell("fill 400");
  ASSERT_TRUE(daemon.waitFor("said"));
  EXPECT_EQ(ask(*server, "GET", "/healthz").status, 200);
  EXPECT_TRUE(companion->running());
  disk.makeRoom();
  ASSERT_TRUE(daemon.say("after"));
  EXPECT_TRUE(installation.waitForLog("] daemon: after\n"));
  const std::string log = installation.log();
  EXPECT_EQ(log.find("lost"), std::string::npos);
  for (std::size_t at = 0; at < log.size(); at = log.find('\n', at) + 1)
    ASSERT_EQ(log.substr(at, 3), "[20") << "a torn line at " << at;
  companion->kill(SIGTERM);
  EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
}

TEST(CompanionProcess, staysUpWithoutAUsableHelper) {
  const struct {
    Helper helper;
    const char* message;
  } cases[] = {{Helper::missing, "ERROR daemon helper missing from app bundle"},
               {Helper::notExecutable, "ERROR daemon run() failed: Permission denied"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    Installation installation(c.helper);
    const auto companion = installation.start();
    EXPECT_TRUE(installation.waitForLog(c.message));
    EXPECT_TRUE(installation.waitForLog("control server ready on loopback"));
    EXPECT_TRUE(companion->running());
    companion->kill(SIGTERM);
    EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
  }
}

TEST(CompanionProcess, keepsADamagedSettingsFileAside) {
  Installation installation;
  const auto file = installation.directories().defaultsFile;
  const std::string damaged = "<plist><dict><key>RelayURL</key>";
  support::writeFile(file, damaged);
  const auto companion = installation.start();
  EXPECT_TRUE(installation.waitForLog("ERROR settings file is damaged"));
  DaemonLink daemon = installation.nextDaemon();
  EXPECT_TRUE(daemon.announcement());
  EXPECT_EQ(support::contentOf(file.native() + ".damaged"), damaged);
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(CompanionProcess, saysWhyItCannotRun) {
  const support::TemporaryDirectory folder;
  std::filesystem::copy_file(VESKO_BUILT_BUNDLE "/Contents/MacOS/VeskoCompanion",
                             folder / "VeskoCompanion");
  Process loose({folder / "VeskoCompanion"}, {{"HOME", folder.path()}}, folder / "run");
  EXPECT_EQ(loose.waitForExit(), 1);
  EXPECT_NE(loose.err().find("outside its application bundle"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(folder / "Library"));
}

}  // namespace
}  // namespace vesko::test
