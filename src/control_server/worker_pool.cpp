#include "control_server/worker_pool.h"

#include <system_error>
#include <utility>

namespace vesko {

void WorkerPool::post(Job job) {
  {
    const std::lock_guard lock(mutex_);
    if (cancelled_) return;
    const bool wanted = jobs_.size() >= idle_ && threads_.size() < maxThreads_;
    if ((wanted && addThread()) || !threads_.empty()) {
      jobs_.push_back(std::move(job));
      wake_.notify_one();
      return;
    }
  }
  job();
}

bool WorkerPool::addThread() {
  try {
    threads_.emplace_back([this] { work(); });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

WorkerPool::~WorkerPool() {
  cancel();
  for (std::thread& thread : threads_) thread.join();
}

void WorkerPool::cancel() {
  std::deque<Job> dropped;  // destroyed without the lock: jobs may hold anything
  const std::lock_guard lock(mutex_);
  cancelled_ = true;
  dropped.swap(jobs_);
  wake_.notify_all();
}

void WorkerPool::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    ++idle_;
    wake_.wait(lock, [this] { return cancelled_ || !jobs_.empty(); });
    --idle_;
    if (cancelled_) return;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    job = nullptr;  // what the job holds is released before the lock is taken again
    lock.lock();
  }
}

}  // namespace vesko
