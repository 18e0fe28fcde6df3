#include "tools/png_encoder.h"

#include <libdeflate.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

namespace vesko {
namespace {

constexpr std::array<std::uint8_t, 8> signature{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
constexpr std::size_t chunkOverhead = 12;
constexpr std::uint8_t filterNone = 0;
constexpr std::uint8_t filterUp = 2;

void storeBigEndian(std::byte* to, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) *to++ = static_cast<std::byte>(value >> shift);
}

/// Completes a chunk whose data already lies at to + 8; returns its end.
std::byte* finishChunk(std::byte* to, const char* type, std::size_t dataSize) {
  storeBigEndian(to, static_cast<std::uint32_t>(dataSize));
  std::memcpy(to + 4, type, 4);
  const std::uint32_t crc = libdeflate_crc32(0, to + 4, dataSize + 4);
  storeBigEndian(to + 8 + dataSize, crc);
  return to + chunkOverhead + dataSize;
}

struct CompressorDeleter {
  void operator()(libdeflate_compressor* compressor) const {
    libdeflate_free_compressor(compressor);
  }
};

std::uint8_t straight(std::uint32_t premultiplied, std::uint32_t alpha) {
  if (alpha == 0) return 0;
  return static_cast<std::uint8_t>(std::min(255U, (premultiplied * 255 + alpha / 2) / alpha));
}

void copyRow(const Image& image, int y, std::uint8_t* to) {
  const std::uint32_t* row = image.row(y);
  for (int x = 0; x < image.size.width; ++x) {
    const std::uint32_t pixel = row[x];
    const std::uint32_t alpha = image.opaque ? 255 : pixel >> 24;
    if (image.opaque) {
      *to++ = static_cast<std::uint8_t>(pixel >> 16);
      *to++ = static_cast<std::uint8_t>(pixel >> 8);
      *to++ = static_cast<std::uint8_t>(pixel);
    } else {
      *to++ = straight(pixel >> 16 & 255, alpha);
      *to++ = straight(pixel >> 8 & 255, alpha);
      *to++ = straight(pixel & 255, alpha);
      *to++ = static_cast<std::uint8_t>(alpha);
    }
  }
}

}  // namespace

std::optional<PngFile> encodePng(const Image& image) {
  const std::size_t rowBytes = static_cast<std::size_t>(image.size.width) * (image.opaque ? 3 : 4);
  const std::size_t height = static_cast<std::size_t>(image.size.height);
  const PageMemory rows((rowBytes + 1) * height);
  const std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(
      libdeflate_alloc_compressor(2));
  if (!rows || !compressor) return std::nullopt;
  std::uint8_t* to = rows.as<std::uint8_t>();
  for (int y = 0; y < image.size.height; ++y, to += rowBytes + 1) {
    const bool repeats = y > 0 && std::memcmp(image.row(y), image.row(y - 1),
                                              static_cast<std::size_t>(image.size.width) * 4) == 0;
    *to = repeats ? filterUp : filterNone;
    if (!repeats) copyRow(image, y, to + 1);
  }

  const std::size_t bound = libdeflate_zlib_compress_bound(compressor.get(), rows.size());
  PngFile file{PageMemory(signature.size() + 3 * chunkOverhead + 13 + bound), 0};
  if (!file.memory) return std::nullopt;
  std::byte* out = file.memory.data();
  std::memcpy(out, signature.data(), signature.size());
  out += signature.size();
  storeBigEndian(out + 8, static_cast<std::uint32_t>(image.size.width));
  storeBigEndian(out + 12, static_cast<std::uint32_t>(image.size.height));
  const std::array<std::uint8_t, 5> format{8, static_cast<std::uint8_t>(image.opaque ? 2 : 6), 0, 0,
                                           0};
  std::memcpy(out + 16, format.data(), format.size());
  out = finishChunk(out, "IHDR", 13);
  const std::size_t compressed =
      libdeflate_zlib_compress(compressor.get(), rows.data(), rows.size(), out + 8, bound);
  if (compressed == 0) return std::nullopt;
  out = finishChunk(out, "IDAT", compressed);
  out = finishChunk(out, "IEND", 0);
  file.size = static_cast<std::size_t>(out - file.memory.data());
  return file;
}

}  // namespace vesko
