// Keeps one object that is costly to make, as a connection, for whoever needs it next, and lets it
// go when nobody did for a while.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "base/mutex.h"

namespace vesko {

/// Any thread. No thread exists while nothing is kept.
template <class T>
class KeptForNext {
 public:
  explicit KeptForNext(std::chrono::milliseconds keepFor) : keepFor_(keepFor) {}
  KeptForNext(const KeptForNext&) = delete;
  KeptForNext& operator=(const KeptForNext&) = delete;
  ~KeptForNext() {
    std::jthread releaser;
    {
      const MutexLock lock(mutex_);
      closing_ = true;
      releaser = std::move(releaser_);
    }
    closed_.notify_all();
  }

  /// Null when nothing is kept.
  std::unique_ptr<T> take() {
    const MutexLock lock(mutex_);
    return std::move(kept_);
  }

  /// With one kept already, this one goes.
  void giveBack(std::unique_ptr<T> object) {
    std::jthread ended;
    const MutexLock lock(mutex_);
    if (kept_) return;
    kept_ = std::move(object);
    releaseAt_ = Clock::now() + keepFor_;
    if (releasing_) return;
    ended = std::move(releaser_);  // has nothing left to do
    try {
      releaser_ = std::jthread([this] { releaseWhenUnused(); });
      releasing_ = true;
    } catch (const std::system_error&) {
      kept_.reset();  // nobody would release it
    }
  }

 private:
  using Clock = std::chrono::steady_clock;

  void releaseWhenUnused() {
    std::unique_ptr<T> released;
    const MutexLock lock(mutex_);
    while (!closing_ && Clock::now() < releaseAt_) {
      // A copy: the wait reads its argument after it has let go of the lock.
      const Clock::time_point deadline = releaseAt_;
      closed_.wait_until(mutex_, deadline);
    }
    // One that is at work comes back later, and starts a new wait then.
    released = std::move(kept_);
    releasing_ = false;
  }

  const std::chrono::milliseconds keepFor_;
  Mutex mutex_;
  std::condition_variable_any closed_;
  std::unique_ptr<T> kept_ VESKO_GUARDED_BY(mutex_);
  Clock::time_point releaseAt_ VESKO_GUARDED_BY(mutex_);
  bool closing_ VESKO_GUARDED_BY(mutex_) = false;
  bool releasing_ VESKO_GUARDED_BY(mutex_) = false;
  std::jthread releaser_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
