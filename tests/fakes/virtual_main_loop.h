// A main loop whose time stands still until a test advances it. Posting works from any thread;
// everything else belongs to the thread that made it, which it adopts as the main thread.
#pragma once

#include <deque>
#include <functional>
#include <map>

#include "base/main_loop.h"
#include "base/mutex.h"

namespace vesko::fakes {

class VirtualMainLoop : public MainLoop {
 public:
  VirtualMainLoop();

  void post(Closure work) override;
  Timer after(Duration delay, Closure work) override;
  TimePoint now() const override { return now_; }

  /// Runs what was posted, and what that posts in turn.
  void runPosted();
  /// Moves time on, firing the timers on the way at their own moments and in their order.
  void advance(Duration by);
  /// How many timers wait; a leak of timers shows here.
  std::size_t pendingTimers() const { return timers_.size(); }

 private:
  class Source;
  using Key = std::pair<TimePoint, unsigned long>;

  TimePoint now_{};
  unsigned long serial_ = 0;
  std::map<Key, Closure> timers_;
  mutable Mutex mutex_;
  std::deque<Closure> posted_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko::fakes
