// Pixels in memory, shared and cropped without copying.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vesko {

struct PixelSize {
  int width = 0;
  int height = 0;
  bool operator==(const PixelSize&) const = default;
};

/// Pixels of 0xAARRGGBB, colours premultiplied by alpha. Read-only once it is handed on, and then
/// any thread's.
struct Image {
  PixelSize size;
  /// Pixels from the beginning of one row to that of the next.
  std::ptrdiff_t stride = 0;
  /// The top byte of an opaque image is meaningless.
  bool opaque = true;
  const std::uint32_t* pixels = nullptr;
  /// Keeps `pixels` valid, whatever memory they lie in.
  std::shared_ptr<const void> storage;

  const std::uint32_t* row(int y) const { return pixels + y * stride; }
};

}  // namespace vesko
