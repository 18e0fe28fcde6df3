#include "state/control_lines.h"

#include "state/daemon_fixture.h"

namespace vesko::fakes {
namespace {

class ControlLinesTest : public DaemonFixture {
 protected:
  void SetUp() override {
    supervisor.launchDaemon(std::nullopt);
    child().input.clear();
    requests.calls.clear();
  }
  void say(std::string_view line) { child().emit(std::string(line) + "\n"); }
};

TEST_F(ControlLinesTest, statusLines) {
  struct Case {
    Status before;
    std::string line;
    Status after;
  };
  const Status busy = Status::connecting();
  const std::string rejected =
      "Pairing code rejected. It expired or was replaced. Ask Vesko for a fresh code and try "
      "again.";
  for (const auto& [before, line, after] : {
           Case{Status::paused(), R"([veskokit-status] {"state":"connecting"})", busy},
           Case{busy, R"([veskokit-status] {"state":"connected","deviceId":"D1","x":[1]})",
                Status::connected("D1")},
           Case{busy, R"([veskokit-status] {"state":"connected","deviceId":null})",
                Status::connected("unknown")},
           Case{busy, R"([veskokit-status] {"state":"backend_unreachable"})",
                Status::backendUnreachable()},
           Case{busy, R"([veskokit-status] {"state":"unpaired_takeover"})",
                Status::unpairedTakeover()},
           Case{Status::paused(), R"([veskokit-status] {"state":"asleep"})", Status::paused()},
           Case{Status::paused(), R"([veskokit-status] {"state":1})", Status::paused()},
           Case{Status::paused(), R"([veskokit-status] {"state":"connecting")", Status::paused()},
           Case{Status::paused(), R"(x [veskokit-status] {"state":"connecting"})",
                Status::paused()},
           Case{busy, "12:00 [veskokit] relay connected as device  D2 \r", Status::connected("D2")},
           Case{busy, "relay: pairing rejected (410)", Status::error(rejected)},
           Case{busy, "no device token in the keychain", Status::needsCode()},
           Case{busy, "token revoked by backend", Status::unpairedTakeover()},
           Case{busy, "no device token: revoked by backend", Status::unpairedTakeover()},
           Case{Status::connected("D"), "relay disconnected", busy},
           Case{Status::backendUnreachable(), "disconnected", busy},
           Case{Status::needsCode(), "disconnected", Status::needsCode()},
           Case{Status::needsCode(), "", Status::needsCode()},
           Case{Status::needsCode(), R"({"veskokit":"unheard_of"})", Status::needsCode()},
           Case{Status::needsCode(), R"({"veskokit":"x","path":"disconnected"})",
                Status::needsCode()},
       }) {
    SCOPED_TRACE(line);
    state.status.set(before);
    say(line);
    EXPECT_EQ(*state.status, after);
  }
  EXPECT_TRUE(logs("unknown daemon presence state=asleep"));
}

TEST_F(ControlLinesTest, aConnectionIsConfirmedAndTimed) {
  say(R"([veskokit-status] {"state":"connected"})");
  EXPECT_EQ(requests.calls, "") << "without an id there is nothing to confirm";
  loop.advance(Seconds(5));
  say(R"([veskokit-status] {"state":"connected","deviceId":"D1"})");
  EXPECT_EQ(requests.calls, "confirm D1;");
  EXPECT_EQ(state.currentDeviceID, "D1");
  EXPECT_EQ(state.connectedAt, loop.now());
}

TEST_F(ControlLinesTest, losingTheTokenForgetsWhatBelongedToTheDevice) {
  for (const std::string line : {"no device token", "revoked by backend",
                                 R"([veskokit-status] {"state":"unpaired_takeover"})"}) {
    SCOPED_TRACE(line);
    requests.calls.clear();
    state.hasDeviceToken.set(true);
    state.pairing.set(true);
    state.currentDeviceID = "D1";
    state.historyExportStatus.set(HistoryExportStatus{});
    state.assistantImportStatus.set(AssistantImportStatus{});
    state.assistantImportDetectionInFlight = true;
    state.completedAssistantImportSources = {AssistantImportSource::hermes};
    say(line);
    const bool takeover = line.starts_with('[');
    EXPECT_EQ(state.hasDeviceToken.get(), takeover);
    EXPECT_EQ(state.pairing.get(), takeover);
    EXPECT_EQ(requests.calls, takeover ? "" : "setup;");
    EXPECT_FALSE(state.currentDeviceID);
    EXPECT_FALSE(*state.historyExportStatus);
    EXPECT_FALSE(*state.assistantImportStatus);
    EXPECT_FALSE(state.assistantImportDetectionInFlight);
    EXPECT_TRUE(state.completedAssistantImportSources.empty());
  }
}

TEST_F(ControlLinesTest, aRejectedCodeIsRetiredOnlyWhileItIsInFlight) {
  say("pairing rejected");
  EXPECT_EQ(requests.calls, "");
  state.pairingCodeDigestInFlight = "digest";
  say("pairing rejected");
  EXPECT_EQ(requests.calls, "retire;");
}

TEST_F(ControlLinesTest, socialPayloadsNeverReachTheLog) {
  for (const std::string line : {
           R"([veskokit:social] {"secret":"S3CRET"})",
           R"(12:00 [veskokit:social] {"secret":"S3CRET"} [veskokit:social] {"S3CRET":1})",
       })
    say(line);
  EXPECT_EQ(logged().find("S3CRET"), std::string::npos);
  EXPECT_TRUE(logs("daemon: [veskokit:social] {redacted}\n"));
  EXPECT_TRUE(logs("daemon: 12:00 [veskokit:social] {redacted}\n"));
  EXPECT_EQ(requests.calls, R"(social {"secret":"S3CRET"})") << "only a prefix makes it social";
}

TEST_F(ControlLinesTest, requestsOfTheDaemon) {
  for (const auto& [line, calls, text] : {
           std::tuple{R"({"veskokit":"request_folder_grant","scope":"home","path":"/x"})", "home;",
                      ""},
           std::tuple{R"( {"path":"/x","veskokit":"request_folder_grant"})", "folder /x;", ""},
           std::tuple{R"({"veskokit":"request_folder_grant","scope":"other"})", "",
                      "ignoring folder grant request with no path and no home scope"},
           std::tuple{R"({"veskokit":"withdraw_folder_grant","path":"/x"})", "withdraw /x;", ""},
           std::tuple{R"({"veskokit":"request_photos_access"})", "photos;", ""},
           std::tuple{R"(                                                                        )"
                      R"({"veskokit":"request_photos_access"})",
                      "photos;", ""},
           std::tuple{R"({"veskokit":"app_update_check"})", "",
                      "ERROR app update check requested without update handler"},
           std::tuple{R"({"veskokit":"request_photos_access"} x)", "", ""},
           std::tuple{R"({"veskokit":7})", "", ""},
       }) {
    SCOPED_TRACE(line);
    requests.calls.clear();
    say(line);
    EXPECT_EQ(requests.calls, calls);
    EXPECT_TRUE(logs(text));
  }
  int checks = 0;
  state.appUpdateCheckHandler = [&] { ++checks; };
  say(R"({"veskokit":"app_update_check"})");
  EXPECT_EQ(checks, 1);
  EXPECT_TRUE(logs("started background app update check"));
}

constexpr std::string_view importRest =
    R"("source":"hermes","pagesSent":1,"pagesTotal":2,"files":0,"bytes":0,"cronJobs":0,)"
    R"("redactions":0,"skippedOversized":0,)";

TEST_F(ControlLinesTest, importAndHistoryRecords) {
  const auto import = [&](std::string_view state, std::string_view rest) {
    say("[veskokit:assistant-import] {\"state\":\"" + std::string(state) + "\"," +
        std::string(importRest) + std::string(rest) + "}");
  };
  import(
      "detecting",
      R"("detectionComplete":true,"detectedSources":[{"source":"hermes","rootPath":"/h","variant":"v"}])");
  EXPECT_FALSE(state.assistantImportDetectionInFlight);
  ASSERT_EQ(state.detectedAssistantSources->size(), 1U);
  EXPECT_EQ(state.detectedAssistantSources->front().rootPath, "/h");

  import("uploading", R"("detectionComplete":true,"detectedSources":[])");
  supervisor.relaunchDaemon();
  EXPECT_TRUE(logs("assistant import interrupted by daemon relaunch; clearing in-flight status"));
  EXPECT_FALSE(*state.assistantImportStatus);

  EXPECT_TRUE(state.assistantImportDetectionInFlight) << "the new daemon detects again";
  import("failed", R"("detectionComplete":false,"detectedSources":[])");
  EXPECT_TRUE(logs("ERROR assistant import detection failed: unknown error"));
  EXPECT_FALSE(state.assistantImportDetectionInFlight);
  import("complete", R"("detectionComplete":true,"detectedSources":[])");
  EXPECT_TRUE(state.completedAssistantImportSources.contains(AssistantImportSource::hermes));

  say(R"([veskokit:assistant-import] {"state":"uploading"})");
  EXPECT_TRUE(logs("ERROR invalid assistant import status line: source: missing"));
  say(R"([veskokit:history] {"state":"exporting","pagesSent":"3"})");
  EXPECT_TRUE(logs("ERROR invalid history status line: pagesSent: expected an integer"));
  say(R"([veskokit:history] {"state":"exporting","pagesSent":3,"pagesTotal":4,"conversations":1,)"
      R"("messages":9,"chunksQueued":0,"ignoredOldMessages":0})");
  ASSERT_TRUE(*state.historyExportStatus);
  EXPECT_EQ((*state.historyExportStatus)->messages, 9);
}

TEST_F(ControlLinesTest, commandsAreWrittenAsOneLineAndLogged) {
  EXPECT_TRUE(lines.sendGrantedDirs({"/a \"b\"", "/c"}));
  EXPECT_TRUE(lines.sendPhotosLibrary(std::nullopt));
  lines.sendSystemWillSleep();
  lines.controlServerReady("{\"veskokit\":\"control_server\"}");
  EXPECT_EQ(child().input,
            "{\"type\":\"granted_dirs\",\"dirs\":[\"/a \\\"b\\\"\",\"/c\"]}\n"
            "{\"type\":\"photos_library\"}\n"
            "{\"type\":\"system_will_sleep\"}\n"
            "{\"veskokit\":\"control_server\"}\n");
  EXPECT_TRUE(logs("sent daemon control granted_dirs"));
  EXPECT_TRUE(logs("control server ready on loopback"));
  EXPECT_FALSE(lines.sendGrantedDirs({"\xFF"}));
  EXPECT_TRUE(logs("daemon control granted_dirs encode failed"));

  child().writeFailure = "Broken pipe";
  lines.sendSystemDidWake();
  EXPECT_TRUE(logs("daemon control system_did_wake failed: Broken pipe"));
  EXPECT_FALSE(lines.sendDaemonLine("{}"));
  EXPECT_TRUE(logs("ERROR daemon control line failed: Broken pipe"));
  supervisor.stopDaemon();
  lines.sendSystemDidWake();
  EXPECT_TRUE(logs("daemon control system_did_wake ignored: daemon unavailable"));
  EXPECT_FALSE(lines.sendDaemonLine("{}"));
  EXPECT_TRUE(logs("daemon control line ignored: daemon unavailable"));
}

TEST_F(ControlLinesTest, aClosedPortIsNotHandedToALaterDaemon) {
  lines.controlServerReady("HANDSHAKE");
  lines.controlServerGone();
  supervisor.relaunchDaemon();
  EXPECT_EQ(child().input.find("HANDSHAKE"), std::string::npos);
  EXPECT_EQ(logged().find("HANDSHAKE"), std::string::npos);
}

TEST_F(ControlLinesTest, hugeLinesAreShortenedInTheLogOnly) {
  const std::string huge(300'000, 'x');
  state.status.set(Status::connected("d"));
  say(huge + "disconnected");
  EXPECT_EQ(*state.status, Status::connecting());
  EXPECT_TRUE(logs("(300020 bytes)"));
  say(huge + "[veskokit:social] {\"a\":1}");
  say("[veskokit-status] {\"state\":\"" + huge + "\"}");
  EXPECT_TRUE(logs("unknown daemon presence state=xxx"));
  EXPECT_LT(logged().size(), 300'000U);
}

}  // namespace
}  // namespace vesko::fakes
