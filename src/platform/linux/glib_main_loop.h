// The main loop on GLib's default main context, and the events of it that this back end needs.
// GTK, WebKit and GIO dispatch from the same context, so all of them share the main thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "base/main_loop.h"
#include "base/mutex.h"

struct _GMainLoop;
struct _GSource;

namespace vesko {

/// Owns one source of the default main context: destroying it guarantees that its callback does
/// not start again. The callback may destroy its own event. Main thread.
class GlibEvent {
 public:
  GlibEvent() = default;
  GlibEvent(GlibEvent&& other) noexcept : source_(std::exchange(other.source_, nullptr)) {}
  GlibEvent& operator=(GlibEvent&& other) noexcept {
    std::swap(source_, other.source_);
    other.reset();
    return *this;
  }
  ~GlibEvent() { reset(); }

  void reset();
  explicit operator bool() const { return source_ != nullptr; }

 protected:
  explicit GlibEvent(_GSource* source) : source_(source) {}

 private:
  _GSource* source_ = nullptr;
};

/// Calls back for as long as the descriptor is ready; end of file, hang-up and errors count as
/// ready. The descriptor stays the caller's and must outlive the watch.
class FdWatch : public GlibEvent {
 public:
  enum class For { reading, writing };
  /// `shared` takes turns with drawing and lets input go first: for streams that may never run dry.
  enum class Priority { normal, shared };

  FdWatch() = default;
  FdWatch(int fd, For what, Closure ready, Priority priority = Priority::normal);
};

/// Delivers one of SIGHUP, SIGINT, SIGTERM, SIGUSR1 and SIGUSR2 to the main thread. The signal's
/// default action returns when the last event for it is destroyed.
class UnixSignal : public GlibEvent {
 public:
  UnixSignal() = default;
  UnixSignal(int number, Closure arrived);
};

/// The thread that makes it becomes the main thread. Must outlive its timers and every thread that
/// posts; what is still queued when it is destroyed is dropped.
class GlibMainLoop : public MainLoop {
 public:
  GlibMainLoop();
  GlibMainLoop(const GlibMainLoop&) = delete;
  GlibMainLoop& operator=(const GlibMainLoop&) = delete;
  ~GlibMainLoop() override;

  void post(Closure work) override;
  /// Timers that are due at once fire in the order of their times, then of their making.
  Timer after(Duration delay, Closure work) override;
  TimePoint now() const override { return std::chrono::steady_clock::now(); }

  /// Main thread. Returns once quit() takes effect.
  void run();
  /// Any thread. Ends run() after the work that was posted before; without a running run(), the
  /// next one ends so.
  void quit();

 private:
  class TimerSource;
  using Key = std::pair<TimePoint, unsigned long>;

  void runPosted();
  void runTimers();
  void armTimers();

  _GMainLoop* loop_;
  _GSource* postSource_;
  _GSource* timerSource_;
  unsigned long serial_ = 0;
  std::map<Key, Closure> timers_;
  Mutex mutex_;
  std::vector<Closure> posted_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
