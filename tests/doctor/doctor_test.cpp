// `veskoctl doctor` on whole and on broken desktops: the built command, a running companion, the
// X server and the session bus of the test, and what stands in for them when they are broken.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <set>

#include "app/companion_process.h"
#include "base/json.h"
#include "capture/x11_test_server.h"
#include "helper/child_process.h"
#include "helper/doctor/check.h"
#include "helper/tls_server.h"
#include "platform/linux/consent_store.h"

namespace vesko::test {
namespace {

namespace fs = std::filesystem;

struct Report {
  int exit = -1;
  bool ok = false;
  std::vector<Finding> checks;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ok", &Report::ok), json::field("checks", &Report::checks)};
  }

  const Finding* find(std::string_view id) const {
    for (const Finding& finding : checks) {
      if (finding.id == id) return &finding;
    }
    return nullptr;
  }
};

/// A listener that takes nobody in: what hangs.
class Silent {
 public:
  explicit Silent(const fs::path& socket) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.native().copy(address.sun_path, sizeof address.sun_path - 1);
    listen(reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  /// On a port of the loopback interface.
  Silent() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listen(reinterpret_cast<sockaddr*>(&address), size);
    ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
  }

  int port = 0;

 private:
  void listen(sockaddr* address, socklen_t size) {
    EXPECT_EQ(::bind(fd_.get(), address, size), 0);
    EXPECT_EQ(::listen(fd_.get(), 16), 0);
  }

  UniqueFd fd_;
};

/// A companion that runs with both needed consents, and a user who calls the doctor.
class World {
 public:
  explicit World(bool start = true, Installation::Helper helper = Installation::Helper::real)
      : installation(helper) {
    for (const char* name :
         {"DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"}) {
      if (const char* value = std::getenv(name)) variables[name] = value;
    }
    variables["HOME"] = installation.home();
    installation.grantConsents();
    // As the companion makes it; the waiting below would leave it open to others.
    fs::create_directories(installation.directories().logs);
    ::chmod(installation.directories().logs.c_str(), 0700);
    if (!start) return;
    companion = installation.start(variables);
    EXPECT_TRUE(installation.waitForLog("control server announced on port")) << installation.log();
  }

  Report examine() const {
    std::vector<std::string> words{"doctor", "--json"};
    words.insert(words.end(), options.begin(), options.end());
    const auto result = runVeskoctlProcess(words, variables, {}, installation.veskoctl());
    Report report;
    const auto value = json::parse(result.out);
    EXPECT_TRUE(value && json::decodeInto(*value, report)) << result.out << result.err;
    report.exit = result.exit;
    return report;
  }

  fs::path state() const { return installation.directories().state; }
  fs::path consents() const { return state() / "consents.plist"; }

  Installation installation;
  Variables variables;
  std::vector<std::string> options;
  std::unique_ptr<Process> companion;
  std::shared_ptr<void> kept;  ///< what a case needs until its end
};

struct Expected {
  const char* id;
  CheckStatus status;
  const char* text = "";  ///< within the summary
};

constexpr auto ok = CheckStatus::ok;
constexpr auto warning = CheckStatus::warning;
constexpr auto missing = CheckStatus::missing;
constexpr auto unknown = CheckStatus::unknown;

void expectFindings(const Report& report, int exit, const std::vector<Expected>& expected) {
  EXPECT_EQ(report.exit, exit);
  EXPECT_EQ(report.ok, exit == 0);
  std::set<std::string> ids;
  for (const Finding& finding : report.checks) {
    EXPECT_TRUE(ids.insert(finding.id).second) << finding.id << " twice";
    EXPECT_NE(finding.summary, "") << finding.id;
    EXPECT_FALSE(finding.status == missing && finding.advice.empty()) << finding.id;
  }
  for (const auto& [id, status, text] : expected) {
    SCOPED_TRACE(id);
    const Finding* finding = report.find(id);
    ASSERT_TRUE(finding);
    EXPECT_EQ(json::wordOf(finding->status), json::wordOf(status)) << finding->summary;
    EXPECT_NE(finding->summary.find(text), std::string::npos) << finding->summary;
  }
}

/// Every path below the folder with its time of change.
std::map<std::string, std::pair<time_t, long>> contents(const fs::path& folder) {
  std::map<std::string, std::pair<time_t, long>> result;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat info{};
    ::lstat(entry.path().c_str(), &info);
    result[entry.path()] = {info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
  }
  return result;
}

TEST(DoctorTest, FindsAWholeDesktopWholeAndLeavesItAsItWas) {
  World world;
  const auto before = contents(world.state());
  const auto settings = contents(world.installation.home() / "Library");
  const Report report = world.examine();
  expectFindings(report, 0,
                 {{"bundle", ok},
                  {"companion", ok, std::to_string(world.companion->pid()).c_str()},
                  // The installation of the tests is of another version than the command.
                  {"helper", warning, "7.8.9"},
                  {"control_server", ok},
                  {"screen_recording", ok, "in force"},
                  {"display", ok, "1920x1080"},
                  {"display_extensions", ok},
                  {"window_manager", ok, "Openbox"},
                  {"session_bus", ok},
                  {"consent_accessibility", ok, "granted"},
                  {"consent_photos", ok, "not asked"},
                  {"state_directory", ok},
                  {"log_directory", ok},
                  {"log_errors", ok, "none since"}});
  const Finding* bus = report.find("accessibility_bus");
  EXPECT_TRUE(bus && bus->status != missing && bus->status != unknown);
  EXPECT_EQ(before, contents(world.state()));
  EXPECT_EQ(settings.size(), contents(world.installation.home() / "Library").size());
}

struct Broken {
  const char* name;
  std::function<void(World&)> breakIt;
  int exit;
  std::vector<Expected> expected;
};

std::vector<Broken> brokenDesktops() {
  return {
      {"no display",
       [](World& w) { w.variables.erase("DISPLAY"); },
       1,
       {{"display", missing, "DISPLAY is not set"},
        {"window_manager", unknown},
        {"display_extensions", unknown},
        {"control_server", ok}}},
      {"a display that is not there",
       [](World& w) { w.variables["DISPLAY"] = ":59999"; },
       1,
       {{"display", missing, ":59999"}}},
      {"a display without its cookie",
       [](World& w) { w.variables["XAUTHORITY"] = "/dev/null"; },
       1,
       {{"display", missing, "lets this user in"}}},
      {"a hung X server",
       [](World& w) {
         auto server = std::make_shared<Silent>();
         w.variables["DISPLAY"] = fmt::format("127.0.0.1:{}", server->port - 6000);
         w.options = {"--timeout", "1"};
         w.kept = server;
       },
       1,
       {{"display", missing, "does not answer within 1 s"}}},
      {"another display, without a window manager and with less to offer",
       [](World& w) {
         auto server = std::make_shared<TestServer>(
             std::vector<std::string>{"-extension", "XTEST", "-screen", "0", "640x480x24"});
         w.variables["DISPLAY"] = server->display;
         w.kept = server;
       },
       1,
       {{"display", ok, "640x480"},
        {"display_extensions", missing, "lacks XTEST"},
        {"window_manager", missing, "none"},
        {"companion", warning, "runs on display"}}},
      {"a Wayland session",
       [](World& w) { w.variables["WAYLAND_DISPLAY"] = "wayland-0"; },
       0,
       {{"wayland", warning, "Xwayland"}}},
      {"no session bus",
       [](World& w) {
         w.variables.erase("DBUS_SESSION_BUS_ADDRESS");
         w.variables.erase("XDG_RUNTIME_DIR");
       },
       1,
       {{"session_bus", missing, "there is none"},
        {"accessibility_bus", unknown},
        {"keyring", unknown}}},
      {"a session bus that has ended",
       [](World& w) { w.variables["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/no/such/bus"; },
       1,
       {{"session_bus", missing, "/no/such/bus"}}},
      {"a hung session bus",
       [](World& w) {
         const auto socket = w.installation.home() / "bus";
         w.kept = std::make_shared<Silent>(socket);
         w.variables["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + socket.native();
         w.options = {"--timeout", "1"};
       },
       1,
       {{"session_bus", missing, "does not answer within 1 s"},
        {"keyring", warning, "does not answer"}}},
      {"a companion that was killed",
       [](World& w) {
         w.companion->kill(SIGKILL);
         w.companion->waitForExit();
         WatchedProcess(w.installation.lastDaemon()).waitForEnd();
       },
       1,
       {{"companion", missing, "not running"},
        {"helper", missing},
        {"control_server", unknown},
        {"consent_accessibility", ok}}},
      {"a companion whose program was replaced",
       [](World& w) {
         const auto executable = w.installation.executable();
         fs::copy_file(executable, executable.native() + ".new");
         fs::rename(executable.native() + ".new", executable);
       },
       0,
       {{"companion", warning, "replaced"}}},
      {"a hung companion",
       [](World& w) {
         w.companion->kill(SIGSTOP);
         w.options = {"--timeout", "1"};
       },
       1,
       {{"companion", ok}, {"helper", warning}, {"control_server", missing, "does not answer"}}},
      {"a hung helper",
       [](World& w) {
         const auto socket = w.installation.home() / "helper";
         w.kept = std::make_shared<Silent>(socket);
         w.options = {"--timeout", "1", "--socket", socket};
       },
       1,
       {{"helper", missing, "does not answer within 1 s"}}},
      {"a helper that others may talk to",
       [](World& w) { ::chmod((w.state() / "veskoctl.sock").c_str(), 0666); },
       0,
       {{"helper", warning, "mode 0666"}, {"control_server", ok}}},
      {"a bundle that lacks a program",
       [](World& w) { fs::remove(w.installation.veskoctl().parent_path() / "veskokit-daemon"); },
       1,
       {{"bundle", missing, "lacks Resources/veskokit-daemon"}}},
      {"consents that were denied and taken back",
       [](World& w) {
         ConsentStore store(w.consents());
         store.set(Consent::accessibility, ConsentState::denied).value();
         store.set(Consent::screenRecording, ConsentState::notDetermined).value();
         store.set(Consent::photos, ConsentState::denied).value();
       },
       1,
       {{"consent_accessibility", missing, "denied"},
        {"consent_screen_recording", missing, "not asked"},
        {"consent_photos", ok, "denied"}}},
      {"a damaged consent file",
       [](World& w) { support::writeFile(w.consents(), "<plist>\x1b[2J"); },
       1,
       {{"consent_file", missing, "damaged"}, {"consent_accessibility", missing}}},
      {"a consent file that others may write",
       [](World& w) { ::chmod(w.consents().c_str(), 0666); },
       1,
       {{"consent_file", missing, "writable by other users"}, {"consent_accessibility", missing}}},
      {"folders that others may enter",
       [](World& w) {
         ::chmod(w.state().c_str(), 0755);
         ::chmod(w.installation.directories().logs.c_str(), 0750);
       },
       0,
       {{"state_directory", warning, "mode 0755"}, {"log_directory", warning, "mode 0750"}}},
      {"damaged settings",
       [](World& w) { support::writeFile(w.installation.directories().defaultsFile, "bplist00"); },
       0,
       {{"settings", warning, "damaged"}}},
      {"a photo library without a catalogue, although photos are wanted",
       [](World& w) {
         ConsentStore(w.consents()).set(Consent::photos, ConsentState::granted).value();
         support::writeFile(
             w.installation.home() / "Pictures/Photos Library.photoslibrary/database/Photos.sqlite",
             "SQLite format");
       },
       0,
       {{"photos_library", warning, "is no catalogue"}}},
  };
}

TEST(DoctorTest, SaysWhatIsBrokenAndNeverHangs) {
  for (const Broken& broken : brokenDesktops()) {
    SCOPED_TRACE(broken.name);
    World world;
    broken.breakIt(world);
    expectFindings(world.examine(), broken.exit, broken.expected);
  }
}

TEST(DoctorTest, CountsTheErrorsOfTheLastRunAndShowsTheLastOnOneLine) {
  const auto line = [](std::time_t ago, std::string_view message) {
    const std::time_t then = std::time(nullptr) - ago;
    std::tm utc{};
    ::gmtime_r(&then, &utc);
    char date[40];
    std::strftime(date, sizeof date, "[%Y-%m-%d %H:%M:%S +0000] ", &utc);
    return std::string(date) + std::string(message) + "\n";
  };
  for (const auto& [message, shown] : {std::pair{"ERROR \x1b[2Jlast \xFF", "ERROR  [2Jlast ?"},
                                       {"ERROR \xC2\x9B"
                                        "2Jgr\xC3\xBC\xC3\x9F",
                                        "ERROR   2Jgr\xC3\xBC\xC3\x9F"}}) {
    World world(false);
    support::writeFile(world.installation.directories().logs / "app.log",
                       line(3 * 86'400, "ERROR long ago") + line(60, "ERROR first") +
                           line(50, "daemon: ERROR of the helper, secret") + line(40, message) +
                           line(30, "all is well"));
    const Report report = world.examine();
    const Finding* errors = report.find("log_errors");
    ASSERT_TRUE(errors);
    EXPECT_EQ(errors->status, warning);
    EXPECT_TRUE(errors->summary.starts_with("2 within a day")) << errors->summary;
    EXPECT_TRUE(errors->summary.ends_with(shown)) << errors->summary;
  }
}

TEST(DoctorTest, TellsWhatTheControlServerSaysOfItself) {
  const struct {
    const char* path;
    int status;
    Expected expected;
  } cases[] = {
      {"POST /capture ", 412, {"screen_recording", missing, "when the companion started"}},
      {"POST /capture ", 400, {"screen_recording", ok}},
      {"GET /healthz ", 503, {"control_server", missing, "503"}},
      {"GET /status ", 401, {"control_server", missing, "GET /status with status 401"}},
  };
  for (const auto& [path, status, expected] : cases) {
    SCOPED_TRACE(fmt::format("{}{}", path, status));
    World world(false);
    TlsServer server([&](TlsServer::Connection& connection) {
      const bool asked = connection.readRequest().starts_with(path);
      connection.write(httpAnswer(asked ? status : 200, "{}"));
    });
    HelperProcess helper({.stateDirectory = world.state()});
    helper.waitUntilServing();
    helper.send(server.announcement());
    helper.waitFor("control server announced");
    expectFindings(world.examine(), 1, {expected, {"companion", missing}});
  }
}

TEST(DoctorTest, ReadsWellWithoutATerminal) {
  World world(false, Installation::Helper::missing);
  const auto result =
      runVeskoctlProcess({"doctor"}, world.variables, {}, world.installation.veskoctl());
  EXPECT_EQ(result.exit, 1);
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
  EXPECT_NE(result.out.find("missing  bundle "), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("needed things are missing"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace vesko::test
