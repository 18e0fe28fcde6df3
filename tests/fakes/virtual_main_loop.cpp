#include "fakes/virtual_main_loop.h"

#include <utility>

#include "base/main_thread.h"

namespace vesko::fakes {

class VirtualMainLoop::Source : public Timer::Source {
 public:
  Source(VirtualMainLoop& loop, Key key) : loop_(loop), key_(key) {}
  ~Source() override { loop_.timers_.erase(key_); }
  bool pending() const override { return loop_.timers_.contains(key_); }

 private:
  VirtualMainLoop& loop_;
  Key key_;
};

VirtualMainLoop::VirtualMainLoop() {
  adoptMainThread();
}

void VirtualMainLoop::post(Closure work) {
  const MutexLock lock(mutex_);
  posted_.push_back(std::move(work));
}

Timer VirtualMainLoop::after(Duration delay, Closure work) {
  const Key key{now_ + delay, serial_++};
  timers_.emplace(key, std::move(work));
  return Timer(std::make_unique<Source>(*this, key));
}

void VirtualMainLoop::runPosted() {
  for (;;) {
    Closure work;
    {
      const MutexLock lock(mutex_);
      if (posted_.empty()) return;
      work = std::move(posted_.front());
      posted_.pop_front();
    }
    work();
  }
}

void VirtualMainLoop::advance(Duration by) {
  const TimePoint end = now_ + by;
  runPosted();
  while (!timers_.empty() && timers_.begin()->first.first <= end) {
    auto timer = timers_.extract(timers_.begin());
    now_ = timer.key().first;
    timer.mapped()();
    runPosted();
  }
  now_ = end;
}

}  // namespace vesko::fakes
