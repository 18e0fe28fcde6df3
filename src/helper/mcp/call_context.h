// One request under way: whether its client still wants it, and how far it is.
//
// The worker that carries it out owns the flow; cancel() comes from the reading thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace vesko::mcp {

class CallContext {
 public:
  /// Sends one progress notification.
  using Report = std::function<void(double done, std::optional<double> total, std::string message)>;

  explicit CallContext(Report report = {}) : report_(std::move(report)) {}

  /// Ends waits at once and interrupts what is under way. Any thread.
  void cancel();
  bool cancelled() const;

  /// Waits; false as soon as the request is cancelled.
  bool wait(std::chrono::milliseconds time) const;

  /// `interrupt` runs once if the request is cancelled before the guard goes; at once when it
  /// already is.
  class Interruptible {
   public:
    Interruptible(CallContext& call, std::function<void()> interrupt);
    ~Interruptible();
    Interruptible(const Interruptible&) = delete;
    Interruptible& operator=(const Interruptible&) = delete;

   private:
    CallContext& call_;
  };

  /// `done` grows from call to call. Only clients that asked for it are told.
  void progress(double done, std::optional<double> total, std::string message);

 private:
  // The analysis does not know condition variables: everything below is used with mutex_ held.
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool cancelled_ = false;
  std::function<void()> interrupt_;
  Report report_;
};

}  // namespace vesko::mcp
