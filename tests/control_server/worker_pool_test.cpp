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

TEST(WorkerPool, CancelDropsWhatHasNotBegun) {
  std::latch begun(1), release(1);
  std::atomic<int> ran = 0;
  const auto held = std::make_shared<int>(0);
  {
    WorkerPool pool(1);
    pool.post([&] {
      begun.count_down();
      release.wait();
      ++ran;
    });
    begun.wait();
    pool.post([&ran, held] { ++ran; });
    pool.cancel();
    EXPECT_EQ(held.use_count(), 1);
    pool.post([&] { ++ran; });
    release.count_down();
  }
  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace vesko
