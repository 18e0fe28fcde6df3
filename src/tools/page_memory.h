// Large working memory that goes back to the system the moment it is released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "platform/image.h"

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

/// Memory for an image: its pixels may be written until the image is handed on.
struct WritableImage {
  Image image;
  std::uint32_t* pixels = nullptr;

  /// `pixels` is null when there is no memory for it. Sides are positive.
  static WritableImage make(PixelSize size, bool opaque);
};

}  // namespace vesko
