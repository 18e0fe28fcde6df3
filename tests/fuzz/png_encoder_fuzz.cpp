// Images drawn by the input: what the encoder writes must decode to the same pixels.
#include "tools/png_encoder.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "capture/png_decoder.h"

namespace {

constexpr std::size_t maxPixels = 1 << 18;

/// Bytes below 128 are colours, those above repeat the pixel before: runs, glyphs and noise.
std::vector<std::uint32_t> draw(const std::uint8_t* data, std::size_t size, bool opaque) {
  std::vector<std::uint32_t> pixels;
  for (std::size_t i = 0; i < size && pixels.size() < maxPixels; ++i) {
    if (data[i] < 128 || pixels.empty()) {
      const std::uint32_t color = data[i] * 0x010307U & 0xFFFFFFU;
      // Straight and premultiplied colours agree where alpha is none or full.
      const bool clear = !opaque && data[i] % 5 == 0;
      pixels.push_back(clear ? 0 : 0xFF000000U | color);
    } else {
      const std::size_t run = static_cast<std::size_t>(data[i] - 127) * 5;
      pixels.insert(pixels.end(), run, pixels.back());
    }
  }
  return pixels;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  const std::size_t width = 1 + (static_cast<std::size_t>(data[0]) | data[1] << 8) % 1500;
  const bool opaque = data[2] % 2 == 0;
  std::vector<std::uint32_t> pixels = draw(data + 3, size - 3, opaque);
  const std::size_t height = (pixels.size() + width - 1) / width;
  pixels.resize(width * height, pixels.back());

  vesko::Image image;
  image.size = {static_cast<int>(width), static_cast<int>(height)};
  image.stride = static_cast<std::ptrdiff_t>(width);
  image.opaque = opaque;
  image.pixels = pixels.data();
  const auto file = vesko::encodePng(image);
  if (!file) std::abort();
  const auto decoded = vesko::test::decodePng(file->bytes());
  if (!decoded || decoded->size != image.size) std::abort();
  for (int y = 0; y < image.size.height; ++y) {
    for (int x = 0; x < image.size.width; ++x) {
      if (decoded->argb(x, y) != image.row(y)[x]) std::abort();
    }
  }
  return 0;
}
