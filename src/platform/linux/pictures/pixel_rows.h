// Rows of libraries' pixel layouts to 0xAARRGGBB. Any thread.
#pragma once

#include <cstdint>

namespace vesko {

/// Bytes R, G, B, A in place.
inline void swapRedAndBlue(std::uint32_t* row, int count) {
  for (int x = 0; x < count; ++x) {
    const std::uint32_t pixel = row[x];
    row[x] = (pixel & 0xFF00FF00U) | (pixel & 0xFFU) << 16 | (pixel >> 16 & 0xFFU);
  }
}

/// Bytes R, G, B.
inline void fromRgb(const std::uint8_t* from, std::uint32_t* row, int count) {
  for (int x = 0; x < count; ++x, from += 3)
    row[x] = 0xFF000000U | static_cast<std::uint32_t>(from[0] << 16 | from[1] << 8 | from[2]);
}

}  // namespace vesko
