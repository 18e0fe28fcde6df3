#include "tools/png_encoder.h"

#include <libdeflate.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/parallel.h"
#include "tools/row_deflater.h"

namespace vesko {
namespace {

constexpr std::array<std::uint8_t, 8> signature{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
constexpr std::size_t chunkOverhead = 12;
constexpr std::size_t headerSize = 13;
// Deflate with a window of 32 KiB, fastest level (RFC 1950).
constexpr std::array<std::uint8_t, 2> zlibHeader{0x78, 0x01};
constexpr std::uint8_t filterNone = 0;
constexpr std::uint8_t filterSub = 1;
constexpr std::uint8_t filterUp = 2;
constexpr std::uint8_t filterPaeth = 4;

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

std::uint8_t straight(std::uint32_t premultiplied, std::uint32_t alpha) {
  if (alpha == 0) return 0;
  return static_cast<std::uint8_t>(std::min(255U, (premultiplied * 255 + alpha / 2) / alpha));
}

void storeLittleEndian(std::uint8_t* to, std::uint32_t value) {
  if constexpr (std::endian::native == std::endian::big) value = __builtin_bswap32(value);
  std::memcpy(to, &value, sizeof(value));
}

/// The row as PNG stores it, without its filter byte. Writes one byte more than the row has.
void packRow(const Image& image, int y, std::uint8_t* to) {
  const std::uint32_t* row = image.row(y);
  if (image.opaque) {
    // Four bytes at once; the next pixel overwrites the fourth.
    for (int x = 0; x < image.size.width; ++x, to += 3)
      storeLittleEndian(to, __builtin_bswap32(row[x]) >> 8);
    return;
  }
  for (int x = 0; x < image.size.width; ++x, to += 4) {
    const std::uint32_t pixel = row[x];
    const std::uint32_t alpha = pixel >> 24;
    to[0] = straight(pixel >> 16 & 255, alpha);
    to[1] = straight(pixel >> 8 & 255, alpha);
    to[2] = straight(pixel & 255, alpha);
    to[3] = static_cast<std::uint8_t>(alpha);
  }
}

/// Whether so many pixels differ from both neighbours that predicting them from those pays. What
/// is drawn repeats pixels; what was photographed or shaded does not.
bool isShaded(const std::uint32_t* row, const std::uint32_t* above, int width) {
  int unlike = 0;
  // Without branches the compiler takes several pixels at a time.
  for (int x = 1; x < width; ++x)
    unlike += static_cast<int>(row[x] != row[x - 1]) & static_cast<int>(row[x] != above[x]);
  return unlike > width / 2;
}

std::uint8_t paeth(int left, int up, int corner) {
  const int toLeft = std::abs(up - corner);
  const int toUp = std::abs(left - corner);
  const int toCorner = std::abs(left + up - 2 * corner);
  const int nearer = toUp <= toCorner ? up : corner;
  return static_cast<std::uint8_t>(toLeft <= toUp && toLeft <= toCorner ? left : nearer);
}

std::size_t magnitude(std::span<const std::uint8_t> residuals) {
  std::size_t sum = 0;
  for (const std::uint8_t byte : residuals)
    sum += static_cast<std::size_t>(std::abs(static_cast<std::int8_t>(byte)));
  return sum;
}

/// Filters rows of shaded pixels: of the ways to predict a byte, the one that leaves least.
class Filter {
 public:
  Filter(std::size_t rowBytes, std::size_t pixelBytes)
      : pixelBytes_(pixelBytes),
        row_(rowBytes + pixelBytes + 1),
        above_(rowBytes + pixelBytes + 1),
        trial_(rowBytes) {}

  /// Writes filter byte and row.
  void filterRow(const Image& image, int y, std::uint8_t* to) {
    // A pixel of zeros stands left of each row.
    packRow(image, y, row_.data() + pixelBytes_);
    packRow(image, y - 1, above_.data() + pixelBytes_);
    const std::uint8_t* row = row_.data() + pixelBytes_;
    const std::uint8_t* above = above_.data() + pixelBytes_;
    const std::uint8_t* left = row_.data();
    const std::uint8_t* corner = above_.data();
    std::size_t least = SIZE_MAX;
    const auto attempt = [&](std::uint8_t filter, const auto& predicted) {
      for (std::size_t i = 0; i < trial_.size(); ++i)
        trial_[i] = static_cast<std::uint8_t>(row[i] - predicted(i));
      const std::size_t sum = magnitude(trial_);
      if (sum >= least) return;
      least = sum;
      *to = filter;
      std::ranges::copy(trial_, to + 1);
    };
    attempt(filterUp, [&](std::size_t i) { return above[i]; });
    attempt(filterSub, [&](std::size_t i) { return left[i]; });
    attempt(filterPaeth, [&](std::size_t i) { return paeth(left[i], above[i], corner[i]); });
  }

 private:
  std::size_t pixelBytes_;
  std::vector<std::uint8_t> row_;
  std::vector<std::uint8_t> above_;
  std::vector<std::uint8_t> trial_;
};

/// Some rows of the image, compressed by one thread.
struct Strip {
  int begin = 0;
  int end = 0;
  PageMemory memory;
  std::size_t size = 0;
  std::size_t rawSize = 0;
  std::uint32_t adler = 1;
  bool ok = false;

  void compress(const Image& image) {
    const std::size_t pixelBytes = image.opaque ? 3 : 4;
    const auto width = static_cast<std::size_t>(image.size.width);
    const std::size_t rowBytes = 1 + width * pixelBytes;
    rawSize = rowBytes * static_cast<std::size_t>(end - begin);
    memory = PageMemory(rawSize + rawSize / 16 + 4096);
    if (!memory) return;
    RowDeflater deflater(rowBytes, pixelBytes, {memory.as<std::uint8_t>(), memory.size()});
    if (!deflater.ok()) return;
    Filter filter(rowBytes - 1, pixelBytes);
    for (int y = begin; y < end; ++y) {
      const std::uint32_t* row = image.row(y);
      const std::uint32_t* above = y > 0 ? image.row(y - 1) : nullptr;
      std::uint8_t* to = deflater.nextRow();
      if (above && std::memcmp(row, above, width * sizeof(*row)) == 0) {
        deflater.addZeroRow(filterUp);
      } else {
        if (above && isShaded(row, above, image.size.width)) {
          filter.filterRow(image, y, to);
        } else {
          *to = filterNone;
          packRow(image, y, to + 1);
        }
        deflater.addRow();
      }
      adler = libdeflate_adler32(adler, to, rowBytes);
    }
    deflater.finish(end == image.size.height);
    size = deflater.size();
    ok = deflater.ok();
  }
};

/// The Adler-32 sum of two pieces, the second of `size` bytes (RFC 1950).
std::uint32_t combineAdler(std::uint32_t first, std::uint32_t second, std::size_t size) {
  constexpr std::uint64_t modulus = 65521;
  const std::uint64_t firstLow = first & 0xFFFF;
  const std::uint64_t low = (firstLow + (second & 0xFFFF) + modulus - 1) % modulus;
  const std::uint64_t high =
      ((first >> 16) + (second >> 16) + (size % modulus) * (firstLow + modulus - 1)) % modulus;
  return static_cast<std::uint32_t>(high << 16 | low);
}

}  // namespace

std::optional<PngFile> encodePng(const Image& image) {
  // Below this a thread costs more than it gains.
  constexpr std::size_t pixelsPerThread = 1 << 18;
  const std::size_t pixels =
      static_cast<std::size_t>(image.size.width) * static_cast<std::size_t>(image.size.height);
  std::vector<Strip> strips(
      static_cast<std::size_t>(std::min(threadsFor(pixels, pixelsPerThread), image.size.height)));
  const int count = static_cast<int>(strips.size());
  runParallel(count, [&](int part) {
    Strip& strip = strips[static_cast<std::size_t>(part)];
    strip.begin = image.size.height * part / count;
    strip.end = image.size.height * (part + 1) / count;
    strip.compress(image);
  });

  std::size_t compressed = zlibHeader.size() + 4;
  for (const Strip& strip : strips) {
    if (!strip.ok) return std::nullopt;
    compressed += strip.size;
  }
  PngFile file{PageMemory(signature.size() + 3 * chunkOverhead + headerSize + compressed), 0};
  if (!file.memory) return std::nullopt;
  std::byte* out = file.memory.data();
  std::memcpy(out, signature.data(), signature.size());
  out += signature.size();
  storeBigEndian(out + 8, static_cast<std::uint32_t>(image.size.width));
  storeBigEndian(out + 12, static_cast<std::uint32_t>(image.size.height));
  const std::array<std::uint8_t, 5> format{8, static_cast<std::uint8_t>(image.opaque ? 2 : 6), 0, 0,
                                           0};
  std::memcpy(out + 16, format.data(), format.size());
  out = finishChunk(out, "IHDR", headerSize);
  std::byte* data = out + 8;
  std::memcpy(data, zlibHeader.data(), zlibHeader.size());
  data += zlibHeader.size();
  std::uint32_t adler = 1;
  for (const Strip& strip : strips) {
    std::memcpy(data, strip.memory.data(), strip.size);
    data += strip.size;
    adler = combineAdler(adler, strip.adler, strip.rawSize);
  }
  storeBigEndian(data, adler);
  out = finishChunk(out, "IDAT", compressed);
  out = finishChunk(out, "IEND", 0);
  file.size = static_cast<std::size_t>(out - file.memory.data());
  return file;
}

}  // namespace vesko
