// Where decoders put their rows: turns them upright, brings colours to sRGB and alpha to its
// premultiplied form, and refuses what would take too much memory before any is taken. One thread
// at a time; the last step uses up to two.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>

#include "base/page_memory.h"
#include "platform/linux/pictures/color_transform.h"
#include "platform/picture_codec.h"
#include "platform/writable_image.h"

namespace vesko {

/// What one picture may take while it is decoded, the decoder's own memory included: enough for a
/// JPEG file of 268 megapixels, or a HEIC file of 89.
inline constexpr std::uint64_t maxPictureBytes = 1ULL << 30;

enum class PictureAlpha { none, straight, premultiplied };

struct PictureForm {
  std::uint32_t width = 0;  ///< as stored, before it is turned upright
  std::uint32_t height = 0;
  int orientation = 1;  ///< Exif, 1 to 8
  PictureAlpha alpha = PictureAlpha::none;
  /// What the decoder takes beside the picture itself.
  std::uint64_t decoderBytesPerPixel = 0;
};

class PictureRaster {
 public:
  static std::expected<PictureRaster, PictureError> make(const PictureForm& form,
                                                         ColorTransform colors = {});

  int width() const { return static_cast<int>(form_.width); }
  int height() const { return static_cast<int>(form_.height); }

  /// Memory for the next row, of 0xAARRGGBB or what the colours are made for; zeroed or what a row
  /// before left there. Rows come from the top as they are stored.
  std::uint32_t* row();
  void rowDone();

  /// All rows have been given. The raster is used up.
  Image finish();

 private:
  PictureRaster(const PictureForm& form, ColorTransform colors, WritableImage image,
                PageMemory block)
      : form_(form),
        colors_(std::move(colors)),
        image_(std::move(image)),
        block_(std::move(block)) {}

  void placeBlock();

  PictureForm form_;
  ColorTransform colors_;
  WritableImage image_;
  /// A few rows that still lie as they are stored; none for an upright picture.
  PageMemory block_;
  int rowsDone_ = 0;
  int rowsInBlock_ = 0;
};

}  // namespace vesko
