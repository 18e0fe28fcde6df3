// Work that runs in the order in which it came, on up to so many threads at once. A lane of one
// thread runs one piece after another. Threads start when they are first needed.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vesko::mcp {

class Lane {
 public:
  using Work = std::move_only_function<void()>;

  explicit Lane(std::size_t threads) : most_(threads) {}
  /// Runs what is still waiting and waits for all of it.
  ~Lane();

  void post(Work work);

 private:
  void run();

  const std::size_t most_;
  // The analysis does not know condition variables: everything below is used with mutex_ held, but
  // for the joining at the end.
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Work> waiting_;
  std::size_t idle_ = 0;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace vesko::mcp
