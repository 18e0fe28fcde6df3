// Colours of a picture's own profile (ICC.1) to sRGB. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace vesko {

/// What lies in the four bytes of a pixel.
enum class PixelContent {
  bgra,
  cmyk,          ///< 0 is no ink
  cmykInverted,  ///< 0 is full ink, as Adobe writes JPEG files
};

class ColorTransform {
 public:
  /// Leaves pixels of BGRA as they are; turns CMYK into sRGB by the plain formula.
  ColorTransform() = default;

  /// A profile that is broken, or of another colour space than the pixels, counts as none.
  ColorTransform(std::span<const std::byte> profile, PixelContent content);

  bool changesAnything() const { return transform_ || content_ != PixelContent::bgra; }

  /// In place, to BGRA. Alpha stays. Several threads at once.
  void apply(std::uint32_t* pixels, std::size_t count) const;

 private:
  PixelContent content_ = PixelContent::bgra;
  std::shared_ptr<void> transform_;  ///< the library's
};

}  // namespace vesko
