// Splits a piece of work over a few short-lived threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace vesko {

/// How many threads pay for `units` of work when each should have `unitsPerThread` at least. Two
/// at most: a capture should not take the whole machine from the applications it looks at.
inline int threadsFor(std::size_t units, std::size_t unitsPerThread) {
  const std::size_t useful = units / unitsPerThread;
  const std::size_t available = std::min(std::thread::hardware_concurrency(), 2U);
  return static_cast<int>(std::clamp<std::size_t>(useful, 1, std::max<std::size_t>(available, 1)));
}

/// Calls work(0) to work(count - 1), each once, and returns when all have ended. `work` does not
/// throw.
template <class Work>
void runParallel(int count, const Work& work) {
  std::vector<std::jthread> threads;
  for (int part = 1; part < count; ++part) {
    try {
      threads.emplace_back([&work, part] { work(part); });
    } catch (const std::system_error&) {
      work(part);  // no thread to be had
    }
  }
  work(0);
}

}  // namespace vesko
