#include "helper/mcp/call_context.h"

namespace vesko::mcp {

void CallContext::cancel() {
  const std::lock_guard lock(mutex_);
  if (cancelled_) return;
  cancelled_ = true;
  if (interrupt_) interrupt_();
  changed_.notify_all();
}

bool CallContext::cancelled() const {
  const std::lock_guard lock(mutex_);
  return cancelled_;
}

bool CallContext::wait(std::chrono::milliseconds time) const {
  std::unique_lock lock(mutex_);
  return !changed_.wait_for(lock, time, [&] { return cancelled_; });
}

CallContext::Interruptible::Interruptible(CallContext& call, std::function<void()> interrupt)
    : call_(call) {
  const std::lock_guard lock(call_.mutex_);
  if (call_.cancelled_) interrupt();
  call_.interrupt_ = std::move(interrupt);
}

CallContext::Interruptible::~Interruptible() {
  const std::lock_guard lock(call_.mutex_);
  call_.interrupt_ = nullptr;
}

void CallContext::progress(double done, std::optional<double> total, std::string message) {
  if (report_) report_(done, total, std::move(message));
}

}  // namespace vesko::mcp
