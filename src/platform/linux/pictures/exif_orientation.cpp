#include "platform/linux/pictures/exif_orientation.h"

#include <cstdint>
#include <cstring>

namespace vesko {
namespace {

constexpr std::uint32_t orientationTag = 0x0112;
constexpr std::uint32_t shortType = 3;
constexpr std::size_t entryBytes = 12;

class TiffFields {
 public:
  TiffFields(std::span<const std::byte> bytes, bool bigEndian)
      : bytes_(bytes), bigEndian_(bigEndian) {}

  /// 0 beyond the end, which no caller takes for an answer.
  std::uint32_t number(std::size_t at, std::size_t size) const {
    if (at > bytes_.size() || bytes_.size() - at < size) return 0;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const std::size_t from = bigEndian_ ? at + i : at + size - 1 - i;
      value = value << 8 | std::to_integer<std::uint32_t>(bytes_[from]);
    }
    return value;
  }

 private:
  std::span<const std::byte> bytes_;
  bool bigEndian_;
};

}  // namespace

int exifOrientation(std::span<const std::byte> exif) {
  if (exif.size() >= 6 && std::memcmp(exif.data(), "Exif\0\0", 6) == 0) exif = exif.subspan(6);
  if (exif.size() < 8) return 1;
  const bool bigEndian = std::memcmp(exif.data(), "MM", 2) == 0;
  if (!bigEndian && std::memcmp(exif.data(), "II", 2) != 0) return 1;
  const TiffFields fields(exif, bigEndian);
  if (fields.number(2, 2) != 42) return 1;
  const std::size_t directory = fields.number(4, 4);
  const std::uint32_t count = fields.number(directory, 2);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t entry = directory + 2 + i * entryBytes;
    if (entry >= exif.size()) break;
    if (fields.number(entry, 2) != orientationTag || fields.number(entry + 2, 2) != shortType)
      continue;
    const std::uint32_t value = fields.number(entry + 8, 2);
    return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
  }
  return 1;
}

}  // namespace vesko
