// Memory for an image: its pixels may be written until the image is handed on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "base/page_memory.h"
#include "platform/image.h"

namespace vesko {

struct WritableImage {
  Image image;
  std::uint32_t* pixels = nullptr;

  /// `pixels` is null when there is no memory for it. Sides are positive.
  static WritableImage make(PixelSize size, bool opaque) {
    const auto count = static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
    auto memory = std::make_shared<PageMemory>(count * sizeof(std::uint32_t));
    WritableImage made;
    if (!*memory) return made;
    made.pixels = memory->as<std::uint32_t>();
    made.image = {.size = size,
                  .stride = size.width,
                  .opaque = opaque,
                  .pixels = made.pixels,
                  .storage = std::move(memory)};
    return made;
  }
};

}  // namespace vesko
