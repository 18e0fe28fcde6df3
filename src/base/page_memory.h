// Large working memory that goes back to the system the moment it is released. Any thread.
#pragma once

#include <cstddef>
#include <utility>

namespace vesko {

/// Whole pages outside the heap: the heap keeps what large blocks leave behind, and a companion
/// that is idle most of the day would hold a screen's worth of it. Zeroed at first use.
class PageMemory {
 public:
  PageMemory() = default;
  /// Empty when the system refuses.
  explicit PageMemory(std::size_t bytes);
  PageMemory(PageMemory&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  PageMemory& operator=(PageMemory&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~PageMemory();

  explicit operator bool() const { return data_ != nullptr; }
  std::size_t size() const { return size_; }
  std::byte* data() const { return static_cast<std::byte*>(data_); }
  template <class T>
  T* as() const {
    return static_cast<T*>(data_);
  }

 private:
  void* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace vesko
