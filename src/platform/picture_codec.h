// Picture files: decoding what cameras and the web produce, and writing JPEG.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <span>

#include "platform/image.h"

namespace vesko {

enum class PictureError {
  unsupported,  ///< no format that is known here
  damaged,      ///< cut short or corrupt
  tooLarge,     ///< its pixels would take more memory than one picture may
};

enum class JpegError {
  tooLong,  ///< longer than the memory given; found out as early as possible
  failed,
};

/// Rows of an opaque image, from top to bottom.
struct RowBlock {
  const std::uint32_t* first = nullptr;
  std::ptrdiff_t stride = 0;  ///< pixels from one row to the next
  int count = 0;
};

/// Any thread, several at once.
class PictureCodec {
 public:
  /// The rows from `y` on; they stay valid until the next call. None gives the picture up.
  using RowSource = std::function<RowBlock(int y)>;

  virtual ~PictureCodec() = default;

  /// The picture as it is meant to be seen: upright, in sRGB, the first one of several. Its
  /// memory is bounded whatever the file claims, as far as the decoder of its format lets that be
  /// judged beforehand; the back end says where it does not.
  virtual std::expected<Image, PictureError> decode(std::span<const std::byte> file) = 0;

  /// Writes a JPEG file of `size` pixels into `out` and returns its length. `quality` is between 0
  /// and 1.
  virtual std::expected<std::size_t, JpegError> encodeJpeg(PixelSize size, double quality,
                                                           const RowSource& rows,
                                                           std::span<std::byte> out) = 0;
};

}  // namespace vesko
