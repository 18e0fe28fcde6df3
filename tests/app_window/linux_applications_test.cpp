// Real applications, started, brought to the front and ended on a desktop of the test's own.
#include "platform/linux/linux_applications.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "base/main_thread.h"
#include "input/desktop.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/x11_window_system.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

using test::eventually;
using test::outputOf;
using test::Program;

const std::string app = std::string(VESKO_APPS) + "/windows_gtk3";
const std::filesystem::path data = std::getenv("XDG_DATA_HOME");

Environment testEnvironment() {
  Environment environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text(*entry);
    environment.emplace(text.substr(0, text.find('=')), text.substr(text.find('=') + 1));
  }
  environment["VESKOKIT_SECRET"] = "mine";
  environment["DESKTOP_STARTUP_ID"] = "mine";
  environment["PATH"] = (data / "bin").string() + ":" + environment["PATH"];
  return environment;
}

class LinuxApplicationsTest : public testing::Test {
 protected:
  LinuxApplicationsTest() { adoptMainThread(); }
  ~LinuxApplicationsTest() override {
    for (const pid_t pid : launched) ::kill(pid, SIGKILL);
    std::filesystem::remove_all(data / "applications");
  }

  void install(const std::string& id, const std::string& rest) const {
    std::filesystem::create_directories(data / "applications");
    std::ofstream(data / "applications" / (id + ".desktop"))
        << "[Desktop Entry]\nType=Application\nName=" << id << " app\n"
        << rest << "\n";
  }
  /// The pid, or the error's text.
  std::string launch(const std::string& id) {
    const auto installed = applications.installed(id);
    if (!installed) return "not installed";
    const auto pid = applications.launch(*installed);
    if (!pid) return pid.error();
    launched.insert(*pid);
    return std::to_string(*pid);
  }
  RunningApplication launchedApplication(const std::string& id) {
    const auto application = applications.process(std::atoi(launch(id).c_str()));
    EXPECT_TRUE(application);
    return application.value_or(RunningApplication{});
  }
  std::size_t windowsOf(pid_t pid) { return windows.windows(pid)->size(); }
  bool shows(const Program& program) {
    return eventually([&] { return windowsOf(program.pid()) == 1; });
  }
  RunningApplication of(const Program& program) {
    return applications.process(program.pid()).value_or(RunningApplication{});
  }

  GlibMainLoop loop;
  X11Sessions sessions;
  X11WindowSystem windows{sessions};
  LinuxApplications applications{loop, sessions, windows, testEnvironment()};
  std::set<pid_t> launched;
};

TEST_F(LinuxApplicationsTest, LaunchesOnItsOwn) {
  const auto facts = data / "facts";
  install("org.vesko.Shell",
          "Name[xx]=no\nExec=sh -c \"{ env; ulimit -n; ls -l /proc/self/fd; pwd; } >'" +
              facts.string() + "'; exec xclock -title '%c'\"");
  const int inherited = ::open("/proc/self/stat", O_RDONLY);  // without close-on-exec
  const pid_t pid = std::atoi(launch("org.vesko.Shell.desktop").c_str());
  ::close(inherited);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(windowsOf(pid), 1U);
  EXPECT_EQ(windows.windows(pid)->front().title, "org.vesko.Shell app");
  EXPECT_EQ(::getsid(pid), pid);
  const std::string text = support::contentOf(facts);
  EXPECT_FALSE(text.contains("mine")) << text;
  EXPECT_TRUE(text.contains("GIO_LAUNCHED_DESKTOP_FILE_PID=" + std::to_string(pid) + "\n"));
  EXPECT_TRUE(text.contains("\n1024\n")) << text;
  EXPECT_FALSE(text.contains("self/stat") || text.contains("socket:") || text.contains("pipe:"));
  EXPECT_TRUE(text.ends_with("\n" + std::string(std::getenv("HOME")) + "\n"));

  const auto running = applications.running();
  ASSERT_EQ(running.size(), 1U);
  EXPECT_EQ(running[0].pid, pid);
  EXPECT_EQ(running[0].bundleIdentifier, "org.vesko.Shell");
  EXPECT_EQ(running[0].name, "org.vesko.Shell app");
  EXPECT_TRUE(applications.quit(running[0]));
  // What was launched is reaped on the main loop.
  EXPECT_EQ(::kill(pid, 0), 0);
  Timer check;
  Closure look = [&] {
    if (::kill(pid, 0) != 0) return loop.quit();
    check = loop.after(std::chrono::milliseconds(5), [&] { look(); });
  };
  loop.post([&] { look(); });
  loop.run();
}

TEST_F(LinuxApplicationsTest, SaysWhyALaunchFailed) {
  const std::pair<const char*, const char*> cases[] = {
      {"Exec=/no/such/program --x", "the program \"/no/such/program\" was not found"},
      {"Exec=no-such-program", "the program \"no-such-program\" was not found"},
      {"Exec=sh -c \"exit 3\"", "the program ended with status 3"},
      {"Exec=sh -c \"kill -SEGV $$\"", "the program was ended by signal 11 (Segmentation fault)"},
      {"Exec=true", "the program ended at once and shows no window"},
      {"DBusActivatable=true", "The name org.vesko.Faulty was not provided by any .service files"},
      {"DBusActivatable=true\nExec=false", "the program ended with status 1"},
  };
  for (const auto& [entry, error] : cases) {
    SCOPED_TRACE(entry);
    install("org.vesko.Faulty", entry);
    EXPECT_EQ(launch("org.vesko.Faulty"), error);
  }
  for (const char* id : {"../applications/org.vesko.Faulty", "/bin/sh", "", "a\nb"})
    EXPECT_EQ(launch(id), "not installed");
}

TEST_F(LinuxApplicationsTest, AnswersWithTheInstanceThatRuns) {
  install("org.vesko.Single", "Exec=" + app + " id=org.vesko.Single");
  const std::string first = launch("org.vesko.Single");
  ASSERT_GT(std::atoi(first.c_str()), 0) << first;
  EXPECT_EQ(launch("org.vesko.Single"), first);
  EXPECT_TRUE(eventually([&] { return windowsOf(std::atoi(first.c_str())) == 2; }));

  // Started by the bus, for which its file is known only after a reload.
  std::filesystem::create_directories(data / "dbus-1/services");
  std::ofstream(data / "dbus-1/services/org.vesko.Bus.service")
      << "[D-BUS Service]\nName=org.vesko.Bus\nExec=" << app << " id=org.vesko.Bus\n";
  outputOf({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
            "org.freedesktop.DBus.ReloadConfig"});
  install("org.vesko.Bus", "DBusActivatable=true\nExec=false");
  const RunningApplication bus = launchedApplication("org.vesko.Bus");
  EXPECT_GT(windowsOf(bus.pid), 0U);
  EXPECT_EQ(bus.bundleIdentifier, "org.vesko.Bus");
  EXPECT_EQ(launch("org.vesko.Bus"), std::to_string(bus.pid));
}

TEST_F(LinuxApplicationsTest, FindsTheTerminalThatAServerShows) {
  const Program other({"xclock"});
  ASSERT_TRUE(shows(other));
  const auto emulator = data / "bin/x-terminal-emulator";
  std::filesystem::create_directories(emulator.parent_path());
  std::ofstream(emulator) << "#!/bin/sh\nexec setsid -f xterm \"$@\"\n";
  std::filesystem::permissions(emulator, std::filesystem::perms::owner_all);
  install("org.vesko.Terminal", "Terminal=true\nExec=cat");
  const pid_t pid = std::atoi(launch("org.vesko.Terminal").c_str());
  EXPECT_EQ(outputOf({"ps", "-o", "comm=", "-p", std::to_string(pid)}), "xterm\n");
  EXPECT_EQ(windowsOf(pid), 1U);
}

TEST_F(LinuxApplicationsTest, KnowsProcesses) {
  install("org.vesko.Wanted", "Exec=never-run\nStartupWMClass=XClock\nTryExec=sh");
  const Program clock({"xclock"});
  const Program calculator({"xcalc"});
  const Program terminal({"xterm"});
  ASSERT_TRUE(shows(clock) && shows(calculator) && shows(terminal));
  EXPECT_EQ(of(clock).bundleIdentifier, "org.vesko.Wanted");
  EXPECT_EQ(of(calculator).bundleIdentifier, "");
  EXPECT_EQ(of(calculator).name, "XCalc");
  EXPECT_EQ(of(terminal).bundleIdentifier, "debian-xterm");
  EXPECT_EQ(applications.running().size(), 3U);
  EXPECT_EQ(of(clock).startToken.find_first_of(",[]/"), std::string::npos);

  const auto own = applications.process(::getpid());
  ASSERT_TRUE(own);
  EXPECT_EQ(own->name, "linux_applications_test");
  const pid_t zombie = ::fork();
  if (zombie == 0) ::_exit(0);
  siginfo_t info{};
  ::waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);
  EXPECT_FALSE(applications.process(zombie));
  ::waitpid(zombie, nullptr, 0);
  for (const pid_t none : {0, -1, 1 << 30}) EXPECT_FALSE(applications.process(none));
}

TEST_F(LinuxApplicationsTest, BringsToTheFront) {
  const Program first({app, "title=first"});
  ASSERT_TRUE(shows(first));
  const Program second({app, "title=second"});
  ASSERT_TRUE(shows(second));
  ASSERT_EQ(windows.minimize(windows.windows(first.pid())->front().number), AXError::success);
  EXPECT_TRUE(applications.activate(of(first)));
  EXPECT_EQ(applications.frontmost()->pid, first.pid());
  EXPECT_EQ(outputOf({"xdotool", "getactivewindow", "getwindowname"}), "first\n");
  EXPECT_TRUE(applications.activate(of(second)));
  EXPECT_EQ(applications.frontmost()->pid, second.pid());
  RunningApplication earlier = of(first);
  earlier.startToken = "1-0";
  EXPECT_FALSE(applications.activate(earlier));
  EXPECT_FALSE(applications.quit(earlier));
  EXPECT_EQ(windowsOf(first.pid()), 1U);
  EXPECT_FALSE(applications.activate(*applications.process(::getpid())));
}

TEST_F(LinuxApplicationsTest, QuitsAsTheUserWould) {
  struct Case {
    std::vector<std::string> command;
    bool accepted;
    bool ends;
  };
  const Case cases[] = {
      {{app}, true, true},
      {{app, "ask"}, true, false},
      {{app, "refuse"}, false, false},
      {{app, "stay"}, true, true},
      {{app, "stay", "quits", "id=org.vesko.Quits"}, true, true},
      {{app, "stay", "id=org.vesko.Stay"}, false, false},
      {{"xterm"}, true, true},
      {{"xclock"}, true, true},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.command.back());
    const Program program(each.command);
    ASSERT_TRUE(shows(program));
    const RunningApplication application = of(program);
    EXPECT_EQ(applications.quit(application), each.accepted);
    EXPECT_EQ(applications.process(program.pid()).has_value(), !each.ends);
  }
  const Program hung({app});
  ASSERT_TRUE(shows(hung));
  const RunningApplication application = of(hung);
  hung.signal(SIGSTOP);
  EXPECT_FALSE(applications.quit(application));
  EXPECT_TRUE(applications.process(hung.pid()));
}

}  // namespace
}  // namespace vesko
