#include "platform/linux/x11_watch.h"

#include <sys/socket.h>
#include <xcb/xcbext.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <system_error>
#include <thread>
#include <vector>

#include "base/mutex.h"

namespace vesko {

/// One thread for all, made when first needed; without anything to watch it sleeps.
class X11Watcher {
 public:
  static X11Watcher& shared() {
    // Its thread goes on until the process ends.
    static auto* const watcher = new X11Watcher;
    return *watcher;
  }

  void add(X11Watch& watch) {
    watch.heard_ = xcb_total_read(watch.connection_);
    const MutexLock lock(mutex_);
    watch.due_ = Clock::now() + watch.patience_;
    watches_.push_back(&watch);
    if (!running_) start();
    // It comes in time by itself soon after an earlier one.
    if (watch.due_ < wakesAt_) added_.notify_one();
  }

  void remove(X11Watch& watch) {
    const MutexLock lock(mutex_);
    std::erase(watches_, &watch);
  }

 private:
  using Clock = X11Watch::Clock;

  void start() VESKO_REQUIRES(mutex_) {
    try {
      std::thread([this] { run(); }).detach();
      running_ = true;
    } catch (const std::system_error&) {
      // Nothing is bounded then; the next one tries again.
    }
  }

  void run() {
    const MutexLock lock(mutex_);
    for (;;) {
      const auto now = Clock::now();
      for (X11Watch* each : watches_) {
        if (each->due_ <= now) look(*each, now);
      }
      const auto next = std::ranges::min_element(watches_, {}, &X11Watch::due_);
      wakesAt_ = next == watches_.end() ? Clock::time_point::max() : (*next)->due_;
      // A copy: the wait reads its argument after it has let go of the lock.
      const Clock::time_point until = wakesAt_;
      if (until == Clock::time_point::max())
        added_.wait(mutex_);
      else
        added_.wait_until(mutex_, until);
    }
  }

  static void look(X11Watch& watch, Clock::time_point now) {
    const std::uint64_t heard = xcb_total_read(watch.connection_);
    watch.due_ = now + watch.patience_;
    // As if the server had closed its end.
    if (heard == watch.heard_) ::shutdown(xcb_get_file_descriptor(watch.connection_), SHUT_RD);
    watch.heard_ = heard;
  }

  Mutex mutex_;
  std::condition_variable_any added_;
  std::vector<X11Watch*> watches_ VESKO_GUARDED_BY(mutex_);
  Clock::time_point wakesAt_ VESKO_GUARDED_BY(mutex_) = Clock::time_point::max();
  bool running_ VESKO_GUARDED_BY(mutex_) = false;
};

X11Watch::X11Watch(xcb_connection_t* connection, std::chrono::milliseconds patience)
    : connection_(connection), patience_(patience) {
  X11Watcher::shared().add(*this);
}

X11Watch::~X11Watch() {
  X11Watcher::shared().remove(*this);
}

}  // namespace vesko
