// Picture files: whatever decodes has pixels where it says, within its bound, and is written again.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/linux/pictures/linux_picture_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesko;
  LinuxPictureCodec codec;
  const auto image = codec.decode(std::as_bytes(std::span(data, size)));
  if (!image) return 0;
  if (image->size.width < 1 || image->size.height < 1) std::abort();
  // Of a large one, the first rows and the last.
  const std::int64_t rows = std::max<std::int64_t>(1, (1 << 18) / image->size.width);
  for (int y = 0; y < image->size.height; ++y) {
    if (y >= rows && y < image->size.height - rows) continue;
    for (int x = 0; x < image->size.width; ++x) {
      const std::uint32_t pixel = image->row(y)[x];
      const std::uint32_t alpha = image->opaque ? 255 : pixel >> 24;
      if ((pixel >> 16 & 255) > alpha || (pixel >> 8 & 255) > alpha || (pixel & 255) > alpha)
        std::abort();
    }
  }
  std::vector<std::byte> room(1 << 16);
  const auto written = codec.encodeJpeg(
      image->size, 0.55, [&](int y) { return RowBlock{image->row(y), image->stride, 1}; }, room);
  if (written && *written > room.size()) std::abort();
  return 0;
}
