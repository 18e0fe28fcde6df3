#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "loop_driver.h"

using namespace std::chrono_literals;

namespace vesko {
namespace {

TEST(GlibMainLoop, runsPostedWorkInOrderAndQuitsBehindIt) {
  GlibMainLoop loop;
  std::string trace;
  loop.post([&] {
    trace += 'a';
    loop.post([&] { trace += 'd'; });
    loop.quit();
    loop.post([&] { trace += 'x'; });
    trace += 'b';
  });
  loop.post([&] { trace += 'c'; });
  EXPECT_EQ(trace, "");
  loop.run();
  EXPECT_EQ(trace.substr(0, 4), "abcd");

  trace.clear();
  loop.quit();  // without a running loop: the next run ends
  loop.post([&] { trace += 'e'; });
  loop.run();
  ASSERT_TRUE(runUntil(loop, [&] { return trace.ends_with('e'); }));
}

TEST(GlibMainLoop, keepsTheOrderOfEveryPostingThread) {
  constexpr int threadCount = 4;
  constexpr int postsEach = 20000;
  GlibMainLoop loop;
  std::vector<int> next(threadCount, 0);
  int outOfOrder = 0;
  int ran = 0;
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < threadCount; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < postsEach; ++i) {
          loop.post([&, t, i] {
            outOfOrder += next[static_cast<std::size_t>(t)]++ != i;
            ++ran;
          });
        }
      });
    }
    EXPECT_TRUE(runUntil(loop, [&] { return ran == threadCount * postsEach; }));
  }
  EXPECT_EQ(outOfOrder, 0);
}

TEST(GlibMainLoop, firesTimersInTheOrderOfTheirTimes) {
  GlibMainLoop loop;
  std::string trace;
  const TimePoint start = loop.now();
  const Timer late = loop.after(4ms, [&] {
    EXPECT_GE(loop.now() - start, 4ms);
    trace += 'd';
  });
  const Timer early = loop.after(1ms, [&] { trace += 'b'; });
  const Timer sameTime = loop.after(3ms, [&] { trace += 'c'; });
  const Timer past = loop.after(-5s, [&] { trace += 'a'; });
  const Timer never = loop.after(Duration::max(), [&] { trace += 'x'; });
  EXPECT_TRUE(late.pending());
  // All of them are due when the loop gets to run.
  loop.post([&] {
    while (loop.now() - start < 5ms) std::this_thread::yield();
  });
  ASSERT_TRUE(runUntil(loop, [&] { return trace.size() >= 4; }));
  EXPECT_EQ(trace, "abcd");
  EXPECT_FALSE(late.pending());
  EXPECT_TRUE(never.pending());
}

TEST(GlibMainLoop, cancelsTimersInsideTheirCallbacks) {
  GlibMainLoop loop;
  std::string trace;
  const Timer far = loop.after(24h, [&] { trace += "far"; });
  Timer own;
  Timer other;
  std::optional<Timer> made;
  own = loop.after(0s, [&, name = std::string("own")] {
    EXPECT_FALSE(own.pending());
    other.cancel();
    own = Timer();
    made = loop.after(0s, [&] { trace += "made"; });
    trace += name;
  });
  other = loop.after(0s, [&] { trace += "other"; });
  {
    const Timer destroyed = loop.after(0s, [&] { trace += "destroyed"; });
  }
  ASSERT_TRUE(runUntil(loop, [&] { return trace.ends_with("made"); }));
  EXPECT_EQ(trace, "ownmade");
}

TEST(GlibMainLoop, dropsWhatIsQueuedAtItsEnd) {
  const auto token = std::make_shared<int>();
  {
    GlibMainLoop loop;
    loop.post([token] { ADD_FAILURE(); });
  }
  EXPECT_EQ(token.use_count(), 1);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

TEST(FdWatch, reportsReadinessAndHangUpUntilItIsDestroyed) {
  GlibMainLoop loop;
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  std::string received;
  bool ended = false;
  FdWatch watch;
  const auto kept = std::make_shared<std::string>("alive");
  watch = FdWatch(reader.get(), FdWatch::For::reading, [&, kept] {
    char byte = 0;
    if (::read(reader.get(), &byte, 1) == 1) {
      received += byte;
      return;
    }
    watch.reset();
    ended = *kept == "alive";  // the callback's own state outlasts the call
  });
  ASSERT_EQ(::write(writer.get(), "hi", 2), 2);
  EXPECT_TRUE(runUntil(loop, [&] { return received == "hi"; }));
  writer.reset();
  EXPECT_TRUE(runUntil(loop, [&] { return ended; }));
  EXPECT_FALSE(watch);
  EXPECT_EQ(kept.use_count(), 1);
}

TEST(UnixSignal, arrivesOnTheMainThreadAndGivesTheDefaultBack) {
  GlibMainLoop loop;
  int arrived = 0;
  {
    const UnixSignal terminate(SIGTERM, [&] { ++arrived; });
    const UnixSignal interrupt(SIGINT, [&] { arrived += 10; });
    ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
    EXPECT_TRUE(runUntil(loop, [&] { return arrived == 1; }));
    ASSERT_EQ(::kill(::getpid(), SIGINT), 0);
    EXPECT_TRUE(runUntil(loop, [&] { return arrived == 11; }));
  }
  struct sigaction action{};
  ASSERT_EQ(::sigaction(SIGTERM, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

}  // namespace
}  // namespace vesko
