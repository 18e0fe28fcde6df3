// What a daemon can do wrong, done by real processes, and what the application makes of it.

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <iterator>

#include "supervised_daemon.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

std::ptrdiff_t entriesOf(const char* folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

std::size_t occurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

std::string hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
  return text;
}

using DaemonFaultsTest = SupervisedDaemonTest;

TEST_F(DaemonFaultsTest, leavesNothingBehindAfterHundredsOfCrashes) {
  constexpr std::size_t rounds = 200;
  script("write_named_bytes");
  launch();
  supervisor.stopDaemon();
  ASSERT_TRUE(settled());
  const auto descriptors = entriesOf("/proc/self/fd");
  const auto threads = entriesOf("/proc/self/task");

  const std::size_t first = processes.pids.size();
  beforeLaunch = [&] {
    const std::size_t round = processes.pids.size() - first;
    const std::string status = connectedLine("d" + std::to_string(round));
    if (round >= rounds)
      script("write_named_bytes", 0, status);
    else if (round % 2 == 0)
      script("exit", 3, status);
    else
      script("die", round % 4 == 1 ? SIGKILL : SIGTERM, status);
  };
  launch();
  ASSERT_TRUE(runUntilConnected("d" + std::to_string(rounds)));
  EXPECT_EQ(requests.connected.size(), rounds + 1) << "every one of them was heard before it died";
  const std::string text = logged();
  EXPECT_EQ(occurrences(text, "daemon exited exit code 3"), rounds / 2);
  EXPECT_EQ(occurrences(text, fmt::format("daemon exited signal {}", SIGKILL)), rounds / 4);
  EXPECT_EQ(occurrences(text, fmt::format("daemon exited signal {}", SIGTERM)), rounds / 4);
  EXPECT_FALSE(logs("SIGKILL"));

  supervisor.stopDaemon();
  ASSERT_TRUE(settled());
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
  EXPECT_EQ(entriesOf("/proc/self/task"), threads);
  EXPECT_EQ(processes.pids.size(), first + rounds + 1);
}

TEST_F(DaemonFaultsTest, dropsALineWithoutEndAndHearsTheNextOne) {
  constexpr long megabytes = 300;
  rusage before{};
  ::getrusage(RUSAGE_SELF, &before);
  script("flood", megabytes, "", "\n" + connectedLine("after"));
  state.hasDeviceToken.set(false);  // the flood ends by itself, and one is enough
  launch();
  ASSERT_TRUE(runUntil([&] { return !requests.connected.empty(); }));
  EXPECT_EQ(requests.connected, std::vector<std::string>{"after"});
  EXPECT_GE(processes.bytesDelivered, std::size_t{megabytes} << 20);
  EXPECT_EQ(occurrences(logged(), "ERROR daemon line longer than"), 1U);

  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  // In kilobytes. A line may take 32 MiB and as much again while its buffer grows; the thread
  // sanitizer keeps records of its own beside it.
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 200 << 10);
}

TEST_F(DaemonFaultsTest, dropsChunksThatAreNotUtf8AndNothingElse) {
  script("write_named_bytes");
  launch();
  std::size_t expected = 0;
  // One at a time: what is written while the last chunk waits would be read together with it.
  const auto emit = [&](std::string_view bytes) {
    expected += bytes.size();
    EXPECT_TRUE(supervisor.sendLine(hex(bytes)));
    EXPECT_TRUE(runUntil([&] { return processes.bytesDelivered == expected; }));
  };
  emit(connectedLine("one"));
  EXPECT_EQ(*state.status, Status::connected("one"));
  emit("\xFF\xFE garbage\n" + connectedLine("lost"));
  EXPECT_EQ(*state.status, Status::connected("one"));
  // Half a character at the end of one chunk, the rest at the start of the next: both are dropped.
  emit("text \xC3");
  emit("\xA9 more\n");
  // What the dropped chunks stood between stays together.
  emit("[veskokit-status] {\"state\":");
  emit("\x80\x80\n");
  emit("\"connected\",\"deviceId\":\"two\"}\n");
  EXPECT_EQ(*state.status, Status::connected("two"));
  emit("plain \xC3\xA9\n");
  EXPECT_TRUE(logs("daemon: plain \xC3\xA9\n"));
  EXPECT_FALSE(logs("garbage"));
  EXPECT_FALSE(logs("more"));
  EXPECT_EQ(requests.connected.size(), 2U);
  EXPECT_EQ(processes.pids.size(), 1U);
}

TEST_F(DaemonFaultsTest, aDaemonThatClosedItsStreamsStillRunsUntilItIsStopped) {
  script("close_everything", 6);
  log.write("opens its file");
  const auto descriptors = entriesOf("/proc/self/fd");
  launch();
  const auto withPipes = entriesOf("/proc/self/fd");
  ASSERT_TRUE(runUntilLogged("daemon: closed"));
  ASSERT_TRUE(runUntil([&] { return entriesOf("/proc/self/fd") == withPipes - 1; }))
      << "the end of its output was not noticed";
  EXPECT_TRUE(supervisor.daemonRunning());
  const auto refused = supervisor.sendLine("hello");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().failure, DaemonChannel::Failure::writeFailed);
  EXPECT_FALSE(lines.sendGrantedDirs({"/tmp"}));
  EXPECT_TRUE(logs("daemon control granted_dirs failed: Broken pipe"));
  EXPECT_TRUE(supervisor.daemonRunning());
  // It was left alone, and its end is noticed as any other's.
  EXPECT_TRUE(processes.open(pid())->signal(SIGUSR1));
  ASSERT_TRUE(runUntilLogged("daemon exited exit code 6"));

  ASSERT_TRUE(runUntil([&] { return occurrences(logged(), "daemon: closed") == 2; }));
  supervisor.stopDaemon();
  EXPECT_FALSE(supervisor.daemonRunning());
  ASSERT_TRUE(settled());
  EXPECT_FALSE(logs("SIGKILL"));
  EXPECT_EQ(occurrences(logged(), "daemon exited unexpectedly"), 1U);
  EXPECT_EQ(processes.pids.size(), 2U);
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
}

TEST_F(DaemonFaultsTest, killsADaemonThatIgnoresTheRequestToEnd) {
  script("ignore_term");
  launch();
  ASSERT_TRUE(runUntilLogged("daemon: ready"));
  const pid_t stubborn = pid();
  const TimePoint asked = loop.now();
  supervisor.stopDaemon();
  bool idle = false;
  killer.whenIdle([&] { idle = true; });
  ASSERT_TRUE(runUntil([&] { return idle; }));
  EXPECT_GE(loop.now() - asked, ProcessKiller::grace) << "it was not given its time";
  EXPECT_TRUE(logs(fmt::format("daemon pid={} ignored SIGTERM; sending SIGKILL", stubborn)));
  EXPECT_TRUE(runUntil(noChildren));
  EXPECT_EQ(processes.pids.size(), 1U);
}

TEST_F(DaemonFaultsTest, goesOnWhenADaemonDiesInTheMiddleOfALine) {
  const std::string large(12 << 20, 'x');
  for (const long bitten : {0L, 1L << 16, 3L << 20}) {
    SCOPED_TRACE(bitten);
    const std::size_t before = processes.pids.size();
    script("bite", bitten);
    // With nothing to bite off it is gone before or while the line is written.
    launch();
    beforeLaunch = [this] { script("write_named_bytes", 0, connectedLine("next")); };
    const auto sent = supervisor.sendLine(large);
    if (!sent) {
      EXPECT_EQ(bitten, 0);
      EXPECT_EQ(sent.error().failure, DaemonChannel::Failure::writeFailed);
    }
    ASSERT_TRUE(runUntilLaunches(before + 2));
    ASSERT_TRUE(runUntilConnected("next"));
    EXPECT_TRUE(logs("daemon exited exit code 5"));
    // None of the old line reached the new daemon: it still understands what it is told.
    EXPECT_TRUE(supervisor.sendLine(hex("understood\n")));
    EXPECT_TRUE(runUntilLogged("daemon: understood"));
    beforeLaunch = nullptr;
    support::writeFile(home / "Logs/app.log", "");
  }
}

TEST_F(DaemonFaultsTest, noticesADeathBehindWhichAGrandchildHoldsThePipes) {
  log.write("opens its file");
  const auto descriptors = entriesOf("/proc/self/fd");
  script("leave_idle_child", 7);
  launch();
  beforeLaunch = [this] { script("write_named_bytes", 0, connectedLine("next")); };
  ASSERT_TRUE(runUntilConnected("next"));
  const std::string text = logged();
  const auto at = text.find("] daemon: ");
  ASSERT_NE(at, std::string::npos);
  const pid_t grandchild = static_cast<pid_t>(std::atoi(text.c_str() + at + 10));
  ASSERT_GT(grandchild, 1);
  const auto reference = processes.open(grandchild);
  ASSERT_TRUE(reference && reference->alive()) << "the pipes were not held any more";
  EXPECT_TRUE(logs("daemon exited exit code 7"));
  supervisor.stopDaemon();
  EXPECT_TRUE(settled());
  EXPECT_TRUE(reference->alive()) << "processes that the daemon started are its own affair";
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors + 1) << "one of them is the reference";
  EXPECT_TRUE(reference->signal(SIGKILL));
}

TEST_F(DaemonFaultsTest, endsStrayDaemonsOfTheSameApplicationAlone) {
  struct Started {
    std::unique_ptr<ChildProcess> process;
    std::string output;
    bool ended = false;
  };
  const auto start = [&](const fs::path& daemon, const char* mode) {
    script(mode, 0, "up\n");
    auto started = std::make_unique<Started>();
    auto child = processes.launch(
        {.executable = daemon,
         .environment = own,
         .onOutput = [to = started.get()](std::string_view chunk) { to->output += chunk; },
         .onExit = [to = started.get()](ProcessExit) { to->ended = true; }});
    EXPECT_TRUE(child) << child.error();
    if (child) started->process = std::move(*child);
    EXPECT_TRUE(runUntil([&] { return started->output.starts_with("up\n"); }));
    return started;
  };
  const auto script = [](const fs::path& file) {
    support::writeFile(file, "#!/bin/sh\necho up\nread line\n");
    ::chmod(file.c_str(), 0755);
    return file;
  };
  const auto elsewhere = makeBundle(home / "Elsewhere/Old.app", identifier);
  const auto replaced = makeBundle(home / "Replaced.app", identifier);
  const auto scripted = home / "Scripted.app/Contents/Resources/veskokit-daemon";
  makeBundle(home / "Scripted.app", identifier);
  script(scripted);
  const auto stray = start(elsewhere, "echo");
  const auto updated = start(replaced, "echo");
  const auto strayScript = start(scripted, "");
  const auto foreign = start(makeBundle(home / "Other.app", "com.vesko.test.other"), "echo");
  const auto nested =
      start(makeBundle(home / "Vesko.app/Contents/Inner.app", "com.vesko.test.inner"), "echo");
  const auto loose = start(script(home / "veskokit-daemon"), "");
  const auto otherName = home / "Vesko.app/Contents/Resources/veskokit-daemon2";
  fs::copy_file(VESKO_SCRIPTED_CHILD, otherName);
  const auto similar = start(otherName, "echo");
  // An update puts a new file in the place of the one that runs.
  fs::copy_file(VESKO_SCRIPTED_CHILD, home / "new");
  fs::rename(home / "new", replaced);

  supervisor.killStrayDaemons(::getpid());
  EXPECT_TRUE(runUntil(
      [&] { return stray->ended && updated->ended && strayScript->ended && killer.idle(); }));
  for (const auto* one : {&stray, &updated, &strayScript})
    EXPECT_TRUE(
        logs(fmt::format("killing stray veskokit-daemon pid={}\n", (*one)->process->pid())));
  for (const auto* one : {&foreign, &nested, &loose, &similar}) {
    EXPECT_TRUE((*one)->process->running());
    EXPECT_FALSE(logs(fmt::format("pid={}\n", (*one)->process->pid())));
  }
}

TEST_F(DaemonFaultsTest, aStopDuringAPendingRestartEndsTheMatter) {
  state.restartDelay = std::chrono::milliseconds(50);
  script("exit", 3);
  launch();
  ASSERT_TRUE(runUntilLogged("restarting in 0s"));
  // As the application does it when it ends.
  supervisor.cancelRestart();
  supervisor.stopDaemon();
  bool later = false;
  const Timer timer = loop.after(std::chrono::milliseconds(100), [&] { later = true; });
  ASSERT_TRUE(runUntil([&] { return later; }));
  EXPECT_EQ(processes.pids.size(), 1U);

  // A launch of somebody else's takes the restart's place: there is one daemon, not two.
  state.restartDelay = std::chrono::milliseconds(50);
  launch();
  ASSERT_TRUE(runUntil([&] { return occurrences(logged(), "restarting in 0s") == 2; }));
  script("write_named_bytes", 0, connectedLine("wanted"));
  launch();
  ASSERT_TRUE(runUntilConnected("wanted"));
  later = false;
  const Timer second = loop.after(std::chrono::milliseconds(100), [&] { later = true; });
  ASSERT_TRUE(runUntil([&] { return later; }));
  EXPECT_EQ(processes.pids.size(), 3U);
  EXPECT_TRUE(supervisor.daemonRunning());
}

TEST_F(DaemonFaultsTest, aStopDropsWhatTheDaemonHadStillToSay) {
  script("flood", 1 << 20, "first\n");
  launch();
  // It has written more than was read, and sits in its next write.
  ASSERT_TRUE(runUntil([&] { return processes.bytesDelivered > std::size_t{1} << 20; }));
  const int chunks = processes.chunksDelivered;
  supervisor.stopDaemon();
  EXPECT_TRUE(settled());
  EXPECT_EQ(processes.chunksDelivered, chunks);
  EXPECT_FALSE(logs("daemon exited"));
  EXPECT_EQ(processes.pids.size(), 1U);

  // The unfinished line is not glued to the next daemon's first one.
  script("write_named_bytes", 0, connectedLine("clean"));
  launch();
  EXPECT_TRUE(runUntilConnected("clean"));
}

TEST_F(DaemonFaultsTest, canBeReplacedFromInsideTheHandlingOfItsOwnLine) {
  const std::string request = "{\"veskokit\":\"request_folder_grant\",\"path\":\"/tmp/f\"}\n";
  script("write_named_bytes", 0, request + connectedLine("stale"));
  requests.onFolder = [this] {
    script("write_named_bytes", 0, connectedLine("fresh"));
    supervisor.relaunchDaemon();
  };
  launch();
  ASSERT_TRUE(runUntilConnected("fresh"));
  EXPECT_EQ(requests.connected, std::vector<std::string>{"fresh"});
  EXPECT_EQ(requests.folders.size(), 1U);
  EXPECT_EQ(processes.pids.size(), 2U);
  EXPECT_TRUE(runUntil([&] { return killer.idle(); }));
  EXPECT_TRUE(supervisor.daemonRunning());

  // And ended for good.
  requests.onFolder = [this] { supervisor.stopDaemon(); };
  EXPECT_TRUE(supervisor.sendLine(hex(request + connectedLine("stale"))));
  EXPECT_TRUE(runUntil(noChildren));
  EXPECT_EQ(requests.connected, std::vector<std::string>{"fresh"});
  EXPECT_EQ(processes.pids.size(), 2U);
}

}  // namespace
}  // namespace vesko
