// The helper's event loop: handlers for descriptors, woken by poll(2) and by nothing else.
//
// One thread. A handler may watch and forget any descriptor, its own included.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace vesko {

class PollLoop {
 public:
  using Handler = std::function<void(short revents)>;

  /// POLLHUP and POLLERR are always reported. Watching a descriptor again replaces its handler.
  void watch(int fd, short events, Handler handler);
  void setEvents(int fd, short events);
  void forget(int fd) { watches_.erase(fd); }

  /// Runs `check` each time the period passes without a stop; for what no descriptor tells.
  void every(std::chrono::milliseconds period, std::function<void()> check);

  void run();
  void stop() { stopped_ = true; }

 private:
  struct Watch {
    short events;
    std::uint64_t serial;  ///< tells a descriptor from an earlier one with the same number
    std::shared_ptr<Handler> handler;
  };

  std::map<int, Watch> watches_;
  std::uint64_t nextSerial_ = 0;
  std::optional<std::chrono::milliseconds> period_;
  std::function<void()> check_;
  bool stopped_ = false;
};

}  // namespace vesko
