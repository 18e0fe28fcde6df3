// A few threads for work that may wait, made one by one as they are first needed. Idle threads
// sleep until there is work.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vesko {

class WorkerPool {
 public:
  using Job = std::move_only_function<void()>;

  explicit WorkerPool(std::size_t maxThreads) : maxThreads_(maxThreads) {}
  /// Cancels and waits for the jobs that have begun.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  /// Any thread. Jobs begin in the order of posting. After cancel() they are dropped. Where the
  /// system refuses a thread, those there are do the work, or else the caller.
  void post(Job job);

  /// Any thread. Drops the jobs that have not begun; does not wait for those that have.
  void cancel();

 private:
  bool addThread();
  void work();

  const std::size_t maxThreads_;
  std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::deque<Job> jobs_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool cancelled_ = false;
};

}  // namespace vesko
