#include "base/background_queue.h"

#include <system_error>
#include <utility>

namespace vesko {

SerialQueue::~SerialQueue() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    jobs_.clear();
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

bool SerialQueue::post(std::move_only_function<void()> job) {
  const std::lock_guard lock(mutex_);
  if (!thread_.joinable()) {
    try {
      thread_ = std::thread([this] { work(); });
    } catch (const std::system_error&) {
      return false;
    }
  }
  jobs_.push_back(std::move(job));
  wake_.notify_one();
  return true;
}

void SerialQueue::work() {
  for (;;) {
    std::move_only_function<void()> job;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
      if (ending_) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
  }
}

}  // namespace vesko
