// Work that may wait for a disk or another process, away from the main thread and in order.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace vesko {

class BackgroundQueue {
 public:
  virtual ~BackgroundQueue() = default;
  /// Any thread. Jobs run one after the other in the order of posting, never before this returns.
  /// Those that have not begun when the queue is destroyed are dropped. False when the job cannot
  /// be run; it is dropped then.
  [[nodiscard]] virtual bool post(std::move_only_function<void()> job) = 0;
};

/// A thread of its own, made by the first post that the system grants one; it sleeps while there is
/// nothing to do.
class SerialQueue : public BackgroundQueue {
 public:
  SerialQueue() = default;
  /// Waits for the job that has begun.
  ~SerialQueue() override;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  [[nodiscard]] bool post(std::move_only_function<void()> job) override;

 private:
  void work();

  std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::deque<std::move_only_function<void()>> jobs_;
  std::thread thread_;
  bool ending_ = false;
};

}  // namespace vesko
