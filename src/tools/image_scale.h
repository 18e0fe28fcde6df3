// Resampling of images. Any thread.
#pragma once

#include <optional>

#include "platform/image.h"

namespace vesko {

/// The image at another size, without aliasing: each result pixel weighs all source pixels in its
/// reach (separable Catmull-Rom kernel, widened by the reduction). Flat areas keep their exact
/// colour. Sides are positive; nothing when there is no memory for it.
std::optional<Image> scaleImage(const Image& image, PixelSize size);

}  // namespace vesko
