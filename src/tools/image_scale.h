// Resampling of images. Any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/image.h"

namespace vesko {

/// An image at another size, row by row and without aliasing: each result pixel weighs all source
/// pixels in its reach (separable Catmull-Rom kernel, widened by the reduction). Flat areas keep
/// their exact colour.
class ImageScaler {
 public:
  /// Sides are positive. Keeps the image.
  ImageScaler(Image image, PixelSize size);
  ~ImageScaler();
  ImageScaler(const ImageScaler&) = delete;
  ImageScaler& operator=(const ImageScaler&) = delete;

  /// Writes `count` whole result rows from `first` on, without gaps. Several threads at once.
  void rows(int first, int count, std::uint32_t* out) const;

 private:
  struct Plan;
  std::unique_ptr<const Plan> plan_;
};

/// The whole image at another size; nothing when there is no memory for it.
std::optional<Image> scaleImage(const Image& image, PixelSize size);

}  // namespace vesko
