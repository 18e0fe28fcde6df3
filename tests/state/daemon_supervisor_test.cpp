#include "state/daemon_supervisor.h"

#include "state/daemon_fixture.h"

namespace vesko::fakes {
namespace {

using Kind = Status::Kind;

class DaemonSupervisorTest : public DaemonFixture {
 protected:
  DaemonSupervisorTest() { state.hasDeviceToken.set(true); }

  std::size_t launches() const { return host.children.size(); }
};

TEST_F(DaemonSupervisorTest, launchesWithItsEnvironmentAndTellsTheDaemonWhatItNeeds) {
  lines.controlServerReady(R"({"veskokit":"control_server"})");
  state.status.set(Status::needsCode());
  supervisor.launchDaemon("CODE2345");
  EXPECT_EQ(child().environment["VESKOKIT_PAIRING_CODE"], "CODE2345");
  EXPECT_EQ(child().environment["VESKOKIT_DEVICE_NAME"], "Studio");
  EXPECT_EQ(child().input,
            "{\"veskokit\":\"control_server\"}\n{\"cmd\":\"assistant_import_detect\"}\n");
  EXPECT_EQ(*state.status, Status::connecting());
  EXPECT_TRUE(logs("relay=wss://relay.vesko.example/device code=true"));
  EXPECT_TRUE(logs("daemon run() ok pid=1000"));
  EXPECT_EQ(logged().find("CODE2345"), std::string::npos);

  supervisor.launchDaemon(std::nullopt);
  EXPECT_EQ(host.children[0]->signals, std::vector{SIGTERM}) << "at most one daemon runs";
  EXPECT_FALSE(child().environment.contains("VESKOKIT_PAIRING_CODE"));
}

TEST_F(DaemonSupervisorTest, aPausedConnectionStaysPausedThroughALaunch) {
  state.status.set(Status::paused());
  supervisor.launchDaemon(std::nullopt);
  EXPECT_EQ(*state.status, Status::paused());
}

TEST_F(DaemonSupervisorTest, missingExecutableAndFailedStartAreShownAndNotRetried) {
  host.launchFailure = "Exec format error";
  supervisor.launchDaemon(std::nullopt);
  EXPECT_EQ(*state.status,
            Status::helperUnavailable("Vesko's helper could not start: Exec format error"));
  EXPECT_TRUE(logs("ERROR daemon run() failed: Exec format error"));

  std::filesystem::remove(home / "Vesko.app/Contents/Resources/veskokit-daemon");
  supervisor.launchDaemon(std::nullopt);
  EXPECT_EQ(*state.status,
            Status::helperUnavailable(
                "Vesko's helper is missing from the app. Reinstall Vesko, then retry."));
  EXPECT_TRUE(logs("ERROR daemon helper missing from app bundle"));
  loop.advance(std::chrono::hours(1));
  EXPECT_EQ(launches(), 0U);
}

TEST_F(DaemonSupervisorTest, restartsWithDoublingDelaysUpToThirtySeconds) {
  supervisor.launchDaemon(std::nullopt);
  for (const int delay : {1, 2, 4, 8, 16, 30, 30}) {
    SCOPED_TRACE(delay);
    const std::size_t before = launches();
    crash();
    EXPECT_TRUE(logs("restarting in " + std::to_string(delay) + "s"));
    EXPECT_EQ(*state.status, Status::connecting());
    loop.advance(Seconds(delay) - std::chrono::milliseconds(1));
    EXPECT_EQ(launches(), before);
    loop.advance(std::chrono::milliseconds(1));
    EXPECT_EQ(launches(), before + 1);
  }
  // A connection that held for a minute starts the series anew, a shorter one does not.
  for (const auto& [held, delay] : {std::pair{59, 30}, std::pair{60, 1}, std::pair{0, 2}}) {
    SCOPED_TRACE(held);
    child().emit("[veskokit-status] {\"state\":\"connected\",\"deviceId\":\"d\"}\n");
    loop.advance(Seconds(held));
    const std::size_t before = launches();
    crash({.signalled = true, .code = SIGSEGV});
    loop.advance(Seconds(delay) - std::chrono::milliseconds(1));
    EXPECT_EQ(launches(), before);
    loop.advance(std::chrono::milliseconds(1));
    EXPECT_EQ(launches(), before + 1);
  }
}

TEST_F(DaemonSupervisorTest, whatAnExitShows) {
  struct Case {
    ProcessExit exit;
    Status before;
    bool token;
    std::string logged;
    Status after;
    bool restarts;
  };
  const Status takeover = Status::unpairedTakeover();
  for (const auto& [exit, before, token, text, after, restarts] : {
           Case{{false, 3},
                Status::connecting(),
                false,
                "daemon exited exit code 3",
                Status::helperUnavailable("Vesko's helper stopped (exit code 3)"),
                false},
           Case{{true, 9},
                Status::connected("d"),
                false,
                "daemon exited signal 9",
                Status::helperUnavailable("Vesko's helper stopped (signal 9)"),
                false},
           Case{{false, 0},
                Status::connected("d"),
                true,
                "daemon exited code=0",
                Status::connecting(),
                true},
           Case{{false, 1},
                Status::paused(),
                true,
                "daemon exited exit code 1",
                Status::paused(),
                false},
           Case{{false, 1}, Status::needsCode(), true, "exit code 1", Status::needsCode(), false},
           Case{{false, 1}, takeover, false, "exit code 1", takeover, false},
       }) {
    SCOPED_TRACE(text);
    supervisor.launchDaemon(std::nullopt);
    state.status.set(before);
    state.hasDeviceToken.set(token);
    const std::size_t count = launches();
    crash(exit);
    EXPECT_TRUE(logs(text));
    EXPECT_EQ(*state.status, after);
    loop.advance(Seconds(31));
    EXPECT_EQ(launches(), count + (restarts ? 1 : 0));
  }
}

TEST_F(DaemonSupervisorTest, aStopIsNeverTakenForADeath) {
  supervisor.launchDaemon(std::nullopt);
  supervisor.stopDaemon();
  EXPECT_FALSE(child().inputOpen);
  EXPECT_EQ(child().signals, std::vector{SIGTERM});
  loop.advance(Seconds(60));
  EXPECT_EQ(launches(), 1U);
  EXPECT_EQ(logged().find("daemon exited"), std::string::npos);
  EXPECT_EQ(loop.pendingTimers(), 0U);

  // A restart that waits is dropped by a launch that comes first.
  supervisor.launchDaemon(std::nullopt);
  crash();
  supervisor.launchDaemon(std::nullopt);
  loop.advance(Seconds(60));
  EXPECT_EQ(launches(), 3U);
}

TEST_F(DaemonSupervisorTest, aDaemonThatIgnoresTheRequestIsKilledAfterThreeSeconds) {
  supervisor.launchDaemon(std::nullopt);
  child().ignoresTerminate = true;
  supervisor.stopDaemon();
  bool idle = false;
  killer.whenIdle([&] { idle = true; });
  loop.advance(Seconds(3) - std::chrono::milliseconds(1));
  EXPECT_EQ(child().signals, std::vector{SIGTERM});
  EXPECT_FALSE(idle);
  loop.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(child().signals, (std::vector{SIGTERM, SIGKILL}));
  EXPECT_TRUE(logs("daemon pid=1000 ignored SIGTERM; sending SIGKILL"));
  EXPECT_TRUE(idle);
}

TEST_F(DaemonSupervisorTest, asksTheDaemonToEndEvenWithoutADescriptorToWatchIt) {
  supervisor.launchDaemon(std::nullopt);
  host.openFails = true;
  supervisor.stopDaemon();
  EXPECT_EQ(child().signals, std::vector{SIGTERM});
}

TEST_F(DaemonSupervisorTest, outputAndNoticesOfAReplacedDaemonAreDropped) {
  supervisor.launchDaemon(std::nullopt);
  child().emit("[veskokit-status] {\"state\":\"backend_unre");
  auto old = std::move(host.children[0]->handlers.onOutput);
  supervisor.relaunchDaemon();
  old("achable\"}\n");
  child().emit("achable\"}\n");
  EXPECT_EQ(*state.status, Status::connecting()) << "half a line must not join another daemon's";
}

TEST_F(DaemonSupervisorTest, aLineThatReplacesTheDaemonEndsItsChunk) {
  supervisor.launchDaemon(std::nullopt);
  const auto observing = state.observe([&](AppField field) {
    if (field == AppField::status && state.status->kind == Kind::backendUnreachable)
      supervisor.stopDaemon();
  });
  child().emit(
      "[veskokit-status] {\"state\":\"backend_unreachable\"}\n"
      "[veskokit-status] {\"state\":\"connected\"}\n");
  EXPECT_EQ(state.status->kind, Kind::backendUnreachable);
}

TEST_F(DaemonSupervisorTest, aChunkThatIsNotUtf8IsDroppedWhole) {
  supervisor.launchDaemon(std::nullopt);
  child().emit("good\xC3");
  child().emit("\xA9\nafter\n");
  child().emit("[veskokit-status] {\"state\":\"backend_unreachable\"}\n");
  EXPECT_EQ(state.status->kind, Kind::backendUnreachable);
  EXPECT_EQ(logged().find("good"), std::string::npos);
  EXPECT_EQ(logged().find("after"), std::string::npos);
}

TEST_F(DaemonSupervisorTest, theRestOfALineWhoseHeadWasDroppedIsHandledButNotLogged) {
  supervisor.launchDaemon(std::nullopt);
  for (const std::vector<std::string>& chunks : {
           std::vector<std::string>{"[veskokit:social] {\"a\":\"\xC3", "\xA9", "S3CRET\"}\n"},
           {"whole\n[veskokit:social] {\"a\":\"\xC3", "S3CRET", "\xA9\n", "S3CRET\"}\n"},
           {"head ", "\xC3", "S3CRET disconnected\n"},
       }) {
    SCOPED_TRACE(chunks.front());
    state.status.set(Status::connected("d"));
    for (const std::string& chunk : chunks) child().emit(chunk);
    EXPECT_EQ(logged().find("S3CRET"), std::string::npos);
    EXPECT_EQ(logged().find("head"), std::string::npos);
    child().emit("next\n");
    EXPECT_TRUE(logs("daemon: {redacted}\n[1970-01-01 00:00:00 +0000] daemon: next\n"));
  }
  EXPECT_EQ(*state.status, Status::connecting()) << "the last line says so";

  // Dropped lines that were whole take nothing from the next, and neither does an earlier daemon.
  child().emit("\xFF garbage\n");
  child().emit("whole\n");
  EXPECT_TRUE(logs("daemon: whole"));
  child().emit("\xFF");
  supervisor.relaunchDaemon();
  child().emit("new\n");
  EXPECT_TRUE(logs("daemon: new"));
}

TEST_F(DaemonSupervisorTest, launchesWaitForUnpairWipes) {
  state.unpairWipesPending = {"social"};
  supervisor.launchDaemon("CODE2345");
  EXPECT_EQ(launches(), 0U);
  EXPECT_TRUE(logs("daemon launch waits for the unpair wipe"));
  state.unpairWipesPending.clear();
  EXPECT_TRUE(supervisor.replayHeldLaunch());
  EXPECT_EQ(child().environment["VESKOKIT_PAIRING_CODE"], "CODE2345");
  EXPECT_FALSE(supervisor.replayHeldLaunch());

  state.unpairWipesPending = {"social"};
  supervisor.launchDaemon(std::nullopt);
  supervisor.stopDaemon();
  EXPECT_FALSE(supervisor.replayHeldLaunch()) << "a stop takes a held launch back";
}

TEST_F(DaemonSupervisorTest, writesReachOnlyADaemonThatRuns) {
  using Failure = DaemonChannel::Failure;
  EXPECT_EQ(supervisor.sendLine("x").error().failure, Failure::unavailable);
  supervisor.launchDaemon(std::nullopt);
  child().writeFailure = "Broken pipe";
  EXPECT_EQ(supervisor.sendLine("x").error().message, "Broken pipe");
  crash();
  EXPECT_EQ(supervisor.sendLine("x").error().failure, Failure::unavailable);
}

TEST_F(DaemonSupervisorTest, straysAreRecognisedByExecutableAndBundle) {
  writeBundle(home / "Old.app", "com.vesko.companion-kit");
  writeBundle(home / "Other.app", "com.example.other");
  const auto inside = [&](const char* app, const char* name) {
    return home / app / "Contents/Resources" / name;
  };
  const auto self = host.add(77, inside("Old.app", "veskokit-daemon"));
  const auto stray = host.add(101, inside("Old.app", "veskokit-daemon"));
  const auto stubborn = host.add(102, inside("Vesko.app", "veskokit-daemon"));
  stubborn->ignoresTerminate = true;
  const auto other = host.add(103, inside("Other.app", "veskokit-daemon"));
  const auto unbundled = host.add(104, home / "bin/veskokit-daemon");
  const auto longer = host.add(105, inside("Old.app", "veskokit-daemon2"));
  supervisor.killStrayDaemons(77);
  loop.advance(Seconds(3));
  EXPECT_EQ(stray->signals, std::vector{SIGTERM});
  EXPECT_EQ(stubborn->signals, (std::vector{SIGTERM, SIGKILL}));
  for (const auto& spared : {self, other, unbundled, longer}) {
    SCOPED_TRACE(spared->executable);
    EXPECT_TRUE(spared->signals.empty());
  }
  EXPECT_TRUE(logs("killing stray veskokit-daemon pid=101"));
  EXPECT_TRUE(logs("stray veskokit-daemon pid=102 ignored SIGTERM; sending SIGKILL"));
}

}  // namespace
}  // namespace vesko::fakes
