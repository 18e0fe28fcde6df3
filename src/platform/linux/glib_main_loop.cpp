#include "platform/linux/glib_main_loop.h"

#include <glib-unix.h>
#include <glib.h>

#include <algorithm>

#include "base/main_thread.h"

namespace vesko {
namespace {

// GDK_PRIORITY_REDRAW of the toolkit.
constexpr int drawingPriority = G_PRIORITY_HIGH_IDLE + 20;

gboolean runClosure(gpointer closure) {
  (*static_cast<Closure*>(closure))();
  return G_SOURCE_CONTINUE;
}

void deleteClosure(gpointer closure) {
  delete static_cast<Closure*>(closure);
}

// GLib keeps the closure until a dispatch that is under way has returned, so that a callback may
// destroy its own source.
void attach(GSource* source, Closure callback, int priority) {
  g_source_set_callback(source, runClosure, new Closure(std::move(callback)), deleteClosure);
  g_source_set_priority(source, priority);
  g_source_attach(source, nullptr);
}

gboolean dispatchClosure(GSource*, GSourceFunc function, gpointer closure) {
  return function(closure);
}

// A source without events of its own: it is dispatched when its ready time has come.
GSource* newReadyTimeSource(Closure callback) {
  static GSourceFuncs functions = {.prepare = nullptr,
                                   .check = nullptr,
                                   .dispatch = dispatchClosure,
                                   .finalize = nullptr,
                                   .closure_callback = nullptr,
                                   .closure_marshal = nullptr};
  GSource* source = g_source_new(&functions, sizeof(GSource));
  attach(source, std::move(callback), G_PRIORITY_DEFAULT);
  return source;
}

void destroySource(GSource* source) {
  g_source_destroy(source);
  g_source_unref(source);
}

// The steady clock and GLib's both count CLOCK_MONOTONIC. Rounded up, so that no timer is early.
gint64 readyTime(TimePoint at) {
  return std::chrono::ceil<std::chrono::microseconds>(at.time_since_epoch()).count();
}

GSource* newFdSource(int fd, FdWatch::For what, Closure ready, FdWatch::Priority priority) {
  GSource* source = g_unix_fd_source_new(fd, what == FdWatch::For::reading ? G_IO_IN : G_IO_OUT);
  g_source_set_callback(source, G_SOURCE_FUNC(+[](gint, GIOCondition, gpointer closure) {
                          return runClosure(closure);
                        }),
                        new Closure(std::move(ready)), deleteClosure);
  const bool shared = priority == FdWatch::Priority::shared;
  g_source_set_priority(source, shared ? drawingPriority : G_PRIORITY_DEFAULT);
  g_source_attach(source, nullptr);
  return source;
}

GSource* newSignalSource(int number, Closure arrived) {
  GSource* source = g_unix_signal_source_new(number);
  attach(source, std::move(arrived), G_PRIORITY_DEFAULT);
  return source;
}

}  // namespace

void GlibEvent::reset() {
  if (GSource* source = std::exchange(source_, nullptr)) destroySource(source);
}

FdWatch::FdWatch(int fd, For what, Closure ready, Priority priority)
    : GlibEvent(newFdSource(fd, what, std::move(ready), priority)) {}

UnixSignal::UnixSignal(int number, Closure arrived)
    : GlibEvent(newSignalSource(number, std::move(arrived))) {}

class GlibMainLoop::TimerSource : public Timer::Source {
 public:
  TimerSource(GlibMainLoop& loop, Key key) : loop_(loop), key_(key) {}
  ~TimerSource() override {
    assertMainThread();
    loop_.timers_.erase(key_);
  }
  bool pending() const override { return loop_.timers_.contains(key_); }

 private:
  GlibMainLoop& loop_;
  Key key_;
};

GlibMainLoop::GlibMainLoop()
    : loop_(g_main_loop_new(nullptr, FALSE)),
      postSource_(newReadyTimeSource([this] { runPosted(); })),
      timerSource_(newReadyTimeSource([this] { runTimers(); })) {
  adoptMainThread();
}

GlibMainLoop::~GlibMainLoop() {
  destroySource(timerSource_);
  destroySource(postSource_);
  g_main_loop_unref(loop_);
}

void GlibMainLoop::post(Closure work) {
  bool wake = false;
  {
    const MutexLock lock(mutex_);
    wake = posted_.empty();
    posted_.push_back(std::move(work));
  }
  if (wake) g_source_set_ready_time(postSource_, 0);
}

void GlibMainLoop::runPosted() {
  std::vector<Closure> batch;
  // Before the queue is emptied: a post behind it sets the time anew.
  g_source_set_ready_time(postSource_, -1);
  {
    const MutexLock lock(mutex_);
    batch.swap(posted_);
  }
  for (Closure& work : batch) {
    work();
    work = nullptr;
  }
}

Timer GlibMainLoop::after(Duration delay, Closure work) {
  assertMainThread();
  const TimePoint made = now();
  const Duration wait = std::clamp(delay, Duration::zero(), TimePoint::max() - made);
  const Key key{made + wait, serial_++};
  const auto placed = timers_.emplace(key, std::move(work)).first;
  if (placed == timers_.begin()) armTimers();
  return Timer(std::make_unique<TimerSource>(*this, key));
}

void GlibMainLoop::armTimers() {
  g_source_set_ready_time(timerSource_,
                          timers_.empty() ? -1 : readyTime(timers_.begin()->first.first));
}

void GlibMainLoop::runTimers() {
  // A timer made by these waits for the next turn, also when it is due at once.
  const Key end{now(), serial_};
  while (!timers_.empty() && timers_.begin()->first < end) {
    auto timer = timers_.extract(timers_.begin());
    timer.mapped()();
  }
  armTimers();
}

void GlibMainLoop::run() {
  g_main_loop_run(loop_);
}

void GlibMainLoop::quit() {
  post([this] { g_main_loop_quit(loop_); });
}

}  // namespace vesko
