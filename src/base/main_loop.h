// The queue of the main thread: posted work, cancellable timers and a monotonic clock.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace vesko {

using Duration = std::chrono::steady_clock::duration;
using TimePoint = std::chrono::steady_clock::time_point;
using Closure = std::move_only_function<void()>;

/// Owns one pending timer; destroying or cancelling it guarantees that it no longer fires.
/// Main thread.
class Timer {
 public:
  class Source {
   public:
    virtual ~Source() = default;
    virtual bool pending() const = 0;
  };

  Timer() = default;
  explicit Timer(std::unique_ptr<Source> source) : source_(std::move(source)) {}

  void cancel() { source_.reset(); }
  bool pending() const { return source_ && source_->pending(); }

 private:
  std::unique_ptr<Source> source_;
};

class MainLoop {
 public:
  virtual ~MainLoop() = default;

  /// Any thread. Runs `work` on the main thread, in the order of posting, never before returning.
  virtual void post(Closure work) = 0;

  /// Main thread. Runs `work` once after `delay` unless the timer is cancelled or destroyed first.
  [[nodiscard]] virtual Timer after(Duration delay, Closure work) = 0;

  /// Any thread. Monotonic.
  virtual TimePoint now() const = 0;
};

}  // namespace vesko
