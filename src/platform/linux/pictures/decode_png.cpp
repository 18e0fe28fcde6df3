#include <spng.h>

#include <cstring>
#include <optional>

#include "platform/linux/pictures/exif_orientation.h"
#include "platform/linux/pictures/picture_decoders.h"
#include "platform/linux/pictures/picture_raster.h"
#include "platform/linux/pictures/pixel_rows.h"

namespace vesko {
namespace {

constexpr std::size_t maxChunkBytes = 16 << 20;
constexpr std::size_t maxChunksBytes = 32 << 20;

/// The eXIf chunk, which may also follow the pixels. Nothing is promised about its content.
std::span<const std::byte> exifChunk(std::span<const std::byte> file) {
  constexpr std::size_t signatureBytes = 8;
  constexpr std::size_t overheadBytes = 12;  // length, type and checksum
  std::size_t at = signatureBytes;
  while (at <= file.size() && file.size() - at >= overheadBytes) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < 4; ++i)
      length = length << 8 | std::to_integer<std::size_t>(file[at + i]);
    if (length > file.size() - at - overheadBytes) break;
    if (std::memcmp(&file[at + 4], "eXIf", 4) == 0) return file.subspan(at + 8, length);
    at += overheadBytes + length;
  }
  return {};
}

bool readRows(spng_ctx* context, PictureRaster& raster) {
  const std::size_t rowBytes = static_cast<std::size_t>(raster.width()) * 4;
  if (spng_decode_image(context, nullptr, 0, SPNG_FMT_RGBA8,
                        SPNG_DECODE_TRNS | SPNG_DECODE_PROGRESSIVE) != 0)
    return false;
  for (int y = 0; y < raster.height(); ++y) {
    std::uint32_t* row = raster.row();
    const int result = spng_decode_row(context, row, rowBytes);
    if (result != 0 && !(result == SPNG_EOI && y == raster.height() - 1)) return false;
    swapRedAndBlue(row, raster.width());
    raster.rowDone();
  }
  return true;
}

/// Rows of an interlaced picture come in pieces.
bool readWhole(spng_ctx* context, PictureRaster& raster) {
  const std::size_t width = static_cast<std::size_t>(raster.width());
  const PageMemory memory(width * static_cast<std::size_t>(raster.height()) * 4);
  if (!memory || spng_decode_image(context, memory.data(), memory.size(), SPNG_FMT_RGBA8,
                                   SPNG_DECODE_TRNS) != 0)
    return false;
  const auto* from = memory.as<const std::uint32_t>();
  for (int y = 0; y < raster.height(); ++y, from += width) {
    std::uint32_t* row = raster.row();
    std::copy_n(from, width, row);
    swapRedAndBlue(row, raster.width());
    raster.rowDone();
  }
  return true;
}

}  // namespace

std::expected<Image, PictureError> decodePngPicture(std::span<const std::byte> file) {
  const std::unique_ptr<spng_ctx, decltype(&spng_ctx_free)> context(spng_ctx_new(0), spng_ctx_free);
  spng_ihdr header{};
  if (!context || spng_set_chunk_limits(context.get(), maxChunkBytes, maxChunksBytes) != 0 ||
      spng_set_crc_action(context.get(), SPNG_CRC_ERROR, SPNG_CRC_DISCARD) != 0 ||
      spng_set_png_buffer(context.get(), file.data(), file.size()) != 0 ||
      spng_get_ihdr(context.get(), &header) != 0)
    return std::unexpected(PictureError::damaged);

  spng_trns transparency{};
  const bool hasAlpha = header.color_type == SPNG_COLOR_TYPE_TRUECOLOR_ALPHA ||
                        header.color_type == SPNG_COLOR_TYPE_GRAYSCALE_ALPHA ||
                        spng_get_trns(context.get(), &transparency) == 0;
  spng_iccp profile{};
  std::span<const char> profileBytes;
  if (spng_get_iccp(context.get(), &profile) == 0)
    profileBytes = {profile.profile, profile.profile_len};

  const bool interlaced = header.interlace_method != SPNG_INTERLACE_NONE;
  auto raster =
      PictureRaster::make({.width = header.width,
                           .height = header.height,
                           .orientation = exifOrientation(exifChunk(file)),
                           .alpha = hasAlpha ? PictureAlpha::straight : PictureAlpha::none,
                           .decoderBytesPerPixel = interlaced ? sizeof(std::uint32_t) : 0},
                          ColorTransform(std::as_bytes(profileBytes), PixelContent::bgra));
  if (!raster) return std::unexpected(raster.error());
  if (!(interlaced ? readWhole : readRows)(context.get(), *raster))
    return std::unexpected(PictureError::damaged);
  return raster->finish();
}

}  // namespace vesko
