#include "control_server/worker_pool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <barrier>
#include <latch>
#include <memory>
#include <thread>

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

// Until it is destroyed no thread can be made: none gets a stack of this size.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&usual_);
    pthread_attr_t enormous = usual_;
    pthread_attr_setstacksize(&enormous, std::size_t{1} << 46);
    pthread_setattr_default_np(&enormous);
  }
  ~NoThreads() {
    pthread_setattr_default_np(&usual_);
    pthread_attr_destroy(&usual_);
  }

 private:
  pthread_attr_t usual_;
};

TEST(WorkerPool, DoesTheWorkWithTheThreadsThatThereAre) {
  WorkerPool pool(2);
  const auto caller = std::this_thread::get_id();
  std::latch first(1), release(1), last(1);
  std::thread::id ranOn;
  {
    const NoThreads none;
    pool.post([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_EQ(ranOn, caller) << "nobody else is there";
  }
  pool.post([&] {
    first.count_down();
    release.wait();
  });
  first.wait();
  {
    const NoThreads none;
    pool.post([&] {
      ranOn = std::this_thread::get_id();
      last.count_down();
    });
  }
  release.count_down();
  last.wait();
  EXPECT_NE(ranOn, caller);
}

}  // namespace
}  // namespace vesko
