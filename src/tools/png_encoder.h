// Writing PNG (ISO/IEC 15948), tuned for pictures of screens: fast, and still compact. Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "platform/image.h"
#include "base/page_memory.h"

namespace vesko {

struct PngFile {
  PageMemory memory;
  std::size_t size = 0;

  std::span<const std::byte> bytes() const { return {memory.data(), size}; }
};

/// The whole file: 8-bit RGB, or RGBA with straight alpha for an image that is not opaque. Nothing
/// when there is no memory for it. Sides are positive.
std::optional<PngFile> encodePng(const Image& image);

}  // namespace vesko
