// Short references, as e12, for the long paths of elements. A path keeps its reference, so the same
// element reads the same in every snapshot. Any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <expected>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/mutex.h"

namespace vesko::mcp {

class ElementRefs {
 public:
  struct Limits {
    std::size_t count = 50'000;
    std::size_t bytes = 32 << 20;
  };

  ElementRefs() = default;
  explicit ElementRefs(Limits limits) : limits_(limits) {}

  /// The oldest references end when there are too many.
  std::string refOf(const std::string& path);

  /// The path that a reference stands for; a path stands for itself. The error says what to do.
  std::expected<std::string, std::string> pathOf(const std::string& element);

 private:
  const Limits limits_ = {};
  Mutex mutex_;
  /// A deque leaves the texts where they are, so that the map may look at them.
  std::deque<std::string> paths_ VESKO_GUARDED_BY(mutex_);
  std::uint64_t first_ VESKO_GUARDED_BY(mutex_) = 1;  ///< number of the first in paths_
  std::size_t bytes_ VESKO_GUARDED_BY(mutex_) = 0;
  std::unordered_map<std::string_view, std::uint64_t> numbers_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko::mcp
