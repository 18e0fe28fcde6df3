#include "helper/mcp/lane.h"

#include <system_error>

namespace vesko::mcp {

Lane::~Lane() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void Lane::post(Work work) {
  std::unique_lock lock(mutex_);
  waiting_.push_back(std::move(work));
  if (waiting_.size() > idle_ && threads_.size() < most_) {
    try {
      threads_.emplace_back([this] { run(); });
    } catch (const std::system_error&) {
      if (!threads_.empty()) return;  // the threads there are go on with it
      // Without any thread the caller does it, or nobody would.
      Work only = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      only();
      return;
    }
  }
  changed_.notify_one();
}

void Lane::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    changed_.wait(lock, [&] { return ending_ || !waiting_.empty(); });
    --idle_;
    if (waiting_.empty()) return;
    Work work = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    work();
    work = nullptr;
    lock.lock();
  }
}

}  // namespace vesko::mcp
