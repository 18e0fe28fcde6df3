// How a picture lies, from its Exif data (CIPA DC-008, tag 0x0112). Any thread.
#pragma once

#include <cstddef>
#include <span>

namespace vesko {

/// 1 (upright) to 8; 1 where the data says nothing sensible. `exif` is the TIFF structure, with or
/// without "Exif" and two zeros before it.
int exifOrientation(std::span<const std::byte> exif);

}  // namespace vesko
