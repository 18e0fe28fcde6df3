#include "control_server/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <latch>
#include <memory>

namespace vesko {
namespace {

TEST(WorkerPool, RunsAsManyAtOnceAsItMayAndKeepsTheRest) {
  WorkerPool pool(3);
  std::barrier together(3);  // passed only when three jobs run side by side
  std::latch finished(9);
  for (int i = 0; i < 9; ++i) {
    pool.post([&] {
      together.arrive_and_wait();
      finished.count_down();
    });
  }
  finished.wait();
}

TEST(WorkerPool, StopDropsWhatHasNotBegun) {
  WorkerPool pool(1);
  std::latch begun(1), release(1);
  std::atomic<int> ran = 0;
  const auto held = std::make_shared<int>(0);
  pool.post([&] {
    begun.count_down();
    release.wait();
    ++ran;
  });
  begun.wait();
  pool.post([&ran, held] { ++ran; });
  std::thread stopper([&] { pool.stop(); });
  // Posting is refused once stop() has begun; until then the job merely joins the queue.
  while (held.use_count() > 1) std::this_thread::yield();
  release.count_down();
  stopper.join();
  pool.post([&] { ++ran; });
  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace vesko
