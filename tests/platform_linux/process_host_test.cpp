#include "platform/linux/linux_process_host.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "base/file.h"
#include "base/unique_fd.h"
#include "process_fixture.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

std::ptrdiff_t entriesOf(const char* folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

using LinuxProcessHostTest = ProcessTest;

TEST_F(LinuxProcessHostTest, tellsHowAChildEndedBehindItsLastOutput) {
  const struct {
    const char* mode;
    int value;
    bool signalled;
    int code;
  } cases[] = {
      {"exit", 0, false, 0},
      {"exit", 3, false, 3},
      {"die", SIGTERM, true, SIGTERM},
      {"die", SIGKILL, true, SIGKILL},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode + std::to_string(c.value));
    std::string trace;
    bool runningAtExit = true;
    std::unique_ptr<ChildProcess> process;
    auto started = host.launch({.executable = scriptedChild,
                                .environment = environmentFor(c.mode, c.value),
                                .onOutput = [&](std::string_view chunk) { trace += chunk; },
                                .onExit =
                                    [&](ProcessExit exit) {
                                      runningAtExit = process->running();
                                      trace += exit.signalled ? " signal " : " code ";
                                      trace += std::to_string(exit.code);
                                    }});
    ASSERT_TRUE(started) << started.error();
    process = std::move(*started);
    EXPECT_TRUE(process->running());
    EXPECT_EQ(trace, "");
    ASSERT_TRUE(
        runUntil(loop, [&] { return trace.find(std::to_string(c.code)) != std::string::npos; }));
    EXPECT_EQ(trace, std::string("farewell") + (c.signalled ? " signal " : " code ") +
                         std::to_string(c.code));
    EXPECT_FALSE(runningAtExit);
    EXPECT_EQ(process->write("late\n").error(), "Broken pipe");
    process->signal(SIGKILL);
    process->closeInput();
  }
}

TEST_F(LinuxProcessHostTest, handsDownTheEnvironmentAndThreeStreamsAlone) {
  const UniqueFd leaky(::open("/dev/null", O_RDONLY));  // without close-on-exec, as some library's
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
  const auto child = launch("inherit");
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  ASSERT_TRUE(ended(*child));
  EXPECT_EQ(child->output,
            "ignored\nblocked\ndescriptors 0 1 2\none pipe\n"
            "variables VESKO_CHILD=inherit VESKO_CHILD_VALUE=0\n");
}

TEST_F(LinuxProcessHostTest, saysWhyALaunchFailedAndLeavesNothing) {
  const support::TemporaryDirectory directory;
  ASSERT_TRUE(replaceFile(directory / "plain", "no program", 0644));
  ASSERT_TRUE(replaceFile(directory / "text", "no program", 0755));
  const struct {
    fs::path executable;
    Environment environment;
    const char* error;
  } cases[] = {
      {directory / "missing", {}, "No such file or directory"},
      {directory / "plain", {}, "Permission denied"},
      {directory.path(), {}, "Permission denied"},
      {directory / "text", {}, "Exec format error"},
      {scriptedChild, {{"A", std::string("1\0B=2", 5)}}, "Invalid argument"},
      {scriptedChild, {{"A=B", "1"}}, "Invalid argument"},
  };
  const auto descriptors = entriesOf("/proc/self/fd");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    auto result = host.launch({.executable = c.executable,
                               .environment = c.environment,
                               .onOutput = [](std::string_view) { ADD_FAILURE(); },
                               .onExit = [](ProcessExit) { ADD_FAILURE(); }});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), c.error);
  }
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
  EXPECT_TRUE(noChildren());
}

TEST_F(LinuxProcessHostTest, leavesNothingBehindAfterManyChildren) {
  const auto round = [&] {
    const auto child = launch("echo");
    EXPECT_TRUE(child->process->write("hello\n"));
    EXPECT_TRUE(says(*child, "hello\n"));
    child->process->closeInput();
    EXPECT_TRUE(ended(*child));
    EXPECT_EQ(child->output, "hello\n");
  };
  round();
  const auto descriptors = entriesOf("/proc/self/fd");
  const auto threads = entriesOf("/proc/self/task");
  for (int i = 0; i < 200; ++i) round();
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
  EXPECT_EQ(entriesOf("/proc/self/task"), threads);
  EXPECT_TRUE(noChildren());
}

TEST_F(LinuxProcessHostTest, takesABoundedAmountOfAFloodPerTurn) {
  constexpr std::size_t total = std::size_t{100} << 20;
  std::size_t received = 0;
  std::size_t largest = 0;
  int sinceTurn = 0;
  int mostPerTurn = 0;
  bool over = false;
  auto process = host.launch({.executable = scriptedChild,
                              .environment = environmentFor("flood", total >> 20),
                              .onOutput =
                                  [&](std::string_view chunk) {
                                    received += chunk.size();
                                    largest = std::max(largest, chunk.size());
                                    if (sinceTurn++ == 0) loop.post([&] { sinceTurn = 0; });
                                    mostPerTurn = std::max(mostPerTurn, sinceTurn);
                                  },
                              .onExit = [&](ProcessExit exit) { over = exit.code == 0; }});
  ASSERT_TRUE(process);
  ASSERT_TRUE(runUntil(loop, [&] { return over; }));
  EXPECT_EQ(received, total);
  EXPECT_LE(largest, 65536U);
  EXPECT_LE(mostPerTurn, 32);
}

TEST_F(LinuxProcessHostTest, keepsWhatAStalledChildDoesNotReadUpToALimit) {
  const auto child = launch("digest");
  ASSERT_TRUE(says(*child, "ready\n"));
  std::uint64_t hash = 14695981039346656037ULL;
  std::uint64_t count = 0;
  const auto accept = [&](std::string_view bytes) {
    count += bytes.size();
    for (const char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  };
  std::string line;
  for (int i = 0;; ++i) {
    line.assign(1000003, static_cast<char>('a' + i % 26));
    const auto written = child->process->write(line);
    if (!written) {
      EXPECT_EQ(written.error(), "No buffer space available");
      break;
    }
    accept(line);
    ASSERT_LT(count, 64U << 20);
  }
  EXPECT_GT(count, 15U << 20);
  // What fits is still taken, and in its place.
  ASSERT_TRUE(child->process->write("short\n"));
  accept("short\n");
  EXPECT_FALSE(child->process->write(std::string((16U << 20) + 1, 'x')));
  child->process->closeInput();
  EXPECT_EQ(child->process->write("late\n").error(), "Bad file descriptor");
  child->process->signal(SIGUSR1);
  ASSERT_TRUE(ended(*child));
  EXPECT_EQ(child->output, "ready\n" + std::to_string(count) + " " + std::to_string(hash) + "\n");
}

TEST_F(LinuxProcessHostTest, passesALargeLineThroughAReadingChild) {
  const auto child = launch("echo");
  std::string line(15 << 20, 'x');
  for (std::size_t i = 0; i < line.size(); i += 4093) line[i] = static_cast<char>('a' + i % 23);
  ASSERT_TRUE(child->process->write(line));
  ASSERT_TRUE(child->process->write("\nend"));
  ASSERT_TRUE(says(*child, "\nend"));
  EXPECT_TRUE(child->output == line + "\nend");
  child->process->closeInput();
  ASSERT_TRUE(ended(*child));
}

TEST_F(LinuxProcessHostTest, reportsAnInputThatNobodyReadsAnyMore) {
  const auto deaf = launch("close_input");
  ASSERT_TRUE(says(*deaf, "ready\n"));
  EXPECT_EQ(deaf->process->write("hello\n").error(), "Broken pipe");
  EXPECT_EQ(deaf->process->write("again\n").error(), "Broken pipe");
  EXPECT_TRUE(deaf->process->running());
  deaf->process->signal(SIGUSR1);
  ASSERT_TRUE(ended(*deaf));
  EXPECT_EQ(deaf->exit->code, 0);

  // It dies with most of the input still kept here.
  const auto dying = launch("digest");
  ASSERT_TRUE(says(*dying, "ready\n"));
  ASSERT_TRUE(dying->process->write(std::string(8 << 20, 'x')));
  dying->process->signal(SIGKILL);
  ASSERT_TRUE(runUntil(loop, [&] { return !dying->process->write("more\n"); }));
  ASSERT_TRUE(ended(*dying));
  EXPECT_TRUE(dying->exit->signalled);
}

TEST_F(LinuxProcessHostTest, aChildWithoutOutputStillRuns) {
  const auto before = entriesOf("/proc/self/fd");
  const auto child = launch("close_output");
  // Input, output and process descriptor; the output goes when its end is seen.
  EXPECT_EQ(entriesOf("/proc/self/fd"), before + 3);
  ASSERT_TRUE(runUntil(loop, [&] { return entriesOf("/proc/self/fd") == before + 2; }));
  EXPECT_TRUE(child->process->running());
  EXPECT_FALSE(child->exit);
  ASSERT_TRUE(child->process->write("7"));
  ASSERT_TRUE(ended(*child));
  EXPECT_EQ(child->exit->code, 7);
}

TEST_F(LinuxProcessHostTest, aGrandchildWithThePipeDoesNotDelayTheExit) {
  const auto child = launch("leave_child");
  std::unique_ptr<ProcessReference> grandchild;
  bool grandchildEnded = false;
  ASSERT_TRUE(says(*child, "\n"));
  grandchild = host.open(static_cast<pid_t>(std::stol(child->output)));
  if (grandchild) grandchild->notifyExit([&] { grandchildEnded = true; });
  ASSERT_TRUE(ended(*child));
  // It lives on its input, which the end of the child closed.
  if (grandchild) EXPECT_TRUE(runUntil(loop, [&] { return grandchildEnded; }));
}

TEST_F(LinuxProcessHostTest, aChildThatIgnoresTerminationIsKilled) {
  const auto child = launch("ignore_term");
  ASSERT_TRUE(says(*child, "ready\n"));
  child->process->signal(SIGTERM);
  child->process->signal(0);
  EXPECT_TRUE(child->process->running());
  child->process->signal(SIGKILL);
  ASSERT_TRUE(ended(*child));
  EXPECT_TRUE(child->exit->signalled);
  EXPECT_EQ(child->exit->code, SIGKILL);
}

TEST_F(LinuxProcessHostTest, handlersMayDestroyTheirChild) {
  for (const bool atExit : {false, true}) {
    SCOPED_TRACE(atExit);
    std::unique_ptr<ChildProcess> process;
    std::unique_ptr<LaunchedChild> successor;
    int calls = 0;
    const auto token = std::make_shared<std::string>("intact");
    const auto destroy = [&, token] {
      process.reset();
      successor = launch("exit", 4);
      calls += *token == "intact";
    };
    ProcessLaunch launching{.executable = scriptedChild,
                            .environment = environmentFor(atExit ? "exit" : "ignore_term"),
                            .onOutput = nullptr,
                            .onExit = nullptr};
    if (atExit) {
      launching.onExit = [destroy](ProcessExit) { destroy(); };
    } else {
      launching.onOutput = [&, destroy](std::string_view) {
        process->signal(SIGKILL);
        destroy();
      };
      launching.onExit = [](ProcessExit) { ADD_FAILURE() << "was dropped"; };
    }
    auto started = host.launch(std::move(launching));
    ASSERT_TRUE(started);
    process = std::move(*started);
    ASSERT_TRUE(runUntil(loop, [&] { return successor && successor->exit; }));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(successor->exit->code, 4);
    EXPECT_TRUE(runUntil(loop, noChildren));
  }
}

TEST_F(LinuxProcessHostTest, reapsChildrenThatNobodyHolds) {
  const auto descriptors = entriesOf("/proc/self/fd");
  {
    LinuxProcessHost passing;
    auto process = passing.launch({.executable = scriptedChild,
                                   .environment = environmentFor("echo"),
                                   .onOutput = [](std::string_view) { ADD_FAILURE(); },
                                   .onExit = [](ProcessExit) { ADD_FAILURE(); }});
    ASSERT_TRUE(process);
    ASSERT_TRUE((*process)->write("lost\n"));
  }
  EXPECT_TRUE(runUntil(loop, noChildren));
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
}

TEST_F(LinuxProcessHostTest, worksWithoutStandardStreamsOfItsOwn) {
  const UniqueFd input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100));
  const UniqueFd output(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 100));
  ASSERT_TRUE(input && output);
  ::close(STDIN_FILENO);
  ::close(STDOUT_FILENO);
  const auto child = launch("inherit");
  // What this process prints must not go to the child.
  struct stat taken{};
  const bool pipe = ::fstat(STDOUT_FILENO, &taken) == 0 && S_ISFIFO(taken.st_mode);
  const bool over = ended(*child);
  ASSERT_EQ(::dup2(input.get(), STDIN_FILENO), STDIN_FILENO);
  ASSERT_EQ(::dup2(output.get(), STDOUT_FILENO), STDOUT_FILENO);
  EXPECT_TRUE(over);
  EXPECT_FALSE(pipe);
  EXPECT_NE(child->output.find("descriptors 0 1 2\none pipe"), std::string::npos);
}

TEST_F(LinuxProcessHostTest, referencesFollowTheProcessAndNotItsId) {
  const auto child = launch("ignore_term");
  const pid_t pid = child->process->pid();
  auto reference = host.open(pid);
  ASSERT_TRUE(reference);
  const auto ids = host.processIds();
  for (const pid_t expected : {pid, ::getpid()})
    EXPECT_EQ(std::count(ids.begin(), ids.end(), expected), 1);
  ASSERT_TRUE(says(*child, "ready\n"));
  EXPECT_TRUE(reference->alive());
  EXPECT_TRUE(reference->signal(0));

  int notices = 0;
  auto notified = host.open(pid);
  notified->notifyExit([&] {
    notified.reset();
    ++notices;
  });
  auto dropped = host.open(pid);
  dropped->notifyExit([] { ADD_FAILURE(); });
  dropped.reset();
  EXPECT_TRUE(reference->signal(SIGKILL));
  ASSERT_TRUE(ended(*child));
  EXPECT_TRUE(runUntil(loop, [&] { return notices == 1; }));
  EXPECT_FALSE(reference->alive());
  EXPECT_FALSE(reference->signal(0));
  EXPECT_EQ(host.open(pid), nullptr);
  EXPECT_EQ(host.executablePath(pid), std::nullopt);
}

}  // namespace
}  // namespace vesko
