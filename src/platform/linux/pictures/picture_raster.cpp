#include "platform/linux/pictures/picture_raster.h"

#include <algorithm>
#include <limits>

#include "base/parallel.h"

namespace vesko {
namespace {

/// As many rows as make a cache line of a picture that is turned on its side.
constexpr int blockRows = 16;

bool turnsOnItsSide(int orientation) {
  return orientation >= 5;
}

/// Where a stored pixel goes: begin + x * right + y * down.
struct Placement {
  std::ptrdiff_t begin;
  std::ptrdiff_t right;
  std::ptrdiff_t down;
};

Placement placementOf(int orientation, std::ptrdiff_t width, std::ptrdiff_t height) {
  switch (orientation) {
    case 2:
      return {width - 1, -1, width};
    case 3:
      return {height * width - 1, -1, -width};
    case 4:
      return {(height - 1) * width, 1, -width};
    case 5:
      return {0, height, 1};
    case 6:
      return {height - 1, height, -1};
    case 7:
      return {width * height - 1, -height, -1};
    case 8:
      return {(width - 1) * height, -height, 1};
    default:
      return {0, 1, width};
  }
}

void premultiply(std::uint32_t& pixel) {
  const std::uint32_t alpha = pixel >> 24;
  const auto channel = [&](int shift) {
    return ((pixel >> shift & 255) * alpha + 127) / 255 << shift;
  };
  pixel = alpha << 24 | channel(16) | channel(8) | channel(0);
}

/// Colours must not exceed alpha, whatever the file holds.
void limitToAlpha(std::uint32_t& pixel) {
  const std::uint32_t alpha = pixel >> 24;
  const auto channel = [&](int shift) { return std::min(pixel >> shift & 255, alpha) << shift; };
  pixel = alpha << 24 | channel(16) | channel(8) | channel(0);
}

}  // namespace

std::expected<PictureRaster, PictureError> PictureRaster::make(const PictureForm& form,
                                                               ColorTransform colors) {
  constexpr std::uint32_t maxSide = std::numeric_limits<int>::max();
  if (form.width == 0 || form.height == 0) return std::unexpected(PictureError::damaged);
  if (form.width > maxSide || form.height > maxSide ||
      maxPictureBytes / (sizeof(std::uint32_t) + form.decoderBytesPerPixel) / form.width <
          form.height)
    return std::unexpected(PictureError::tooLarge);
  PixelSize upright{static_cast<int>(form.width), static_cast<int>(form.height)};
  PageMemory block;
  if (form.orientation != 1) {
    block = PageMemory(std::size_t{form.width} * blockRows * sizeof(std::uint32_t));
    if (!block) return std::unexpected(PictureError::tooLarge);
  }
  if (turnsOnItsSide(form.orientation)) std::swap(upright.width, upright.height);
  auto image = WritableImage::make(upright, form.alpha == PictureAlpha::none);
  if (!image.pixels) return std::unexpected(PictureError::tooLarge);
  return PictureRaster(form, std::move(colors), std::move(image), std::move(block));
}

std::uint32_t* PictureRaster::row() {
  const auto width = static_cast<std::ptrdiff_t>(form_.width);
  return block_ ? block_.as<std::uint32_t>() + rowsInBlock_ * width
                : image_.pixels + rowsDone_ * width;
}

void PictureRaster::rowDone() {
  if (!block_) {
    ++rowsDone_;
    return;
  }
  ++rowsInBlock_;
  if (rowsInBlock_ == blockRows || rowsDone_ + rowsInBlock_ == height()) placeBlock();
}

void PictureRaster::placeBlock() {
  const Placement to = placementOf(form_.orientation, width(), height());
  const auto* from = block_.as<const std::uint32_t>();
  std::uint32_t* begin = image_.pixels + to.begin + rowsDone_ * to.down;
  if (turnsOnItsSide(form_.orientation)) {
    for (int x = 0; x < width(); ++x) {
      for (int y = 0; y < rowsInBlock_; ++y)
        begin[x * to.right + y * to.down] = from[std::ptrdiff_t{y} * width() + x];
    }
  } else {
    for (int y = 0; y < rowsInBlock_; ++y) {
      for (int x = 0; x < width(); ++x)
        begin[x * to.right + y * to.down] = from[std::ptrdiff_t{y} * width() + x];
    }
  }
  rowsDone_ += rowsInBlock_;
  rowsInBlock_ = 0;
}

Image PictureRaster::finish() {
  block_ = {};
  const std::size_t count = std::size_t{form_.width} * form_.height;
  if (colors_.changesAnything() || form_.alpha != PictureAlpha::none) {
    // So little at a time that the second step finds it in the cache.
    constexpr std::size_t stepPixels = 8192;
    const int threads = threadsFor(count, 1 << 17);
    runParallel(threads, [&](int part) {
      const auto cut = [&](int at) {
        return count * static_cast<std::size_t>(at) / static_cast<std::size_t>(threads);
      };
      const std::size_t end = cut(part + 1);
      for (std::size_t at = cut(part); at < end; at += stepPixels) {
        const std::size_t step = std::min(stepPixels, end - at);
        std::uint32_t* pixels = image_.pixels + at;
        colors_.apply(pixels, step);
        if (form_.alpha == PictureAlpha::straight) std::for_each_n(pixels, step, premultiply);
        if (form_.alpha == PictureAlpha::premultiplied) std::for_each_n(pixels, step, limitToAlpha);
      }
    });
  }
  return std::move(image_.image);
}

}  // namespace vesko
