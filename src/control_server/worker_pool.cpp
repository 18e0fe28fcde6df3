#include "control_server/worker_pool.h"

#include <utility>

namespace vesko {

void WorkerPool::post(Job job) {
  const std::lock_guard lock(mutex_);
  if (stopped_) return;
  jobs_.push_back(std::move(job));
  if (jobs_.size() > idle_ && threads_.size() < maxThreads_)
    threads_.emplace_back([this] { work(); });
  wake_.notify_one();
}

void WorkerPool::stop() {
  std::vector<std::thread> threads;
  {
    std::deque<Job> dropped;  // destroyed without the lock: jobs may hold anything
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    dropped.swap(jobs_);
    threads.swap(threads_);
  }
  wake_.notify_all();
  for (std::thread& thread : threads) thread.join();
}

void WorkerPool::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    ++idle_;
    wake_.wait(lock, [this] { return stopped_ || !jobs_.empty(); });
    --idle_;
    if (stopped_) return;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    job = nullptr;  // what the job holds is released before the lock is taken again
    lock.lock();
  }
}

}  // namespace vesko
