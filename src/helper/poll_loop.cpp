#include "helper/poll_loop.h"

#include <poll.h>

#include <cerrno>
#include <vector>

namespace vesko {

void PollLoop::watch(int fd, short events, Handler handler) {
  watches_.insert_or_assign(
      fd, Watch{events, nextSerial_++, std::make_shared<Handler>(std::move(handler))});
}

void PollLoop::setEvents(int fd, short events) {
  if (const auto found = watches_.find(fd); found != watches_.end()) found->second.events = events;
}

void PollLoop::every(std::chrono::milliseconds period, std::function<void()> check) {
  period_ = period;
  check_ = std::move(check);
}

void PollLoop::run() {
  using Clock = std::chrono::steady_clock;
  auto due = period_ ? Clock::now() + *period_ : Clock::time_point::max();
  std::vector<pollfd> ready;
  std::vector<std::uint64_t> serials;
  while (!stopped_) {
    ready.clear();
    serials.clear();
    for (const auto& [fd, watch] : watches_) {
      ready.push_back({.fd = fd, .events = watch.events, .revents = 0});
      serials.push_back(watch.serial);
    }
    int timeout = -1;
    if (period_) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
      timeout = left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }
    if (::poll(ready.data(), ready.size(), timeout) < 0) {
      if (errno != EINTR) return;
      continue;
    }
    if (period_ && Clock::now() >= due) {
      due = Clock::now() + *period_;
      check_();
    }
    for (std::size_t i = 0; i < ready.size() && !stopped_; ++i) {
      if (ready[i].revents == 0) continue;
      const auto found = watches_.find(ready[i].fd);
      if (found == watches_.end() || found->second.serial != serials[i]) continue;
      const auto handler = found->second.handler;  // outlives a forget() inside the call
      (*handler)(ready[i].revents);
    }
  }
}

}  // namespace vesko
