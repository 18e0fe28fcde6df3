// The application and its desktop: none, one that goes away and comes back, and the whole chain
// from the command line to a picture.

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <span>

#include "base/text.h"
#include "companion_process.h"
#include "platform/linux/consent_store.h"

namespace vesko::test {
namespace {

/// An X server with a number that no other test uses, also when it is started again.
class XServer {
 public:
  XServer() : number_(1000 + static_cast<int>(::getpid()) % 50'000) {}
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;
  ~XServer() { stop(); }

  std::string display() const { return fmt::format(":{}", number_); }

  /// True once it takes connections.
  bool start() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return false;
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    process_ = std::make_unique<Process>(
        std::vector<std::string>{"Xvfb", display(), "-displayfd", "9", "-screen", "0", "640x480x24",
                                 "-nolisten", "tcp", "-noreset"},
        Variables{}, folder_ / "xvfb", writer.get());
    writer.reset();
    pollfd ready{.fd = reader.get(), .events = POLLIN, .revents = 0};
    // To the end of the line: the server would not survive a closed pipe before it.
    char c = 0;
    while (c != '\n') {
      if (::poll(&ready, 1, 30'000) != 1 || ::read(reader.get(), &c, 1) != 1) return false;
    }
    return true;
  }
  /// At SIGTERM it takes its socket and lock file with it.
  void stop() {
    if (!process_) return;
    process_->kill(SIGTERM);
    process_->waitForExit();
    process_.reset();
  }

 private:
  const int number_;
  support::TemporaryDirectory folder_;
  std::unique_ptr<Process> process_;
};

struct Exchange {
  const char* method;
  const char* path;
  const char* request;
  int status;
  const char* body;
};

void expectAnswers(const Announcement& server, std::span<const Exchange> exchanges) {
  for (const Exchange& e : exchanges) {
    SCOPED_TRACE(fmt::format("{} {} {}", e.method, e.path, e.request));
    const Answer answer = ask(server, e.method, e.path, e.request);
    EXPECT_EQ(answer.status, e.status);
    EXPECT_EQ(answer.body, e.body);
  }
}

constexpr const char* captureDisplay = R"({"target":"display","max_dim":64})";

TEST(CompanionDesktop, answersWithoutOne) {
  Installation installation;
  installation.grantConsents();
  const auto companion = installation.start();
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  const Exchange exchanges[] = {
      {"GET", "/healthz", "", 200, R"({"ok":true})"},
      {"GET", "/status", "", 200,
       R"({"screen_recording":true,"accessibility":true,"messages_automation":"not_determined"})"},
      {"POST", "/displays", "", 500, R"({"message":"screen capture failed"})"},
      {"POST", "/capture", captureDisplay, 500, R"({"message":"screen capture failed"})"},
      {"POST", "/capture", R"({"target":"moon"})", 400, R"({"message":"invalid request"})"},
      {"POST", "/capture", R"({"target":"display","max_dim":0})", 400,
       R"({"message":"invalid capture request"})"},
      {"POST", "/input/move", R"({"x":1,"y":1})", 400,
       R"({"message":"could not create input event"})"},
      {"POST", "/input/click", R"({"x":1,"y":1})", 400,
       R"({"message":"could not create input event"})"},
      {"POST", "/input/type", R"({"text":"a"})", 400,
       R"({"message":"could not create input event"})"},
      {"POST", "/clipboard/get", "", 400, R"({"message":"clipboard text is unavailable"})"},
      {"POST", "/clipboard/set", R"({"text":"a"})", 400,
       R"({"message":"could not write the clipboard"})"},
      {"POST", "/input/click", "nonsense", 400, R"({"message":"invalid request"})"},
      {"GET", "/clipboard/get", "", 404, R"({"message":"not found"})"},
      {"POST", "/moon", "", 404, R"({"message":"not found"})"},
  };
  expectAnswers(*server, exchanges);
  EXPECT_TRUE(daemon.say("still supervised"));
  EXPECT_TRUE(installation.waitForLog("daemon: still supervised"));
  companion->kill(SIGTERM);
  EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
}

TEST(CompanionDesktop, asksForConsentsBeforeAnythingElse) {
  Installation installation;
  const auto companion = installation.start();
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  const Exchange exchanges[] = {
      {"GET", "/status", "", 200,
       R"({"screen_recording":false,"accessibility":false,"messages_automation":"not_determined"})"},
      {"POST", "/capture", captureDisplay, 412, R"({"needs":"screen_recording"})"},
      {"POST", "/input/click", "nonsense", 412, R"({"needs":"accessibility"})"},
      {"POST", "/clipboard/get", "", 412, R"({"needs":"accessibility"})"},
      {"POST", "/clipboard/set", "", 412, R"({"needs":"accessibility"})"},
      {"GET", "/input/click", "", 404, R"({"message":"not found"})"},
  };
  expectAnswers(*server, exchanges);
  // One that is given while it runs holds at once.
  ASSERT_TRUE(
      ConsentStore(installation.consents()).set(Consent::accessibility, ConsentState::granted));
  EXPECT_EQ(ask(*server, "POST", "/clipboard/get").body,
            R"({"message":"clipboard text is unavailable"})");
}

TEST(CompanionDesktop, outlivesItsXServerAndFindsTheNextOne) {
  XServer x;
  ASSERT_TRUE(x.start());
  Installation installation;
  installation.grantConsents();
  const auto companion = installation.start({{"DISPLAY", x.display()}});
  DaemonLink daemon = installation.nextDaemon();
  const auto server = daemon.announcement();
  ASSERT_TRUE(server);
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(ask(*server, "POST", "/capture", captureDisplay).status, 200);
    EXPECT_EQ(ask(*server, "POST", "/input/move", R"({"x":5,"y":5})").status, 200);
    EXPECT_EQ(ask(*server, "POST", "/clipboard/set", R"({"text":"kept"})").status, 200);
    EXPECT_EQ(ask(*server, "POST", "/clipboard/get").body, R"({"text":"kept"})");
    x.stop();
    EXPECT_EQ(ask(*server, "POST", "/displays").status, 500);
    EXPECT_EQ(ask(*server, "POST", "/capture", captureDisplay).status, 500);
    EXPECT_EQ(ask(*server, "POST", "/input/move", R"({"x":5,"y":5})").status, 400);
    EXPECT_EQ(ask(*server, "POST", "/clipboard/get").status, 400);
    EXPECT_EQ(ask(*server, "GET", "/healthz").status, 200);
    ASSERT_TRUE(x.start());
  }
  EXPECT_EQ(ask(*server, "POST", "/capture", captureDisplay).status, 200);
  companion->kill(SIGTERM);
  EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
}

TEST(CompanionDesktop, isReachedFromTheCommandLine) {
  XServer x;
  ASSERT_TRUE(x.start());
  Installation installation(Installation::Helper::real);
  const auto companion = installation.start({{"DISPLAY", x.display()}});
  ASSERT_TRUE(installation.waitForLog("control server announced on port")) << installation.log();
  const auto picture = installation.home() / "picture.png";
  struct Result {
    int exit;
    std::string out;
    std::string err;
  };
  const auto veskoctl = [&](std::vector<std::string> words) {
    words.insert(words.begin(), installation.veskoctl());
    Process process(words, {{"HOME", installation.home()}}, installation.home() / "veskoctl");
    const auto exit = process.waitForExit();
    return Result{exit.value_or(-1), process.out(), process.err()};
  };
  const auto field = [](const std::string& text, std::initializer_list<const char*> path) {
    auto parsed = json::parse(text);
    const json::Value* at = parsed ? &*parsed : nullptr;
    for (const char* key : path) at = at ? at->find(key) : nullptr;
    return at ? json::serialize(*at).value_or("") : "nothing in " + text;
  };

  const Result refused = veskoctl({"capture", picture});
  EXPECT_EQ(refused.exit, 4) << refused.err;
  EXPECT_FALSE(std::filesystem::exists(picture));
  EXPECT_EQ(veskoctl({"click", "5", "5"}).exit, 4);

  EXPECT_EQ(veskoctl({"consent", "grant", "accessibility"}).exit, 0);
  const Result status = veskoctl({"status", "--json"});
  EXPECT_EQ(status.exit, 0) << status.err;
  EXPECT_EQ(field(status.out, {"companion", "accessibility"}), "true");
  EXPECT_EQ(field(status.out, {"helper", "version"}), R"("7.8.9")");
  EXPECT_EQ(field(status.out, {"helper", "pid"}), std::to_string(installation.lastDaemon()));
  const Result displays = veskoctl({"displays"});
  EXPECT_EQ(displays.exit, 0) << displays.err;
  EXPECT_NE(displays.out.find("640x480"), std::string::npos) << displays.out;
  EXPECT_EQ(veskoctl({"click", "5", "5"}).exit, 0);

  // Only a process that was started with the consent may capture: it starts itself anew, once, and
  // stays the process that its user started. What it has launched for the user goes on.
  const auto entries = installation.home() / ".local/share/applications";
  std::filesystem::create_directories(entries);
  std::ofstream(entries / "clock.desktop")
      << "[Desktop Entry]\nType=Application\nName=Clock\nExec=xclock\n";
  const Result launched =
      veskoctl({"--json", "call", "POST", "/app/launch", R"({"bundle_id":"clock"})"});
  EXPECT_EQ(launched.exit, 0) << launched.err;
  const auto pid = parseDecimal(field(launched.out, {"pid"}));
  ASSERT_TRUE(pid) << launched.out;
  const WatchedProcess clock(static_cast<pid_t>(*pid));
  const pid_t daemon = installation.lastDaemon();
  EXPECT_EQ(veskoctl({"consent", "grant", "screen_recording"}).exit, 0);
  ASSERT_TRUE(installation.waitForLog("control server announced on port", 2)) << installation.log();
  EXPECT_TRUE(companion->running());
  EXPECT_NE(installation.lastDaemon(), daemon);
  EXPECT_TRUE(clock.alive());
  clock.kill(SIGTERM);
  EXPECT_TRUE(clock.waitForEnd());
  // Nothing reports that it was reaped.
  const std::vector<pid_t> daemonAlone{installation.lastDaemon()};
  for (int i = 0; i < 100 && companion->children() != daemonAlone; ++i) veskoctl({"status"});
  EXPECT_EQ(companion->children(), daemonAlone);
  const std::string log = installation.log();
  for (const char* line : {"screen recording newly granted; scheduling one-shot app relaunch",
                           "screen recording relaunch helper started"})
    EXPECT_NE(log.find(line), std::string::npos) << log;
  const Result captured = veskoctl({"--json", "capture", picture});
  EXPECT_EQ(captured.exit, 0) << captured.err << captured.out;
  EXPECT_EQ(field(captured.out, {"width"}), "640");
  EXPECT_EQ(field(captured.out, {"height"}), "480");
  EXPECT_TRUE(support::contentOf(picture).starts_with("\x89PNG\r\n\x1a\n"));
  companion->kill(SIGTERM);
  EXPECT_EQ(companion->waitForExit(), 0) << companion->err();
  EXPECT_EQ(veskoctl({"status"}).exit, 3);
}

}  // namespace
}  // namespace vesko::test
