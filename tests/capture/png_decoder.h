// Decodes a PNG file with an implementation that is not ours.
#pragma once

#include <spng.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/image.h"

namespace vesko::test {

struct DecodedPng {
  PixelSize size;
  bool hasAlpha = false;
  std::vector<std::uint8_t> rgba;  ///< straight alpha

  std::uint32_t argb(int x, int y) const {
    const std::uint8_t* at =
        &rgba[4 * (static_cast<std::size_t>(y) * static_cast<std::size_t>(size.width) +
                   static_cast<std::size_t>(x))];
    return static_cast<std::uint32_t>(at[3] << 24 | at[0] << 16 | at[1] << 8 | at[2]);
  }
};

/// Nothing unless the whole file is valid, checksums included.
inline std::optional<DecodedPng> decodePng(std::span<const std::byte> file) {
  const std::unique_ptr<spng_ctx, void (*)(spng_ctx*)> context(spng_ctx_new(0), spng_ctx_free);
  spng_set_crc_action(context.get(), SPNG_CRC_ERROR, SPNG_CRC_ERROR);
  spng_set_png_buffer(context.get(), file.data(), file.size());
  spng_ihdr header{};
  std::size_t bytes = 0;
  if (spng_get_ihdr(context.get(), &header) != 0 ||
      spng_decoded_image_size(context.get(), SPNG_FMT_RGBA8, &bytes) != 0)
    return std::nullopt;
  DecodedPng decoded{{static_cast<int>(header.width), static_cast<int>(header.height)},
                     header.color_type == SPNG_COLOR_TYPE_TRUECOLOR_ALPHA,
                     std::vector<std::uint8_t>(bytes)};
  if (spng_decode_image(context.get(), decoded.rgba.data(), bytes, SPNG_FMT_RGBA8, 0) != 0 ||
      spng_decode_chunks(context.get()) != 0)
    return std::nullopt;
  return decoded;
}

}  // namespace vesko::test
